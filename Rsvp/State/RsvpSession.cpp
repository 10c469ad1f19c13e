// Sessions: the listing order and the bounded history.
#include <Rsvp/RsvpSession.h>
#include <Rsvp/RsvpTrace.h>

#include <Kel/Assert.h>

namespace Rsvp {

std::size_t RsvpSessionState::sessionHistoryEntrys() const { return sessionHistoryEntrySize(); }

void RsvpSessionState::addSessionHistoryEntry(
    Kel::Ptr<RsvpSessionHistoryEntry const> const& entry) {
  KEL_ASSERT(sessionHistoryEntrys() <= RsvpConstants::maxHistoryQueueSize());
  if (sessionHistoryEntrys() == RsvpConstants::maxHistoryQueueSize()) {
    RSVP_TRACE(sessionTrace(), 9, "Session event queue full, dequeuing entry at the head");
    (void)sessionHistoryEntryDeq();
  }
  RSVP_TRACE(sessionTrace(), 9, "Adding entry to the session event queue");
  sessionHistoryEntryEnq(entry);
}

bool RsvpSessionState::sessionCliIdLesser(RsvpSessionState const& a, RsvpSessionState const& b) {
  return a.sessionCliId().value() < b.sessionCliId().value();
}

}  // namespace Rsvp
