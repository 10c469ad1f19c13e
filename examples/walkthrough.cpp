// The agent walk-through: an agent process holds the status root, the
// running configuration and the operator's configuration, mounts the three
// trees on the attribute log, and runs the road of PATH and RESV messages
// for N LSPs: creation, refresh rounds with some changes, and tears. A
// mirror process follows the three trees live over Unix sockets, prints a
// summary and one state path, and at the end sends its replicas back, so
// that the agent checks them against its own trees attribute by attribute.
//
//   rsvp_walkthrough [--lsps N] [--rounds R] [--quiet]
#include <Kel/AttrLog.h>
#include <Kel/Browser.h>
#include <Kel/TreeCompare.h>
#include <Rsvp/Rsvp.h>

#include "AgentRoad.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
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
    } else {
      throw std::invalid_argument("usage: rsvp_walkthrough [--lsps N] [--rounds R] [--quiet]");
    }
  }
  return o;
}

int run(Options const& o) {
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
  agent.cli->refreshIntervalIs(30);
  agent.config->refreshPeriodIs(agent.cli->refreshInterval());
  agent.config->rorEnabledIs(true);
  agent.status->doInit();
  auto const writers = mount(agent, agentFds);
  std::cout << "agent: mounted " << RsvpStatus::mountPath() << ", " << RsvpConfig::mountPath()
            << " and " << RsvpCliConfig::mountPath() << "; " << o.lsps << " LSPs, " << o.rounds
            << " refresh rounds\n";

  Road::Shape shape;
  shape.lsps = o.lsps;
  Road::PacketSide packets(shape);
  Road::Agent road(*agent.status, *agent.config);
  Road::LabelAllocator allocator(*agent.status->labelRequestTable(),
                                 *agent.status->labelAllocTable());
  RsvpSpState::setRandomSeed(1);
  std::mt19937 rng(5);
  std::vector<Kel::U32> version(o.lsps, 0);
  std::vector<bool> up(o.lsps, true);
  Kel::U64 messages = 0;
  auto pump = [&] {
    if (++messages % 10000 == 0) drain(writers, agentFds);
  };

  auto const start = Clock::now();
  for (Kel::U32 lsp = 0; lsp < o.lsps; ++lsp) {
    road.received(packets.upstreamOf(lsp), packets.path(lsp, 0));
    pump();
    if (lsp == 0 && !o.quiet) {
      auto const sp = agent.status->spStateColl()->spState(packets.spId(0));
      std::cout << "agent: PATH " << sp->spId() << " from " << packets.upstreamOf(0)
                << ": a new state path, label " << sp->localLabel() << " from the allocator, "
                << "sent on to " << sp->activeDs() << ", PATH state " << sp->spOperPathState()
                << "\n";
    }
    road.received(packets.downstreamOf(lsp), packets.resv(lsp, 1000 + lsp % 100000));
    pump();
    if (lsp == 0 && !o.quiet) {
      auto const sp = agent.status->spStateColl()->spState(packets.spId(0));
      std::cout << "agent: RESV from " << packets.downstreamOf(0) << " with label " << sp->dsLabel()
                << ": sent upstream with label " << sp->localLabel() << ", RESV state "
                << sp->spOperResvState() << ", operational " << sp->operational() << "\n";
    }
  }
  for (int round = 1; round <= o.rounds; ++round) {
    road.nowIs(30.0 * round);
    Kel::U64 const changes = road.counters().pathChanges;
    Kel::U64 const tears = road.counters().tears;
    for (Kel::U32 lsp = 0; lsp < o.lsps; ++lsp) {
      Kel::U32 const dice = rng() % 100;
      if (!up[lsp]) continue;
      if (dice < 1 && lsp != 0) {
        road.received(packets.upstreamOf(lsp), packets.pathTear(lsp));
        up[lsp] = false;
        pump();
        continue;
      }
      if (dice < 6) ++version[lsp];
      road.received(packets.upstreamOf(lsp), packets.path(lsp, version[lsp]));
      pump();
      road.received(packets.downstreamOf(lsp), packets.resv(lsp, 1000 + lsp % 100000));
      pump();
    }
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
