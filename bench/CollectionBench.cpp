// The hash table against std::unordered_map and through the generated
// RsvpSpIdSet: insert, find, erase and iteration of 1M state-path ids, heap
// bytes per element measured by counting operator new, and entity setters.
#include <Kel/HashTable.h>
#include <Rsvp/Rsvp.h>

#include <benchmark/benchmark.h>

#include "HeapCount.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <type_traits>
#include <unordered_map>
#include <vector>

#if __has_include(<Rsvp/FrameTestModel.h>)
#include <Rsvp/FrameTestModel.h>
#define RSVP_BENCH_HAS_TEST_MODEL 1
#endif

namespace {

using namespace Rsvp;
using Kel::U32;
using Kel::U64;

constexpr std::size_t kKeys = std::size_t{1} << 20;

// 1M distinct ids: 4096 destinations times 256 tunnels, seven LSPs cycling.
// `lspBase` moves the LSP ids so that two bases give disjoint key sets.
RsvpSpId sampleSpId(U32 i, U32 lspBase) {
  RsvpSessionId const s(Lumo::IpGenAddr::ipv4(0x0a000000u + (i % 4096)),
                        RsvpTunnelId(static_cast<Kel::U16>(i / 4096 + 1)),
                        Lumo::IpGenAddr::ipv4(0x0a0000feu));
  return RsvpSpId(s, RsvpPathId(lspBase + i % 7));
}

std::vector<RsvpSpId> shuffledKeys(U32 lspBase, unsigned seed) {
  std::vector<RsvpSpId> keys;
  keys.reserve(kKeys);
  for (std::size_t i = 0; i < kKeys; ++i) keys.push_back(sampleSpId(static_cast<U32>(i), lspBase));
  std::shuffle(keys.begin(), keys.end(), std::mt19937(seed));
  return keys;
}

// The stored keys in insertion order, the same keys in another order for
// lookups and erasure, and keys that are never stored.
struct Keys {
  std::vector<RsvpSpId> stored = shuffledKeys(1, 1);
  std::vector<RsvpSpId> lookup = shuffledKeys(1, 2);
  std::vector<RsvpSpId> absent = shuffledKeys(100, 3);
};

Keys const& keys() {
  static Keys const k;
  return k;
}

struct SpIdHash {
  std::size_t operator()(RsvpSpId const& k) const noexcept { return k.hash(); }
};

// One interface over the three collections measured.
struct KelTable {
  Kel::HashTable<RsvpSpId, U32> t;
  void insert(RsvpSpId const& k, U32 v) { t.insert(k, v); }
  [[nodiscard]] bool find(RsvpSpId const& k) const { return t.find(k) != nullptr; }
  bool erase(RsvpSpId const& k) { return t.erase(k); }
  [[nodiscard]] U64 walk() const {
    U64 sum = 0;
    for (auto it = t.begin(); !it.done(); ++it) sum += it.key().pathId().lspId() + it.value();
    return sum;
  }
  [[nodiscard]] std::size_t size() const { return t.size(); }
};

struct StdUnorderedMap {
  std::unordered_map<RsvpSpId, U32, SpIdHash> m;
  void insert(RsvpSpId const& k, U32 v) { m.try_emplace(k, v); }
  [[nodiscard]] bool find(RsvpSpId const& k) const { return m.find(k) != m.end(); }
  bool erase(RsvpSpId const& k) { return m.erase(k) == 1; }
  [[nodiscard]] U64 walk() const {
    U64 sum = 0;
    for (auto const& [k, v] : m) sum += k.pathId().lspId() + v;
    return sum;
  }
  [[nodiscard]] std::size_t size() const { return m.size(); }
};

// The generated entity, with no notifiee.
struct EntitySet {
  Kel::Ptr<RsvpSpIdSet> s = rsvpSpIdSetFactory("bench");
  void insert(RsvpSpId const& k, U32) { s->spIdIs(k); }
  [[nodiscard]] bool find(RsvpSpId const& k) const { return s->spId(k); }
  bool erase(RsvpSpId const& k) { return s->spIdDel(k); }
  [[nodiscard]] U64 walk() const {
    U64 sum = 0;
    for (auto it = s->spIdIter(); !it.done(); ++it) sum += it.key().pathId().lspId();
    return sum;
  }
  [[nodiscard]] std::size_t size() const { return s->spIdSize(); }
};

template <class C>
void fill(C& c) {
  U32 v = 0;
  for (RsvpSpId const& k : keys().stored) c.insert(k, v++);
}

// Fills and drops one collection untimed, so that every measurement finds
// malloc in the same steady state, whichever benchmark runs first.
template <class C>
void warmUp() {
  C c;
  fill(c);
}

template <class C>
void BM_CollectionInsert(benchmark::State& state) {
  warmUp<C>();
  for (auto _ : state) {
    state.PauseTiming();
    std::optional<C> c(std::in_place);
    state.ResumeTiming();
    fill(*c);
    state.PauseTiming();
    if (c->size() != kKeys) state.SkipWithError("keys lost");
    c.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kKeys));
}

template <class C>
void find(benchmark::State& state, std::vector<RsvpSpId> const& probes, bool expected) {
  C c;
  fill(c);
  for (auto _ : state) {
    std::size_t agreeing = 0;
    for (RsvpSpId const& k : probes) agreeing += c.find(k) == expected;
    benchmark::DoNotOptimize(agreeing);
    if (agreeing != probes.size()) state.SkipWithError("wrong answer");
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * probes.size()));
}

template <class C>
void BM_CollectionFindHit(benchmark::State& state) {
  find<C>(state, keys().lookup, true);
}

template <class C>
void BM_CollectionFindMiss(benchmark::State& state) {
  find<C>(state, keys().absent, false);
}

template <class C>
void BM_CollectionErase(benchmark::State& state) {
  warmUp<C>();
  for (auto _ : state) {
    state.PauseTiming();
    std::optional<C> c(std::in_place);
    fill(*c);
    state.ResumeTiming();
    std::size_t erased = 0;
    for (RsvpSpId const& k : keys().lookup) erased += c->erase(k);
    state.PauseTiming();
    if (erased != kKeys || c->size() != 0) state.SkipWithError("keys left");
    c.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kKeys));
}

template <class C>
void BM_CollectionIterate(benchmark::State& state) {
  C c;
  fill(c);
  for (auto _ : state) benchmark::DoNotOptimize(c.walk());
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kKeys));
}

// Heap bytes held by a collection of 1M keys, from the counting operator new:
// bytesPerElement is what malloc reserved for the blocks, heapBytesPerElement
// adds glibc's 8-byte header per block.
template <class C>
void BM_BytesPerElement(benchmark::State& state) {
  keys();
  double const n = double(kKeys);
  for (auto _ : state) {
    heap::start();
    std::optional<C> c(std::in_place);
    fill(*c);
    std::ptrdiff_t const bytes = heap::liveBytes;
    std::ptrdiff_t const blocks = heap::liveBlocks;
    std::size_t selfReported = 0;
    if constexpr (std::is_same_v<C, KelTable>) selfReported = c->t.bytes();
    c.reset();
    std::ptrdiff_t const leftOver = heap::liveBytes;
    heap::counting = false;
    // Counters are set outside the window: they allocate.
    if (leftOver != 0) state.SkipWithError("bytes not returned");
    if (selfReported != 0) state.counters["selfReportedBytesPerElement"] = double(selfReported) / n;
    state.counters["bytesPerElement"] = double(bytes) / n;
    state.counters["heapBytesPerElement"] = double(bytes + 8 * blocks) / n;
    state.counters["allocationsPerElement"] = double(blocks) / n;
  }
}

#define COLLECTION_BENCH(name)                                              \
  BENCHMARK_TEMPLATE(name, KelTable)->Unit(benchmark::kMillisecond);        \
  BENCHMARK_TEMPLATE(name, StdUnorderedMap)->Unit(benchmark::kMillisecond); \
  BENCHMARK_TEMPLATE(name, EntitySet)->Unit(benchmark::kMillisecond)

COLLECTION_BENCH(BM_CollectionInsert);
COLLECTION_BENCH(BM_CollectionFindHit);
COLLECTION_BENCH(BM_CollectionFindMiss);
COLLECTION_BENCH(BM_CollectionErase);
COLLECTION_BENCH(BM_CollectionIterate);
BENCHMARK_TEMPLATE(BM_BytesPerElement, KelTable)->Iterations(1);
BENCHMARK_TEMPLATE(BM_BytesPerElement, StdUnorderedMap)->Iterations(1);
BENCHMARK_TEMPLATE(BM_BytesPerElement, EntitySet)->Iterations(1);

#if RSVP_BENCH_HAS_TEST_MODEL
// ---- Setters

class CountListener : public Sample::Root::NotifieeConst {
 public:
  using Sample::Root::NotifieeConst::NotifieeConst;
  void onCount() override { ++calls; }
  U64 calls = 0;
};

// A plain U32 setter that changes the value, with state.range(0) notifiees.
void BM_SetterChange(benchmark::State& state) {
  auto const root = Sample::rootFactory("root");
  std::vector<std::unique_ptr<CountListener>> listeners;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    listeners.push_back(std::make_unique<CountListener>(root.get()));
  }
  U32 v = 0;
  for (auto _ : state) {
    root->countIs(++v);
    benchmark::ClobberMemory();
  }
  for (auto const& l : listeners) {
    if (l->calls != static_cast<U64>(state.iterations())) state.SkipWithError("notifications lost");
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_SetterChange)->Arg(0)->Arg(1)->Arg(4);

// The same setter given the stored value: nothing changes, nobody is called.
void BM_SetterEqual(benchmark::State& state) {
  auto const root = Sample::rootFactory("root");
  std::vector<std::unique_ptr<CountListener>> listeners;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    listeners.push_back(std::make_unique<CountListener>(root.get()));
  }
  root->countIs(7);
  for (auto _ : state) {
    U32 v = 7;
    benchmark::DoNotOptimize(v);
    root->countIs(v);
    benchmark::ClobberMemory();
  }
  for (auto const& l : listeners) {
    if (l->calls != 1) state.SkipWithError("notified without a change");
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_SetterEqual)->Arg(0)->Arg(4);
#endif

}  // namespace
