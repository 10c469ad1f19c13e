#include <Kel/RangeException.h>
#include <Lumo/IpGenPrefix.h>
#include <Lumo/NetSupport.h>

#include <ostream>
#include <utility>

namespace Lumo {

namespace {

[[noreturn]] void throwBadLength(Kel::TextIt begin, Kel::TextIt end) {
  Kel::String text = "Invalid IpGenPrefix length ";
  Kel::appendExcerpt(text, begin, end);
  throw Kel::RangeException(std::move(text));
}

void checkLen(AddressFamily family, Kel::U8 len) {
  if (len > IpGenPrefix::maxLen(family)) [[unlikely]] {
    char buf[detail::kU32TextMax];
    throwBadLength(buf, detail::formatU32(buf, len));
  }
}

}  // namespace

IpGenPrefix::IpGenPrefix(IpGenAddr const& addr, Kel::U8 len) : addr_(addr), len_(len) {
  checkLen(addr.family(), len);
}

Kel::String IpGenPrefix::stringValue() const {
  Kel::String out;
  appendStrep(out, *this);
  return out;
}

IpGenPrefix IpGenPrefix::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  detail::checkAvail("IpGenPrefix", wireSize, avail);
  IpGenAddr const addr = IpGenAddr::fromNetwork(in, avail);
  Kel::U8 const len = in[IpGenAddr::wireSize];
  checkLen(addr.family(), len);
  return IpGenPrefix(addr, len, Unchecked{});
}

void appendStrep(Kel::String& out, IpGenPrefix const& v) {
  appendStrep(out, v.addr());
  char buf[1 + detail::kU32TextMax];
  buf[0] = '/';
  out.append(buf, detail::formatU32(buf + 1, v.len()));
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IpGenPrefix* out) {
  Kel::TextIt p = it;
  IpGenAddr addr;
  sequenceToValue(p, end, &addr);
  Kel::expectLiteral(p, end, "/");
  Kel::TextIt const digits = p;
  Kel::U32 len = 0;
  p = detail::readDecimal(p, end, 255, &len);
  if (p == digits) Kel::throwExpected("a prefix length", p, end);
  if (len > IpGenPrefix::maxLen(addr.family())) throwBadLength(digits, p);
  *out = IpGenPrefix(addr, static_cast<Kel::U8>(len), IpGenPrefix::Unchecked{});
  it = p;
}

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& v) { return os << v.stringValue(); }

}  // namespace Lumo
