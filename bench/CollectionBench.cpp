// The hash table against its peers, through the generated RsvpSpIdSet and
// through the generated table of state paths (entities under their own key):
// insert, find, erase and iteration of 10k and 1M state-path ids, all hashed
// by the id's own hash(), heap bytes per element measured by counting
// operator new, and entity setters. The peers are std::unordered_map,
// boost::unordered_flat_map and absl::flat_hash_map / node_hash_map; Boost
// and Abseil are used only when the build found them (scripts/bench.sh
// installs them), and a missing peer's rows say that it was skipped. Every
// row reports nsPerOp; a peer's row adds vsKel, its time over the hash
// table's measured in the same run (above 1: the hash table is faster).
#include <Kel/HashTable.h>
#include <Rsvp/Rsvp.h>

#include <benchmark/benchmark.h>

#include "HeapCount.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#if RSVP_BENCH_HAVE_BOOST_UNORDERED
#include <boost/unordered/unordered_flat_map.hpp>
#endif
#if RSVP_BENCH_HAVE_ABSL
#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>
#endif

#if __has_include(<Rsvp/FrameTestModel.h>)
#include <Rsvp/FrameTestModel.h>
#define RSVP_BENCH_HAS_TEST_MODEL 1
#endif

namespace {

using namespace Rsvp;
using Kel::U32;
using Kel::U64;

constexpr std::size_t kSmall = 10'000;
constexpr std::size_t kLarge = std::size_t{1} << 20;

// Distinct ids: 4096 destinations times 256 tunnels, seven LSPs cycling.
// `lspBase` moves the LSP ids so that two bases give disjoint key sets.
RsvpSpId sampleSpId(U32 i, U32 lspBase) {
  RsvpSessionId const s(Lumo::IpGenAddr::ipv4(0x0a000000u + (i % 4096)),
                        RsvpTunnelId(static_cast<Kel::U16>(i / 4096 + 1)),
                        Lumo::IpGenAddr::ipv4(0x0a0000feu));
  return RsvpSpId(s, RsvpPathId(lspBase + i % 7));
}

std::vector<RsvpSpId> shuffledKeys(std::size_t n, U32 lspBase, unsigned seed) {
  std::vector<RsvpSpId> keys;
  keys.reserve(n);
  for (std::size_t i = 0; i < n; ++i) keys.push_back(sampleSpId(static_cast<U32>(i), lspBase));
  std::shuffle(keys.begin(), keys.end(), std::mt19937(seed));
  return keys;
}

// The stored keys in insertion order, the same keys in another order for
// lookups and erasure, and keys that are never stored.
struct Keys {
  explicit Keys(std::size_t n)
      : stored(shuffledKeys(n, 1, 1)),
        lookup(shuffledKeys(n, 1, 2)),
        absent(shuffledKeys(n, 100, 3)) {}
  std::vector<RsvpSpId> stored;
  std::vector<RsvpSpId> lookup;
  std::vector<RsvpSpId> absent;
};

Keys const& keys(std::size_t n) {
  static std::map<std::size_t, Keys> const all = [] {
    std::map<std::size_t, Keys> m;
    m.emplace(kSmall, Keys(kSmall));
    m.emplace(kLarge, Keys(kLarge));
    return m;
  }();
  return all.at(n);
}

struct SpIdHash {
  std::size_t operator()(RsvpSpId const& k) const noexcept { return k.hash(); }
};

// One interface over the collections measured. `skipped` names a peer that
// the build left out, and why.
struct KelTable {
  static constexpr char const* skipped = nullptr;
  Kel::HashTable<RsvpSpId, U32> t;
  void insert(RsvpSpId const& k, U32 v) { t.insert(k, v); }
  [[nodiscard]] bool find(RsvpSpId const& k) const { return t.find(k) != nullptr; }
  bool erase(RsvpSpId const& k) { return t.erase(k); }
  [[nodiscard]] U64 walk() const {
    U64 sum = 0;
    for (auto it = t.begin(); !it.done(); ++it) sum += it.key().pathId().lspId() + it.value();
    return sum;
  }
  [[nodiscard]] std::vector<RsvpSpId> inOrder() const {
    std::vector<RsvpSpId> keys;
    for (auto it = t.begin(); !it.done(); ++it) keys.push_back(it.key());
    return keys;
  }
  [[nodiscard]] std::size_t size() const { return t.size(); }
};

// The peers share everything but the map's type.
template <class M>
struct PeerMap {
  M m;
  void insert(RsvpSpId const& k, U32 v) { m.try_emplace(k, v); }
  [[nodiscard]] bool find(RsvpSpId const& k) const { return m.find(k) != m.end(); }
  bool erase(RsvpSpId const& k) { return m.erase(k) == 1; }
  [[nodiscard]] U64 walk() const {
    U64 sum = 0;
    for (auto const& [k, v] : m) sum += k.pathId().lspId() + v;
    return sum;
  }
  [[nodiscard]] std::vector<RsvpSpId> inOrder() const {
    std::vector<RsvpSpId> keys;
    for (auto const& [k, v] : m) keys.push_back(k);
    return keys;
  }
  [[nodiscard]] std::size_t size() const { return m.size(); }
};

// A stand-in for a peer the build left out; its rows skip with `why`.
template <char const* why>
struct MissingPeer {
  static constexpr char const* skipped = why;
  void insert(RsvpSpId const&, U32) {}
  [[nodiscard]] bool find(RsvpSpId const&) const { return false; }
  bool erase(RsvpSpId const&) { return false; }
  [[nodiscard]] U64 walk() const { return 0; }
  [[nodiscard]] std::vector<RsvpSpId> inOrder() const { return {}; }
  [[nodiscard]] std::size_t size() const { return 0; }
};

struct StdUnorderedMap : PeerMap<std::unordered_map<RsvpSpId, U32, SpIdHash>> {
  static constexpr char const* skipped = nullptr;
};

#if RSVP_BENCH_HAVE_BOOST_UNORDERED
struct BoostFlatMap : PeerMap<boost::unordered_flat_map<RsvpSpId, U32, SpIdHash>> {
  static constexpr char const* skipped = nullptr;
};
#else
constexpr char kNoBoost[] =
    "skipped: boost::unordered_flat_map was not found at build time (libboost1.81-dev)";
using BoostFlatMap = MissingPeer<kNoBoost>;
#endif

#if RSVP_BENCH_HAVE_ABSL
struct AbslFlatHashMap : PeerMap<absl::flat_hash_map<RsvpSpId, U32, SpIdHash>> {
  static constexpr char const* skipped = nullptr;
};
struct AbslNodeHashMap : PeerMap<absl::node_hash_map<RsvpSpId, U32, SpIdHash>> {
  static constexpr char const* skipped = nullptr;
};
#else
constexpr char kNoAbsl[] = "skipped: Abseil's hash maps were not found at build time (libabsl-dev)";
using AbslFlatHashMap = MissingPeer<kNoAbsl>;
using AbslNodeHashMap = MissingPeer<kNoAbsl>;
#endif

// The generated entity, with no notifiee.
struct EntitySet {
  static constexpr char const* skipped = nullptr;
  Kel::Ptr<RsvpSpIdSet> s = rsvpSpIdSetFactory("bench");
  void insert(RsvpSpId const& k, U32) { s->spIdIs(k); }
  [[nodiscard]] bool find(RsvpSpId const& k) const { return s->spId(k); }
  bool erase(RsvpSpId const& k) { return s->spIdDel(k); }
  [[nodiscard]] U64 walk() const {
    U64 sum = 0;
    for (auto it = s->spIdIter(); !it.done(); ++it) sum += it.key().pathId().lspId();
    return sum;
  }
  [[nodiscard]] std::vector<RsvpSpId> inOrder() const {
    std::vector<RsvpSpId> keys;
    for (auto it = s->spIdIter(); !it.done(); ++it) keys.push_back(it.key());
    return keys;
  }
  [[nodiscard]] std::size_t size() const { return s->spIdSize(); }
};

// The generated table of state paths: entities under their own key, which
// the table reads from the entity (a walk that reads keys visits each
// entity).
struct EntityTable {
  static constexpr char const* skipped = nullptr;
  Kel::Ptr<RsvpSpStateColl> t = rsvpSpStateCollFactory("bench");
  void insert(RsvpSpId const& k, U32) { t->spStateIs(k, false); }
  [[nodiscard]] bool find(RsvpSpId const& k) const { return t->spState(k) != nullptr; }
  bool erase(RsvpSpId const& k) { return t->spStateDel(k); }
  [[nodiscard]] U64 walk() const {
    U64 sum = 0;
    for (auto it = t->spStateIter(); !it.done(); ++it) sum += it.key().pathId().lspId();
    return sum;
  }
  [[nodiscard]] std::vector<RsvpSpId> inOrder() const {
    std::vector<RsvpSpId> keys;
    for (auto it = t->spStateIter(); !it.done(); ++it) keys.push_back(it.key());
    return keys;
  }
  [[nodiscard]] std::size_t size() const { return t->spStateSize(); }
};

template <class C>
void fill(C& c, std::vector<RsvpSpId> const& order) {
  U32 v = 0;
  for (RsvpSpId const& k : order) c.insert(k, v++);
}
template <class C>
void fill(C& c, std::size_t n) {
  fill(c, keys(n).stored);
}

// Fills and drops one collection untimed, so that every measurement finds
// malloc in the same steady state, whichever benchmark runs first.
template <class C>
void warmUp(std::size_t n) {
  C c;
  fill(c, n);
}

using Clock = std::chrono::steady_clock;

// The hash table's time per operation, by operation and size, for the
// peers' ratios.
std::map<std::pair<std::string, std::size_t>, double>& kelNsPerOp() {
  static std::map<std::pair<std::string, std::size_t>, double> figures;
  return figures;
}

// Answers whether the benchmark may run; a left-out peer skips, saying why.
template <class C>
bool present(benchmark::State& state) {
  if constexpr (C::skipped != nullptr) {
    state.SkipWithError(C::skipped);
    return false;
  }
  return true;
}

template <class C>
void report(benchmark::State& state, char const* op, std::size_t n, Clock::duration timed,
            std::size_t ops) {
  double const ns =
      double(std::chrono::duration_cast<std::chrono::nanoseconds>(timed).count()) / double(ops);
  state.counters["nsPerOp"] = ns;
  auto const key = std::pair<std::string, std::size_t>(op, n);
  if constexpr (std::is_same_v<C, KelTable>) {
    kelNsPerOp()[key] = ns;
  } else if (auto const kel = kelNsPerOp().find(key); kel != kelNsPerOp().end()) {
    state.counters["vsKel"] = ns / kel->second;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(ops));
}

// Times filling a fresh collection with `order`, reported as `op`.
template <class C>
void timeFills(benchmark::State& state, char const* op, std::vector<RsvpSpId> const& order) {
  Clock::duration timed{};
  for (auto _ : state) {
    state.PauseTiming();
    std::optional<C> c(std::in_place);
    state.ResumeTiming();
    auto const t0 = Clock::now();
    fill(*c, order);
    timed += Clock::now() - t0;
    state.PauseTiming();
    if (c->size() != order.size()) state.SkipWithError("keys lost");
    c.reset();
    state.ResumeTiming();
  }
  report<C>(state, op, order.size(), timed, state.iterations() * order.size());
}

template <class C>
void BM_CollectionInsert(benchmark::State& state) {
  if (!present<C>(state)) return;
  auto const n = static_cast<std::size_t>(state.range(0));
  warmUp<C>(n);
  timeFills<C>(state, "insert", keys(n).stored);
}

template <class C>
void find(benchmark::State& state, char const* op, bool hit) {
  if (!present<C>(state)) return;
  auto const n = static_cast<std::size_t>(state.range(0));
  std::vector<RsvpSpId> const& probes = hit ? keys(n).lookup : keys(n).absent;
  C c;
  fill(c, n);
  auto const t0 = Clock::now();
  for (auto _ : state) {
    std::size_t agreeing = 0;
    for (RsvpSpId const& k : probes) agreeing += c.find(k) == hit;
    benchmark::DoNotOptimize(agreeing);
    if (agreeing != probes.size()) state.SkipWithError("wrong answer");
  }
  report<C>(state, op, n, Clock::now() - t0, state.iterations() * probes.size());
}

template <class C>
void BM_CollectionFindHit(benchmark::State& state) {
  find<C>(state, "find hit", true);
}

template <class C>
void BM_CollectionFindMiss(benchmark::State& state) {
  find<C>(state, "find miss", false);
}

template <class C>
void BM_CollectionErase(benchmark::State& state) {
  if (!present<C>(state)) return;
  auto const n = static_cast<std::size_t>(state.range(0));
  warmUp<C>(n);
  Clock::duration timed{};
  for (auto _ : state) {
    state.PauseTiming();
    std::optional<C> c(std::in_place);
    fill(*c, n);
    state.ResumeTiming();
    auto const t0 = Clock::now();
    std::size_t erased = 0;
    for (RsvpSpId const& k : keys(n).lookup) erased += c->erase(k);
    timed += Clock::now() - t0;
    state.PauseTiming();
    if (erased != n || c->size() != 0) state.SkipWithError("keys left");
    c.reset();
    state.ResumeTiming();
  }
  report<C>(state, "erase", n, timed, state.iterations() * n);
}

// Fills a collection in another's iteration order, as a copy or a replica
// does: keys arrive sorted by where the table keeps them.
template <class C>
void BM_CollectionCopyInOrder(benchmark::State& state) {
  if (!present<C>(state)) return;
  auto const n = static_cast<std::size_t>(state.range(0));
  std::vector<RsvpSpId> order;
  {
    C source;
    fill(source, n);
    order = source.inOrder();
  }
  timeFills<C>(state, "copy in order", order);
}

template <class C>
void BM_CollectionIterate(benchmark::State& state) {
  if (!present<C>(state)) return;
  auto const n = static_cast<std::size_t>(state.range(0));
  C c;
  fill(c, n);
  auto const t0 = Clock::now();
  for (auto _ : state) benchmark::DoNotOptimize(c.walk());
  report<C>(state, "iterate", n, Clock::now() - t0, state.iterations() * n);
}

// Heap bytes held by a collection, from the counting operator new:
// bytesPerElement is what malloc reserved for the blocks, heapBytesPerElement
// adds glibc's 8-byte header per block.
template <class C>
void BM_BytesPerElement(benchmark::State& state) {
  if (!present<C>(state)) return;
  auto const n = static_cast<std::size_t>(state.range(0));
  keys(n);
  for (auto _ : state) {
    heap::start();
    std::optional<C> c(std::in_place);
    fill(*c, n);
    std::ptrdiff_t const bytes = heap::liveBytes;
    std::ptrdiff_t const blocks = heap::liveBlocks;
    std::size_t selfReported = 0;
    if constexpr (std::is_same_v<C, KelTable>) selfReported = c->t.bytes();
    c.reset();
    std::ptrdiff_t const leftOver = heap::liveBytes;
    heap::counting = false;
    // Counters are set outside the window: they allocate.
    if (leftOver != 0) state.SkipWithError("bytes not returned");
    if (selfReported != 0)
      state.counters["selfReportedBytesPerElement"] = double(selfReported) / double(n);
    state.counters["bytesPerElement"] = double(bytes) / double(n);
    state.counters["heapBytesPerElement"] = double(bytes + 8 * blocks) / double(n);
    state.counters["allocationsPerElement"] = double(blocks) / double(n);
  }
}

// The hash table first: the peers' rows divide by its figures.
#define COLLECTION_BENCH_ONE(name, C) \
  BENCHMARK_TEMPLATE(name, C)->Arg(kSmall)->Arg(kLarge)->Unit(benchmark::kMillisecond)
#define COLLECTION_BENCH(name)                 \
  COLLECTION_BENCH_ONE(name, KelTable);        \
  COLLECTION_BENCH_ONE(name, StdUnorderedMap); \
  COLLECTION_BENCH_ONE(name, BoostFlatMap);    \
  COLLECTION_BENCH_ONE(name, AbslFlatHashMap); \
  COLLECTION_BENCH_ONE(name, AbslNodeHashMap); \
  COLLECTION_BENCH_ONE(name, EntitySet);       \
  COLLECTION_BENCH_ONE(name, EntityTable)

COLLECTION_BENCH(BM_CollectionInsert);
COLLECTION_BENCH(BM_CollectionFindHit);
COLLECTION_BENCH(BM_CollectionFindMiss);
COLLECTION_BENCH(BM_CollectionErase);
COLLECTION_BENCH(BM_CollectionIterate);
COLLECTION_BENCH(BM_CollectionCopyInOrder);
#define BYTES_BENCH(C) \
  BENCHMARK_TEMPLATE(BM_BytesPerElement, C)->Arg(kSmall)->Arg(kLarge)->Iterations(1)
BYTES_BENCH(KelTable);
BYTES_BENCH(StdUnorderedMap);
BYTES_BENCH(BoostFlatMap);
BYTES_BENCH(AbslFlatHashMap);
BYTES_BENCH(AbslNodeHashMap);
BYTES_BENCH(EntitySet);
BYTES_BENCH(EntityTable);

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
