#include <Lumo/AddrText.h>
#include <Lumo/Ip6Addr.h>

#include <ostream>

namespace Lumo {

Ip6Addr::Ip6Addr(std::string_view text) {
  Kel::TextIt const begin = text.data();
  Kel::TextIt const end = begin + text.size();
  // Any failure quotes the whole text, not just the run of address characters.
  if (detail::addrRunEnd(begin, end) != end || !detail::parseIp6(begin, end, bytes_.data())) {
    detail::throwInvalidText("Ip6Addr", begin, end);
  }
}

Kel::String Ip6Addr::stringValue() const {
  Kel::String out;
  appendStrep(out, *this);
  return out;
}

Ip6Addr Ip6Addr::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  detail::checkAvail("Ip6Addr", wireSize, avail);
  Ip6Addr v;
  std::memcpy(v.bytes_.data(), in, wireSize);
  return v;
}

void appendStrep(Kel::String& out, Ip6Addr const& v) {
  char buf[detail::kIp6TextMax];
  out.append(buf, detail::formatIp6(buf, v.bytes().data()));
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, Ip6Addr* out) {
  Kel::TextIt const runEnd = detail::addrRunEnd(it, end);
  Ip6Addr::Bytes b;
  if (!detail::parseIp6(it, runEnd, b.data())) detail::throwInvalidText("Ip6Addr", it, runEnd);
  *out = Ip6Addr(b);
  it = runEnd;
}

std::ostream& operator<<(std::ostream& os, Ip6Addr const& v) { return os << v.stringValue(); }

}  // namespace Lumo
