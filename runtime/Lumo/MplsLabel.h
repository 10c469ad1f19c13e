// An MPLS label: a 20-bit label value, plus the two values past the largest
// label that signalling uses in its place (no label, and the withdrawal mark).
#ifndef LUMO_MPLSLABEL_H
#define LUMO_MPLSLABEL_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/Types.h>
#include <Lumo/NetSupport.h>

#include <cstddef>
#include <iosfwd>
#include <string_view>

namespace Lumo {

class MplsLabel {
 public:
  static constexpr std::size_t wireSize = 4;

  [[nodiscard]] static constexpr Kel::U32 min() noexcept { return 0; }
  [[nodiscard]] static constexpr Kel::U32 explicitNullIpv4() noexcept { return 0; }
  [[nodiscard]] static constexpr Kel::U32 routerAlert() noexcept { return 1; }
  [[nodiscard]] static constexpr Kel::U32 explicitNullIpv6() noexcept { return 2; }
  [[nodiscard]] static constexpr Kel::U32 implicitNull() noexcept { return 3; }
  // The largest 20-bit label.
  [[nodiscard]] static constexpr Kel::U32 max() noexcept { return 1048575; }
  // One past the largest label: no label at all.
  [[nodiscard]] static constexpr Kel::U32 noLabel() noexcept { return 1048576; }
  // The top of the allowed range.
  [[nodiscard]] static constexpr Kel::U32 luWithdraw() noexcept { return 8388608; }

  constexpr MplsLabel() noexcept = default;
  // Raises "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not
  // allowed" when `value` is out of min()..luWithdraw().
  constexpr explicit MplsLabel(Kel::U32 value) : value_(checked(value)) {}

  [[nodiscard]] constexpr Kel::U32 value() const noexcept { return value_; }
  // Checks as the constructor does; the old value stays on failure.
  void valueIs(Kel::U32 value) { value_ = checked(value); }
  [[nodiscard]] constexpr bool isNoLabel() const noexcept { return value_ == noLabel(); }

  // The value as a 4-byte word, finished.
  [[nodiscard]] constexpr Kel::U32 hash() const noexcept {
    Kel::OneAtATime h;
    h.addU32(value_);
    return h.finish();
  }

  [[nodiscard]] Kel::String stringValue() const;

  void toNetwork(Kel::U8* out) const noexcept { detail::storeBe32(out, value_); }
  // Raises Kel::RangeException on truncation and on a value out of range.
  [[nodiscard]] static MplsLabel fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend constexpr bool operator==(MplsLabel a, MplsLabel b) noexcept {
    return a.value_ == b.value_;
  }
  friend constexpr bool operator<(MplsLabel a, MplsLabel b) noexcept { return a.value_ < b.value_; }

 private:
  [[noreturn]] static void throwValueOutOfRange();
  static constexpr Kel::U32 checked(Kel::U32 value) {
    if (value > luWithdraw()) throwValueOutOfRange();
    return value;
  }

  Kel::U32 value_ = 0;
};

static_assert(sizeof(MplsLabel) == MplsLabel::wireSize);

constexpr std::string_view kelShortName(MplsLabel const*) { return "MplsLabel"; }

// Decimal.
void appendStrep(Kel::String& out, MplsLabel const& v);
// Reads a decimal number in range; otherwise raises "Expected a number ..." or
// the out-of-range error, leaving `it` and `*out` alone.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, MplsLabel* out);

std::ostream& operator<<(std::ostream& os, MplsLabel const& v);

}  // namespace Lumo

#endif  // LUMO_MPLSLABEL_H
