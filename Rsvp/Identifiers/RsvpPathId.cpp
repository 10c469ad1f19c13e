// String form of the path id. Parsing keeps the low 16 bits of a signed
// number, so "<lspId=-1>" is LSP id 65535 and text never gives the invalid id
// that the default prints as "<lspId=65536>".
#include <Rsvp/RsvpPathId.h>

namespace Rsvp {

void appendStrep(Kel::String& out, RsvpPathId const& v) {
  out += "<lspId=";
  Kel::appendStrep(out, v.lspId());
  out += '>';
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, RsvpPathId* out) {
  Kel::expectLiteral(it, end, "<lspId=");
  Kel::S64 const number = Kel::parseS64(it, end);
  Kel::expectLiteral(it, end, ">");
  out->lspIdIs(static_cast<Kel::U32>(static_cast<Kel::U64>(number) & 0xffffu));
}

}  // namespace Rsvp
