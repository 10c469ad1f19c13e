// What telling a refresh from a change costs: equal() on two distinct, fully
// populated Path (and Resv) messages when they agree, and when they differ in
// the first thing compared (srcIp) or in the last (the record route).
#include <Rsvp/Rsvp.h>

#include <benchmark/benchmark.h>

#include <string>

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;

// Where the second message of a pair departs from the first.
enum class Diff { none, srcIp, recordRoute };

constexpr Kel::U32 kRouteHops = 5;

IpGenAddr hopAddr(Kel::U32 i) { return IpGenAddr("10.1." + std::to_string(i) + ".1"); }

// Five hops, each with a label; `Diff::recordRoute` changes the last one's.
Kel::Ptr<RsvpRecordRouteObj> recordRoute(Diff diff) {
  auto rro = rsvpRecordRouteObjFactory();
  for (Kel::U32 i = 0; i < kRouteHops; ++i) {
    Kel::U32 const label = 1000 + i + (diff == Diff::recordRoute && i + 1 == kRouteHops ? 1 : 0);
    rro->hopIs(i, RsvpRroHopSubObj(hopAddr(i), 0, Lumo::MplsLabel(label), 1));
  }
  return rro;
}

// The common part: addresses, the facts of reception (left out of the
// comparison, set anyway as a receiver would) and one unknown object.
template <class M>
void fillCommon(M& m, Diff diff) {
  m.srcIpIs(IpGenAddr(diff == Diff::srcIp ? "10.1.0.9" : "10.1.0.1"));
  m.dstIpIs(IpGenAddr("10.1.0.2"));
  m.neighborIpIs(IpGenAddr("10.1.0.1"));
  m.ttlIs(254);
  m.recvTimestampIs(100.0);
  m.msgIdObjIs(RsvpMsgIdObj(true, 1, 42));
  m.newUnknownObj(200, 1)->dataIs("opaque-object-bytes");
}

RsvpSessionObj session() { return RsvpSessionObj(IpGenAddr("10.0.0.2"), 7, IpGenAddr("10.0.0.1")); }

Kel::Ptr<RsvpPathMsg> fullPath(Diff diff) {
  auto m = rsvpPathMsgFactory();
  fillCommon(*m, diff);
  m->sessionObjIs(session());
  m->hopObjIs(RsvpHopObj(IpGenAddr("10.1.0.1"), 4));
  m->timeValuesObjIs(RsvpTimeValuesObj(30000));
  m->senderTemplateObjIs(RsvpSenderTemplateObj(IpGenAddr("10.0.0.1"), 3));
  RsvpSenderTspecObj tspec;
  tspec.tokenBucketRateIs(1.25e6f);
  tspec.tokenBucketSizeIs(1500.0f);
  tspec.peakDataRateIs(1.25e6f);
  m->senderTspecObjIs(tspec);
  m->labelRequestObjIs(RsvpLabelRequestObj(0x0800));
  RsvpSessionAttributeObj attributes;
  attributes.setupPriorityIs(7);
  attributes.holdPriorityIs(7);
  attributes.sessionNameIs("pe1-to-pe2-primary");
  m->sessionAttributeObjIs(attributes);
  RsvpFastRerouteObj frr;
  frr.setupPrioIs(7);
  frr.holdPrioIs(7);
  frr.hopLimitIs(16);
  m->fastRerouteObjIs(frr);
  auto adSpec = rsvpAdSpecObjFactory();
  RsvpAdSpecGeneral general;
  general.hopCountIs(3);
  general.mtuIs(1500);
  adSpec->generalIs(general);
  m->adSpecObjIs(adSpec);
  auto ero = rsvpExplicitRouteObjFactory();
  for (Kel::U32 i = 0; i < kRouteHops; ++i) {
    ero->hopIs(i, RsvpEroHopSubObj(false, Lumo::IpGenPrefix(hopAddr(i + 1), 32), 0));
  }
  m->explicitRouteObjIs(ero);
  m->recordRouteObjIs(recordRoute(diff));
  return m;
}

Kel::Ptr<RsvpResvMsg> fullResv(Diff diff) {
  auto m = rsvpResvMsgFactory();
  fillCommon(*m, diff);
  m->sessionObjIs(session());
  m->hopObjIs(RsvpHopObj(IpGenAddr("10.1.0.2"), 5));
  m->timeValuesObjIs(RsvpTimeValuesObj(30000));
  RsvpStyleObj style;
  style.styleIs(resvStyleSe);
  m->styleObjIs(style);
  m->labelObjIs(RsvpLabelObj(Lumo::MplsLabel(1000)));
  RsvpFlowSpecObj flow;
  flow.tokenBucketRateIs(1.25e6f);
  flow.peakDataRateIs(1.25e6f);
  flow.rateIs(1.25e6f);
  m->flowSpecObjIs(flow);
  m->filterSpecObjIs(RsvpFilterSpecObj(IpGenAddr("10.0.0.1"), 3));
  m->resvConfirmObjIs(RsvpResvConfirmObj(IpGenAddr("10.0.0.2")));
  m->recordRouteObjIs(recordRoute(diff));
  return m;
}

// equal() of a message against another built apart from it; the second is
// held as the const pointer equal() takes, so no conversion is timed.
template <class M>
void runEqual(benchmark::State& state, Kel::Ptr<M> const& a, Kel::Ptr<M const> const& b,
              bool expected) {
  if (a->equal(b) != expected) {
    state.SkipWithError("equal() gave the wrong answer");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(a.get());
    bool const same = a->equal(b);
    benchmark::DoNotOptimize(same);
  }
}

void BM_MsgPathEqualRefresh(benchmark::State& state) {
  runEqual<RsvpPathMsg>(state, fullPath(Diff::none), fullPath(Diff::none), true);
}
BENCHMARK(BM_MsgPathEqualRefresh);

void BM_MsgPathEqualSrcIpDiffers(benchmark::State& state) {
  runEqual<RsvpPathMsg>(state, fullPath(Diff::none), fullPath(Diff::srcIp), false);
}
BENCHMARK(BM_MsgPathEqualSrcIpDiffers);

void BM_MsgPathEqualRecordRouteDiffers(benchmark::State& state) {
  runEqual<RsvpPathMsg>(state, fullPath(Diff::none), fullPath(Diff::recordRoute), false);
}
BENCHMARK(BM_MsgPathEqualRecordRouteDiffers);

void BM_MsgResvEqualRefresh(benchmark::State& state) {
  runEqual<RsvpResvMsg>(state, fullResv(Diff::none), fullResv(Diff::none), true);
}
BENCHMARK(BM_MsgResvEqualRefresh);

void BM_MsgResvEqualSrcIpDiffers(benchmark::State& state) {
  runEqual<RsvpResvMsg>(state, fullResv(Diff::none), fullResv(Diff::srcIp), false);
}
BENCHMARK(BM_MsgResvEqualSrcIpDiffers);

void BM_MsgResvEqualRecordRouteDiffers(benchmark::State& state) {
  runEqual<RsvpResvMsg>(state, fullResv(Diff::none), fullResv(Diff::recordRoute), false);
}
BENCHMARK(BM_MsgResvEqualRecordRouteDiffers);

}  // namespace

// The pipe hand-over: the producer writes, the consumer's reactor (the
// counter's observer) takes the message out.
namespace {

struct PipeConsumer : Rsvp::RsvpMsgPipe::NotifieeConst {
  Rsvp::RsvpMsgPipe* pipe;
  explicit PipeConsumer(Rsvp::RsvpMsgPipe* p) : NotifieeConst(p), pipe(p) {}
  void onReadableCount() override { benchmark::DoNotOptimize(pipe->rxMsg()); }
};

void BM_MsgPipeHandOver(benchmark::State& state) {
  auto const pipe = Rsvp::rsvpSpRxMsgPipeCollFactory("pipes")->msgPipeIs(Rsvp::RsvpSpId());
  PipeConsumer consumer(pipe.get());
  Kel::Ptr<Rsvp::RsvpMsg const> const msg = Rsvp::rsvpPathMsgFactory();
  for (auto _ : state) pipe->txMsgIs(msg);
}
BENCHMARK(BM_MsgPipeHandOver);

}  // namespace
