// Feeds arbitrary text and log bytes to the value parsers of every value,
// enumeration, basic and network type, chosen by the input's first two bytes;
// the third byte's lowest bit chooses log bytes over text. Text either raises the range error or
// gives a value whose printed form parses back to the same value and prints alike; log bytes either
// raise the range or log error or give a value that the log carries back unchanged.
#include "ValueTypes.h"

#include <Kel/AttrLog.h>

#include <cmath>
#include <cstdlib>

namespace {

using fuzzing::valueTypes;
using Kel::TypeDesc;

// Equal, or both not-a-number where the type is a floating one (which
// never equals itself).
bool same(TypeDesc const& t, void const* a, void const* b) {
  if (t.ops()->equal(a, b)) return true;
  if (&t == &Kel::typeF32) {
    return std::isnan(*static_cast<Kel::F32 const*>(a)) &&
           std::isnan(*static_cast<Kel::F32 const*>(b));
  }
  if (&t == &Kel::typeF64 || &t == &Kel::typeSeconds) {
    return std::isnan(*static_cast<Kel::F64 const*>(a)) &&
           std::isnan(*static_cast<Kel::F64 const*>(b));
  }
  return false;
}

[[noreturn]] void fail(char const* what, TypeDesc const& t) {
  std::fprintf(stderr, "%s: %.*s\n", what, static_cast<int>(t.name().size()), t.name().data());
  std::abort();
}

void fromText(TypeDesc const& t, std::string_view text) {
  Kel::GenericValue v(t);
  try {
    v.strepIs(text);
  } catch (Kel::RangeException const&) {
    return;
  }
  Kel::String const printed = v.strep();
  // The invalid path id prints a form that never parses, deliberately.
  if (printed.find("<lspId=65536>") != Kel::String::npos) return;
  Kel::GenericValue back(t);
  back.strepIs(printed);
  if (!same(t, v.get(), back.get()) || back.strep() != printed) fail("text round trip", t);
}

void fromLog(TypeDesc const& t, std::string_view bytes) {
  Kel::GenericValue v(t);
  try {
    Kel::LogIn in(bytes);
    t.ops()->logRead(in, v.get());
  } catch (Kel::RangeException const&) {
    return;
  } catch (Kel::LogException const&) {
    return;
  }
  Kel::String written;
  Kel::LogOut out(written);
  t.ops()->logWrite(out, v.get());
  Kel::LogIn in(written);
  Kel::GenericValue back(t);
  t.ops()->logRead(in, back.get());
  if (!in.atEnd() || !same(t, v.get(), back.get())) fail("log round trip", t);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size < 3) return 0;
  auto const& types = valueTypes();
  TypeDesc const& t = *types[(std::size_t{data[0]} << 8 | data[1]) % types.size()];
  std::string_view const rest(reinterpret_cast<char const*>(data + 3), size - 3);
  if (data[2] & 1) {
    fromLog(t, rest);
  } else {
    fromText(t, rest);
  }
  return 0;
}
