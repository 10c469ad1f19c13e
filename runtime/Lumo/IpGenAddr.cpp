#include <Kel/RangeException.h>
#include <Lumo/AddrText.h>
#include <Lumo/IpGenAddr.h>

#include <cstring>
#include <ostream>

namespace Lumo {

IpGenAddr::IpGenAddr(std::string_view text) {
  Kel::TextIt const begin = text.data();
  Kel::TextIt const end = begin + text.size();
  // Any failure quotes the whole text, so "10.0.0.1/8" is named in full.
  if (detail::addrRunEnd(begin, end) != end || !parseRun(begin, end, this)) {
    detail::throwInvalidText("IpGenAddr", begin, end);
  }
}

bool IpGenAddr::parseRun(Kel::TextIt begin, Kel::TextIt end, IpGenAddr* out) noexcept {
  if (begin == end) {
    *out = IpGenAddr();
    return true;
  }
  bool const v6 = std::memchr(begin, ':', static_cast<std::size_t>(end - begin)) != nullptr;
  Ip6Addr::Bytes b{};
  if (!(v6 ? detail::parseIp6(begin, end, b.data()) : detail::parseIpv4(begin, end, b.data()))) {
    return false;
  }
  *out = IpGenAddr(v6 ? afIpv6 : afIpv4, Ip6Addr(b));
  return true;
}

Kel::String IpGenAddr::stringValue() const {
  Kel::String out;
  appendStrep(out, *this);
  return out;
}

void IpGenAddr::throwBadWire(Kel::U32 family) {
  if (family != afUnspecified && family != afIpv4 && family != afIpv6) {
    char buf[detail::kU32TextMax];
    throw Kel::RangeException("Invalid IpGenAddr family " +
                              Kel::String(buf, detail::formatU32(buf, family)));
  }
  throw Kel::RangeException("Invalid IpGenAddr bytes");
}

void appendStrep(Kel::String& out, IpGenAddr const& v) {
  char buf[detail::kIp6TextMax];
  char* e = buf;
  switch (v.family()) {
    case afIpv4: e = detail::formatIpv4(buf, v.addr().bytes().data()); break;
    case afIpv6: e = detail::formatIp6(buf, v.addr().bytes().data()); break;
    case afUnspecified: break;
  }
  out.append(buf, e);
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IpGenAddr* out) {
  Kel::TextIt const runEnd = detail::addrRunEnd(it, end);
  if (!IpGenAddr::parseRun(it, runEnd, out)) detail::throwInvalidText("IpGenAddr", it, runEnd);
  it = runEnd;
}

std::ostream& operator<<(std::ostream& os, IpGenAddr const& v) { return os << v.stringValue(); }

}  // namespace Lumo
