// The dedup table in both layouts, 100k handles linked: dedup of a value
// already present, and of a new value (made, linked, then released, which
// unlinks it); the two layouts interleaved for a ratio. Also the reference
// count under the dedup flags: a pointer copied and dropped. Then the typed
// layer: dedupFromValue of a session id present and of a new one, and the
// heap bytes that deduplication saves on the identifiers of 100k state paths.
#include <Kel/Hash.h>
#include <Kel/Ptr.h>
#include <Orv/DedupHashTable.h>
#include <Rsvp/RsvpIdDedup.h>

#include <benchmark/benchmark.h>

#include "HeapCount.h"

#include <chrono>
#include <cstdint>
#include <optional>
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

Rsvp::RsvpSessionId sessionId(U32 i) {
  return Rsvp::RsvpSessionId(Lumo::IpGenAddr::ipv4(0x0a000000u + i % 1000),
                             Rsvp::RsvpTunnelId(static_cast<Kel::U16>(i / 1000)),
                             Lumo::IpGenAddr::ipv4(0x0b000001u));
}

// 100k session ids held; the candidate made for an id present is dropped.
void BM_TypedDedupPresent(benchmark::State& state) {
  auto const table = Rsvp::rsvpSessionIdDedupTableRealFactory();
  std::vector<Kel::Ptr<Rsvp::RsvpSessionIdHandle>> held;
  std::vector<Rsvp::RsvpSessionId> ids;
  for (U32 i = 0; i < kHandles; ++i) {
    ids.push_back(sessionId((i * 7919u) % kHandles));
    held.push_back(table->dedupFromValue(sessionId(i)));
  }
  U32 i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(table->dedupFromValue(ids[i++ % kHandles]).get());
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_TypedDedupPresent);

// A new id: made, linked, then released and unlinked, beside 100k held.
void BM_TypedDedupNew(benchmark::State& state) {
  auto const table = Rsvp::rsvpSessionIdDedupTableRealFactory();
  std::vector<Kel::Ptr<Rsvp::RsvpSessionIdHandle>> held;
  for (U32 i = 0; i < kHandles; ++i) held.push_back(table->dedupFromValue(sessionId(i)));
  U32 i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table->dedupFromValue(sessionId(kHandles + i++)).get());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_TypedDedupNew);

// The identifiers of one state path, held by value or deduplicated.
struct PlainIds {
  Rsvp::RsvpSessionId session;
  Rsvp::RsvpPathId path;
  Rsvp::RsvpNeighborId neighbor;
};
struct DedupedIds {
  Rsvp::RsvpSessionIdDeduped session;
  Rsvp::RsvpPathIdDeduped path;
  Rsvp::RsvpNeighborIdDeduped neighbor;
};

constexpr U32 kPaths = 100000;
constexpr U32 kSessions = 1000;
constexpr U32 kNeighbors = 100;

// Path p belongs to session p % 1000, has LSP id p / 1000 and leaves by
// neighbor p % 100. Heap bytes, the tables' included, of the two ways of
// holding the identifiers of every path; each path's block holds its ids.
void BM_DedupBytesSaved(benchmark::State& state) {
  double plainBytes = 0;
  double dedupedBytes = 0;
  for (auto _ : state) {
    heap::start();
    {
      std::vector<std::unique_ptr<PlainIds>> paths;
      paths.reserve(kPaths);
      for (U32 p = 0; p < kPaths; ++p) {
        paths.push_back(std::make_unique<PlainIds>(
            PlainIds{sessionId(p % kSessions), Rsvp::RsvpPathId(p / kSessions),
                     Rsvp::RsvpNeighborId(Lumo::IpGenAddr::ipv4(0x0c000000u + p % kNeighbors))}));
      }
      plainBytes = double(heap::liveBytes);
    }
    heap::start();
    {
      auto const sessions = Rsvp::rsvpSessionIdDedupTableRealFactory();
      auto const pathIds = Rsvp::rsvpPathIdDedupTableRealFactory();
      auto const neighbors = Rsvp::rsvpNeighborIdDedupTableRealFactory();
      std::vector<std::unique_ptr<DedupedIds>> paths;
      paths.reserve(kPaths);
      for (U32 p = 0; p < kPaths; ++p) {
        paths.push_back(std::make_unique<DedupedIds>(DedupedIds{
            Rsvp::RsvpSessionIdDeduped(sessions->dedupFromValue(sessionId(p % kSessions))),
            Rsvp::RsvpPathIdDeduped(pathIds->dedupFromValue(Rsvp::RsvpPathId(p / kSessions))),
            Rsvp::RsvpNeighborIdDeduped(
                neighbors->dedupFromAttrs(Lumo::IpGenAddr::ipv4(0x0c000000u + p % kNeighbors)))}));
      }
      dedupedBytes = double(heap::liveBytes);
    }
    heap::counting = false;
  }
  state.counters["plainBytesPerPath"] = plainBytes / kPaths;
  state.counters["dedupedBytesPerPath"] = dedupedBytes / kPaths;
  state.counters["bytesSaved"] = plainBytes - dedupedBytes;
  state.counters["savedFraction"] = 1 - dedupedBytes / plainBytes;
}
BENCHMARK(BM_DedupBytesSaved)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
