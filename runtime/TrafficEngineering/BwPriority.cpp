#include <Kel/RangeException.h>
#include <Kel/Reflect.h>
#include <Lumo/NetSupport.h>
#include <TrafficEngineering/BwPriority.h>

#include <ostream>

namespace TrafficEngineering {

void BwPriority::throwOutOfRange(std::string_view attr) {
  Kel::throwOutOfRange("BwPriority", attr, "BwPriority::min", "BwPriority::max");
}

Kel::String BwPriority::stringValue() const {
  Kel::String out;
  appendStrep(out, *this);
  return out;
}

void BwPriority::stringValueIs(std::string_view text) {
  *this = Kel::strepToValue<BwPriority>(text);
}

BwPriority BwPriority::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  Lumo::detail::checkAvail("BwPriority", wireSize, avail);
  return BwPriority(in[0], in[1]);
}

void appendStrep(Kel::String& out, BwPriority const& v) {
  out += "<setup=";
  Kel::appendStrep(out, v.setup());
  out += ">_<hold=";
  Kel::appendStrep(out, v.hold());
  out += '>';
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, BwPriority* out) {
  Kel::TextIt at = it;
  BwPriority v;
  Kel::expectLiteral(at, end, "<setup=");
  Kel::parseNamed("setup", [&] {
    Kel::U8 setup = 0;
    Kel::sequenceToValue(at, end, &setup);
    v.setupIs(setup);
  });
  Kel::expectLiteral(at, end, ">_<hold=");
  Kel::parseNamed("hold", [&] {
    Kel::U8 hold = 0;
    Kel::sequenceToValue(at, end, &hold);
    v.holdIs(hold);
  });
  Kel::expectLiteral(at, end, ">");
  *out = v;
  it = at;
}

std::ostream& operator<<(std::ostream& os, BwPriority const& v) { return os << v.stringValue(); }

Kel::TypeDesc const typeBwPriority("TrafficEngineering::BwPriority", nullptr, 0,
                                   Kel::basicTypeParts<BwPriority>());

}  // namespace TrafficEngineering
