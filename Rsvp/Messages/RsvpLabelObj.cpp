// The label view of the sent LABEL object.
#include <Rsvp/RsvpLabelObj.h>

namespace Rsvp {

Lumo::MplsLabel RsvpLabelObjStatus::label() const { return outLabelObj().label(); }

}  // namespace Rsvp
