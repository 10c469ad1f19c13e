// The error record of a state path: its return to "no error".
#include <Rsvp/RsvpError.h>
#include <Rsvp/RsvpTrace.h>

namespace Rsvp {

void RsvpErrorState::reset() {
  RSVP_TRACE(errorTrace(), 8, "reset fullName=" << fullName());
  errorIs(RsvpError(rsvpErrorCodeUnknown, 0));
  errorDetectedTimeIs(0);
  errorProcessedTimeIs(0);
  offendingMsgIs(nullptr);
}

}  // namespace Rsvp
