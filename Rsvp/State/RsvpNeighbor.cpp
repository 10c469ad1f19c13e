// The counters of refresh reduction and integrity that wrap.
#include <Rsvp/RsvpNeighbor.h>

namespace Rsvp {

Kel::U32 RsvpNeighborState::txMsgIdInc(Kel::U32 increment) {
  Kel::U32 const next = txMsgId() + increment;  // wraps modulo 2^32
  txMsgIdIs(next);                              // notifies only on change
  return next;
}

Kel::U64 RsvpNeighborSharedState::txSeqNoInc(Kel::U64 increment) {
  Kel::U64 const next = txSeqNo() + increment;  // wraps modulo 2^64
  txSeqNoIs(next);
  return next;
}

}  // namespace Rsvp
