// The text forms of IP addresses, shared by Ip6Addr and IpGenAddr: writing
// the dotted quad and the canonical IPv6 form into a caller's buffer, and the
// strict readers of both.
#ifndef LUMO_ADDRTEXT_H
#define LUMO_ADDRTEXT_H

#include <Kel/Types.h>

#include <cstddef>

namespace Lumo::detail {

// The longest texts the writers produce: "255.255.255.255" and eight groups
// of four hex digits with seven colons.
inline constexpr std::size_t kIpv4TextMax = 15;
inline constexpr std::size_t kIp6TextMax = 39;

// Writes the four bytes at `bytes` as a dotted quad; answers the end.
char* formatIpv4(char* p, Kel::U8 const* bytes) noexcept;

// Writes the sixteen bytes at `bytes` in the canonical IPv6 form: lowercase,
// no leading zeros in a group, the leftmost longest run of two or more zero
// groups as "::", never an embedded dotted quad. Answers the end.
char* formatIp6(char* p, Kel::U8 const* bytes) noexcept;

// Whether [p, end) is exactly a dotted quad of four decimal parts 0..255
// without leading zeros; on success writes the four bytes to `out`.
[[nodiscard]] bool parseIpv4(char const* p, char const* end, Kel::U8* out) noexcept;

// Whether [p, end) is exactly an IPv6 address in full or compressed form,
// possibly ending in a dotted quad; on success writes the sixteen bytes.
[[nodiscard]] bool parseIp6(char const* p, char const* end, Kel::U8* out) noexcept;

// The end of the longest run of characters from [0-9a-fA-F.:] at `p`: the
// whole text an address parser looks at.
[[nodiscard]] char const* addrRunEnd(char const* p, char const* end) noexcept;

}  // namespace Lumo::detail

#endif  // LUMO_ADDRTEXT_H
