// An IP prefix: an address and a length. The host bits are kept as given,
// not masked, so a prefix can also carry the address of an interface.
#ifndef LUMO_IPGENPREFIX_H
#define LUMO_IPGENPREFIX_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/Types.h>
#include <Lumo/IpGenAddr.h>

#include <cstddef>
#include <iosfwd>
#include <string_view>
#include <type_traits>

namespace Lumo {

class IpGenPrefix {
 public:
  // The address (20 bytes), then the length (1 byte).
  static constexpr std::size_t wireSize = IpGenAddr::wireSize + 1;

  // The unspecified address with length 0, written "/0".
  constexpr IpGenPrefix() noexcept = default;
  // Raises Kel::RangeException "Invalid IpGenPrefix length <n>" when `len`
  // exceeds the family's bits (32, 128, 0 when unspecified).
  IpGenPrefix(IpGenAddr const& addr, Kel::U8 len);

  [[nodiscard]] constexpr IpGenAddr const& addr() const noexcept { return addr_; }
  [[nodiscard]] constexpr Kel::U8 len() const noexcept { return len_; }

  // The longest length the family allows.
  [[nodiscard]] static constexpr Kel::U8 maxLen(AddressFamily family) noexcept {
    return family == afIpv4 ? 32 : family == afIpv6 ? 128 : 0;
  }

  // The address hash as a 4-byte word, then the length byte, finished.
  [[nodiscard]] Kel::U32 hash() const noexcept {
    Kel::OneAtATime h;
    h.addU32(addr_.hash());
    h.addU8(len_);
    return h.finish();
  }

  [[nodiscard]] Kel::String stringValue() const;

  void toNetwork(Kel::U8* out) const noexcept {
    addr_.toNetwork(out);
    out[IpGenAddr::wireSize] = len_;
  }
  // Raises Kel::RangeException on truncation, on an invalid address and on
  // a length the family does not allow.
  [[nodiscard]] static IpGenPrefix fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend bool operator==(IpGenPrefix const& a, IpGenPrefix const& b) noexcept {
    return a.len_ == b.len_ && a.addr_ == b.addr_;
  }
  // Address first, then length.
  friend bool operator<(IpGenPrefix const& a, IpGenPrefix const& b) noexcept {
    if (!(a.addr_ == b.addr_)) return a.addr_ < b.addr_;
    return a.len_ < b.len_;
  }

 private:
  friend void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IpGenPrefix* out);

  struct Unchecked {};
  constexpr IpGenPrefix(IpGenAddr const& addr, Kel::U8 len, Unchecked) noexcept
      : addr_(addr), len_(len) {}

  IpGenAddr addr_;
  Kel::U8 len_ = 0;
};

static_assert(IpGenPrefix::wireSize == 21);
static_assert(std::is_trivially_copyable_v<IpGenPrefix>);

constexpr std::string_view kelShortName(IpGenPrefix const*) { return "IpGenPrefix"; }

// "<address>/<length>": "10.0.0.0/8", "2001:db8::/32", "/0".
void appendStrep(Kel::String& out, IpGenPrefix const& v);
// Reads an IpGenAddr, a '/' and a decimal length. Raises the address's
// error, "Expected '/' ...", "Expected a prefix length ..." or
// "Invalid IpGenPrefix length <digits>" (at most 24 of them, then "...");
// on failure `it` and `*out` are left alone.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IpGenPrefix* out);

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& v);

}  // namespace Lumo

#endif  // LUMO_IPGENPREFIX_H
