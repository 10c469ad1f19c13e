// String forms of the tunnel id and the session id.
#include <Rsvp/RsvpSessionId.h>

#include <Lumo/IpGenAddr.h>

namespace Rsvp {

void appendStrep(Kel::String& out, RsvpTunnelId const& v) { Kel::appendStrep(out, v.value()); }

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, RsvpTunnelId* out) {
  Kel::U16 value = 0;
  Kel::parseNamed("value", [&] { Kel::sequenceToValue(it, end, &value); });
  out->valueIs(value);
}

void appendStrep(Kel::String& out, RsvpSessionId const& v) {
  out += "<dstIp=";
  Lumo::appendStrep(out, v.dstIp());
  out += ">_<tunnelId=";
  appendStrep(out, v.tunnelId());
  out += ">_<extTunnelId=";
  Lumo::appendStrep(out, v.extTunnelId());
  out += '>';
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, RsvpSessionId* out) {
  Lumo::IpGenAddr dstIp;
  RsvpTunnelId tunnelId;
  Lumo::IpGenAddr extTunnelId;
  Kel::expectLiteral(it, end, "<dstIp=");
  Lumo::sequenceToValue(it, end, &dstIp);
  Kel::expectLiteral(it, end, ">_<tunnelId=");
  sequenceToValue(it, end, &tunnelId);
  Kel::expectLiteral(it, end, ">_<extTunnelId=");
  Lumo::sequenceToValue(it, end, &extTunnelId);
  Kel::expectLiteral(it, end, ">");
  *out = RsvpSessionId(dstIp, tunnelId, extTunnelId);
}

}  // namespace Rsvp
