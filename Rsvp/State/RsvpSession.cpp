// Sessions: the listing order and the bounded history.
#include <Rsvp/RsvpSession.h>
#include <Rsvp/RsvpTrace.h>

namespace Rsvp {

bool RsvpSessionState::sessionCliIdLesser(RsvpSessionState const& a, RsvpSessionState const& b) {
  return a.sessionCliId().value() < b.sessionCliId().value();
}

}  // namespace Rsvp
