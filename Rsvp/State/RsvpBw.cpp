// The metric's string form and its unchecked byte arithmetic.
#include <Rsvp/RsvpBw.h>

namespace Rsvp {

void appendStrep(Kel::String& out, BwMetric const& v) { Kel::appendStrep(out, v.value()); }

// Any decimal number is read first, so that every value outside min..max,
// negative ones included, gets the metric's own range error.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, BwMetric* out) {
  Kel::TextIt at = it;
  Kel::S64 const v = Kel::parseS64(at, end);
  if (v < BwMetric::min() || v > BwMetric::max()) {
    Kel::throwOutOfRange("BwMetric", "value", "BwMetric::min", "BwMetric::max");
  }
  *out = BwMetric(static_cast<Kel::U8>(v));
  it = at;
}

BwMetric& BwMetric::operator+=(BwMetric const& other) noexcept {
  value_ = static_cast<Kel::U8>(value_ + other.value_);
  return *this;
}

BwMetric& BwMetric::operator-=(BwMetric const& other) noexcept {
  value_ = static_cast<Kel::U8>(value_ - other.value_);
  return *this;
}

BwMetric operator+(BwMetric a, BwMetric const& b) noexcept { return a += b; }

BwMetric operator-(BwMetric a, BwMetric const& b) noexcept { return a -= b; }

}  // namespace Rsvp
