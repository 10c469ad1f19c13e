// The hand-over of a message pipe: one slot, one counter.
#include <Rsvp/RsvpMsgPipe.h>

#include <Kel/Assert.h>

namespace Rsvp {

void RsvpMsgPipe::txMsgIs(Kel::Ptr<RsvpMsg const> const& msg) {
  // A full slot means the consumer has not taken the previous message: the
  // producer broke the protocol, and a message would be lost.
  if (msgHolder_) Kel::assertFailed("msgHolder_ == __null", __FILE__, __LINE__);
  msgHolderIs(msg);
  readableCountInc(1);
}

Kel::Ptr<RsvpMsg const> RsvpMsgPipe::rxMsg() {
  Kel::Ptr<RsvpMsg const> msg = msgHolder_;
  if (msg) msgHolderIs(nullptr);
  return msg;
}

void RsvpMsgPipe::readableCountInc(Kel::U32 n) { readableCountIs(readableCount() + n); }

}  // namespace Rsvp
