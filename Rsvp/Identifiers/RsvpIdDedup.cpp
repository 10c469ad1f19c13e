// The descriptors of the deduplicated identifiers; everything else of them
// is in the templates of <Rsvp/RsvpIdDeduped.h>.
#include <Rsvp/RsvpIdDeduped.h>

#include <Kel/Reflect.h>

namespace Rsvp {

Kel::TypeDesc const typeRsvpSessionIdDeduped("Rsvp::RsvpSessionIdDeduped", nullptr, 0,
                                             Kel::basicTypeParts<RsvpSessionIdDeduped>());
Kel::TypeDesc const typeRsvpPathIdDeduped("Rsvp::RsvpPathIdDeduped", nullptr, 0,
                                          Kel::basicTypeParts<RsvpPathIdDeduped>());
Kel::TypeDesc const typeRsvpNeighborIdDeduped("Rsvp::RsvpNeighborIdDeduped", nullptr, 0,
                                              Kel::basicTypeParts<RsvpNeighborIdDeduped>());

}  // namespace Rsvp
