// An IP address of either family, or none: a 16-byte address and its family
// in one byte (17 bytes, aligned to one, so that the keys made of addresses
// and numbers have no padding: a state-path id, two addresses, a 16-bit
// tunnel id and a 32-bit LSP id, is 40 bytes). IPv4 sits in the first
// four bytes in network order with the other twelve zero, so one layout
// serves every family. On the wire the family comes first, as a 4-byte word.
#ifndef LUMO_IPGENADDR_H
#define LUMO_IPGENADDR_H

#include <Kel/Text.h>
#include <Kel/Types.h>
#include <Lumo/Ip6Addr.h>

#include <cstddef>
#include <cstring>
#include <iosfwd>
#include <string_view>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

  [[nodiscard]] constexpr AddressFamily family() const noexcept {
    return static_cast<AddressFamily>(family_);
  }
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
  // Inline, and stored the way a copy loads it (sixteen bytes, then one):
  // a replica reads millions of addresses, and copies each right after
  // reading it; a value stored in other widths cannot be forwarded to the
  // copy's loads, a stall each.
  [[nodiscard]] static IpGenAddr fromNetwork(Kel::U8 const* in, std::size_t avail) {
    detail::checkAvail("IpGenAddr", wireSize, avail);
    Kel::U32 const family = detail::loadBe32(in);
    // The bytes past the family's must be zero: tested a word at a time.
    Kel::U32 head;
    Kel::U32 second;
    Kel::U64 rest;
    std::memcpy(&head, in + 4, 4);
    std::memcpy(&second, in + 8, 4);
    std::memcpy(&rest, in + 12, 8);
    bool const clean = family == afIpv6 || (family == afIpv4 && (second | rest) == 0) ||
                       (family == afUnspecified && (head | second | rest) == 0);
    if (!clean) [[unlikely]]
      throwBadWire(family);
    IpGenAddr out;
#if defined(__SSE2__)
    // The address is the first member (a standard layout).
    _mm_storeu_si128(reinterpret_cast<__m128i*>(&out),
                     _mm_loadu_si128(reinterpret_cast<__m128i const*>(in + 4)));
#else
    std::memcpy(static_cast<void*>(&out), in + 4, Ip6Addr::wireSize);
#endif
    out.family_ = static_cast<Kel::U8>(family);
    return out;
  }

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

  // "Invalid IpGenAddr family <n>" or "Invalid IpGenAddr bytes".
  [[noreturn]] static void throwBadWire(Kel::U32 family);

  // Reads exactly [begin, end), a run of address characters; writes *out
  // only when it is an address.
  static bool parseRun(Kel::TextIt begin, Kel::TextIt end, IpGenAddr* out) noexcept;

  constexpr IpGenAddr(AddressFamily family, Ip6Addr const& addr) noexcept
      : addr_(addr), family_(static_cast<Kel::U8>(family)) {}

  Ip6Addr addr_;
  Kel::U8 family_ = afUnspecified;  // an AddressFamily
};

// Keys made of addresses and numbers have no padding, which a hash memo
// compares (Kel::HashMemo).
static_assert(sizeof(IpGenAddr) == 17 && alignof(IpGenAddr) == 1);
// fromNetwork() stores the address as the first sixteen bytes.
static_assert(std::is_standard_layout_v<IpGenAddr>);
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
