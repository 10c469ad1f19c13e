// The state path: the sub-state machine with and without an observer, the
// refresh-interval draw, a history entry added to a full queue, the three
// counts of the table over 100k state paths, and the heap bytes of a bare
// state path and of a transit one as a transit router holds it (four message
// blocks, a PATH in and out and a RESV in and out), from the counting
// operator new.
#include <Rsvp/Rsvp.h>

#include <benchmark/benchmark.h>

#include "HeapCount.h"

#include <cstdint>

namespace {

using namespace Rsvp;

RsvpSpId spId(Kel::U32 i) {
  RsvpSessionId const s(Lumo::IpGenAddr::ipv4(0x0a000000u + (i % 4096)),
                        RsvpTunnelId(static_cast<Kel::U16>(i / 4096 + 1)),
                        Lumo::IpGenAddr::ipv4(0x0a0000feu));
  return RsvpSpId(s, RsvpPathId(1 + i % 7));
}

void BM_SpUpdateOperPathState(benchmark::State& state) {
  auto sp = rsvpSpStateFactory(spId(1), false);
  struct Heard : RsvpSpState::NotifieeConst {
    using NotifieeConst::NotifieeConst;
    void onSpOperPathState() override { ++count; }
    std::int64_t count = 0;
  };
  std::unique_ptr<Heard> heard;
  if (state.range(0)) heard = std::make_unique<Heard>(sp.get());
  // Each pair of actions changes the state twice.
  for (auto _ : state) {
    sp->updateOperPathState(msgRecv);
    sp->updateOperPathState(tearRecv);
  }
  state.SetItemsProcessed(2 * state.iterations());
  state.SetLabel(state.range(0) ? "one observer" : "no observer");
}
BENCHMARK(BM_SpUpdateOperPathState)->Arg(0)->Arg(1);

void BM_SpGenerateDsRefresh(benchmark::State& state) {
  auto sp = rsvpSpStateFactory(spId(1), false);
  RsvpSpState::setRandomSeed(1);
  double sum = 0;
  for (auto _ : state) {
    sum += sp->generateAndUpdateDsRefreshValue(30.0, true);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpGenerateDsRefresh);

// addSpHistoryEntry on a full queue: the oldest entry goes, the new one comes.
void BM_SpAddHistoryEntryFull(benchmark::State& state) {
  auto sp = rsvpSpStateFactory(spId(1), false);
  auto const entry = rsvpSpOperStateHistoryEntryFactory(1.0, spOperStateRcvd, spOperStateDown);
  for (int i = 0; i < 10; ++i) sp->addSpHistoryEntry(entry);
  for (auto _ : state) sp->addSpHistoryEntry(entry);
  state.SetItemsProcessed(state.iterations());
  if (sp->spHistoryEntrys() != 10) state.SkipWithError("the queue left its bound");
}
BENCHMARK(BM_SpAddHistoryEntryFull);

// A PATH as a transit router receives it, with its objects set.
Kel::Ptr<RsvpPathMsg> fullPath(Kel::U32 i) {
  auto msg = rsvpPathMsgFactory();
  RsvpSenderTspecObj tspec;
  tspec.tokenBucketRateIs(1e6f);
  msg->senderTspecObjIs(tspec);
  msg->srcIpIs(Lumo::IpGenAddr::ipv4(0x0a000001u + i));
  auto ero = rsvpExplicitRouteObjFactory();
  msg->explicitRouteObjIs(ero);
  auto rro = rsvpRecordRouteObjFactory();
  msg->recordRouteObjIs(rro);
  return msg;
}

void BM_SpMemory(benchmark::State& state) {
  std::ptrdiff_t bare = 0, transit = 0, blocks = 0, messages = 0;
  for (auto _ : state) {
    heap::start();
    {
      auto sp = rsvpSpStateFactory(spId(1), false);
      bare = heap::liveBytes;
      sp->inPathStateIs();
      sp->outPathStateIs();
      sp->inResvStateIs();
      sp->outResvStateIs();
      blocks = heap::liveBytes - bare;
      std::ptrdiff_t const before = heap::liveBytes;
      sp->inPathState()->msgIs(fullPath(1));
      auto out = sp->outPathState()->msgIs();
      out->senderTspecObjIs(sp->inPathState()->msg()->senderTspecObj());
      out->explicitRouteObjIs(rsvpExplicitRouteObjFactory());
      out->recordRouteObjIs(rsvpRecordRouteObjFactory());
      sp->inResvState()->msgIs(rsvpResvMsgFactory());
      sp->outResvState()->msgIs();
      messages = heap::liveBytes - before;
      transit = heap::liveBytes;
    }
    heap::counting = false;
  }
  state.counters["bareBytes"] = static_cast<double>(bare);
  state.counters["transitBytes"] = static_cast<double>(transit);
  state.counters["fourBlocksBytes"] = static_cast<double>(blocks);
  state.counters["fourMessagesBytes"] = static_cast<double>(messages);
  state.counters["sizeofRsvpSpState"] = sizeof(RsvpSpState);
  state.counters["sizeofRsvpPathMsg"] = sizeof(RsvpPathMsg);
  state.counters["sizeofRsvpResvMsg"] = sizeof(RsvpResvMsg);
}
BENCHMARK(BM_SpMemory)->Iterations(1);

void BM_SpCollCounts(benchmark::State& state) {
  auto coll = rsvpSpStateCollFactory("spStates");
  for (Kel::U32 i = 0; i < 100000; ++i) {
    auto sp = coll->spStateIs(spId(i), i % 10 == 0);
    sp->operationalIs(i % 2 == 0);
    sp->dsFrrInUseIs(i % 20 == 0);
  }
  Kel::U64 total = 0;
  for (auto _ : state) {
    total += coll->operationalCount() + coll->bypassCount() + coll->bypassInUseCount();
    benchmark::DoNotOptimize(total);
  }
  state.SetItemsProcessed(3 * 100000 * state.iterations());
}
BENCHMARK(BM_SpCollCounts)->Unit(benchmark::kMillisecond);

}  // namespace
