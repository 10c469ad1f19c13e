#include "AgentRoad.h"

#include <algorithm>
#include <iterator>

namespace Road {

using namespace Rsvp;
using Lumo::IpGenAddr;

namespace {

IpGenAddr addr(Kel::U8 a, Kel::U8 b, Kel::U32 low16) {
  return IpGenAddr::ipv4((Kel::U32{a} << 24) | (Kel::U32{b} << 16) | (low16 & 0xffff));
}

// This router's own address, the hop object of what it sends.
IpGenAddr const kSelf = addr(10, 0, 1);

RsvpSenderTspecObj tspec(float rate) {
  return RsvpSenderTspecObj(0, 7, 1, 6, 127, 0, 5, rate, rate, rate, 0, 1500);
}

RsvpFlowSpecObj flowspec(float rate) {
  return RsvpFlowSpecObj(0, 7, 5, 6, 127, 0, 5, rate, rate, rate, 0, 1500, 0, 0, 0, 0, 0);
}

}  // namespace

// ---- the packet side

RsvpSpId PacketSide::spId(Kel::U32 lsp) const {
  Kel::U32 const sessions = (shape_.lsps + shape_.lspsPerSession - 1) / shape_.lspsPerSession;
  Kel::U32 const session = lsp % sessions;
  auto const lspId = static_cast<Kel::U16>(lsp / sessions + 1);
  RsvpSessionId const s(addr(10, 200 + static_cast<Kel::U8>(session >> 16), session),
                        RsvpTunnelId(static_cast<Kel::U16>(session % 60000 + 1)), addr(10, 100, 1));
  return RsvpSpId(s, RsvpPathId(lspId));
}

RsvpNeighborId PacketSide::upstreamOf(Kel::U32 lsp) const {
  return RsvpNeighborId(addr(10, 1, lsp % shape_.upstreamNeighbors + 1));
}

RsvpNeighborId PacketSide::downstreamOf(Kel::U32 lsp) const {
  return RsvpNeighborId(addr(10, 2, lsp / 7 % shape_.downstreamNeighbors + 1));
}

Kel::Ptr<RsvpPathMsg> PacketSide::path(Kel::U32 lsp, Kel::U32 version) const {
  RsvpSpId const id = spId(lsp);
  RsvpSessionId const& s = id.sessionId();
  auto m = rsvpPathMsgFactory();
  m->srcIpIs(upstreamOf(lsp).neighborIp());
  m->dstIpIs(s.dstIp());
  m->sessionObjIs(RsvpSessionObj(s.dstIp(), s.tunnelId().value(), s.extTunnelId()));
  m->hopObjIs(RsvpHopObj(upstreamOf(lsp).neighborIp(), 1));
  m->senderTemplateObjIs(RsvpSenderTemplateObj(s.extTunnelId(), id.pathId().lspId()));
  m->senderTspecObjIs(tspec(1e6f * static_cast<float>(version + 1)));
  m->labelRequestObjIs(RsvpLabelRequestObj(0x0800));
  // The next hop rides in the message so that the agent needs no routing.
  m->neighborIpIs(downstreamOf(lsp).neighborIp());
  return m;
}

Kel::Ptr<RsvpResvMsg> PacketSide::resv(Kel::U32 lsp, Kel::U32 label) const {
  RsvpSpId const id = spId(lsp);
  RsvpSessionId const& s = id.sessionId();
  auto m = rsvpResvMsgFactory();
  m->srcIpIs(downstreamOf(lsp).neighborIp());
  m->dstIpIs(kSelf);
  m->sessionObjIs(RsvpSessionObj(s.dstIp(), s.tunnelId().value(), s.extTunnelId()));
  m->hopObjIs(RsvpHopObj(downstreamOf(lsp).neighborIp(), 1));
  m->styleObjIs(RsvpStyleObj(0, 0, 0x12));
  m->flowSpecObjIs(flowspec(1e6f));
  m->filterSpecObjIs(RsvpFilterSpecObj(s.extTunnelId(), id.pathId().lspId()));
  m->labelObjIs(RsvpLabelObj(Lumo::MplsLabel(label)));
  return m;
}

Kel::Ptr<RsvpPathTearMsg> PacketSide::pathTear(Kel::U32 lsp) const {
  RsvpSpId const id = spId(lsp);
  RsvpSessionId const& s = id.sessionId();
  auto m = rsvpPathTearMsgFactory();
  m->srcIpIs(upstreamOf(lsp).neighborIp());
  m->sessionObjIs(RsvpSessionObj(s.dstIp(), s.tunnelId().value(), s.extTunnelId()));
  m->hopObjIs(RsvpHopObj(upstreamOf(lsp).neighborIp(), 1));
  m->senderTemplateObjIs(RsvpSenderTemplateObj(s.extTunnelId(), id.pathId().lspId()));
  return m;
}

// ---- reactors

// Takes each message out of a receive pipe as soon as it is written.
class Agent::RxReactor : public RsvpMsgPipe::NotifieeConst {
 public:
  RxReactor(Agent& agent, RsvpMsgPipe* pipe, RsvpNeighborId from)
      : NotifieeConst(pipe), agent_(agent), pipe_(pipe), from_(std::move(from)) {}
  void onReadableCount() override {
    if (auto const msg = pipe_->rxMsg()) agent_.take(from_, msg);
  }

 private:
  Agent& agent_;
  RsvpMsgPipe* pipe_;
  RsvpNeighborId from_;
};

// The packet side of a transmit pipe: takes the message out to "send" it.
class Agent::TxReactor : public RsvpMsgPipe::NotifieeConst {
 public:
  TxReactor(Agent& agent, RsvpMsgPipe* pipe) : NotifieeConst(pipe), agent_(agent), pipe_(pipe) {}
  void onReadableCount() override {
    agent_.lastSent_ = pipe_->rxMsg();
    ++agent_.counters_.sent;
  }

 private:
  Agent& agent_;
  RsvpMsgPipe* pipe_;
};

// The agent hears the allocator's answers.
class Agent::LabelReactor : public RsvpLabelAllocTable::NotifieeConst {
 public:
  LabelReactor(Agent& agent, RsvpLabelAllocTable const* table)
      : NotifieeConst(table), agent_(agent) {}
  void onLabel(RsvpLabelRequestId const& id) override { agent_.labelAnswered(id); }

 private:
  Agent& agent_;
};

LabelAllocator::LabelAllocator(RsvpLabelRequestTable const& requests, RsvpLabelAllocTable& labels)
    : NotifieeConst(&requests), requests_(requests), labels_(labels) {}

void LabelAllocator::onLabelRequest(RsvpLabelRequestId const& id) {
  if (!requests_.labelRequestHas(id)) {
    labels_.labelDel(id);  // withdrawn: the label is free again
  } else if (!labels_.labelHas(id)) {
    labels_.labelIs(id, Lumo::MplsLabel(next_++ % 1000000 + 16));
  }
}

// ---- the agent

Agent::Agent(RsvpStatus& status, RsvpConfig const& config, OnRefresh onRefresh)
    : status_(status),
      config_(config),
      onRefresh_(onRefresh),
      labels_(std::make_unique<LabelReactor>(*this, status.labelAllocTable().get())) {}

Agent::~Agent() = default;

RsvpNeighborRxMsgPipe* Agent::rxPipe(RsvpNeighborId const& from) {
  auto const pipes = status_.neighborRxMsgPipeColl();
  Kel::Ptr<RsvpNeighborRxMsgPipe> pipe = pipes->msgPipe(from);
  if (!pipe) {
    pipe = pipes->msgPipeIs(from);
    rxReactors_.push_back(std::make_unique<RxReactor>(*this, pipe.get(), from));
  }
  return pipe.get();
}

void Agent::batchIs(Kel::U32 n) {
  batch_ = std::max<Kel::U32>(n, 1);
  if (waiting_.size() >= batch_) drain();
}

void Agent::take(RsvpNeighborId const& from, Kel::Ptr<RsvpMsg const> const& msg) {
  if (batch_ == 1 && waiting_.empty()) {
    handle(from, msg, SpKey(msg->spId()));
    return;
  }
  waiting_.push_back({&from, msg});
  if (waiting_.size() >= batch_) drain();
}

void Agent::drain() {
  // Messages that handling makes wait (none on this road) form the next
  // batch; the vectors' room is kept for the next one.
  std::vector<Waiting> batch;
  std::vector<SpKey> keys;
  std::vector<Blocks> blocks;
  batch.swap(waiting_);
  keys.swap(keys_);
  blocks.swap(blocks_);
  prefetchBatch(batch, keys, blocks);
  std::size_t i = 0;
  try {
    for (; i < batch.size(); ++i) {
      NeighborKey const* const to = blocks[i].to ? &*blocks[i].to : nullptr;
      handle(*batch[i].from, batch[i].msg, keys[i], to);
    }
  } catch (...) {
    // The message that threw is gone, as it would be handled at once; those
    // after it wait again, ahead of any that came meanwhile.
    waiting_.insert(waiting_.begin(), std::make_move_iterator(batch.begin() + i + 1),
                    std::make_move_iterator(batch.end()));
    throw;
  }
  batch.clear();
  if (waiting_.empty()) waiting_.swap(batch);
  if (keys_.empty()) keys_.swap(keys);
  if (blocks_.empty()) blocks_.swap(blocks);
}

namespace {

// Asks for the `n` bytes from `p` (if any), a line at a time.
void prefetchBytes(void const* p, std::size_t n) {
  if (p == nullptr) return;
  for (std::size_t at = 0; at < n; at += 64) Kel::prefetch(static_cast<char const*>(p) + at);
}

}  // namespace

// Each step asks for the memory that the next one reads, over the whole
// batch, so that one message's misses wait alongside the others'. Nothing
// changes here: handling looks the state paths up again.
void Agent::prefetchBatch(std::vector<Waiting> const& batch, std::vector<SpKey>& keys,
                          std::vector<Blocks>& blocks) {
  constexpr std::size_t kMsgBytes = std::max(sizeof(RsvpPathMsg), sizeof(RsvpResvMsg));
  for (Waiting const& w : batch) prefetchBytes(w.msg.get(), kMsgBytes);
  auto const states = status_.spStateColl();
  keys.clear();
  for (Waiting const& w : batch) {
    keys.emplace_back(w.msg->spId());
    states->spStatePrefetch(keys.back(), Kel::PrefetchStep::slots);
  }
  for (SpKey const& k : keys) states->spStatePrefetch(k, Kel::PrefetchStep::key);
  // The blocks the message goes through (by address: counting a reference
  // would wait for them), the observers of the state path's changes, and
  // the neighbor it goes to, hashed at the next step, where the hashing
  // overlaps the memory the batch waits for.
  blocks.clear();
  for (std::size_t i = 0; i < batch.size(); ++i) {
    Blocks& b = blocks.emplace_back();
    RsvpSpState const* const sp = states->spState(keys[i]).get();
    if (!sp) continue;
    sp->notifieesPrefetch();
    if (batch[i].msg->msgType() == rsvpPathMsg) {
      b.inPath = static_cast<RsvpInPathState const*>(sp->inPathStateAddress());
      b.outPath = static_cast<RsvpOutPathState const*>(sp->outPathStateAddress());
      b.toward = &sp->activeDs();
    } else {
      b.inResv = static_cast<RsvpInResvState const*>(sp->inResvStateAddress());
      b.outResv = static_cast<RsvpOutResvState const*>(sp->outResvStateAddress());
      b.toward = &sp->activeUs();
    }
    Kel::prefetch(b.toward);
    prefetchBytes(b.inPath ? static_cast<void const*>(b.inPath) : b.inResv,
                  std::max(sizeof(RsvpInPathState), sizeof(RsvpInResvState)));
    prefetchBytes(b.outPath ? static_cast<void const*>(b.outPath) : b.outResv,
                  std::max(sizeof(RsvpOutPathState), sizeof(RsvpOutResvState)));
  }
  // The messages the blocks hold (the incoming one is compared whole, the
  // outgoing one sent again), and the observers of the blocks' changes.
  for (Blocks& b : blocks) {
    if (b.toward) b.to.emplace(*b.toward);
    if (b.inPath) {
      b.inPath->notifieesPrefetch();
      prefetchBytes(b.inPath->msgAddress(), kMsgBytes);
    } else if (b.inResv) {
      b.inResv->notifieesPrefetch();
      prefetchBytes(b.inResv->msgAddress(), kMsgBytes);
    }
    if (b.outPath) {
      b.outPath->notifieesPrefetch();
      Kel::prefetch(b.outPath->msgAddress());
    } else if (b.outResv) {
      b.outResv->notifieesPrefetch();
      Kel::prefetch(b.outResv->msgAddress());
    }
  }
}

void Agent::handle(RsvpNeighborId const& from, Kel::Ptr<RsvpMsg const> const& msg, SpKey const& id,
                   NeighborKey const* to) {
  switch (msg->msgType()) {
    case rsvpPathMsg:
      handlePath(from, Kel::Ptr<RsvpPathMsg const>(static_cast<RsvpPathMsg const*>(msg.get())), id,
                 to);
      break;
    case rsvpResvMsg:
      handleResv(Kel::Ptr<RsvpResvMsg const>(static_cast<RsvpResvMsg const*>(msg.get())), id, to);
      break;
    case rsvpPathTearMsg:
      handlePathTear(
          Kel::Ptr<RsvpPathTearMsg const>(static_cast<RsvpPathTearMsg const*>(msg.get())), id);
      break;
    default: ++counters_.unmatched; break;
  }
}

RsvpNeighborId Agent::downstreamFor(RsvpPathMsg const& msg) const {
  return RsvpNeighborId(msg.neighborIp());
}

Kel::Ptr<RsvpSpState> Agent::createPath(RsvpSpId const& id, RsvpNeighborId const& from,
                                        RsvpPathMsg const& msg) {
  RsvpNeighborId const to = downstreamFor(msg);
  auto sp = status_.spStateColl()->spStateIs(id, false);
  sp->spCliIdIs(RsvpCliId(nextCliId_++ % RsvpCliId::maxValue() + 1));
  sp->sessionRoleIs(transitSessionRole);
  sp->lspCreationTimeIs(now_);
  sp->refreshPeriodIs(config_.refreshPeriod());
  sp->activeUsIs(from);
  sp->activeDsIs(to);
  sp->senderAddrIs(msg.senderTemplateObj().srcIp());
  sp->nextHopIs(to.neighborIp());

  auto const session = status_.sessionStateColl()->sessionStateIs(id.sessionId());
  if (session->spMemberSize() == 0) {
    session->sessionRoleIs(transitSessionRole);
    session->sessionCreationTimeIs(now_);
    session->addSessionHistoryEntry(rsvpSessionCreationHistoryEntryFactory(now_));
  }
  session->spMemberIs(id);

  auto const neighbors = status_.neighborStateColl();
  for (RsvpNeighborId const& n : {from, to}) {
    if (neighbors->neighborStateHas(n)) continue;
    auto const state = neighbors->neighborStateIs(n);
    state->sharedStateIs(neighbors->sharedState());
    state->neighborCreationTimeIs(now_);
    state->rorEnabledIs(config_.rorEnabled());
    state->txEpochIs(static_cast<Kel::U32>(n.hash() & 0xffffff));
  }
  auto const up = neighbors->neighborState(from);
  up->spMemberIs(id);
  up->upstreamForIs(id);
  auto const down = neighbors->neighborState(to);
  down->spMemberIs(id);
  down->downstreamForIs(id);

  status_.indexActiveDsToSp()->spIdSetIs(to.neighborIp())->spIdIs(id);
  status_.hopObjConfigColl()->hopObjUsConfigIs(id)->neighborIpIs(from.neighborIp());
  status_.hopObjConfigColl()->hopObjDsConfigIs(id)->neighborIpIs(to.neighborIp());
  status_.labelObjConfigColl()->labelObjConfigIs(id)->deliveryTypeIs(remoteDelivery);
  // Last: the allocator may answer at once, and the answer finds the path.
  status_.labelRequestTable()->labelRequestIs(RsvpLabelRequestId(id.sessionId(), id.pathId()),
                                              remoteDelivery);
  ++counters_.pathsCreated;
  return sp;
}

void Agent::labelAnswered(RsvpLabelRequestId const& id) {
  auto const table = status_.labelAllocTable();
  if (!table->labelHas(id)) return;
  auto const sp = status_.spStateColl()->spState(RsvpSpId(id.sessionId(), id.pathId()));
  if (sp) sp->localLabelIs(table->label(id));
}

void Agent::remember(RsvpSpState& sp, RsvpSpOperState path, RsvpSpOperState resv) {
  if (sp.spOperPathState() == path && sp.spOperResvState() == resv) return;
  sp.addSpHistoryEntry(
      rsvpSpOperStateHistoryEntryFactory(now_, sp.spOperPathState(), sp.spOperResvState()));
  bool const up =
      sp.spOperPathState() == spOperStateBoth && sp.spOperResvState() == spOperStateBoth;
  sp.operationalIs(up);
}

void Agent::send(RsvpNeighborId const& to, Kel::Ptr<RsvpMsg const> const& msg,
                 NeighborKey const* hint) {
  auto const pipes = status_.spTxMsgPipeColl();
  // The batch hashed the neighbor the state path had then; one handled
  // before in the batch may have moved it.
  Kel::Ptr<RsvpSpTxMsgPipe> pipe =
      hint && hint->key == to ? pipes->msgPipe(*hint) : pipes->msgPipe(to);
  if (!pipe) {
    pipe = pipes->msgPipeIs(to);
    txReactors_.push_back(std::make_unique<TxReactor>(*this, pipe.get()));
  }
  pipe->txMsgIs(msg);
}

// Keeps an incoming PATH or RESV in its block (or, on a refresh, the one
// held already) and moves the block's times; answers whether it was a refresh.
template <class Block, class Msg>
bool Agent::takeIn(Block& in, Kel::Ptr<Msg const> const& msg) {
  Kel::Ptr<Msg const> const held = in.msg();
  bool const refresh = held && held->equal(msg);
  if (!refresh || onRefresh_ == OnRefresh::replaceHeld) in.msgIs(msg);
  in.msgLastRefreshIs(now_);
  if (!refresh) in.msgLastChangeIs(now_);
  return refresh;
}

void Agent::handlePath(RsvpNeighborId const& from, Kel::Ptr<RsvpPathMsg const> const& msg,
                       SpKey const& key, NeighborKey const* hint) {
  RsvpSpId const& id = key.key;
  Kel::Ptr<RsvpSpState> sp = status_.spStateColl()->spState(key);
  if (!sp) sp = createPath(id, from, *msg);
  RsvpSpOperState const path0 = sp->spOperPathState();
  RsvpSpOperState const resv0 = sp->spOperResvState();

  bool const refresh = takeIn(*sp->inPathStateIs(), msg);
  sp->updateOperPathState(msgRecv);
  sp->generateAndUpdateDsRefreshValue(config_.refreshPeriod(), false);

  // The PATH downstream: rebuilt on a change, sent again as it is on a refresh.
  auto const out = sp->outPathStateIs();
  RsvpNeighborId const to = sp->activeDs();
  Kel::Ptr<RsvpPathMsg> sendMsg = out->msg();
  if (!refresh || !sendMsg) {
    ++counters_.pathChanges;
    auto const neighbor = status_.neighborStateColl()->neighborState(to);
    sendMsg = out->msgIs();
    sendMsg->srcIpIs(kSelf);
    sendMsg->dstIpIs(msg->dstIp());
    sendMsg->sessionObjIs(msg->sessionObj());
    sendMsg->hopObjIs(RsvpHopObj(kSelf, 1));
    sendMsg->senderTemplateObjIs(msg->senderTemplateObj());
    sendMsg->senderTspecObjIs(msg->senderTspecObj());
    sendMsg->labelRequestObjIs(msg->labelRequestObj());
    sendMsg->sessionAttributeObjIs(msg->sessionAttributeObj());
    // A changed message goes under a new refresh identifier.
    RsvpRefreshId const old = neighbor->txSpIdToRefreshIdMap(id);
    if (neighbor->txSpIdToRefreshIdMapHas(id)) neighbor->txRefreshIdToMsgMapDel(old);
    RsvpRefreshId const fresh(neighbor->txEpoch(), neighbor->txMsgIdInc(1));
    sendMsg->msgIdObjIs(RsvpMsgIdObj(false, fresh.epoch(), fresh.msgId()));
    neighbor->txRefreshIdToMsgMapIs(fresh, sendMsg);
    neighbor->txSpIdToRefreshIdMapIs(id, fresh);
    out->msgLastChangeIs(now_);
    out->msgReadyIs(true);
  } else {
    ++counters_.pathRefreshes;
  }
  send(to, sendMsg, hint);
  out->msgLastSentIs(now_);
  sp->updateOperPathState(msgSend);
  remember(*sp, path0, resv0);
}

void Agent::handleResv(Kel::Ptr<RsvpResvMsg const> const& msg, SpKey const& key,
                       NeighborKey const* hint) {
  Kel::Ptr<RsvpSpState> const sp = status_.spStateColl()->spState(key);
  if (!sp) {
    ++counters_.unmatched;
    return;
  }
  RsvpSpOperState const path0 = sp->spOperPathState();
  RsvpSpOperState const resv0 = sp->spOperResvState();
  bool const refresh = takeIn(*sp->inResvStateIs(), msg);
  sp->dsLabelIs(msg->labelObj().label());
  sp->updateOperResvState(msgRecv);
  sp->generateAndUpdateUsRefreshValue(config_.refreshPeriod(), false);

  auto const out = sp->outResvStateIs();
  Kel::Ptr<RsvpResvMsg> sendMsg = out->msg();
  if (!refresh || !sendMsg || sendMsg->labelObj().label() != sp->localLabel()) {
    ++counters_.resvChanges;
    sendMsg = out->msgIs();
    sendMsg->srcIpIs(kSelf);
    sendMsg->dstIpIs(sp->activeUs().neighborIp());
    sendMsg->sessionObjIs(msg->sessionObj());
    sendMsg->hopObjIs(RsvpHopObj(kSelf, 1));
    sendMsg->styleObjIs(msg->styleObj());
    sendMsg->flowSpecObjIs(msg->flowSpecObj());
    sendMsg->filterSpecObjIs(msg->filterSpecObj());
    sendMsg->labelObjIs(RsvpLabelObj(sp->localLabel()));
    out->msgLastChangeIs(now_);
    out->msgReadyIs(true);
  } else {
    ++counters_.resvRefreshes;
  }
  send(sp->activeUs(), sendMsg, hint);
  out->msgLastSentIs(now_);
  sp->updateOperResvState(msgSend);
  remember(*sp, path0, resv0);
}

void Agent::handlePathTear(Kel::Ptr<RsvpPathTearMsg const> const& msg, SpKey const& key) {
  RsvpSpId const& id = key.key;
  Kel::Ptr<RsvpSpState> const sp = status_.spStateColl()->spState(key);
  if (!sp) {
    ++counters_.unmatched;
    return;
  }
  ++counters_.tears;
  sp->updateOperPathState(tearRecv);
  // Downstream learns of it too.
  auto tear = rsvpPathTearMsgFactory();
  tear->srcIpIs(kSelf);
  tear->sessionObjIs(msg->sessionObj());
  tear->hopObjIs(RsvpHopObj(kSelf, 1));
  tear->senderTemplateObjIs(msg->senderTemplateObj());
  send(sp->activeDs(), tear);

  auto const neighbors = status_.neighborStateColl();
  if (auto const up = neighbors->neighborState(sp->activeUs())) {
    up->spMemberDel(id);
    up->upstreamForDel(id);
  }
  if (auto const down = neighbors->neighborState(sp->activeDs())) {
    down->spMemberDel(id);
    down->downstreamForDel(id);
    if (down->txSpIdToRefreshIdMapHas(id)) {
      down->txRefreshIdToMsgMapDel(down->txSpIdToRefreshIdMap(id));
      down->txSpIdToRefreshIdMapDel(id);
    }
  }
  auto const index = status_.indexActiveDsToSp();
  if (auto const row = index->spIdSet(sp->activeDs().neighborIp())) {
    row->spIdDel(id);
    if (row->spIdSize() == 0) index->spIdSetDel(sp->activeDs().neighborIp());
  }
  status_.hopObjConfigColl()->hopObjUsConfigDel(id);
  status_.hopObjConfigColl()->hopObjDsConfigDel(id);
  status_.labelObjConfigColl()->labelObjConfigDel(id);
  status_.labelRequestTable()->labelRequestDel(RsvpLabelRequestId(id.sessionId(), id.pathId()));
  auto const sessions = status_.sessionStateColl();
  if (auto const session = sessions->sessionState(id.sessionId())) {
    session->spMemberDel(id);
    if (session->spMemberSize() == 0) sessions->sessionStateDel(id.sessionId());
  }
  status_.spStateColl()->spStateDel(id);
}

}  // namespace Road
