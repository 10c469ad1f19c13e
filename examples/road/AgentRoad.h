// The agent's road through the status tree, as the walk-through, the
// endurance test and the benchmarks drive it: the packet side writes decoded
// messages into the neighbors' receive pipes; the agent takes each out,
// finds or makes the state path, tells a refresh from a change, keeps the
// message in the incoming block, moves the operational sub-states, records
// history, draws the next refresh, and writes the message to send into the
// transmit pipe of the neighbor it goes to. A label allocator answers the
// agent's requests through the label tables; a tear removes the path.
//
// This is agent logic over the library, not part of it: a real agent adds
// timers, routing and the wire. The neighbors and routes are made up: LSP i
// of a run comes from upstream neighbor 10.1.0.(i % U + 1) and goes to
// downstream neighbor 10.2.0.(i / 7 % D + 1).
#ifndef RSVP_EXAMPLES_AGENTROAD_H
#define RSVP_EXAMPLES_AGENTROAD_H

#include <Rsvp/Rsvp.h>

#include <memory>
#include <optional>
#include <vector>

namespace Road {

// The shape of a run: how many LSPs, over how many sessions and neighbors.
struct Shape {
  Kel::U32 lsps = 1000;
  Kel::U32 lspsPerSession = 100;
  Kel::U32 upstreamNeighbors = 50;
  Kel::U32 downstreamNeighbors = 50;
};

// The messages that the packet side decodes, made up for LSP `lsp`.
class PacketSide {
 public:
  explicit PacketSide(Shape const& shape) : shape_(shape) {}

  [[nodiscard]] Rsvp::RsvpSpId spId(Kel::U32 lsp) const;
  [[nodiscard]] Rsvp::RsvpNeighborId upstreamOf(Kel::U32 lsp) const;
  [[nodiscard]] Rsvp::RsvpNeighborId downstreamOf(Kel::U32 lsp) const;
  // A PATH from upstream; a new `version` asks for other bandwidth (a change).
  [[nodiscard]] Kel::Ptr<Rsvp::RsvpPathMsg> path(Kel::U32 lsp, Kel::U32 version) const;
  // A RESV from downstream carrying `label`.
  [[nodiscard]] Kel::Ptr<Rsvp::RsvpResvMsg> resv(Kel::U32 lsp, Kel::U32 label) const;
  [[nodiscard]] Kel::Ptr<Rsvp::RsvpPathTearMsg> pathTear(Kel::U32 lsp) const;

 private:
  Shape shape_;
};

// What the agent has done so far.
struct Counters {
  Kel::U64 pathRefreshes = 0;
  Kel::U64 pathChanges = 0;  // the first PATH of a path included
  Kel::U64 pathsCreated = 0;
  Kel::U64 resvRefreshes = 0;
  Kel::U64 resvChanges = 0;
  Kel::U64 tears = 0;
  Kel::U64 sent = 0;       // messages taken out of the transmit pipes
  Kel::U64 unmatched = 0;  // RESVs and tears for no known path
};

// How the agent treats a refresh: a message equal to the one held.
enum class OnRefresh {
  // Keep the held message and drop the new copy: only the refresh times
  // move, as in an agent that frees what it decoded once it matched.
  keepHeld,
  // Hold the new copy: the held message entity is replaced by an equal one
  // on every refresh, the hardest case for a mirror of the tree.
  replaceHeld,
};

// The agent: reacts to its receive pipes and writes into its transmit pipes.
// The tree must have been through doInit().
class Agent {
 public:
  Agent(Rsvp::RsvpStatus& status, Rsvp::RsvpConfig const& config,
        OnRefresh onRefresh = OnRefresh::keepHeld);
  ~Agent();
  Agent(Agent const&) = delete;
  Agent& operator=(Agent const&) = delete;

  // The packet side: a decoded message from neighbor `from`, written into
  // its receive pipe, whose reactor (the agent) takes it out at once and
  // handles it then or with its batch (batchIs()).
  void received(Rsvp::RsvpNeighborId const& from, Kel::Ptr<Rsvp::RsvpMsg const> const& msg) {
    rxPipe(from)->txMsgIs(msg);
  }
  // The receive pipe of neighbor `from`, made (with the agent reacting to
  // it) on first use: a packet side that reads one socket per neighbor
  // binds each socket to its pipe once and writes into it directly.
  Rsvp::RsvpNeighborRxMsgPipe* rxPipe(Rsvp::RsvpNeighborId const& from);

  // Messages are taken out of the receive pipes as they are written, and
  // handled in batches of up to `n`, in the order they came (1, the
  // default: each at once). A batch first asks for the memory that its
  // messages' state-path lookups and blocks read, so that their cache
  // misses overlap; it is handled when full and at drain().
  void batchIs(Kel::U32 n);
  // Handles the messages waiting in a batch. Messages still waiting when
  // the agent is destroyed are dropped: drain() first.
  void drain();

  // The agent's clock, in seconds; the driver moves it.
  void nowIs(Kel::Seconds now) noexcept { now_ = now; }
  [[nodiscard]] Counters const& counters() const noexcept { return counters_; }
  [[nodiscard]] Kel::Ptr<Rsvp::RsvpMsg const> const& lastSent() const noexcept { return lastSent_; }

 private:
  class RxReactor;
  class TxReactor;
  class LabelReactor;

  using SpKey = Kel::Hashed<Rsvp::RsvpSpId>;
  using NeighborKey = Kel::Hashed<Rsvp::RsvpNeighborId>;
  // A message taken out of a receive pipe, waiting for its batch.
  struct Waiting {
    Rsvp::RsvpNeighborId const* from;  // the reactor's, which outlives the agent's batches
    Kel::Ptr<Rsvp::RsvpMsg const> msg;
  };

  void take(Rsvp::RsvpNeighborId const& from, Kel::Ptr<Rsvp::RsvpMsg const> const& msg);
  // The blocks a message of a batch goes through, and the neighbor it will
  // be sent to, found ahead of handling (none for a new state path).
  struct Blocks {
    Rsvp::RsvpInPathState const* inPath = nullptr;
    Rsvp::RsvpInResvState const* inResv = nullptr;
    Rsvp::RsvpOutPathState const* outPath = nullptr;
    Rsvp::RsvpOutResvState const* outResv = nullptr;
    Rsvp::RsvpNeighborId const* toward = nullptr;  // in the state path
    std::optional<NeighborKey> to;
  };

  // Hashes the batch's state-path ids into `keys`, finds what `blocks` says
  // of each message, and asks for the memory of their roads.
  void prefetchBatch(std::vector<Waiting> const& batch, std::vector<SpKey>& keys,
                     std::vector<Blocks>& blocks);
  // `to`, when known, is the hashed neighbor that the message's state path
  // sent to when the batch was prefetched.
  void handle(Rsvp::RsvpNeighborId const& from, Kel::Ptr<Rsvp::RsvpMsg const> const& msg,
              SpKey const& id, NeighborKey const* to = nullptr);
  void handlePath(Rsvp::RsvpNeighborId const& from, Kel::Ptr<Rsvp::RsvpPathMsg const> const& msg,
                  SpKey const& id, NeighborKey const* to);
  void handleResv(Kel::Ptr<Rsvp::RsvpResvMsg const> const& msg, SpKey const& id,
                  NeighborKey const* to);
  void handlePathTear(Kel::Ptr<Rsvp::RsvpPathTearMsg const> const& msg, SpKey const& id);
  Kel::Ptr<Rsvp::RsvpSpState> createPath(Rsvp::RsvpSpId const& id, Rsvp::RsvpNeighborId const& from,
                                         Rsvp::RsvpPathMsg const& msg);
  // Writes `msg` into the transmit pipe of `to`; `hint`, if it names `to`,
  // saves hashing it again.
  void send(Rsvp::RsvpNeighborId const& to, Kel::Ptr<Rsvp::RsvpMsg const> const& msg,
            NeighborKey const* hint = nullptr);
  void remember(Rsvp::RsvpSpState& sp, Rsvp::RsvpSpOperState path, Rsvp::RsvpSpOperState resv);
  template <class Block, class Msg>
  bool takeIn(Block& in, Kel::Ptr<Msg const> const& msg);
  [[nodiscard]] Rsvp::RsvpNeighborId downstreamFor(Rsvp::RsvpPathMsg const& msg) const;
  void labelAnswered(Rsvp::RsvpLabelRequestId const& id);

  Rsvp::RsvpStatus& status_;
  Rsvp::RsvpConfig const& config_;
  OnRefresh onRefresh_;
  Kel::Seconds now_ = 0;
  Counters counters_;
  Kel::U32 nextCliId_ = 1;
  Kel::Ptr<Rsvp::RsvpMsg const> lastSent_;
  Kel::U32 batch_ = 1;
  std::vector<Waiting> waiting_;
  std::vector<SpKey> keys_;     // room for a batch's state-path ids, hashed once
  std::vector<Blocks> blocks_;  // room for a batch's blocks
  std::vector<std::unique_ptr<RxReactor>> rxReactors_;
  std::vector<std::unique_ptr<TxReactor>> txReactors_;
  std::unique_ptr<LabelReactor> labels_;
};

// The label allocator's side: answers each request filed in the request
// table with a label in the allocation table, and frees it on withdrawal.
class LabelAllocator : public Rsvp::RsvpLabelRequestTable::NotifieeConst {
 public:
  LabelAllocator(Rsvp::RsvpLabelRequestTable const& requests, Rsvp::RsvpLabelAllocTable& labels);
  void onLabelRequest(Rsvp::RsvpLabelRequestId const& id) override;

 private:
  Rsvp::RsvpLabelRequestTable const& requests_;
  Rsvp::RsvpLabelAllocTable& labels_;
  Kel::U32 next_ = 100000;
};

}  // namespace Road

#endif  // RSVP_EXAMPLES_AGENTROAD_H
