// The subscriber key's hash and the pending-notification counter.
#include <Rsvp/RsvpSpDispatcher.h>

namespace Rsvp {

// The state path's own parts (the session's and the path's finished hashes)
// go into the one accumulator with the machine type, rather than the state
// path's finished hash: keys of one state path still spread over buckets.
Kel::U32 RsvpSpSubscriberKey::hash() const {
  Kel::OneAtATime h;
  h.addU32(spId_.sessionId().hash());
  h.addU32(spId_.pathId().hash());
  h.addU32(static_cast<Kel::U32>(spSmType_));
  return h.finish();
}

void RsvpSpIpNotify::notifyCountInc(Kel::U32 n) { notifyCountIs(notifyCount() + n); }

}  // namespace Rsvp
