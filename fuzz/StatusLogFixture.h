// The status tree that the status-log fuzz target replicates, shared with the
// program that writes its seed corpus: the agent's road for a few LSPs over
// two sessions and two neighbors each way, so that the tree holds state
// paths with their blocks and messages, sessions, neighbors with refresh
// identifiers, pipes, labels and history.
#ifndef RSVP_FUZZ_STATUSLOGFIXTURE_H
#define RSVP_FUZZ_STATUSLOGFIXTURE_H

#include <Rsvp/Rsvp.h>

#include "AgentRoad.h"

#include <memory>

namespace fuzzing {

struct StatusRoad {
  static constexpr Kel::U32 kLsps = 4;

  Kel::Ptr<Rsvp::RsvpConfig> config = Rsvp::rsvpConfigFactory("config");
  Kel::Ptr<Rsvp::RsvpStatus> status = Rsvp::rsvpStatusFactory("status");
  Road::Shape shape{kLsps, 2, 2, 2};
  Road::PacketSide packets{shape};
  std::unique_ptr<Road::Agent> agent;
  std::unique_ptr<Road::LabelAllocator> allocator;

  // Every LSP up, one of them changed once and one torn down.
  StatusRoad() {
    Rsvp::RsvpSpState::setRandomSeed(3);
    config->refreshPeriodIs(30);
    status->doInit();
    agent = std::make_unique<Road::Agent>(*status, *config, Road::OnRefresh::replaceHeld);
    allocator = std::make_unique<Road::LabelAllocator>(*status->labelRequestTable(),
                                                       *status->labelAllocTable());
    for (Kel::U32 lsp = 0; lsp < kLsps; ++lsp) up(lsp, 0);
    agent->nowIs(30);
    up(1, 1);
    tear(3);
  }
  void up(Kel::U32 lsp, Kel::U32 version) {
    agent->received(packets.upstreamOf(lsp), packets.path(lsp, version));
    agent->received(packets.downstreamOf(lsp), packets.resv(lsp, 1000 + lsp));
  }
  void tear(Kel::U32 lsp) { agent->received(packets.upstreamOf(lsp), packets.pathTear(lsp)); }
};

}  // namespace fuzzing

#endif  // RSVP_FUZZ_STATUSLOGFIXTURE_H
