#include <Lumo/EthType.h>

#include <ostream>

namespace Lumo {

Kel::String EthType::stringValue() const {
  Kel::String out;
  appendStrep(out, *this);
  return out;
}

EthType EthType::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  detail::checkAvail("EthType", wireSize, avail);
  return EthType(detail::loadBe16(in));
}

void appendStrep(Kel::String& out, EthType const& v) {
  unsigned const x = v.value();
  char const buf[6] = {'0',
                       'x',
                       detail::kHexDigits[x >> 12],
                       detail::kHexDigits[(x >> 8) & 0xf],
                       detail::kHexDigits[(x >> 4) & 0xf],
                       detail::kHexDigits[x & 0xf]};
  out.append(buf, sizeof buf);
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, EthType* out) {
  Kel::TextIt p = it;
  Kel::U32 v = 0;
  if (end - p >= 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    p += 2;
    Kel::TextIt const digits = p;
    for (; p != end && detail::hexValue(*p) >= 0; ++p) {
      v = (v << 4) | static_cast<Kel::U32>(detail::hexValue(*p));
    }
    // The whole digit run is quoted, so "0x12345" is named in full.
    if (p == digits || p - digits > 4) detail::throwInvalidText("EthType", it, p);
  } else if (p != end && detail::isDigit(*p)) {
    p = detail::readDecimal(p, end, 0xffff, &v);
    if (v > 0xffff) detail::throwInvalidText("EthType", it, p);
  } else {
    Kel::throwExpected("an EthType", it, end);
  }
  *out = EthType(static_cast<Kel::U16>(v));
  it = p;
}

std::ostream& operator<<(std::ostream& os, EthType const& v) { return os << v.stringValue(); }

}  // namespace Lumo
