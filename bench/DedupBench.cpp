// The dedup table in both layouts, 100k handles linked: dedup of a value
// already present, and of a new value (made, linked, then released, which
// unlinks it); the two layouts interleaved for a ratio. Also the reference
// count under the dedup flags: a pointer copied and dropped.
#include <Kel/Hash.h>
#include <Kel/Ptr.h>
#include <Orv/DedupHashTable.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <vector>

namespace {

using Kel::U32;

class Counted : public Kel::PtrInterface {};

// One newRef and one deleteRef that does not reach zero: the hot path of
// every Kel::Ptr copy.
void BM_PtrCopyDrop(benchmark::State& state) {
  Kel::Ptr<Counted> const held(new Counted);
  for (auto _ : state) {
    Kel::Ptr<Counted> copy = held;
    benchmark::DoNotOptimize(copy);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_PtrCopyDrop);

class IdHandle : public Orv::DedupHandle {
 public:
  explicit IdHandle(U32 id) : DedupHandle("id"), id_(id) {}
  [[nodiscard]] U32 dedupHash() const noexcept override {
    Kel::OneAtATime h;
    h.addU32(id_);
    return h.finish();
  }
  [[nodiscard]] bool dedupEquals(DedupHandle const& other) const noexcept override {
    return static_cast<IdHandle const&>(other).id_ == id_;
  }

 private:
  U32 id_;
};

constexpr U32 kHandles = 100000;

struct Linked {
  Orv::DedupHashTable table;
  std::vector<Kel::Ptr<Orv::DedupHandle>> held;
  // Unlinked handles equal to linked ones: a hit leaves a candidate as it
  // was, so they serve again and again.
  std::vector<Kel::Ptr<Orv::DedupHandle>> twins;

  explicit Linked(bool unorderedSet) : table(unorderedSet) {
    for (U32 i = 0; i < kHandles; ++i) {
      held.push_back(table.dedup(Kel::Ptr<Orv::DedupHandle>(new IdHandle(i))));
      twins.emplace_back(new IdHandle((i * 7919u) % kHandles));
    }
  }
};

void dedupPresent(Linked& l, U32 i) {
  benchmark::DoNotOptimize(l.table.dedup(l.twins[i % kHandles]).get());
}

void dedupNew(Linked& l, U32 i) {
  benchmark::DoNotOptimize(
      l.table.dedup(Kel::Ptr<Orv::DedupHandle>(new IdHandle(kHandles + i))).get());
}

// state.range(0): 0 chained, 1 unordered set.
void BM_DedupPresent(benchmark::State& state) {
  Linked l(state.range(0) != 0);
  U32 i = 0;
  for (auto _ : state) dedupPresent(l, i++);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_DedupPresent)->Arg(0)->Arg(1)->ArgNames({"unorderedSet"});

// Made, hashed, linked (frozen on the way), then released and unlinked.
void BM_DedupNew(benchmark::State& state) {
  Linked l(state.range(0) != 0);
  U32 i = 0;
  for (auto _ : state) dedupNew(l, i++);
  if (l.table.size() != kHandles) state.SkipWithError("a released handle stayed linked");
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_DedupNew)->Arg(0)->Arg(1)->ArgNames({"unorderedSet"});

// Both layouts interleaved: `vsUnorderedSet` is the chained time over the
// unordered set's. state.range(0): 0 present values, 1 new ones.
void BM_DedupLayoutRatio(benchmark::State& state) {
  Linked chained(false);
  Linked set(true);
  auto const op = state.range(0) ? dedupNew : dedupPresent;
  using Clock = std::chrono::steady_clock;
  Clock::duration ours{};
  Clock::duration theirs{};
  constexpr U32 kRound = 256;
  U32 i = 0;
  for (auto _ : state) {
    auto const t0 = Clock::now();
    for (U32 j = 0; j < kRound; ++j) op(chained, i + j);
    auto const t1 = Clock::now();
    for (U32 j = 0; j < kRound; ++j) op(set, i + j);
    auto const t2 = Clock::now();
    ours += t1 - t0;
    theirs += t2 - t1;
    i += kRound;
  }
  state.counters["vsUnorderedSet"] = double(ours.count()) / double(theirs.count());
}
BENCHMARK(BM_DedupLayoutRatio)->Arg(0)->Arg(1)->ArgNames({"new"});

}  // namespace
