// An IP address of either family, or none: a 4-byte family and a 16-byte
// address. IPv4 sits in the first four bytes in network order with the other
// twelve zero, so one layout serves every family.
#ifndef LUMO_IPGENADDR_H
#define LUMO_IPGENADDR_H

#include <Kel/Text.h>
#include <Kel/Types.h>
#include <Lumo/Ip6Addr.h>

#include <cstddef>
#include <iosfwd>
#include <string_view>
#include <type_traits>

namespace Lumo {

// The numbers are the host's socket address families, so the value can pass
// to and from the platform unchanged.
enum AddressFamily : Kel::U32 { afUnspecified = 0, afIpv4 = 2, afIpv6 = 10 };

class IpGenAddr {
 public:
  // The family as a big-endian word, then the sixteen bytes.
  static constexpr std::size_t wireSize = 4 + Ip6Addr::wireSize;

  // The unspecified address: family 0, all bytes zero.
  constexpr IpGenAddr() noexcept = default;
  // Parses the whole text: a dotted quad, an IPv6 address or nothing (the
  // unspecified address). Anything else raises Kel::RangeException
  // "Invalid IpGenAddr '<text>'".
  explicit IpGenAddr(std::string_view text);

  [[nodiscard]] static constexpr IpGenAddr ipv4(Kel::U32 hostOrder) noexcept {
    Ip6Addr::Bytes b{};
    detail::storeBe32(b.data(), hostOrder);
    return IpGenAddr(afIpv4, Ip6Addr(b));
  }
  [[nodiscard]] static constexpr IpGenAddr ipv6(Ip6Addr const& addr) noexcept {
    return IpGenAddr(afIpv6, addr);
  }

  [[nodiscard]] constexpr AddressFamily family() const noexcept { return family_; }
  [[nodiscard]] constexpr bool isIpv4() const noexcept { return family_ == afIpv4; }
  [[nodiscard]] constexpr bool isIpv6() const noexcept { return family_ == afIpv6; }
  [[nodiscard]] constexpr bool isUnspecified() const noexcept { return family_ == afUnspecified; }
  // The first four bytes as a host-order number; the IPv4 address when
  // isIpv4(), 0 when unspecified.
  [[nodiscard]] constexpr Kel::U32 ipv4HostOrder() const noexcept {
    return detail::loadBe32(addr_.bytes().data());
  }
  [[nodiscard]] constexpr Ip6Addr const& addr() const noexcept { return addr_; }

  // The address hash alone: the family is left out, so addresses differing
  // only in family hash alike (and still compare unequal).
  [[nodiscard]] Kel::U32 hash() const noexcept { return addr_.hash(); }

  [[nodiscard]] Kel::String stringValue() const;

  void toNetwork(Kel::U8* out) const noexcept {
    detail::storeBe32(out, family_);
    addr_.toNetwork(out + 4);
  }
  // Raises Kel::RangeException on truncation, on a family other than 0, 2
  // and 10 ("Invalid IpGenAddr family <n>"), and when the bytes an IPv4 or
  // unspecified address leaves unused are not zero ("Invalid IpGenAddr bytes").
  [[nodiscard]] static IpGenAddr fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend bool operator==(IpGenAddr const& a, IpGenAddr const& b) noexcept {
    return a.family_ == b.family_ && a.addr_ == b.addr_;
  }
  // Family first, then the bytes as unsigned bytes.
  friend bool operator<(IpGenAddr const& a, IpGenAddr const& b) noexcept {
    if (a.family_ != b.family_) return a.family_ < b.family_;
    return a.addr_ < b.addr_;
  }

 private:
  friend void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IpGenAddr* out);

  // Reads exactly [begin, end), a run of address characters; writes *out
  // only when it is an address.
  static bool parseRun(Kel::TextIt begin, Kel::TextIt end, IpGenAddr* out) noexcept;

  constexpr IpGenAddr(AddressFamily family, Ip6Addr const& addr) noexcept
      : family_(family), addr_(addr) {}

  AddressFamily family_ = afUnspecified;
  Ip6Addr addr_;
};

static_assert(sizeof(IpGenAddr) == IpGenAddr::wireSize);
static_assert(std::is_trivially_copyable_v<IpGenAddr>);

constexpr std::string_view kelShortName(IpGenAddr const*) { return "IpGenAddr"; }

// "10.0.0.2", the canonical IPv6 form, or nothing for the unspecified address.
void appendStrep(Kel::String& out, IpGenAddr const& v);
// Reads the longest run of [0-9a-fA-F.:]: empty is the unspecified address,
// with a colon it is IPv6, otherwise a strict dotted quad. On failure raises
// "Invalid IpGenAddr '<run>'" and leaves `it` and `*out` alone.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IpGenAddr* out);

std::ostream& operator<<(std::ostream& os, IpGenAddr const& v);

}  // namespace Lumo

#endif  // LUMO_IPGENADDR_H
