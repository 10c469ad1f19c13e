// The layer-3 protocol id of a label request, read from its raw number.
#include <Rsvp/RsvpMsgObjects.h>

namespace Rsvp {

Lumo::EthType RsvpLabelRequestObj::l3pid() const {
  // A number that no Ethernet type can hold reads as the zero type, so that a
  // malformed request never makes a reader throw.
  return l3pidRaw_ <= 0xffffu ? Lumo::EthType(static_cast<Kel::U16>(l3pidRaw_)) : Lumo::EthType();
}

void RsvpLabelRequestObj::l3pidIs(Lumo::EthType const& ethType) { l3pidRawIs(ethType.value()); }

}  // namespace Rsvp
