// The agent's road at scale with a replica attached: PATH and RESV
// refreshes, changes and tears round after round, the replica checked equal
// to the source after each round and its live entities kept in step.
#include <Kel/AttrLog.h>
#include <Kel/Browser.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"
#include "AgentRoad.h"

#include <random>

namespace {

using namespace Rsvp;

#ifdef RSVP_TESTS_SANITIZED
constexpr Kel::U32 kLsps = 400;
#else
constexpr Kel::U32 kLsps = 10000;
#endif
constexpr int kRounds = 100;

TEST(Road, ReplicaFollowsRefreshesChangesAndTearsRoundAfterRound) {
  auto const config = rsvpConfigFactory("config");
  TestSupport::LogLink<RsvpStatus> link(rsvpStatusFactory("status"), rsvpStatusFactory("status"));
  link.source->doInit();
  link.connect();
  Road::Shape shape;
  shape.lsps = kLsps;
  Road::PacketSide packets(shape);
  // Every refresh replaces the held message: entities come and go all the time.
  Road::Agent agent(*link.source, *config, Road::OnRefresh::replaceHeld);
  Road::LabelAllocator allocator(*link.source->labelRequestTable(),
                                 *link.source->labelAllocTable());
  RsvpSpState::setRandomSeed(7);

  std::mt19937 rng(11);
  std::vector<Kel::U32> version(kLsps, 0);
  std::vector<bool> up(kLsps, false);
  for (int round = 0; round < kRounds; ++round) {
    agent.nowIs(30.0 * round);
    for (Kel::U32 lsp = 0; lsp < kLsps; ++lsp) {
      Kel::U32 const dice = rng() % 100;
      if (up[lsp] && dice < 2) {
        agent.received(packets.upstreamOf(lsp), packets.pathTear(lsp));
        up[lsp] = false;
        continue;
      }
      if (!up[lsp] && round > 0 && dice >= 50) continue;  // comes back later
      if (dice >= 2 && dice < 7) ++version[lsp];          // a change
      agent.received(packets.upstreamOf(lsp), packets.path(lsp, version[lsp]));
      agent.received(packets.downstreamOf(lsp), packets.resv(lsp, 1000 + lsp));
      up[lsp] = true;
    }
    link.sync();
    ASSERT_TRUE(link.reader.inSync()) << "round " << round;
    ASSERT_EQ(link.difference(), "") << "round " << round;
    // Every entity the source's writer follows is named in the replica and
    // none lingers there: the replica's memory follows the source's.
    std::size_t const source = link.writer.trackedEntities();
    std::size_t const replica = link.reader.namedEntities() + link.reader.heldEntities();
    ASSERT_LE(replica, source + source / 10) << "round " << round;
    ASSERT_GE(replica + replica / 10, source) << "round " << round;
  }
  Road::Counters const& c = agent.counters();
  EXPECT_GT(c.pathRefreshes, c.pathChanges);
  EXPECT_GT(c.tears, 0u);
  EXPECT_EQ(c.unmatched, 0u);
  auto const sp = link.replica->spStateColl();
  EXPECT_EQ(sp->spStateSize(), link.source->spStateColl()->spStateSize());
  EXPECT_GT(sp->operationalCount(), kLsps / 2);
  EXPECT_TRUE(link.same()) << "the printed trees differ where the comparison saw nothing";
}

// A batched agent handles what an immediate one does, in the same order:
// the trees end alike, even where one batch tears a path and makes it again.
TEST(Road, BatchedAgentBuildsTheTreeOfTheImmediateOne) {
  constexpr Kel::U32 kFew = 60;
  auto build = [](Kel::U32 batch, Road::Counters& counters) {
    auto const config = rsvpConfigFactory("config");
    auto const status = rsvpStatusFactory("status");
    status->doInit();
    Road::Shape shape;
    shape.lsps = kFew;
    Road::PacketSide packets(shape);
    Road::Agent agent(*status, *config);
    Road::LabelAllocator allocator(*status->labelRequestTable(), *status->labelAllocTable());
    agent.batchIs(batch);
    RsvpSpState::setRandomSeed(7);
    for (Kel::U32 round = 0; round < 4; ++round) {
      agent.nowIs(30.0 * round);
      for (Kel::U32 lsp = 0; lsp < kFew; ++lsp) {
        agent.received(packets.upstreamOf(lsp), packets.path(lsp, (lsp + round) % 3 == 0));
        if (lsp % 7 == round) {
          agent.received(packets.upstreamOf(lsp), packets.pathTear(lsp));
          if (lsp % 2 == 0) agent.received(packets.upstreamOf(lsp), packets.path(lsp, 2));
        }
        agent.received(packets.downstreamOf(lsp), packets.resv(lsp, 1000 + lsp));
      }
      agent.drain();
    }
    counters = agent.counters();
    return Kel::browseText(*status);
  };
  Road::Counters immediate;
  Road::Counters batched;
  std::string const tree = build(1, immediate);
  EXPECT_EQ(build(5, batched), tree);
  EXPECT_EQ(batched.pathChanges, immediate.pathChanges);
  EXPECT_EQ(batched.pathRefreshes, immediate.pathRefreshes);
  EXPECT_EQ(batched.tears, immediate.tears);
  EXPECT_EQ(batched.unmatched, immediate.unmatched);
  EXPECT_GT(immediate.unmatched, 0u);  // RESVs of torn paths
  EXPECT_GT(immediate.tears, 0u);
}

}  // namespace
