#include <Cspf/PathKey.h>
#include <Kel/Reflect.h>
#include <Lumo/NetSupport.h>

#include <ostream>

namespace Cspf {

Kel::String PathKey::stringValue() const {
  Kel::String out;
  appendStrep(out, *this);
  return out;
}

void PathKey::stringValueIs(std::string_view text) { *this = Kel::strepToValue<PathKey>(text); }

void PathKey::toNetwork(Kel::U8* out) const noexcept {
  src_.toNetwork(out);
  dst_.toNetwork(out + Lumo::IpGenAddr::wireSize);
  Lumo::detail::storeBe16(out + 2 * Lumo::IpGenAddr::wireSize, tunnelId_);
}

PathKey PathKey::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  Lumo::detail::checkAvail("PathKey", wireSize, avail);
  constexpr std::size_t a = Lumo::IpGenAddr::wireSize;
  return PathKey(Lumo::IpGenAddr::fromNetwork(in, a), Lumo::IpGenAddr::fromNetwork(in + a, a),
                 Lumo::detail::loadBe16(in + 2 * a));
}

void appendStrep(Kel::String& out, PathKey const& v) {
  out += "<src=";
  Lumo::appendStrep(out, v.src());
  out += ">_<dst=";
  Lumo::appendStrep(out, v.dst());
  out += ">_<tunnelId=";
  Kel::appendStrep(out, v.tunnelId());
  out += '>';
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, PathKey* out) {
  Kel::TextIt at = it;
  Lumo::IpGenAddr src;
  Lumo::IpGenAddr dst;
  Kel::U16 tunnelId = 0;
  Kel::expectLiteral(at, end, "<src=");
  Kel::parseNamed("src", [&] { Lumo::sequenceToValue(at, end, &src); });
  Kel::expectLiteral(at, end, ">_<dst=");
  Kel::parseNamed("dst", [&] { Lumo::sequenceToValue(at, end, &dst); });
  Kel::expectLiteral(at, end, ">_<tunnelId=");
  Kel::parseNamed("tunnelId", [&] { Kel::sequenceToValue(at, end, &tunnelId); });
  Kel::expectLiteral(at, end, ">");
  *out = PathKey(src, dst, tunnelId);
  it = at;
}

std::ostream& operator<<(std::ostream& os, PathKey const& v) { return os << v.stringValue(); }

Kel::TypeDesc const typePathKey("Cspf::PathKey", nullptr, 0, Kel::basicTypeParts<PathKey>());

}  // namespace Cspf
