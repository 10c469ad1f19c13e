// Writes the seed corpus of the value fuzz target: for each type, its default
// value as text and as log bytes, behind the header that chooses the type.
//
//   make_values_corpus <directory>
#include "ValueTypes.h"

#include <Kel/LogCodec.h>

#include <fstream>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: make_values_corpus <directory>\n";
    return 2;
  }
  auto const& types = fuzzing::valueTypes();
  for (std::size_t i = 0; i < types.size(); ++i) {
    Kel::TypeDesc const& t = *types[i];
    Kel::GenericValue v(t);
    Kel::String bytes;
    Kel::LogOut out(bytes);
    t.ops()->logWrite(out, v.get());
    std::string name(t.name());
    for (char& c : name) {
      if (c == ':') c = '_';
    }
    for (auto const& [mode, body] : {std::pair{'\0', v.strep()}, std::pair{'\1', bytes}}) {
      std::ofstream file(std::string(argv[1]) + (mode ? "/log-" : "/text-") + name,
                         std::ios::binary);
      file.put(static_cast<char>(i >> 8)).put(static_cast<char>(i & 0xFF)).put(mode);
      file.write(body.data(), static_cast<std::streamsize>(body.size()));
    }
  }
  return 0;
}
