// The state path's own logic: the PATH/RESV sub-state machine, the jittered
// refresh intervals and the views of the PATH message held. Traces go to the
// RsvpSp facility: entry at level 8, decisions at level 9.
#include <Rsvp/RsvpSp.h>
#include <Rsvp/RsvpTrace.h>

#include <Kel/Assert.h>

#include <algorithm>
#include <cstdlib>

namespace Rsvp {

namespace {

// The next sub-state: a received message sets the Rcvd bit, a sent one the
// Sent bit, a received tear clears Rcvd and a sent tear clears Sent. Anything
// outside the four actions and states falls back to Down, deliberately.
RsvpSpOperState nextOperState(RsvpSpOperState current, RsvpSpOperStateAction action) {
  auto const bits = static_cast<Kel::U32>(current);
  if (bits > spOperStateBoth) return spOperStateDown;
  switch (action) {
    case msgRecv: return static_cast<RsvpSpOperState>(bits | spOperStateRcvd);
    case msgSend: return static_cast<RsvpSpOperState>(bits | spOperStateSent);
    case tearRecv: return static_cast<RsvpSpOperState>(bits & ~Kel::U32{spOperStateRcvd});
    case tearSend: return static_cast<RsvpSpOperState>(bits & ~Kel::U32{spOperStateSent});
  }
  return spOperStateDown;
}

// One procedure for both sub-states; `kind` is "PATH" or "RESV".
template <class Store>
void updateOperState(char const* function, char const* kind, RsvpSpOperState current,
                     RsvpSpOperStateAction action, Store store) {
  RSVP_TRACE(spTrace(), 8, function << " action=" << action);
  RsvpSpOperState const next = nextOperState(current, action);
  if (next == current) {
    RSVP_TRACE(spTrace(), 9,
               "Keeping " << kind << " state " << current << " (action " << action << ")");
    return;
  }
  RSVP_TRACE(spTrace(), 9,
             "Changing " << kind << " state from " << current << " to " << next << " (action "
                         << action << ")");
  store(next);
}

// One refresh step on `currentBase`, for either direction.
Kel::Seconds nextRefresh(char const* function, Kel::Seconds maxBaseRefresh, bool fastStart,
                         Kel::Seconds current, Kel::Seconds* next) {
  RSVP_TRACE(spTrace(), 8,
             function << " maxBaseRefresh=" << maxBaseRefresh << ", fastStart=" << fastStart);
  Kel::Seconds base = fastStart ? std::min(current, maxBaseRefresh) : maxBaseRefresh;
  // Truncated toward zero to whole seconds, as unsigned: 2^31 and above too.
  auto const whole = static_cast<unsigned int>(static_cast<Kel::U64>(base));
  Kel::Seconds const result = RsvpSpState::randomRefresh(whole);
  *next = std::min(2 * base, maxBaseRefresh);
  return result;
}

}  // namespace

void RsvpSpState::updateOperPathState(RsvpSpOperStateAction action) {
  updateOperState("updateOperPathState", "PATH", spOperPathState(), action,
                  [this](RsvpSpOperState s) { spOperPathStateIs(s); });
}

void RsvpSpState::updateOperResvState(RsvpSpOperStateAction action) {
  updateOperState("updateOperResvState", "RESV", spOperResvState(), action,
                  [this](RsvpSpOperState s) { spOperResvStateIs(s); });
}

void RsvpSpState::setRandomSeed(unsigned int seed) { std::srand(seed); }

Kel::Seconds RsvpSpState::randomRefresh(unsigned int base) {
  float const factor = static_cast<float>(std::rand()) * 0x1p-31f + 0.5f;
  float const seconds =
      static_cast<float>(base >> 16) * 65536.0f + static_cast<float>(base & 0xffffu);
  return static_cast<Kel::Seconds>(factor * seconds);
}

Kel::Seconds RsvpSpState::generateAndUpdateUsRefreshValue(Kel::Seconds const& maxBaseRefresh,
                                                          bool fastStart) {
  Kel::Seconds next = 0;
  Kel::Seconds const result = nextRefresh("generateAndUpdateUsRefreshValue", maxBaseRefresh,
                                          fastStart, currentUsBaseRefresh(), &next);
  currentUsBaseRefreshIs(next);
  return result;
}

Kel::Seconds RsvpSpState::generateAndUpdateDsRefreshValue(Kel::Seconds const& maxBaseRefresh,
                                                          bool fastStart) {
  Kel::Seconds next = 0;
  Kel::Seconds const result = nextRefresh("generateAndUpdateDsRefreshValue", maxBaseRefresh,
                                          fastStart, currentDsBaseRefresh(), &next);
  currentDsBaseRefreshIs(next);
  return result;
}

std::size_t RsvpSpState::spHistoryEntrys() const { return spHistoryEntrySize(); }

void RsvpSpState::addSpHistoryEntry(Kel::Ptr<RsvpSpHistoryEntry const> const& entry) {
  KEL_ASSERT(spHistoryEntrys() <= RsvpConstants::maxHistoryQueueSize());
  if (spHistoryEntrys() == RsvpConstants::maxHistoryQueueSize()) {
    RSVP_TRACE(spTrace(), 9, "SP event queue full, dequeuing entry at the head");
    (void)spHistoryEntryDeq();
  }
  RSVP_TRACE(spTrace(), 9, "Adding entry to the SP event queue");
  spHistoryEntryEnq(entry);
}

bool RsvpSpState::spCliIdLesser(RsvpSpState const& a, RsvpSpState const& b) {
  return a.spCliId().value() < b.spCliId().value();
}

RsvpSessionAttributeObj RsvpSpState::sessionAttributes() const {
  auto const block = inPathState();
  auto const msg = block ? block->msg() : nullptr;
  return msg ? msg->sessionAttributeObj() : RsvpSessionAttributeObj();
}

RsvpSenderTspecObj RsvpSpState::senderTspec() const {
  auto const block = inPathState();
  auto const msg = block ? block->msg() : nullptr;
  return msg ? msg->senderTspecObj() : RsvpSenderTspecObj();
}

Kel::F32 RsvpSpState::bandwidth() const { return senderTspec().tokenBucketRate(); }

Kel::U32 RsvpSpStateColl::operationalCount() const {
  Kel::U32 n = 0;
  for (auto it = spStateIter(); !it.done(); ++it) n += it.value()->operational() ? 1 : 0;
  return n;
}

Kel::U32 RsvpSpStateColl::bypassCount() const {
  Kel::U32 n = 0;
  for (auto it = spStateIter(); !it.done(); ++it) n += it.value()->isBypass() ? 1 : 0;
  return n;
}

Kel::U32 RsvpSpStateColl::bypassInUseCount() const {
  Kel::U32 n = 0;
  for (auto it = spStateIter(); !it.done(); ++it) n += it.value()->dsFrrInUse() ? 1 : 0;
  return n;
}

}  // namespace Rsvp
