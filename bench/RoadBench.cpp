// The agent's road at router scale (100k transit LSPs over 1k sessions and
// 100 neighbors), each measurement one run:
// - PATH refreshes and changes per second from the receive pipe to the
//   transmit pipe, with the attribute-log writer attached (flushing every
//   10k messages into a sink that counts bytes) and without it, the agent
//   handling each message at once and in batches of 32;
// - bytes per LSP: heap by the counting allocator, and the resident size;
//   entity counts and sizes by type, largest first;
// - a snapshot of the tree into a replica process over a Unix socket, end
//   to end, bytes per LSP on the wire, and how much each side's resident
//   memory grew (fresh pages, which some virtual machines make slow);
// - the same state in a Redis state table (one hash per state path, its
//   fields as strings, pipelined), loaded and one round of refresh updates,
//   against ours, with memory per LSP; skipped, with the reason, when the
//   server or hiredis is missing (scripts/bench.sh installs both).
#include <Kel/AttrLog.h>
#include <Kel/Reflect.h>

#include <benchmark/benchmark.h>

#include "AgentRoad.h"
#include "HeapCount.h"
#include "RedisPeer.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Rsvp;
using Clock = std::chrono::steady_clock;
constexpr Kel::U32 kLsps = 100000;

// The figures at 100k LSPs depend on the pages the heap is on (a random
// walk over half a gigabyte misses the TLB on small pages): the context
// says which.
[[maybe_unused]] bool const kHeapPagesNoted = [] {
  char const* const tunables = std::getenv("GLIBC_TUNABLES");
  bool const asked = tunables && std::strstr(tunables, "glibc.malloc.hugetlb=1");
  std::string mode = "unknown";
  if (FILE* f = std::fopen("/sys/kernel/mm/transparent_hugepage/enabled", "r")) {
    char line[128] = {};
    if (std::fgets(line, sizeof line, f)) mode = line;
    std::fclose(f);
    if (!mode.empty() && mode.back() == '\n') mode.pop_back();
  }
  benchmark::AddCustomContext("heap_pages",
                              std::string(asked ? "huge pages asked for (glibc.malloc.hugetlb=1)"
                                                : "small pages (glibc.malloc.hugetlb unset)") +
                                  ", kernel transparent_hugepage: " + mode);
  return true;
}();

double since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

// Counts the bytes and drops them.
class CountingSink : public Kel::LogSink {
 public:
  bool write(std::string_view bytes) override {
    bytes_ += bytes.size();
    return true;
  }
  Kel::U64 bytes_ = 0;
};

// A status tree holding kLsps transit LSPs, PATH and RESV done.
struct Router {
  Kel::Ptr<RsvpConfig> config = rsvpConfigFactory("config");
  Kel::Ptr<RsvpStatus> status = rsvpStatusFactory("status");
  Road::Shape shape;
  std::unique_ptr<Road::PacketSide> packets;
  std::unique_ptr<Road::Agent> agent;
  std::unique_ptr<Road::LabelAllocator> allocator;

  explicit Router(Kel::U32 lsps = kLsps) {
    shape.lsps = lsps;
    config->refreshPeriodIs(30);
    status->doInit();
    packets = std::make_unique<Road::PacketSide>(shape);
    agent = std::make_unique<Road::Agent>(*status, *config);
    allocator = std::make_unique<Road::LabelAllocator>(*status->labelRequestTable(),
                                                       *status->labelAllocTable());
  }
  // The first PATH and RESV of every LSP, as the packet side decoded them.
  struct Decoded {
    std::vector<Kel::Ptr<RsvpMsg const>> paths;
    std::vector<Kel::Ptr<RsvpMsg const>> resvs;
  };
  [[nodiscard]] Decoded decoded() const {
    Decoded d;
    d.paths.reserve(shape.lsps);
    d.resvs.reserve(shape.lsps);
    for (Kel::U32 lsp = 0; lsp < shape.lsps; ++lsp) {
      d.paths.push_back(packets->path(lsp, 0));
      d.resvs.push_back(packets->resv(lsp, 1000 + lsp % 100000));
    }
    return d;
  }
  void load(Decoded const& d) {
    for (Kel::U32 lsp = 0; lsp < shape.lsps; ++lsp) {
      agent->received(packets->upstreamOf(lsp), d.paths[lsp]);
      agent->received(packets->downstreamOf(lsp), d.resvs[lsp]);
    }
  }
  void load() { load(decoded()); }
  // The same, calling `every` after each 10k LSPs.
  template <class F>
  void loadCalling(F&& every) {
    Decoded const d = decoded();
    for (Kel::U32 lsp = 0; lsp < shape.lsps; ++lsp) {
      agent->received(packets->upstreamOf(lsp), d.paths[lsp]);
      agent->received(packets->downstreamOf(lsp), d.resvs[lsp]);
      if ((lsp + 1) % 10000 == 0) every();
    }
  }
  // The receive pipe of each LSP's upstream neighbor: the packet side
  // binds each neighbor's socket to its pipe once.
  [[nodiscard]] std::vector<RsvpNeighborRxMsgPipe*> rxPipes() const {
    std::vector<RsvpNeighborRxMsgPipe*> out;
    out.reserve(shape.lsps);
    for (Kel::U32 lsp = 0; lsp < shape.lsps; ++lsp)
      out.push_back(agent->rxPipe(packets->upstreamOf(lsp)));
    return out;
  }
};

// PATH messages for every LSP, made before the clock runs: the decoding is
// the packet side's, not the road's.
std::vector<Kel::Ptr<RsvpMsg const>> paths(Router const& r, Kel::U32 version) {
  std::vector<Kel::Ptr<RsvpMsg const>> out;
  out.reserve(r.shape.lsps);
  for (Kel::U32 lsp = 0; lsp < r.shape.lsps; ++lsp) out.push_back(r.packets->path(lsp, version));
  return out;
}

// state.range(0): 1 with the writer attached, 0 without; range(1): 1 every
// message a change, 0 every message a refresh; range(2): the agent's batch
// (1: each message handled as it is taken out of its pipe).
void BM_RefreshRoad(benchmark::State& state) {
  bool const withWriter = state.range(0) != 0;
  bool const changes = state.range(1) != 0;
  Router r;
  r.load();
  r.agent->batchIs(static_cast<Kel::U32>(state.range(2)));
  std::unique_ptr<Kel::LogWriter> writer;
  CountingSink* sink = nullptr;
  if (withWriter) {
    writer = std::make_unique<Kel::LogWriter>(*r.status);
    auto s = std::make_unique<CountingSink>();
    sink = s.get();
    writer->subscriberNew(std::move(s));
  }
  Kel::U64 const snapshotBytes = sink ? sink->bytes_ : 0;
  // Two sets, so that every refresh replaces the held message with an equal
  // one, as a freshly decoded message does.
  Kel::U32 version = 0;
  std::vector<Kel::Ptr<RsvpMsg const>> sets[2] = {paths(r, 0), paths(r, changes ? 1 : 0)};
  Kel::U64 messages = 0;
  Road::Counters const before = r.agent->counters();
  auto const rx = r.rxPipes();
  Kel::Seconds now = 0;
  for (auto _ : state) {
    // A round of refreshes takes a refresh period: the times move.
    now += 30;
    r.agent->nowIs(now);
    auto const& set = sets[version++ % 2];
    if (changes) {
      state.PauseTiming();
      sets[(version + 1) % 2] = paths(r, version + 1);
      state.ResumeTiming();
    }
    for (Kel::U32 lsp = 0; lsp < kLsps; ++lsp) {
      rx[lsp]->txMsgIs(set[lsp]);
      if (writer && ++messages % 10000 == 0) writer->flush();
    }
    r.agent->drain();
    if (writer) writer->flush();
  }
  Road::Counters const& after = r.agent->counters();
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kLsps));
  state.counters["refreshes"] = static_cast<double>(after.pathRefreshes - before.pathRefreshes);
  state.counters["changes"] = static_cast<double>(after.pathChanges - before.pathChanges);
  if (sink) {
    state.counters["logBytesPerMsg"] = static_cast<double>(sink->bytes_ - snapshotBytes) /
                                       static_cast<double>(state.iterations() * kLsps);
  }
}
BENCHMARK(BM_RefreshRoad)
    ->ArgsProduct({{0, 1}, {0, 1}, {1, 32}})
    ->ArgNames({"writer", "changes", "batch"})
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

long residentBytes() {
  long pages = 0;
  long resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return resident * sysconf(_SC_PAGESIZE);
}

// Every entity the tree holds, owned or referred to, once.
void forEachEntity(Kel::Entity const& root, std::function<void(Kel::Entity const&)> const& f) {
  std::vector<Kel::Entity const*> stack{&root};
  std::unordered_set<Kel::Entity const*> seen{&root};
  auto push = [&](Kel::Entity const* e) {
    if (e && seen.insert(e).second) stack.push_back(e);
  };
  while (!stack.empty()) {
    Kel::Entity const* e = stack.back();
    stack.pop_back();
    f(*e);
    auto* const m = const_cast<Kel::Entity*>(e);
    e->fwkType().forEachAttr([&](Kel::KelAttr const& a) {
      if (!a.type || a.type->kind() != Kel::TypeKind::entity) return;
      if (a.kind == Kel::AttrKind::child || a.kind == Kel::AttrKind::ref) {
        Kel::Ptr<Kel::Entity const> c;
        e->fwkType().attributeOp(&c, m, &a, Kel::attrOpRead);
        push(c.get());
      } else if (Kel::isCollection(a.kind)) {
        std::unique_ptr<Kel::GenericIter> it;
        e->fwkType().attributeOp(&it, m, &a, Kel::attrOpIterate);
        for (; it && !it->done(); it->next()) push(it->entity());
      }
    });
  }
}

void BM_MemoryPerLsp(benchmark::State& state) {
  for (auto _ : state) {
    // The resident size grows by what a fresh process's tree takes: in a
    // forked child, after the parent gave its free heap back to the system.
    ::malloc_trim(0);
    int pipeFds[2];
    double rssPerLsp = -1;
    if (::pipe(pipeFds) == 0) {
      std::fflush(nullptr);
      pid_t const pid = ::fork();
      if (pid == 0) {
        long const before = residentBytes();
        Router child;
        child.load();
        long const grown = residentBytes() - before;
        ::_exit(::write(pipeFds[1], &grown, sizeof grown) == sizeof grown ? 0 : 1);
      }
      long grown = 0;
      if (pid > 0 && ::read(pipeFds[0], &grown, sizeof grown) == sizeof grown) {
        rssPerLsp = static_cast<double>(grown) / kLsps;
      }
      if (pid > 0) ::waitpid(pid, nullptr, 0);
      ::close(pipeFds[0]);
      ::close(pipeFds[1]);
    }
    heap::start();
    auto r = std::make_unique<Router>();
    r->load();
    heap::counting = false;
    state.counters["heapBytesPerLsp"] = static_cast<double>(heap::liveBytes) / kLsps;
    state.counters["rssBytesPerLsp"] = rssPerLsp;
    // The entities themselves by type (their own blocks; collections'
    // tables and nodes are in the heap figure only).
    std::map<std::string, std::pair<Kel::U64, Kel::U64>> byType;
    forEachEntity(*r->status, [&](Kel::Entity const& e) {
      auto& slot = byType[std::string(e.fwkType().name())];
      ++slot.first;
      slot.second += malloc_usable_size(const_cast<void*>(dynamic_cast<void const*>(&e)));
    });
    std::vector<std::pair<Kel::U64, std::string>> largest;
    Kel::U64 entityBytes = 0;
    for (auto const& [name, cb] : byType) {
      largest.emplace_back(cb.second, name + " x" + std::to_string(cb.first));
      entityBytes += cb.second;
    }
    std::sort(largest.rbegin(), largest.rend());
    std::string label;
    for (std::size_t i = 0; i < std::min<std::size_t>(6, largest.size()); ++i) {
      char part[160];
      std::snprintf(part, sizeof part, "%s%s %.0f B/LSP", i ? ", " : "", largest[i].second.c_str(),
                    static_cast<double>(largest[i].first) / kLsps);
      label += part;
    }
    state.counters["entityBytesPerLsp"] = static_cast<double>(entityBytes) / kLsps;
    state.SetLabel(label);
    heap::counting = true;
    r.reset();
    heap::counting = false;
  }
}
BENCHMARK(BM_MemoryPerLsp)->Iterations(1)->Unit(benchmark::kMillisecond);

// The processor time of this process so far, user and system.
double cpuSeconds() {
  rusage u{};
  ::getrusage(RUSAGE_SELF, &u);
  auto const seconds = [](timeval t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return seconds(u.ru_utime) + seconds(u.ru_stime);
}

// The replica: reads the snapshot from `fd` and answers one byte once in
// sync ('!' when it holds every LSP). Runs in its own process.
[[noreturn]] void replicaProcess(int fd) {
  long const residentBefore = residentBytes();
  double const cpuBefore = cpuSeconds();
  auto replica = rsvpStatusFactory("status");
  Kel::LogReader reader(*replica);
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  try {
    while (!reader.inSync()) {
      pollfd p{fd, POLLIN, 0};
      ::poll(&p, 1, 10000);
      if (!reader.readFrom(fd)) ::_exit(2);
    }
  } catch (std::exception const& e) {
    std::fprintf(stderr, "replica: %s\n", e.what());
    ::_exit(3);
  }
  // The answer, then how much the replica's resident memory grew: the pages
  // the kernel cleared for it (pages inherited at the fork, from a heap the
  // parent had freed, do not count), and the processor time it took (it
  // waits idle while the tree is built).
  char answer[1 + sizeof(long) + sizeof(double)];
  answer[0] = replica->spStateColl()->spStateSize() == kLsps ? '!' : '?';
  long const grown = residentBytes() - residentBefore;
  double const cpu = cpuSeconds() - cpuBefore;
  std::memcpy(answer + 1, &grown, sizeof grown);
  std::memcpy(answer + 1 + sizeof grown, &cpu, sizeof cpu);
  if (::write(fd, answer, sizeof answer) != static_cast<ssize_t>(sizeof answer)) ::_exit(1);
  ::_exit(0);
}

// A replica process reads the snapshot from a Unix socket and answers one
// byte once in sync; the time runs from the subscription to that byte. The
// replica process starts before the tree is built, as a front end attaching
// to a running agent is a process of its own: forked after, it would share
// the tree's pages, and the writer's first write to each entity (its
// notifiee) would copy the page under it, a cost no agent pays.
// state.range(0): 0 when the subscription mounts the tree (the first
// replica of a publisher), 1 when the tree was mounted before the load
// with one subscriber that a flush every 10k LSPs kept up to date (a
// replica joining others: the writer already follows every entity).
// state.range(1): 1 when the sink paces the writer to the replica (at most
// 4 MiB waiting, 5 s of patience), 0 when it keeps whatever the replica has
// not taken.
void BM_Snapshot100k(benchmark::State& state) {
  bool const mountedBefore = state.range(0) != 0;
  bool const paced = state.range(1) != 0;
  int sv[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) < 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  std::fflush(nullptr);
  // Pages the heap holds free (an earlier benchmark's tree) go back to the
  // kernel first: shared with the child after the fork, each would be
  // copied at the parent's first write to it as the tree is built, and a
  // huge page split into small ones, slowing every walk of the tree after.
  ::malloc_trim(0);
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::close(sv[0]);
    replicaProcess(sv[1]);
  }
  ::close(sv[1]);
  Router r;
  std::optional<Kel::LogWriter> writer;
  if (mountedBefore) {
    writer.emplace(*r.status);
    writer->subscriberNew(std::make_unique<CountingSink>());
    r.loadCalling([&] { writer->flush(); });
    writer->flush();
  } else {
    r.load();
  }
  for (auto _ : state) {
    // Non-blocking, as the agent's event loop has it: the writer goes on
    // while the replica applies a part, and the sink keeps what the socket
    // has not taken yet.
    ::fcntl(sv[0], F_SETFL, ::fcntl(sv[0], F_GETFL) | O_NONBLOCK);
    long const writerBefore = residentBytes();
    double const writerCpuBefore = cpuSeconds();
    auto const start = Clock::now();
    if (!writer) writer.emplace(*r.status);
    // Counts what goes on the wire on its way to the socket.
    struct Counted : Kel::FdSink {
      using FdSink::FdSink;
      Kel::U64* total = nullptr;
      bool write(std::string_view bytes) override {
        *total += bytes.size();
        return FdSink::write(bytes);
      }
    };
    Kel::U64 wire = 0;
    auto sink = std::make_unique<Counted>(sv[0]);
    sink->total = &wire;
    if (paced) sink->paceIs(std::size_t{4} << 20, std::chrono::seconds(5));
    Kel::U64 const recordsBefore = writer->records();
    writer->subscriberNew(std::move(sink));
    writer->flush();
    // The writer's part; the replica applies the last parts after it.
    double const written = since(start);
    while (writer->pending()) {
      pollfd p{sv[0], POLLOUT, 0};
      ::poll(&p, 1, 10000);
      writer->flush();
    }
    long const writerGrown = residentBytes() - writerBefore;
    double const writerCpu = cpuSeconds() - writerCpuBefore;
    pollfd answered{sv[0], POLLIN, 0};
    ::poll(&answered, 1, 60000);
    char reply[1 + sizeof(long) + sizeof(double)] = {};
    ::fcntl(sv[0], F_SETFL, ::fcntl(sv[0], F_GETFL) & ~O_NONBLOCK);
    if (::recv(sv[0], reply, sizeof reply, MSG_WAITALL) != static_cast<ssize_t>(sizeof reply) ||
        reply[0] != '!') {
      ::close(sv[0]);
      int status = 0;
      ::waitpid(pid, &status, 0);
      std::fprintf(stderr, "replica: answer %d, exit %d\n", reply[0], WEXITSTATUS(status));
      state.SkipWithError("the replica failed");
      return;
    }
    state.SetIterationTime(since(start));
    state.counters["recordsPerLsp"] =
        static_cast<double>(writer->records() - recordsBefore) / kLsps;
    state.counters["wireBytesPerLsp"] = static_cast<double>(wire) / kLsps;
    state.counters["writtenS"] = written;
    long replicaGrown = 0;
    double replicaCpu = 0;
    std::memcpy(&replicaGrown, reply + 1, sizeof replicaGrown);
    std::memcpy(&replicaCpu, reply + 1 + sizeof replicaGrown, sizeof replicaCpu);
    // The two sides' processor times: where the two processes slow each
    // other (two virtual processors on one core, or the memory they share),
    // the time end to end follows their sum more than the larger of them.
    state.counters["writerCpuS"] = writerCpu;
    state.counters["replicaCpuS"] = replicaCpu;
    state.counters["writerFreshMiB"] = static_cast<double>(writerGrown) / (1 << 20);
    state.counters["replicaFreshMiB"] = static_cast<double>(replicaGrown) / (1 << 20);
  }
  ::close(sv[0]);
  ::waitpid(pid, nullptr, 0);
}
BENCHMARK(BM_Snapshot100k)
    ->ArgNames({"mountedBefore", "paced"})
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// A state path's fields as strings, as a state table keeps them.
RsvpBench::RedisRecord recordOf(RsvpSpState const& sp) {
  RsvpBench::RedisRecord rec;
  rec.key = "sp:" + sp.spId().stringValue();
  auto* const m = const_cast<RsvpSpState*>(&sp);
  sp.fwkType().forEachAttr([&](Kel::KelAttr const& a) {
    if (a.kind != Kel::AttrKind::plain && a.kind != Kel::AttrKind::fixed) return;
    Kel::GenericValue v(*a.type);
    if (sp.fwkType().attributeOp(v.get(), m, &a, Kel::attrOpRead) != Kel::attrDone) return;
    rec.fields.emplace_back(std::string(a.name), v.strep());
  });
  return rec;
}

void BM_RedisPeer(benchmark::State& state) {
  for (auto _ : state) {
    // The bytes of a tree built while the allocator counts; the times of
    // another, built without counting, from messages decoded beforehand.
    double ourBytes = 0;
    {
      heap::start();
      Router counted;
      counted.load();
      heap::counting = false;
      ourBytes = static_cast<double>(heap::liveBytes) / kLsps;
    }
    Router r;
    auto const decoded = r.decoded();
    auto const t0 = Clock::now();
    r.load(decoded);
    double const ourLoad = since(t0);
    // A round of refreshes, the best of kRounds on each side. Ours in
    // batches of 32 messages, as Redis's updates go in pipelined batches.
    constexpr int kRounds = 3;
    auto const refresh = paths(r, 0);
    auto const rx = r.rxPipes();
    r.agent->batchIs(32);
    double ourRefresh = 1e9;
    for (int round = 1; round <= kRounds; ++round) {
      r.agent->nowIs(30.0 * round);
      auto const t1 = Clock::now();
      for (Kel::U32 lsp = 0; lsp < kLsps; ++lsp) rx[lsp]->txMsgIs(refresh[lsp]);
      r.agent->drain();
      ourRefresh = std::min(ourRefresh, since(t1));
    }
    state.counters["oursLoadS"] = ourLoad;
    state.counters["oursRefreshRoundS"] = ourRefresh;
    state.counters["oursBytesPerLsp"] = ourBytes;

    RsvpBench::RedisPeer peer;
    if (!peer.available()) {
      state.SkipWithError(("skipped the Redis peer: " + peer.whyNot()).c_str());
      return;
    }
    std::vector<RsvpBench::RedisRecord> records;
    std::vector<RsvpBench::RedisRecord> updates;
    for (auto it = r.status->spStateColl()->spStateIter(); !it.done(); ++it) {
      records.push_back(recordOf(*it.value()));
      // What a refresh changes in a state path.
      RsvpSpState const& sp = *it.value();
      updates.push_back({records.back().key,
                         {{"currentDsBaseRefresh", std::to_string(sp.currentDsBaseRefresh())},
                          {"spOperPathState", "spOperStateBoth"}}});
    }
    double const redisLoad = peer.loadHashes(records);
    double const redisBytes =
        static_cast<double>(peer.usedMemoryBytes() - peer.baselineMemoryBytes()) / kLsps;
    double redisRefresh = 1e9;
    for (int round = 1; round <= kRounds; ++round)
      redisRefresh = std::min(redisRefresh, peer.updateFields(updates));
    state.counters["redisLoadS"] = redisLoad;
    state.counters["redisRefreshRoundS"] = redisRefresh;
    state.counters["redisBytesPerLsp"] = redisBytes;
    state.counters["loadRatio"] = redisLoad / ourLoad;  // above 1: we are faster
    state.counters["refreshRatio"] = redisRefresh / ourRefresh;
    state.counters["fieldsPerLsp"] = static_cast<double>(records.front().fields.size());
  }
}
BENCHMARK(BM_RedisPeer)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
