// The agent walk-through: an agent process holds the status root, the
// running configuration and the operator's configuration, mounts the three
// trees on the attribute log, and runs the road of PATH and RESV messages
// for N LSPs: creation, refresh rounds with some changes, and tears. A
// mirror process follows the three trees live over Unix sockets, prints a
// summary and one state path, and at the end sends its replicas back, so
// that the agent checks them against its own trees attribute by attribute.
//
// With --publish the agent serves the three trees on a Unix socket instead,
// round after round until SIGINT or SIGTERM, for rsvp_show and other
// replicas; with --save it writes the status tree's log to a file at the end.
//
//   rsvp_walkthrough [--lsps N] [--rounds R] [--quiet]
//   rsvp_walkthrough --publish SOCKET [--lsps N] [--period SECONDS]
//   rsvp_walkthrough --save FILE [--lsps N] [--rounds R]
#include <Kel/AttrLog.h>
#include <Kel/Browser.h>
#include <Kel/LogSocket.h>
#include <Kel/TreeCompare.h>
#include <Rsvp/Rsvp.h>

#include "AgentRoad.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Rsvp;
using Clock = std::chrono::steady_clock;
constexpr auto kGiveUpAfter = std::chrono::seconds(120);

[[noreturn]] void sysFail(char const* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void nonBlocking(int fd) {
  int const flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) sysFail("fcntl");
}

// Waits until `fd` is ready for `events`, or fails at the deadline.
void await(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    auto const left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) throw std::runtime_error("walk-through: the other process went quiet");
    pollfd p{fd, events, 0};
    int const n = ::poll(&p, 1, static_cast<int>(left.count()));
    if (n > 0) return;
    if (n < 0 && errno != EINTR) sysFail("poll");
  }
}

// One control byte each way: the agent's "done", the mirror's "sent".
void signal(int fd, char c) {
  while (::write(fd, &c, 1) != 1) {
    if (errno != EINTR) sysFail("write");
  }
}
char awaitSignal(int fd, Clock::time_point deadline) {
  await(fd, POLLIN, deadline);
  char c = 0;
  if (::read(fd, &c, 1) != 1) throw std::runtime_error("walk-through: the other process is gone");
  return c;
}

// The three mounted trees of a process.
struct Trees {
  Kel::Ptr<RsvpStatus> status = rsvpStatusFactory("status");
  Kel::Ptr<RsvpConfig> config = rsvpConfigFactory("config");
  Kel::Ptr<RsvpCliConfig> cli = rsvpCliConfigFactory("cliConfig");
  [[nodiscard]] std::array<Kel::Entity*, 3> all() const {
    return {status.get(), config.get(), cli.get()};
  }
};

// Mounts the trees on the sockets, stream number 1 each.
std::array<Kel::LogWriter*, 3> mount(Trees const& t, std::array<int, 3> const& fds) {
  std::array<Kel::LogWriter*, 3> writers{};
  for (std::size_t i = 0; i < 3; ++i) {
    writers[i] =
        t.all()[i]->kelNboAttrLogSaIs(Kel::logObserveAll, 1, std::make_unique<Kel::FdSink>(fds[i]));
  }
  return writers;
}

void unmount(Trees const& t) {
  for (Kel::Entity* e : t.all()) e->kelNboAttrLogSaIs(Kel::logObserveNone, 1, nullptr);
}

// Flushes every writer and waits until the sockets took every byte.
void drain(std::array<Kel::LogWriter*, 3> const& writers, std::array<int, 3> const& fds) {
  auto const deadline = Clock::now() + kGiveUpAfter;
  for (std::size_t i = 0; i < 3; ++i) {
    writers[i]->flush();
    while (writers[i]->pending()) {
      await(fds[i], POLLOUT, deadline);
      writers[i]->flush();
    }
  }
}

// Reads what the sockets hold into the readers until `control` signals, then
// what is left.
void follow(std::array<Kel::LogReader*, 3> const& readers, std::array<int, 3> const& fds,
            int control) {
  auto const deadline = Clock::now() + kGiveUpAfter;
  for (;;) {
    std::array<pollfd, 4> p{};
    for (std::size_t i = 0; i < 3; ++i) p[i] = {fds[i], POLLIN, 0};
    p[3] = {control, POLLIN, 0};
    auto const left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) throw std::runtime_error("walk-through: the agent went quiet");
    if (::poll(p.data(), p.size(), static_cast<int>(left.count())) < 0 && errno != EINTR)
      sysFail("poll");
    for (std::size_t i = 0; i < 3; ++i) {
      if (p[i].revents & (POLLIN | POLLHUP) && !readers[i]->readFrom(fds[i])) {
        throw std::runtime_error("walk-through: a log stream ended");
      }
    }
    if (p[3].revents & POLLIN) {
      awaitSignal(control, deadline);
      // Everything was written before the signal: read to the end of it.
      for (std::size_t i = 0; i < 3; ++i) readers[i]->readFrom(fds[i]);
      return;
    }
  }
}

// ---- the mirror

int mirrorProcess(std::array<int, 3> const& fds, int control) {
  Trees replica;
  Kel::LogReader status(*replica.status);
  Kel::LogReader config(*replica.config);
  Kel::LogReader cli(*replica.cli);
  std::array<Kel::LogReader*, 3> const readers{&status, &config, &cli};
  follow(readers, fds, control);
  if (!status.inSync() || !config.inSync() || !cli.inSync()) {
    std::cerr << "mirror: not in sync\n";
    return 1;
  }
  RsvpStatus const& s = *replica.status;
  auto const sps = s.spStateColl();
  Kel::U64 rx = 0;
  Kel::U64 tx = 0;
  for (auto it = s.neighborRxMsgPipeColl()->msgPipeIter(); !it.done(); ++it)
    rx += it.value()->readableCount();
  for (auto it = s.spTxMsgPipeColl()->msgPipeIter(); !it.done(); ++it)
    tx += it.value()->readableCount();
  std::cout << "mirror: " << status.frames() + config.frames() + cli.frames() << " frames, "
            << status.records() + config.records() + cli.records() << " records\n"
            << "mirror: sessions " << s.sessionStateColl()->sessionStateSize() << ", state paths "
            << sps->spStateSize() << " (" << sps->operationalCount() << " up), neighbors "
            << s.neighborStateColl()->neighborStateSize() << ", labels "
            << s.labelAllocTable()->labelSize() << "\n"
            << "mirror: receive pipes " << s.neighborRxMsgPipeColl()->msgPipeSize() << " (" << rx
            << " messages), transmit pipes " << s.spTxMsgPipeColl()->msgPipeSize() << " (" << tx
            << " messages)\n"
            << "mirror: running config refreshPeriod " << replica.config->refreshPeriod()
            << ", operator's refreshInterval " << replica.cli->refreshInterval() << "\n";
  if (auto it = sps->spStateIter(); !it.done()) {
    std::cout << "mirror: one state path, browsed:\n" << Kel::browseText(*it.value());
  }
  // Back to the agent, for its check.
  auto const writers = mount(replica, fds);
  drain(writers, fds);
  signal(control, 's');
  awaitSignal(control, Clock::now() + kGiveUpAfter);  // the agent has read it all
  unmount(replica);
  return 0;
}

// ---- the agent

struct Options {
  Kel::U32 lsps = 1000;
  int rounds = 3;
  bool quiet = false;
  std::string publish;  // socket path
  std::string save;     // log file
  int period = 2;       // seconds between the publisher's rounds
};

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string_view const a = argv[i];
    auto number = [&]() -> long {
      if (i + 1 >= argc) throw std::invalid_argument(std::string(a) + " needs a number");
      char* end = nullptr;
      long const v = std::strtol(argv[++i], &end, 10);
      if (*end || v < 1 || v > 1000000)
        throw std::invalid_argument(std::string(a) + " takes 1 to 1000000");
      return v;
    };
    if (a == "--lsps") {
      o.lsps = static_cast<Kel::U32>(number());
    } else if (a == "--rounds") {
      o.rounds = static_cast<int>(number());
    } else if (a == "--quiet") {
      o.quiet = true;
    } else if (a == "--period") {
      o.period = static_cast<int>(number());
    } else if ((a == "--publish" || a == "--save") && i + 1 < argc) {
      (a == "--publish" ? o.publish : o.save) = argv[++i];
    } else {
      throw std::invalid_argument(
          "usage: rsvp_walkthrough [--lsps N] [--rounds R] [--quiet] [--publish SOCKET "
          "[--period SECONDS]] [--save FILE]");
    }
  }
  if (!o.publish.empty() && !o.save.empty())
    throw std::invalid_argument("--publish and --save exclude each other");
  return o;
}

// The agent's LSPs driven through the road: creation, then refresh rounds in
// which some LSPs change and some are torn; `revive` brings torn LSPs back
// now and then, so that a long run keeps its size.
struct Driver {
  Driver(Trees const& agent, Kel::U32 lsps, bool revive)
      : shape{lsps},
        packets(shape),
        road(*agent.status, *agent.config),
        allocator(*agent.status->labelRequestTable(), *agent.status->labelAllocTable()),
        version(lsps, 0),
        up(lsps, true),
        revive_(revive) {
    RsvpSpState::setRandomSeed(1);
  }

  // The first PATH and RESV of every LSP; `each` runs after each message.
  void create(std::function<void(Kel::U32)> const& each) {
    for (Kel::U32 lsp = 0; lsp < shape.lsps; ++lsp) {
      road.received(packets.upstreamOf(lsp), packets.path(lsp, 0));
      each(lsp);
      road.received(packets.downstreamOf(lsp), packets.resv(lsp, 1000 + lsp % 100000));
      each(lsp);
    }
  }

  // One refresh round at 30 s times `round`.
  void round(int number, std::function<void()> const& each) {
    road.nowIs(30.0 * number);
    for (Kel::U32 lsp = 0; lsp < shape.lsps; ++lsp) {
      Kel::U32 const dice = rng() % 100;
      if (!up[lsp]) {
        if (!revive_ || dice >= 20) continue;
        up[lsp] = true;
      } else if (dice < 1 && lsp != 0) {
        road.received(packets.upstreamOf(lsp), packets.pathTear(lsp));
        up[lsp] = false;
        each();
        continue;
      }
      if (dice < 6) ++version[lsp];
      road.received(packets.upstreamOf(lsp), packets.path(lsp, version[lsp]));
      each();
      road.received(packets.downstreamOf(lsp), packets.resv(lsp, 1000 + lsp % 100000));
      each();
    }
  }

  Road::Shape shape;
  Road::PacketSide packets;
  Road::Agent road;
  Road::LabelAllocator allocator;
  std::mt19937 rng{5};
  std::vector<Kel::U32> version;
  std::vector<bool> up;
  bool revive_;
};

void initialise(Trees const& agent) {
  agent.cli->refreshIntervalIs(30);
  agent.config->refreshPeriodIs(agent.cli->refreshInterval());
  agent.config->rorEnabledIs(true);
  agent.status->doInit();
}

volatile std::sig_atomic_t stopSignal = 0;
extern "C" void onStop(int signo) { stopSignal = signo; }

// Publishes the trees on a socket round after round until a signal, or runs
// the rounds and saves the status tree's log.
int publishRun(Options const& o) {
  Trees agent;
  initialise(agent);
  std::unique_ptr<Kel::LogPublisher> publisher;
  if (!o.publish.empty()) {
    publisher = std::make_unique<Kel::LogPublisher>(o.publish);
    // A front end attaching to a large tree applies its snapshot more slowly
    // than the agent writes it: the agent waits (up to two seconds) rather
    // than keep hundreds of megabytes the front end has not read.
    publisher->paceIs(std::size_t{4} << 20, std::chrono::seconds(2));
    publisher->treeIs(1, *agent.status);
    publisher->treeIs(2, *agent.config);
    publisher->treeIs(3, *agent.cli);
    struct sigaction sa {};
    sa.sa_handler = onStop;  // no SA_RESTART: poll() returns at once
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
  }
  Driver d(agent, o.lsps, publisher != nullptr);
  Kel::U64 messages = 0;
  auto serve = [&] {
    if (publisher && ++messages % 1000 == 0) publisher->serve();
  };
  d.create([&](Kel::U32) { serve(); });
  if (publisher) {
    publisher->serve();
    std::cout << "agent: " << o.lsps << " LSPs; publishing " << RsvpStatus::mountPath()
              << " (tree 1), " << RsvpConfig::mountPath() << " (2) and "
              << RsvpCliConfig::mountPath() << " (3) on " << o.publish
              << "\nagent: in another terminal: rsvp_show --socket " << o.publish
              << " [summary|sessions|neighbors|labels] [--watch]\n"
              << "agent: a refresh round every " << o.period << " s; Ctrl-C stops" << std::endl;
  }
  for (int round = 1; publisher ? stopSignal == 0 : round <= o.rounds; ++round) {
    d.round(round, serve);
    if (!publisher) continue;
    publisher->serve();
    if (!o.quiet) {
      std::cout << "agent: round " << round << ": " << agent.status->spStateColl()->spStateSize()
                << " state paths (" << agent.status->spStateColl()->operationalCount() << " up), "
                << publisher->replicas() << " replicas" << std::endl;
    }
    auto const next = Clock::now() + std::chrono::seconds(o.period);
    while (stopSignal == 0 && Clock::now() < next) {
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
      // New replicas, and the sockets of those still taking their bytes.
      std::vector<pollfd> p{{publisher->fd(), POLLIN, 0}};
      for (int const fd : publisher->pendingFds()) p.push_back({fd, POLLOUT, 0});
      ::poll(p.data(), p.size(), static_cast<int>(std::max<long>(left.count(), 0)));
      publisher->serve();
    }
  }
  if (publisher) {
    std::cout << "agent: stopped by signal " << stopSignal << std::endl;
    return 0;
  }
  Kel::LogWriter writer(*agent.status);
  auto sink = std::make_unique<Kel::MemorySink>();
  Kel::MemorySink* const bytes = sink.get();
  writer.subscriberNew(std::move(sink));
  std::ofstream out(o.save, std::ios::binary);
  out.write(bytes->bytes().data(), static_cast<std::streamsize>(bytes->bytes().size()));
  if (!out.flush()) throw std::runtime_error("cannot write '" + o.save + "'");
  std::cout << "agent: " << agent.status->spStateColl()->spStateSize() << " state paths, log of "
            << bytes->bytes().size() << " bytes saved to " << o.save << "\n";
  return 0;
}

int run(Options const& o) {
  if (!o.publish.empty() || !o.save.empty()) return publishRun(o);
  std::array<int, 3> agentFds{};
  std::array<int, 3> mirrorFds{};
  for (std::size_t i = 0; i < 3; ++i) {
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) < 0) sysFail("socketpair");
    agentFds[i] = sv[0];
    mirrorFds[i] = sv[1];
  }
  int control[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, control) < 0) sysFail("socketpair");
  std::cout.flush();
  pid_t const pid = ::fork();
  if (pid < 0) sysFail("fork");
  if (pid == 0) {
    int rc = 1;
    try {
      for (int fd : agentFds) ::close(fd);
      ::close(control[0]);
      for (int fd : mirrorFds) nonBlocking(fd);
      rc = mirrorProcess(mirrorFds, control[1]);
    } catch (std::exception const& e) {
      std::cerr << "mirror: " << e.what() << "\n";
    }
    std::cout.flush();
    ::_exit(rc);
  }
  for (int fd : mirrorFds) ::close(fd);
  ::close(control[1]);
  for (int fd : agentFds) nonBlocking(fd);

  Trees agent;
  initialise(agent);
  auto const writers = mount(agent, agentFds);
  std::cout << "agent: mounted " << RsvpStatus::mountPath() << ", " << RsvpConfig::mountPath()
            << " and " << RsvpCliConfig::mountPath() << "; " << o.lsps << " LSPs, " << o.rounds
            << " refresh rounds\n";

  Driver d(agent, o.lsps, false);
  Road::Agent& road = d.road;
  Road::PacketSide const& packets = d.packets;
  Kel::U64 messages = 0;
  auto pump = [&] {
    if (++messages % 10000 == 0) drain(writers, agentFds);
  };

  auto const start = Clock::now();
  d.create([&](Kel::U32 lsp) {
    pump();
    if (lsp != 0 || o.quiet) return;
    auto const sp = agent.status->spStateColl()->spState(packets.spId(0));
    if (sp->dsLabel().isNoLabel()) {
      std::cout << "agent: PATH " << sp->spId() << " from " << packets.upstreamOf(0)
                << ": a new state path, label " << sp->localLabel() << " from the allocator, "
                << "sent on to " << sp->activeDs() << ", PATH state " << sp->spOperPathState()
                << "\n";
    } else {
      std::cout << "agent: RESV from " << packets.downstreamOf(0) << " with label " << sp->dsLabel()
                << ": sent upstream with label " << sp->localLabel() << ", RESV state "
                << sp->spOperResvState() << ", operational " << sp->operational() << "\n";
    }
  });
  for (int round = 1; round <= o.rounds; ++round) {
    Kel::U64 const changes = road.counters().pathChanges;
    Kel::U64 const tears = road.counters().tears;
    d.round(round, pump);
    drain(writers, agentFds);
    if (!o.quiet) {
      std::cout << "agent: round " << round << ": " << road.counters().pathChanges - changes
                << " changes, " << road.counters().tears - tears << " tears, "
                << agent.status->spStateColl()->spStateSize() << " state paths\n";
    }
  }
  drain(writers, agentFds);
  double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
  Road::Counters const& c = road.counters();
  std::cout << "agent: " << messages << " messages in " << seconds << " s: " << c.pathRefreshes
            << " PATH refreshes, " << c.pathChanges << " changes, " << c.tears << " tears, "
            << c.sent << " sent\n";
  std::cout.flush();
  signal(control[0], 'd');

  // The mirror's replicas come back; they must equal the trees here.
  Trees copy;
  Kel::LogReader status(*copy.status);
  Kel::LogReader config(*copy.config);
  Kel::LogReader cli(*copy.cli);
  follow({&status, &config, &cli}, agentFds, control[0]);
  signal(control[0], 'k');
  int waited = 0;
  if (::waitpid(pid, &waited, 0) < 0) sysFail("waitpid");
  unmount(agent);
  if (!WIFEXITED(waited) || WEXITSTATUS(waited) != 0) {
    std::cerr << "agent: the mirror failed\n";
    return 1;
  }
  for (std::size_t i = 0; i < 3; ++i) {
    Kel::String const diff = Kel::replicaDifference(*agent.all()[i], *copy.all()[i]);
    if (!diff.empty()) {
      std::cerr << "agent: the replica differs: " << diff << "\n";
      return 1;
    }
  }
  std::cout << "agent: the mirror's three trees equal the agent's, attribute by attribute\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(parse(argc, argv));
  } catch (std::exception const& e) {
    std::cerr << "rsvp_walkthrough: " << e.what() << "\n";
    return 1;
  }
}
