#include <Kel/Assert.h>

#include <cstdio>
#include <cstdlib>

namespace Kel {

void assertFailed(char const* text, char const* file, int line) noexcept {
  std::fprintf(stderr, "Assertion failed: %s (%s:%d)\n", text, file, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kel
