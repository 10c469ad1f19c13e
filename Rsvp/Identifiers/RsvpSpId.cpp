// String form of the state-path id: the forms of its session and path ids.
#include <Rsvp/RsvpSpId.h>

namespace Rsvp {

void appendStrep(Kel::String& out, RsvpSpId const& v) {
  out += "<sessionId=";
  appendStrep(out, v.sessionId());
  out += ">_<pathId=";
  appendStrep(out, v.pathId());
  out += '>';
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, RsvpSpId* out) {
  RsvpSessionId sessionId;
  RsvpPathId pathId;
  Kel::expectLiteral(it, end, "<sessionId=");
  sequenceToValue(it, end, &sessionId);
  Kel::expectLiteral(it, end, ">_<pathId=");
  sequenceToValue(it, end, &pathId);
  Kel::expectLiteral(it, end, ">");
  *out = RsvpSpId(sessionId, pathId);
}

}  // namespace Rsvp
