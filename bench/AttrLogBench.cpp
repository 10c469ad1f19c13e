// The attribute log on a set of 100k state-path ids: writer and reader
// throughput in records per second and bytes per record, the initial snapshot
// into a replica over a Unix socket end to end, and coalescing of 1M changes.
#include <Kel/AttrLog.h>
#include <Rsvp/Rsvp.h>

#include <benchmark/benchmark.h>

#include "HeapCount.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#if __has_include(<Rsvp/FrameTestModel.h>)
#include <Rsvp/FrameTestModel.h>
#define RSVP_ATTRLOG_BENCH_HAS_TEST_MODEL 1
#endif

namespace {

using namespace Rsvp;
using Kel::U32;
using Kel::U64;

constexpr U32 kMembers = 100000;
// What the reader gets at a time, as readFrom() reads a socket.
constexpr std::size_t kReadChunk = 65536;

// Distinct ids: 4096 destinations times as many tunnels as needed.
RsvpSpId sampleSpId(U32 i) {
  RsvpSessionId const s(Lumo::IpGenAddr::ipv4(0x0a000000u + (i % 4096)),
                        RsvpTunnelId(static_cast<Kel::U16>(i / 4096 + 1)),
                        Lumo::IpGenAddr::ipv4(0x0a0000feu));
  return RsvpSpId(s, RsvpPathId(1 + i % 7));
}

std::vector<RsvpSpId> const& sampleIds() {
  static std::vector<RsvpSpId> const ids = [] {
    std::vector<RsvpSpId> v;
    v.reserve(kMembers);
    for (U32 i = 0; i < kMembers; ++i) v.push_back(sampleSpId(i));
    return v;
  }();
  return ids;
}

Kel::Ptr<RsvpSpIdSet> fullSet() {
  Kel::Ptr<RsvpSpIdSet> set = rsvpSpIdSetFactory("activePaths");
  for (RsvpSpId const& id : sampleIds()) set->spIdIs(id);
  return set;
}

// Feeds `bytes` to `reader` in socket-sized pieces.
void feed(Kel::LogReader& reader, std::string_view bytes) {
  for (std::size_t at = 0; at < bytes.size(); at += kReadChunk) {
    reader.bytesIs(bytes.substr(at, kReadChunk));
  }
}

// ---- Writer: state.range(0) members deleted and added again between two
// flushes, which coalesce to one record each, into a MemorySink.
void BM_AttrLogWriterChanges(benchmark::State& state) {
  auto const changed = static_cast<std::size_t>(state.range(0));
  std::vector<RsvpSpId> const& ids = sampleIds();
  Kel::Ptr<RsvpSpIdSet> const set = fullSet();
  Kel::LogWriter writer(*set);
  auto owned = std::make_unique<Kel::MemorySink>();
  Kel::MemorySink* const sink = owned.get();
  writer.subscriberNew(std::move(owned));
  (void)sink->take();  // the snapshot is not measured here

  U64 const recordsBefore = writer.records();
  U64 bytes = 0;
  std::size_t next = 0;
  for (auto _ : state) {
    for (std::size_t i = 0; i < changed; ++i) {
      RsvpSpId const& id = ids[(next + i) % kMembers];
      set->spIdDel(id);
      set->spIdIs(id);
    }
    next = (next + changed) % kMembers;
    writer.flush();
    bytes += sink->bytes().size();
    (void)sink->take();
  }
  U64 const records = writer.records() - recordsBefore;
  if (records != changed * static_cast<U64>(state.iterations())) {
    state.SkipWithError("a member changed twice did not give exactly one record");
    return;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(records));
  state.counters["bytesPerRecord"] = static_cast<double>(bytes) / static_cast<double>(records);
}
BENCHMARK(BM_AttrLogWriterChanges)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

// ---- Reader: a recorded stream of frames that delete 10k members and add
// them back, applied to a replica of the 100k-member set.
void BM_AttrLogReaderChanges(benchmark::State& state) {
  constexpr std::size_t kChunk = 10000;
  constexpr int kFrames = 20;
  std::vector<RsvpSpId> const& ids = sampleIds();
  std::string snapshot;
  std::string changes;
  U64 streamRecords = 0;
  {
    Kel::Ptr<RsvpSpIdSet> const set = fullSet();
    Kel::LogWriter writer(*set);
    auto owned = std::make_unique<Kel::MemorySink>();
    Kel::MemorySink* const sink = owned.get();
    writer.subscriberNew(std::move(owned));
    snapshot = sink->take();
    U64 const before = writer.records();
    for (int f = 0; f < kFrames; ++f) {
      std::size_t const first = static_cast<std::size_t>(f / 2) * kChunk % kMembers;
      for (std::size_t i = first; i < first + kChunk; ++i) {
        if (f % 2 == 0) {
          set->spIdDel(ids[i]);
        } else {
          set->spIdIs(ids[i]);
        }
      }
      writer.flush();
    }
    changes = sink->take();
    streamRecords = writer.records() - before;
  }

  Kel::Ptr<RsvpSpIdSet> const replica = rsvpSpIdSetFactory("activePaths");
  Kel::LogReader reader(*replica);
  U64 applied = 0;
  for (auto _ : state) {
    // Each pass starts a new subscription, the stream's sequence numbers
    // starting over; the snapshot is not measured here.
    state.PauseTiming();
    reader.reset();
    feed(reader, snapshot);
    U64 const before = reader.records();
    state.ResumeTiming();
    feed(reader, changes);
    applied += reader.records() - before;
  }
  if (!reader.inSync() || replica->spIdSize() != kMembers ||
      applied != streamRecords * static_cast<U64>(state.iterations())) {
    state.SkipWithError("the replica did not follow the stream");
    return;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(applied));
  state.counters["bytesPerRecord"] =
      static_cast<double>(changes.size()) / static_cast<double>(streamRecords);
}
BENCHMARK(BM_AttrLogReaderChanges)->Unit(benchmark::kMillisecond);

// ---- The two halves of a snapshot, to tell where its time goes: writing
// it into a MemorySink, and applying it to an empty replica.
void BM_AttrLogSnapshotWrite(benchmark::State& state) {
  Kel::Ptr<RsvpSpIdSet> const source = fullSet();
  U64 records = 0;
  U64 bytes = 0;
  for (auto _ : state) {
    Kel::LogWriter writer(*source);
    auto owned = std::make_unique<Kel::MemorySink>();
    Kel::MemorySink* const sink = owned.get();
    writer.subscriberNew(std::move(owned));
    records += writer.records();
    bytes += sink->bytes().size();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(records));
  state.counters["bytesPerRecord"] = static_cast<double>(bytes) / static_cast<double>(records);
}
BENCHMARK(BM_AttrLogSnapshotWrite)->Unit(benchmark::kMillisecond);

void BM_AttrLogSnapshotRead(benchmark::State& state) {
  std::string snapshot;
  {
    Kel::Ptr<RsvpSpIdSet> const source = fullSet();
    Kel::LogWriter writer(*source);
    auto owned = std::make_unique<Kel::MemorySink>();
    Kel::MemorySink* const sink = owned.get();
    writer.subscriberNew(std::move(owned));
    snapshot = sink->take();
  }
  U64 records = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto replica = rsvpSpIdSetFactory("activePaths");
    auto reader = std::make_unique<Kel::LogReader>(*replica);
    state.ResumeTiming();
    feed(*reader, snapshot);
    state.PauseTiming();
    if (!reader->inSync() || replica->spIdSize() != kMembers) {
      state.ResumeTiming();
      state.SkipWithError("the replica did not get the whole snapshot");
      break;
    }
    records += reader->records();
    reader.reset();
    replica = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(records));
}
BENCHMARK(BM_AttrLogSnapshotRead)->Unit(benchmark::kMillisecond);

// ---- End to end: a new subscriber's snapshot of the 100k-member set
// through a Unix socket into an empty replica, the writer and the reader
// taking turns in one process on non-blocking descriptors.
class SocketPair {
 public:
  SocketPair() {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fd_) < 0) {
      fd_[0] = fd_[1] = -1;
    }
  }
  ~SocketPair() {
    for (int const fd : fd_) {
      if (fd >= 0) ::close(fd);
    }
  }
  SocketPair(SocketPair const&) = delete;
  SocketPair& operator=(SocketPair const&) = delete;
  [[nodiscard]] bool ok() const noexcept { return fd_[0] >= 0; }
  [[nodiscard]] int writeEnd() const noexcept { return fd_[0]; }
  [[nodiscard]] int readEnd() const noexcept { return fd_[1]; }

 private:
  int fd_[2];
};

void BM_AttrLogSnapshotOverSocket(benchmark::State& state) {
  Kel::Ptr<RsvpSpIdSet> const source = fullSet();
  U64 records = 0;
  U64 bytes = 0;
  U64 snapshots = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto sockets = std::make_unique<SocketPair>();
    if (!sockets->ok()) {
      state.ResumeTiming();
      state.SkipWithError("socketpair failed");
      break;
    }
    Kel::Ptr<RsvpSpIdSet> replica = rsvpSpIdSetFactory("activePaths");
    auto reader = std::make_unique<Kel::LogReader>(*replica);
    auto writer = std::make_unique<Kel::LogWriter>(*source);
    state.ResumeTiming();

    writer->subscriberNew(std::make_unique<Kel::FdSink>(sockets->writeEnd()));
    bool open = true;
    while (open && !reader->inSync()) {
      writer->flush();
      open = reader->readFrom(sockets->readEnd());
    }

    state.PauseTiming();
    if (!open || replica->spIdSize() != kMembers) {
      state.ResumeTiming();
      state.SkipWithError("the replica did not get the whole snapshot");
      break;
    }
    records += reader->records();
    ++snapshots;
    writer.reset();
    reader.reset();
    replica = nullptr;
    sockets.reset();
    state.ResumeTiming();
  }
  if (snapshots == 0) return;
  // The snapshot's size, measured once outside the timing.
  {
    Kel::LogWriter writer(*source);
    auto owned = std::make_unique<Kel::MemorySink>();
    Kel::MemorySink* const sink = owned.get();
    writer.subscriberNew(std::move(owned));
    bytes = sink->bytes().size();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(records));
  state.counters["recordsPerSnapshot"] =
      static_cast<double>(records) / static_cast<double>(snapshots);
  state.counters["bytesPerRecord"] =
      static_cast<double>(bytes) / (static_cast<double>(records) / static_cast<double>(snapshots));
}
BENCHMARK(BM_AttrLogSnapshotOverSocket)->Unit(benchmark::kMillisecond);

#if RSVP_ATTRLOG_BENCH_HAS_TEST_MODEL
// ---- Coalescing: 1M changes to one plain attribute between two flushes
// make one record; a replica checks that it carries the last value.
void BM_AttrLogCoalesce(benchmark::State& state) {
  constexpr U32 kChanges = 1000000;
  Kel::Ptr<Sample::Root> const root = Sample::rootFactory("root");
  Kel::LogWriter writer(*root);
  auto owned = std::make_unique<Kel::MemorySink>();
  Kel::MemorySink* const sink = owned.get();
  writer.subscriberNew(std::move(owned));
  Kel::Ptr<Sample::Root> const replica = Sample::rootFactory("root");
  Kel::LogReader reader(*replica);
  reader.bytesIs(sink->take());

  U32 value = 0;
  U64 flushes = 0;
  U64 const before = writer.records();
  for (auto _ : state) {
    U64 const start = writer.records();
    for (U32 i = 0; i < kChanges; ++i) root->countIs(++value);
    writer.flush();
    ++flushes;
    if (writer.records() - start != 1) {
      state.SkipWithError("1M changes to one attribute did not make one record");
      return;
    }
  }
  reader.bytesIs(sink->take());
  if (!reader.inSync() || replica->count() != value) {
    state.SkipWithError("the replica does not hold the last value");
    return;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(flushes * kChanges));
  state.counters["recordsPerFlush"] =
      static_cast<double>(writer.records() - before) / static_cast<double>(flushes);
  state.counters["changesPerFlush"] = kChanges;
}
BENCHMARK(BM_AttrLogCoalesce)->Unit(benchmark::kMillisecond);

// ---- A snapshot of a queue of state.range(0) values applied to a fresh
// replica: each entry is appended after the tail, so the time per entry must
// not grow with the queue.
void BM_AttrLogQueueSnapshotRead(benchmark::State& state) {
  auto const entries = static_cast<U32>(state.range(0));
  Kel::Ptr<Sample::Root> const root = Sample::rootFactory("root");
  for (U32 i = 0; i < entries; ++i) root->newPoints(i, i + 1);
  Kel::LogWriter writer(*root);
  auto owned = std::make_unique<Kel::MemorySink>();
  Kel::MemorySink* const sink = owned.get();
  writer.subscriberNew(std::move(owned));
  std::string const bytes = sink->take();
  for (auto _ : state) {
    state.PauseTiming();
    auto replica = Sample::rootFactory("root");
    auto reader = std::make_unique<Kel::LogReader>(*replica);
    state.ResumeTiming();
    feed(*reader, bytes);
    state.PauseTiming();
    if (!reader->inSync() || replica->pointsSize() != entries) {
      state.SkipWithError("the replica does not hold the queue");
      return;
    }
    reader.reset();
    replica = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * entries);
}
BENCHMARK(BM_AttrLogQueueSnapshotRead)
    ->Arg(10000)
    ->Arg(40000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond);

// ---- The reader's own memory for one large frame of small records: a change
// frame of state.range(0) records of 12 bytes (the removal of the root's
// child slot), applied to a replica in sync. Reports the highest heap in use
// while the frame is read, as a multiple of the frame's size.
void BM_AttrLogReaderFrameMemory(benchmark::State& state) {
  auto const count = static_cast<std::size_t>(state.range(0));
  Kel::Ptr<Sample::Root> const source = Sample::rootFactory("root");
  Kel::LogWriter writer(*source);
  auto owned = std::make_unique<Kel::MemorySink>();
  Kel::MemorySink* const sink = owned.get();
  writer.subscriberNew(std::move(owned));
  std::string const start = sink->take();

  auto const slot = static_cast<Kel::S32>(Sample::Root::kelType.attr("slot")->logId);
  std::string payload;
  Kel::LogOut out(payload);
  for (std::size_t i = 0; i < count; ++i)
    Kel::closeLogRecord(out, Kel::openLogRecord(out, 1, -slot));
  std::string frame;
  Kel::logFrame(frame, Kel::logFrameChanges, 3, payload);

  double peak = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Kel::Ptr<Sample::Root> const replica = Sample::rootFactory("root");
    Kel::LogReader reader(*replica);
    reader.bytesIs(start);
    heap::start();
    state.ResumeTiming();
    feed(reader, frame);
    state.PauseTiming();
    heap::counting = false;
    peak = static_cast<double>(heap::peakBytes);
    if (reader.records() < count) {
      state.SkipWithError("the frame was not applied");
      return;
    }
    state.ResumeTiming();
  }
  state.counters["frameMiB"] = static_cast<double>(frame.size()) / (1 << 20);
  state.counters["peakMiB"] = peak / (1 << 20);
  state.counters["peakPerFrameByte"] = peak / static_cast<double>(frame.size());
}
BENCHMARK(BM_AttrLogReaderFrameMemory)->Arg(5000000)->Iterations(1)->Unit(benchmark::kMillisecond);
#endif

// ---- The reader's table of references: the root, then state.range(0)
// references named in a shuffled order, as a snapshot names them when its
// writer followed the tree as it grew (in order: when it met the tree with
// the snapshot). Reports nanoseconds per reference named.
void BM_AttrLogRefTableNaming(benchmark::State& state) {
  auto const count = static_cast<U32>(state.range(0));
  bool const shuffled = state.range(1) != 0;
  std::vector<U32> refs(count);
  std::iota(refs.begin(), refs.end(), 2u);
  if (shuffled) std::shuffle(refs.begin(), refs.end(), std::mt19937(7));
  auto const* const named = reinterpret_cast<Kel::Entity const*>(alignof(Kel::Entity));
  for (auto _ : state) {
    Kel::LogRefTable<Kel::Entity const*> table;
    table.set(1, named);
    for (U32 const ref : refs) table.set(ref, named);
    benchmark::DoNotOptimize(table.size());
  }
  state.counters["nsPerRef"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * count,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_AttrLogRefTableNaming)
    ->ArgNames({"refs", "shuffled"})
    ->Args({1400000, 0})
    ->Args({1400000, 1})
    ->Unit(benchmark::kMillisecond);

}  // namespace
