// The priorities of a bandwidth reservation: its setup priority and its hold
// priority, each from 0 (highest) to 7 (lowest). Stands in for the
// platform's traffic-engineering library (docs/PLATFORM.md).
#ifndef TRAFFICENGINEERING_BWPRIORITY_H
#define TRAFFICENGINEERING_BWPRIORITY_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/TypeDesc.h>
#include <Kel/Types.h>

#include <cstddef>
#include <iosfwd>
#include <string_view>

namespace TrafficEngineering {

class BwPriority {
 public:
  // The setup priority byte, then the hold priority byte.
  static constexpr std::size_t wireSize = 2;

  [[nodiscard]] static constexpr Kel::U8 min() noexcept { return 0; }
  [[nodiscard]] static constexpr Kel::U8 max() noexcept { return 7; }

  constexpr BwPriority() noexcept = default;
  // Raises "BwPriority::setup < BwPriority::min or > BwPriority::max not
  // allowed" (or the same for hold) when a priority is above max().
  constexpr BwPriority(Kel::U8 setup, Kel::U8 hold)
      : setup_(checked(setup, "setup")), hold_(checked(hold, "hold")) {}

  [[nodiscard]] constexpr Kel::U8 setup() const noexcept { return setup_; }
  [[nodiscard]] constexpr Kel::U8 hold() const noexcept { return hold_; }
  // Check as the constructor does; the old value stays on failure.
  void setupIs(Kel::U8 setup) { setup_ = checked(setup, "setup"); }
  void holdIs(Kel::U8 hold) { hold_ = checked(hold, "hold"); }

  // Both priorities as bytes, finished.
  [[nodiscard]] constexpr Kel::U32 hash() const noexcept {
    Kel::OneAtATime h;
    h.addU8(setup_);
    h.addU8(hold_);
    return h.finish();
  }

  [[nodiscard]] Kel::String stringValue() const;
  // Reads the whole of `text`; raises Kel::RangeException ("Invalid BwPriority" for
  // text left over) and keeps the old value on failure.
  void stringValueIs(std::string_view text);

  void toNetwork(Kel::U8* out) const noexcept {
    out[0] = setup_;
    out[1] = hold_;
  }
  // Raises Kel::RangeException on truncation and on a priority out of range.
  [[nodiscard]] static BwPriority fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend constexpr bool operator==(BwPriority a, BwPriority b) noexcept {
    return a.setup_ == b.setup_ && a.hold_ == b.hold_;
  }
  // Setup priority first, then hold priority.
  friend constexpr bool operator<(BwPriority a, BwPriority b) noexcept {
    return a.setup_ != b.setup_ ? a.setup_ < b.setup_ : a.hold_ < b.hold_;
  }

 private:
  [[noreturn]] static void throwOutOfRange(std::string_view attr);
  static constexpr Kel::U8 checked(Kel::U8 v, std::string_view attr) {
    if (v > max()) throwOutOfRange(attr);
    return v;
  }

  Kel::U8 setup_ = 0;
  Kel::U8 hold_ = 0;
};

constexpr std::string_view kelShortName(BwPriority const*) { return "BwPriority"; }

// "<setup=3>_<hold=0>".
void appendStrep(Kel::String& out, BwPriority const& v);
// Reads that form; a priority above 7 raises the range error with the
// attribute named, leaving `it` and `*out` alone.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, BwPriority* out);

std::ostream& operator<<(std::ostream& os, BwPriority const& v);

// The descriptor, for reflection.
extern Kel::TypeDesc const typeBwPriority;

}  // namespace TrafficEngineering

#endif  // TRAFFICENGINEERING_BWPRIORITY_H
