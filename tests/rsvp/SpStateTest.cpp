// The state path: every cell of the PATH and RESV sub-state machine with its
// trace texts and notifications, the jittered refresh intervals against
// their formula, fast start, the state blocks' views, the table's counts and
// the history queues' bound.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace Rsvp;

using TestSupport::spId;

char const* stateName(Kel::U32 s) {
  static char const* const names[] = {"spOperStateDown", "spOperStateRcvd", "spOperStateSent",
                                      "spOperStateBoth"};
  return names[s];
}

// Every cell of the table, for both sub-states: the new state, the trace
// and whether observers heard of it; an action or a stored state outside the
// four falls back to Down.
TEST(SpOperState, EveryCellOfTheTable) {
  Kel::U32 const table[4][4] = {
      // msgRecv, msgSend, tearRecv, tearSend
      {1, 2, 0, 0},
      {1, 3, 0, 1},
      {3, 2, 2, 0},
      {3, 3, 2, 1},
  };
  char const* const actions[] = {"msgRecv", "msgSend", "tearRecv", "tearSend"};
  for (bool path : {true, false}) {
    for (Kel::U32 from = 0; from < 4; ++from) {
      for (Kel::U32 action = 0; action < 4; ++action) {
        auto state = rsvpSpStateFactory(spId(1), false);
        auto const start = static_cast<RsvpSpOperState>(from);
        if (path) {
          state->spOperPathStateIs(start);
        } else {
          state->spOperResvStateIs(start);
        }
        TestSupport::Heard heard(state.get());
        TestSupport::TraceCapture trace("RsvpSp", 9);
        auto const act = static_cast<RsvpSpOperStateAction>(action);
        if (path) {
          state->updateOperPathState(act);
        } else {
          state->updateOperResvState(act);
        }
        Kel::U32 const to = table[from][action];
        EXPECT_EQ(path ? state->spOperPathState() : state->spOperResvState(), to)
            << stateName(from) << " " << actions[action];
        EXPECT_EQ(heard.log, to == from ? std::vector<std::string>{}
                                        : std::vector<std::string>{path ? "spOperPathState"
                                                                        : "spOperResvState"});
        std::string const kind = path ? "PATH" : "RESV";
        std::string const decision =
            to == from ? "RsvpSp[9] Keeping " + kind + " state " + stateName(from) + " (action " +
                             actions[action] + ")"
                       : "RsvpSp[9] Changing " + kind + " state from " + stateName(from) + " to " +
                             stateName(to) + " (action " + actions[action] + ")";
        ASSERT_EQ(trace.lines.size(), 2u);
        EXPECT_EQ(trace.lines[0], std::string("RsvpSp[8] ") +
                                      (path ? "updateOperPathState" : "updateOperResvState") +
                                      " action=" + actions[action]);
        EXPECT_EQ(trace.lines[1], decision);
      }
    }
  }

  for (Kel::U32 from = 0; from < 4; ++from) {
    auto state = rsvpSpStateFactory(spId(1), false);
    state->spOperPathStateIs(static_cast<RsvpSpOperState>(from));
    state->updateOperPathState(static_cast<RsvpSpOperStateAction>(4));
    EXPECT_EQ(state->spOperPathState(), spOperStateDown) << from;
  }
  auto state = rsvpSpStateFactory(spId(1), false);
  state->spOperResvStateIs(static_cast<RsvpSpOperState>(7));
  state->updateOperResvState(msgRecv);
  EXPECT_EQ(state->spOperResvState(), spOperStateDown);
}

// The formula, written out in single precision.
double expectedRefresh(int drawn, unsigned int base) {
  float const factor = static_cast<float>(drawn) / 2147483648.0f + 0.5f;
  float const seconds =
      static_cast<float>(base >> 16) * 65536.0f + static_cast<float>(base & 0xffffu);
  return static_cast<double>(factor * seconds);
}

// The refresh value is the formula's over a base that fast start doubles
// from its truncated start up to the maximum.
TEST(SpRefresh, FastStartDoublesTheTruncatedBase) {
  // What, fast start, the starting and the largest base, the bases jittered in turn.
  std::tuple<char const*, bool, double, double, std::vector<unsigned int>> const cases[] = {
      {"fast start", true, 2.0, 30, {2, 4, 8, 16, 30, 30}},
      {"no fast start", false, 2.0, 30, {30, 30, 30}},
      {"a base of 2.9 is jittered as 2", true, 2.9, 30, {2, 5, 11, 23, 30}},
      {"bases at and above 2^31", false, 2.0, 4294967295.0, {4294967295u, 4294967295u}},
      {"a base split into its high and low words", false, 2.0, 65537.0, {65537u}},
  };
  for (auto const& [what, fastStart, startBase, maxBase, bases] : cases) {
    for (bool downstream : {true, false}) {
      auto state = rsvpSpStateFactory(spId(1), false);
      if (downstream) {
        state->currentDsBaseRefreshIs(startBase);
      } else {
        state->currentUsBaseRefreshIs(startBase);
      }
      unsigned int seed = 3;
      for (unsigned int base : bases) {
        // The draw the call will make: the generator is the process's.
        std::srand(++seed);
        int const drawn = std::rand();
        RsvpSpState::setRandomSeed(seed);
        double const got = downstream ? state->generateAndUpdateDsRefreshValue(maxBase, fastStart)
                                      : state->generateAndUpdateUsRefreshValue(maxBase, fastStart);
        EXPECT_EQ(got, expectedRefresh(drawn, base)) << what << " base " << base;
      }
    }
  }
}

// The bandwidth is the held PATH message's rate, 0 without one; the order
// by operator id.
TEST(SpState, BandwidthViewAndOrderByCliId) {
  auto coll = rsvpSpStateCollFactory("spStates");
  auto state = coll->spStateIs(spId(1), false);
  EXPECT_EQ(state->bandwidth(), 0.0f) << "no PATH message held";
  auto msg = rsvpPathMsgFactory();
  RsvpSenderTspecObj tspec;
  tspec.tokenBucketRateIs(1250.5f);
  msg->senderTspecObjIs(tspec);
  state->inPathStateIs()->msgIs(msg);
  EXPECT_EQ(state->bandwidth(), 1250.5f);
  auto other = coll->spStateIs(spId(2), true);
  other->spCliIdIs(RsvpCliId(1));
  state->spCliIdIs(RsvpCliId(2));
  EXPECT_TRUE(RsvpSpState::spCliIdLesser(*other, *state));
  EXPECT_FALSE(RsvpSpState::spCliIdLesser(*state, *other));
}

// The three counts walk the table: of 200 paths, every second operational,
// every third a bypass, every fifth with its bypass in use.
TEST(SpStateColl, CountsAgreeWithAWalk) {
  auto coll = rsvpSpStateCollFactory("spStates");
  for (Kel::U32 i = 0; i < 200; ++i) {
    auto s = coll->spStateIs(spId(i), i % 3 == 0);
    s->operationalIs(i % 2 == 0);
    s->dsFrrInUseIs(i % 5 == 0);
  }
  EXPECT_EQ(coll->operationalCount(), 100u);
  EXPECT_EQ(coll->bypassCount(), 67u);
  EXPECT_EQ(coll->bypassInUseCount(), 40u);
}

// The latest of primary and backup message, ties to the primary; the head
// end's views of its tunnel configuration, with none or beyond its hops (the
// other views only forward).
TEST(StateBlocks, LatestMessageAndHeadEndViews) {
  auto in = rsvpInPathStateFactory();
  EXPECT_EQ(in->latestMsg(), nullptr) << "a tie at 0 goes to the empty primary";
  auto primary = rsvpPathMsgFactory();
  auto backup = rsvpPathMsgFactory();
  in->msgIs(primary);
  in->backupMsgIs(backup);
  EXPECT_EQ(in->latestMsg(), primary);
  in->backupMsgLastRefreshIs(5);
  EXPECT_EQ(in->latestMsg(), backup);
  EXPECT_EQ(in->latestMsgLastRefresh(), 5);
  in->msgLastRefreshIs(5);
  EXPECT_EQ(in->latestMsg(), primary) << "a tie goes to the primary";

  auto head = rsvpHeadendStateFactory();
  EXPECT_EQ(head->srcIp(), Lumo::IpGenAddr()) << "no tunnel configuration";
  auto config =
      rsvpTunnelConfigFactory(RsvpTunnelConfigId(1, 2, staticReqType), Lumo::IpGenAddr("10.0.0.1"),
                              Lumo::IpGenAddr("10.0.0.9"), spId(4));
  config->hopIs(1, Lumo::IpGenAddr("10.0.1.1"));
  head->tunnelConfigIs(config);
  EXPECT_EQ(head->hop(1), Lumo::IpGenAddr("10.0.1.1"));
  EXPECT_EQ(head->hop(2), Lumo::IpGenAddr()) << "beyond the configured hops";
}

// Both history queues keep the newest ten, oldest first, with their trace
// texts; more than ten put there by the raw queue operations is fatal.
struct HistoryCase {
  char const* what;
  char const* facility;
  char const* full;
  char const* adding;
  char const* assertion;
  // Over a fresh owner, `n` entries by the raw queue, then one stamped `t`
  // the checked way: answers the queue's size and its head's stamp.
  std::pair<std::size_t, double> (*addAfter)(int n, double t);
};

template <class It>
double headStamp(It const& it) {
  return it.done() ? -1.0 : it.value()->timestamp();
}

HistoryCase const historyCases[] = {
    {"state path", "RsvpSp", "RsvpSp[9] SP event queue full, dequeuing entry at the head",
     "RsvpSp[9] Adding entry to the SP event queue",
     "spHistoryEntrys\\(\\) <= RsvpConstants::maxHistoryQueueSize\\(\\)",
     [](int n, double t) {
       auto const s = rsvpSpStateFactory(spId(1), false);
       for (int i = 0; i < n; ++i) s->spHistoryEntryEnq(rsvpSpHistoryEntryFactory(i));
       s->addSpHistoryEntry(rsvpSpUsFrrInUseHistoryEntryFactory(t, true));
       return std::pair(s->spHistoryEntrys(), headStamp(s->spHistoryEntryIter()));
     }},
    {"session", "RsvpSession",
     "RsvpSession[9] Session event queue full, dequeuing entry at the head",
     "RsvpSession[9] Adding entry to the session event queue",
     "sessionHistoryEntrys\\(\\) <= RsvpConstants::maxHistoryQueueSize\\(\\)",
     [](int n, double t) {
       auto const s = rsvpSessionStateFactory(RsvpSessionId());
       for (int i = 0; i < n; ++i) s->sessionHistoryEntryEnq(rsvpSessionHistoryEntryFactory(i));
       s->addSessionHistoryEntry(rsvpSessionCreationHistoryEntryFactory(t));
       return std::pair(s->sessionHistoryEntrys(), headStamp(s->sessionHistoryEntryIter()));
     }},
};

// The eleventh entry drops the first, with both trace lines.
TEST(History, TheEleventhEntryDropsTheFirst) {
  for (HistoryCase const& c : historyCases) {
    for (int n = 0; n < 10; ++n) EXPECT_EQ(c.addAfter(n, n).first, n + 1u) << c.what;
    TestSupport::TraceCapture trace(c.facility, 9);
    EXPECT_EQ(c.addAfter(10, 10), std::pair(std::size_t{10}, 1.0)) << c.what << ": the first went";
    EXPECT_EQ(trace.lines, (std::vector<std::string>{c.full, c.adding})) << c.what;
  }
}

// More entries than the bound, put there by the raw queue, is fatal.
TEST(HistoryDeathTest, MoreThanTheBoundIsFatal) {
  for (HistoryCase const& c : historyCases) EXPECT_DEATH(c.addAfter(11, 99), c.assertion) << c.what;
}

}  // namespace
