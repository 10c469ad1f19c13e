// A read and a write by attribute descriptor against the typed accessors.
#include <Rsvp/Rsvp.h>

#include <benchmark/benchmark.h>

namespace {

using namespace Rsvp;

void BM_TypedRead(benchmark::State& state) {
  RsvpMsgIdObj obj(false, 5, 9);
  for (auto _ : state) {
    benchmark::DoNotOptimize(obj);
    benchmark::DoNotOptimize(obj.msgId());
  }
}
BENCHMARK(BM_TypedRead);

void BM_ReflectedRead(benchmark::State& state) {
  RsvpMsgIdObj obj(false, 5, 9);
  Kel::KelAttr const* attr = RsvpMsgIdObj::kelType.attr("msgId");
  Kel::U32 out = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(obj);
    RsvpMsgIdObj::kelType.attributeOp(&out, &obj, attr, Kel::attrOpRead);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_ReflectedRead);

void BM_TypedWriteChecked(benchmark::State& state) {
  RsvpMsgIdObj obj(false, 5, 9);
  Kel::U32 epoch = 0;
  for (auto _ : state) {
    obj.epochIs(epoch++ & 0xffff);
    benchmark::DoNotOptimize(obj);
  }
}
BENCHMARK(BM_TypedWriteChecked);

void BM_ReflectedWriteChecked(benchmark::State& state) {
  RsvpMsgIdObj obj(false, 5, 9);
  Kel::KelAttr const* attr = RsvpMsgIdObj::kelType.attr("epoch");
  Kel::U32 epoch = 0;
  for (auto _ : state) {
    Kel::U32 const v = epoch++ & 0xffff;
    RsvpMsgIdObj::kelType.attributeOp(nullptr, &obj, attr, Kel::attrOpWrite, &v);
    benchmark::DoNotOptimize(obj);
  }
}
BENCHMARK(BM_ReflectedWriteChecked);

// The attribute found by name each time, as a front end working from text would.
void BM_ReflectedReadByName(benchmark::State& state) {
  RsvpMsgIdObj obj(false, 5, 9);
  Kel::U32 out = 0;
  for (auto _ : state) {
    RsvpMsgIdObj::kelType.attributeOp(&out, &obj, RsvpMsgIdObj::kelType.attr("msgId"),
                                      Kel::attrOpRead);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_ReflectedReadByName);

void BM_TypedMemberRead(benchmark::State& state) {
  auto set = rsvpSpIdSetFactory("s");
  RsvpSpId const key(
      RsvpSessionId(Lumo::IpGenAddr("10.0.0.2"), RsvpTunnelId(7), Lumo::IpGenAddr("10.0.0.1")),
      RsvpPathId(3));
  set->spIdIs(key);
  for (auto _ : state) benchmark::DoNotOptimize(set->spId(key));
}
BENCHMARK(BM_TypedMemberRead);

void BM_ReflectedMemberRead(benchmark::State& state) {
  auto set = rsvpSpIdSetFactory("s");
  RsvpSpId const key(
      RsvpSessionId(Lumo::IpGenAddr("10.0.0.2"), RsvpTunnelId(7), Lumo::IpGenAddr("10.0.0.1")),
      RsvpPathId(3));
  set->spIdIs(key);
  Kel::KelAttr const* attr = RsvpSpIdSet::kelType.attr("spId");
  bool present = false;
  for (auto _ : state) {
    set->fwkType().attributeOp(&present, set.get(), attr, Kel::attrOpMemberRead, &key);
    benchmark::DoNotOptimize(present);
  }
}
BENCHMARK(BM_ReflectedMemberRead);

}  // namespace
