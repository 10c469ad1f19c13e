#include <Kel/RangeException.h>
#include <Lumo/NetSupport.h>
#include <Lumo/NetU8.h>

#include <ostream>

namespace Lumo {

Kel::String NetU8::stringValue() const {
  Kel::String out;
  appendStrep(out, *this);
  return out;
}

NetU8 NetU8::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  detail::checkAvail("NetU8", wireSize, avail);
  return NetU8(in[0]);
}

void appendStrep(Kel::String& out, NetU8 const& v) {
  char buf[detail::kU32TextMax];
  out.append(buf, detail::formatU32(buf, v.value()));
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, NetU8* out) {
  Kel::U32 v = 0;
  Kel::TextIt const p = detail::readDecimal(it, end, 255, &v);
  if (p == it) Kel::throwExpected("a number", it, end);
  if (v > 255) {
    // Same wording as the framework's own integers.
    Kel::throwOutOfRangeNumber(it, p, "NetU8");
  }
  *out = NetU8(static_cast<Kel::U8>(v));
  it = p;
}

std::ostream& operator<<(std::ostream& os, NetU8 const& v) { return os << v.stringValue(); }

}  // namespace Lumo
