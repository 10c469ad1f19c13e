#include <Kel/RangeException.h>
#include <Lumo/MplsLabel.h>

#include <ostream>

namespace Lumo {

void MplsLabel::throwValueOutOfRange() {
  Kel::throwOutOfRange("MplsLabel", "value", "MplsLabel::min", "MplsLabel::luWithdraw");
}

Kel::String MplsLabel::stringValue() const {
  Kel::String out;
  appendStrep(out, *this);
  return out;
}

MplsLabel MplsLabel::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  detail::checkAvail("MplsLabel", wireSize, avail);
  return MplsLabel(detail::loadBe32(in));
}

void appendStrep(Kel::String& out, MplsLabel const& v) {
  char buf[detail::kU32TextMax];
  out.append(buf, detail::formatU32(buf, v.value()));
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, MplsLabel* out) {
  Kel::U32 v = 0;
  Kel::TextIt const p = detail::readDecimal(it, end, MplsLabel::luWithdraw(), &v);
  if (p == it) Kel::throwExpected("a number", it, end);
  *out = MplsLabel(v);  // checks the range before anything is written
  it = p;
}

std::ostream& operator<<(std::ostream& os, MplsLabel const& v) { return os << v.stringValue(); }

}  // namespace Lumo
