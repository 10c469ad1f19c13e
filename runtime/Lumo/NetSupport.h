// Helpers shared by the network types and by nothing else: network byte
// order, the truncation check of every decoder, digit handling and the error
// texts the types have in common.
#ifndef LUMO_NETSUPPORT_H
#define LUMO_NETSUPPORT_H

#include <Kel/Text.h>
#include <Kel/Types.h>

#include <bit>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace Lumo::detail {

[[nodiscard]] constexpr Kel::U16 loadBe16(Kel::U8 const* p) noexcept {
  return static_cast<Kel::U16>((p[0] << 8) | p[1]);
}

[[nodiscard]] constexpr Kel::U32 loadBe32(Kel::U8 const* p) noexcept {
  return (Kel::U32{p[0]} << 24) | (Kel::U32{p[1]} << 16) | (Kel::U32{p[2]} << 8) | Kel::U32{p[3]};
}

// Compilers turn the shifts into one load and a byte swap.
[[nodiscard]] constexpr Kel::U64 loadBe64(Kel::U8 const* p) noexcept {
  return (Kel::U64{loadBe32(p)} << 32) | loadBe32(p + 4);
}

// The stores go through a byte-swapped word: GCC 12 at -O3 miscompiles the
// four shifted byte stores when they are inlined into some callers.
constexpr void storeBe16(Kel::U8* p, Kel::U16 v) noexcept {
  if (std::is_constant_evaluated()) {
    p[0] = static_cast<Kel::U8>(v >> 8);
    p[1] = static_cast<Kel::U8>(v);
    return;
  }
  if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap16(v);
  std::memcpy(p, &v, sizeof v);
}

constexpr void storeBe32(Kel::U8* p, Kel::U32 v) noexcept {
  if (std::is_constant_evaluated()) {
    p[0] = static_cast<Kel::U8>(v >> 24);
    p[1] = static_cast<Kel::U8>(v >> 16);
    p[2] = static_cast<Kel::U8>(v >> 8);
    p[3] = static_cast<Kel::U8>(v);
    return;
  }
  if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap32(v);
  std::memcpy(p, &v, sizeof v);
}

// Raises "Truncated <type>: <need> bytes needed, <avail> available".
[[noreturn]] void throwTruncated(std::string_view type, std::size_t need, std::size_t avail);

// Every decoder checks the room before it reads a byte.
inline void checkAvail(std::string_view type, std::size_t need, std::size_t avail) {
  if (avail < need) [[unlikely]] {
    throwTruncated(type, need, avail);
  }
}

// Raises "Invalid <type> '<text>'" with an excerpt of the offending text
// (Kel::appendExcerpt).
[[noreturn]] void throwInvalidText(std::string_view type, Kel::TextIt begin, Kel::TextIt end);

[[nodiscard]] constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// The value of a hexadecimal digit of either case, or -1.
[[nodiscard]] constexpr int hexValue(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

inline constexpr char kHexDigits[] = "0123456789abcdef";

// The longest decimal number is ten digits ("4294967295").
inline constexpr std::size_t kU32TextMax = 10;

// Writes `v` in decimal at `p`; answers the end of what was written.
char* formatU32(char* p, Kel::U32 v) noexcept;

// Reads the run of decimal digits at `it` into `*value`, saturating at
// `limit + 1` so that a long run cannot wrap around; answers the run's end.
[[nodiscard]] inline Kel::TextIt readDecimal(Kel::TextIt it, Kel::TextIt end, Kel::U32 limit,
                                             Kel::U32* value) noexcept {
  Kel::U32 v = 0;
  for (; it != end && isDigit(*it); ++it) {
    if (v <= limit) v = v * 10 + static_cast<Kel::U32>(*it - '0');
  }
  *value = v > limit ? limit + 1 : v;
  return it;
}

}  // namespace Lumo::detail

#endif  // LUMO_NETSUPPORT_H
