// One byte of a protocol field kept as it travels on the network. A byte has
// no byte order, so the network form and the value are the same.
#ifndef LUMO_NETU8_H
#define LUMO_NETU8_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/Types.h>

#include <cstddef>
#include <iosfwd>
#include <string_view>

namespace Lumo {

class NetU8 {
 public:
  static constexpr std::size_t wireSize = 1;

  constexpr NetU8() noexcept = default;
  constexpr explicit NetU8(Kel::U8 value) noexcept : value_(value) {}

  [[nodiscard]] constexpr Kel::U8 value() const noexcept { return value_; }
  constexpr void valueIs(Kel::U8 value) noexcept { value_ = value; }

  // The one byte, finished.
  [[nodiscard]] constexpr Kel::U32 hash() const noexcept {
    Kel::OneAtATime h;
    h.addU8(value_);
    return h.finish();
  }

  [[nodiscard]] Kel::String stringValue() const;

  void toNetwork(Kel::U8* out) const noexcept { out[0] = value_; }
  [[nodiscard]] static NetU8 fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend constexpr bool operator==(NetU8 a, NetU8 b) noexcept { return a.value_ == b.value_; }
  friend constexpr bool operator<(NetU8 a, NetU8 b) noexcept { return a.value_ < b.value_; }

 private:
  Kel::U8 value_ = 0;
};

static_assert(sizeof(NetU8) == NetU8::wireSize);

constexpr std::string_view kelShortName(NetU8 const*) { return "NetU8"; }

// Decimal.
void appendStrep(Kel::String& out, NetU8 const& v);
// Reads a decimal number 0..255; otherwise raises "Expected a number ..." or
// "Number <digits> out of range for NetU8", leaving `it` and `*out` alone.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, NetU8* out);

std::ostream& operator<<(std::ostream& os, NetU8 const& v);

}  // namespace Lumo

#endif  // LUMO_NETU8_H
