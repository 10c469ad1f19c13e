// An Ethernet type: the 16-bit number naming the payload of a frame, such as
// the protocol carried by a label-switched path.
#ifndef LUMO_ETHTYPE_H
#define LUMO_ETHTYPE_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/Types.h>
#include <Lumo/NetSupport.h>

#include <cstddef>
#include <iosfwd>
#include <string_view>

namespace Lumo {

class EthType {
 public:
  static constexpr std::size_t wireSize = 2;

  [[nodiscard]] static constexpr Kel::U16 ipv4() noexcept { return 0x0800; }
  [[nodiscard]] static constexpr Kel::U16 ipv6() noexcept { return 0x86dd; }
  [[nodiscard]] static constexpr Kel::U16 mpls() noexcept { return 0x8847; }

  constexpr EthType() noexcept = default;
  constexpr explicit EthType(Kel::U16 value) noexcept : value_(value) {}

  [[nodiscard]] constexpr Kel::U16 value() const noexcept { return value_; }
  constexpr void valueIs(Kel::U16 value) noexcept { value_ = value; }

  // The value as a 2-byte word (low byte first), finished.
  [[nodiscard]] constexpr Kel::U32 hash() const noexcept {
    Kel::OneAtATime h;
    h.addU16(value_);
    return h.finish();
  }

  [[nodiscard]] Kel::String stringValue() const;

  void toNetwork(Kel::U8* out) const noexcept { detail::storeBe16(out, value_); }
  [[nodiscard]] static EthType fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend constexpr bool operator==(EthType a, EthType b) noexcept { return a.value_ == b.value_; }
  friend constexpr bool operator<(EthType a, EthType b) noexcept { return a.value_ < b.value_; }

 private:
  Kel::U16 value_ = 0;
};

static_assert(sizeof(EthType) == EthType::wireSize);

constexpr std::string_view kelShortName(EthType const*) { return "EthType"; }

// "0x" and four lowercase hex digits: "0x0800".
void appendStrep(Kel::String& out, EthType const& v);
// Reads "0x" or "0X" with one to four hex digits, or a decimal number up to
// 65535. A malformed number raises "Invalid EthType '<number>'", no number
// at all "Expected an EthType ..."; `it` and `*out` are then left alone.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, EthType* out);

std::ostream& operator<<(std::ostream& os, EthType const& v);

}  // namespace Lumo

#endif  // LUMO_ETHTYPE_H
