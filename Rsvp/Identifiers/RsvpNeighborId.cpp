// String form of the neighbor id: its address text alone.
#include <Rsvp/RsvpNeighborId.h>

#include <Lumo/IpGenAddr.h>

namespace Rsvp {

void appendStrep(Kel::String& out, RsvpNeighborId const& v) {
  Lumo::appendStrep(out, v.neighborIp());
}

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, RsvpNeighborId* out) {
  Lumo::IpGenAddr neighborIp;
  Lumo::sequenceToValue(it, end, &neighborIp);
  *out = RsvpNeighborId(neighborIp);
}

}  // namespace Rsvp
