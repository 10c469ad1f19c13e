// A walk through the library as an agent uses it: identifiers and values are
// built, printed, parsed, compared and hashed; an entity notifies observers
// and is browsed; a message arriving again is told a refresh or a change; a
// forked replica follows the entity over a Unix socket; the operator's
// settings turn into the running configuration, and a replica follows both
// trees (the replicas alone: --check-replica).
#include <CipherkitLib/Codec.h>
#include <Kel/AttrLog.h>
#include <Rsvp/Rsvp.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void section(char const* title) { std::cout << "\n== " << title << "\n"; }

// ---- Plumbing for the replica section: descriptors, waiting, the socket.
// Every wait has a deadline, so a lost peer ends the demo with an error
// rather than a hang.

using Clock = std::chrono::steady_clock;
constexpr auto kGiveUpAfter = std::chrono::seconds(10);
// The replica's one-byte answer once it holds a whole snapshot.
constexpr char kInSync = '!';

[[noreturn]] void sysFail(char const* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

class Fd {
 public:
  explicit Fd(int fd) noexcept : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ~Fd() { reset(); }
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;
  [[nodiscard]] int get() const noexcept { return fd_; }
  void reset() noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

void nonBlockingIs(int fd) {
  int const flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) sysFail("fcntl");
}

// Waits until one of `fds` reports one of its events (or an error or
// hang-up, which the next read or write tells apart); poll() skips negative
// descriptors. Throws once the deadline has passed.
void waitForAny(std::span<pollfd> fds, Clock::time_point deadline) {
  for (;;) {
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) throw std::runtime_error("gave up waiting for the other process");
    int const n = ::poll(fds.data(), fds.size(), static_cast<int>(left.count()));
    if (n > 0) return;
    if (n < 0 && errno != EINTR) sysFail("poll");
  }
}

short waitFor(int fd, short events, Clock::time_point deadline) {
  pollfd p{fd, events, 0};
  waitForAny(std::span(&p, 1), deadline);
  return p.revents;
}

// Appends what is available on a non-blocking `fd` to `into`; answers false
// at the end of the stream.
bool readSome(int fd, std::string& into) {
  char buf[4096];
  for (;;) {
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
      into.append(buf, static_cast<std::size_t>(n));
    } else if (n == 0) {
      return false;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return true;
    } else if (errno != EINTR) {
      sysFail("read");
    }
  }
}

void writeAll(int fd, std::string_view bytes, Clock::time_point deadline) {
  while (!bytes.empty()) {
    ssize_t const n = ::write(fd, bytes.data(), bytes.size());
    if (n >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      waitFor(fd, POLLOUT, deadline);
    } else if (errno != EINTR) {
      sysFail("write");
    }
  }
}

// A socket path in a fresh private directory; both go away with the object.
class SocketPath {
 public:
  SocketPath() {
    char const* const tmp = std::getenv("TMPDIR");
    std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/rsvp-demo-XXXXXX";
    if (!::mkdtemp(dir.data())) sysFail("mkdtemp");
    dir_ = dir;
    path_ = dir_ + "/replica.sock";
    if (path_.size() >= sizeof(sockaddr_un::sun_path)) {
      ::rmdir(dir_.c_str());
      throw std::runtime_error("socket path too long: " + path_);
    }
  }
  ~SocketPath() {
    ::unlink(path_.c_str());
    ::rmdir(dir_.c_str());
  }
  SocketPath(SocketPath const&) = delete;
  SocketPath& operator=(SocketPath const&) = delete;
  [[nodiscard]] std::string const& path() const noexcept { return path_; }

  [[nodiscard]] sockaddr_un address() const {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path, path_.c_str(), path_.size() + 1);
    return a;
  }

 private:
  std::string dir_;
  std::string path_;
};

// A forked process; killed and reaped if it is not waited for.
class Child {
 public:
  explicit Child(pid_t pid) noexcept : pid_(pid) {}
  ~Child() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
  }
  Child(Child const&) = delete;
  Child& operator=(Child const&) = delete;

  // The exit status; throws if the child has not ended by the deadline.
  int wait(Clock::time_point deadline) {
    for (;;) {
      int status = 0;
      pid_t const r = ::waitpid(pid_, &status, WNOHANG);
      if (r == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      if (r < 0 && errno != EINTR) sysFail("waitpid");
      if (Clock::now() >= deadline) throw std::runtime_error("the replica process did not end");
      ::poll(nullptr, 0, 10);  // no descriptor to wait on: a short sleep
    }
  }

 private:
  pid_t pid_;
};

// A socket listening at `where`; made before the fork, so that the child's
// connect() cannot come too early.
Fd listenAt(SocketPath const& where, int backlog) {
  Fd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (listener.get() < 0) sysFail("socket");
  sockaddr_un const addr = where.address();
  if (::bind(listener.get(), reinterpret_cast<sockaddr const*>(&addr), sizeof addr) < 0) {
    sysFail("bind");
  }
  if (::listen(listener.get(), backlog) < 0) sysFail("listen");
  return listener;
}

// The next connection to `listener`, non-blocking. Connections are taken in
// the order they were made.
Fd acceptFrom(Fd const& listener, Clock::time_point deadline) {
  waitFor(listener.get(), POLLIN, deadline);
  int accepted;
  while ((accepted = ::accept(listener.get(), nullptr, nullptr)) < 0) {
    if (errno != EINTR) sysFail("accept");
  }
  Fd conn(accepted);
  nonBlockingIs(conn.get());
  return conn;
}

// A non-blocking connection to the socket at `where`.
Fd connectTo(SocketPath const& where) {
  Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) sysFail("socket");
  sockaddr_un const addr = where.address();
  while (::connect(fd.get(), reinterpret_cast<sockaddr const*>(&addr), sizeof addr) < 0) {
    if (errno == EISCONN) break;
    if (errno != EINTR) sysFail("connect");
  }
  nonBlockingIs(fd.get());
  return fd;
}

// Forks a process that runs `body` and ends with its answer as exit status;
// answers the child's id.
template <class Body>
pid_t forkProcess(Body const& body) {
  // Nothing buffered may be printed twice, once by each process.
  std::cout.flush();
  std::cerr.flush();
  pid_t const pid = ::fork();
  if (pid < 0) sysFail("fork");
  if (pid == 0) {
    int const code = body();
    std::cout.flush();
    // Leaves the parent's objects (the socket file above all) to the parent.
    ::_exit(code);
  }
  return pid;
}

void printPrefixed(char const* prefix, std::string const& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) std::cout << prefix << line << "\n";
}

// The replica process: follows the publisher until it closes the stream,
// prints its tree and sends it back for comparison. Answers the exit status.
int replicaProcess(SocketPath const& where, Clock::time_point deadline) {
  try {
    Fd const fd = connectTo(where);
    Kel::Ptr<Rsvp::RsvpSpIdSet> const replica = Rsvp::rsvpSpIdSetFactory("activePaths");
    Kel::LogReader reader(*replica);
    // readFrom() forgets being in sync at the end of the stream, so the
    // replica says so as soon as it is, and the publisher changes its tree
    // only then: the rest of the stream is changes the replica follows.
    bool told = false;
    for (bool open = true; open;) {
      waitFor(fd.get(), POLLIN, deadline);
      open = reader.readFrom(fd.get());
      if (reader.inSync() && !told) {
        writeAll(fd.get(), std::string_view(&kInSync, 1), deadline);
        told = true;
      }
    }
    if (!told) throw std::runtime_error("the stream ended before a whole snapshot");
    std::string const tree = Kel::browseText(*replica);
    printPrefixed("replica: ", tree);
    std::cout << "replica: " << reader.frames() << " frames, " << reader.records()
              << " records applied\n";
    writeAll(fd.get(), tree, deadline);
    return 0;
  } catch (std::exception const& e) {
    std::cerr << "replica: " << e.what() << "\n";
    return 1;
  }
}

// The publisher: serves its tree to a replica in a child process over a Unix
// socket, changes it, and compares the replica's tree with its own.
bool replicaSection() {
  using namespace Rsvp;
  section("A replica in another process");
  Clock::time_point const deadline = Clock::now() + kGiveUpAfter;
  // A peer that went away must show as EPIPE from write(), not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    SocketPath const where;
    Fd listener = listenAt(where, 1);
    Child child(forkProcess([&] {
      listener.reset();
      return replicaProcess(where, deadline);
    }));
    Fd const conn = acceptFrom(listener, deadline);

    RsvpSessionId const session(Lumo::IpGenAddr("10.0.0.2"), RsvpTunnelId(7),
                                Lumo::IpGenAddr("10.0.0.1"));
    auto const path = [&](Kel::U32 lsp) { return RsvpSpId(session, RsvpPathId(lsp)); };
    Kel::Ptr<RsvpSpIdSet> const source = rsvpSpIdSetFactory("activePaths");
    for (Kel::U32 lsp = 1; lsp <= 3; ++lsp) source->spIdIs(path(lsp));
    Kel::LogWriter writer(*source);
    writer.subscriberNew(std::make_unique<Kel::FdSink>(conn.get()));

    // Sends what waits for the socket and collects what the replica says,
    // until `done`.
    std::string back;
    bool open = true;
    auto const pump = [&](auto done) {
      while (!done()) {
        if (writer.subscribers() == 0) throw std::runtime_error("the replica connection broke");
        if (!open) throw std::runtime_error("the replica closed the connection early");
        short const want = static_cast<short>(POLLIN | (writer.pending() ? POLLOUT : 0));
        short const got = waitFor(conn.get(), want, deadline);
        if (got & POLLOUT) writer.flush();
        if (got & (POLLIN | POLLHUP | POLLERR)) open = readSome(conn.get(), back);
      }
    };

    std::cout << "publisher: snapshot of " << source->spIdSize() << " paths sent\n";
    pump([&] { return !back.empty() && !writer.pending(); });
    if (back.front() != kInSync) throw std::runtime_error("unexpected answer from the replica");
    std::cout << "publisher: the replica is in sync\n";

    source->spIdIs(path(4));
    writer.flush();
    std::cout << "publisher: added LSP 4, flushed\n";
    source->spIdIs(path(5));
    source->spIdDel(path(2));
    writer.flush();
    std::cout << "publisher: added LSP 5, deleted LSP 2, flushed\n";
    // Added and deleted between two flushes: the frame carries one record,
    // that LSP 6 is absent.
    source->spIdIs(path(6));
    source->spIdDel(path(6));
    writer.flush();
    std::cout << "publisher: added and deleted LSP 6, flushed\n";
    pump([&] { return !writer.pending(); });
    std::cout << "publisher: " << writer.records() << " records written; closing\n";
    std::cout.flush();  // before the replica's lines
    if (::shutdown(conn.get(), SHUT_WR) < 0) sysFail("shutdown");

    pump([&] { return !open; });
    int const status = child.wait(deadline);
    std::string const sourceTree = Kel::browseText(*source);
    std::string const replicaTree = back.substr(1);
    printPrefixed("source:  ", sourceTree);
    bool const equal = status == 0 && replicaTree == sourceTree;
    std::cout << "replica equals source: " << std::boolalpha << equal << "\n";
    return equal;
  } catch (std::exception const& e) {
    std::cout.flush();
    std::cerr << "replica section failed: " << e.what() << "\n";
    return false;
  }
}

// ---- The configuration: the operator's settings (mpls/rsvp/cliConfig) and
// the running configuration the agent derives from them (mpls/rsvp/config).

// The agent's reading of the operator's settings. The static tunnel requests
// are not copied: the running configuration refers to the operator's.
void derive(Rsvp::RsvpConfig& run, Rsvp::RsvpCliConfig const& cli) {
  using namespace Rsvp;
  run.refreshPeriodIs(Kel::Seconds(cli.refreshInterval()));
  run.helloEnabledIs(cli.helloInterval() != RsvpCliConfig::helloIntervalDisabled());
  run.helloIntervalIs(Kel::Seconds(cli.helloInterval()));
  run.authTypeIs(cli.authType() == Cli::md5 ? rsvpAuthMd5 : rsvpAuthNone);
  // The operator may type any window; the agent runs with 1 to 255.
  run.authSeqWindowSizeIs(std::clamp<Kel::U32>(cli.authSeqWindowSize(), 1, 255));
  run.frrEnabledIs(cli.frrMode() != Cli::frrNone);
  run.frrModeIs(cli.frrMode());
  run.frrLocalReversionIs(cli.reversionMode() == Cli::reversionLocal);
  run.staticTunnelRequestCollIs(cli.staticTunnelRequestColl());
  run.runningStateIs(cli.enabled() ? rsvpRunning : rsvpStopped);
  run.runningIs(cli.enabled());
}

// The configuration's replica process: one connection and one reader per
// tree, the operator's first. Follows both until the publisher closes them,
// then sends each tree back on its own connection.
int configReplicaProcess(SocketPath const& where, Clock::time_point deadline) {
  using namespace Rsvp;
  try {
    Kel::Ptr<RsvpCliConfig> const cli = rsvpCliConfigFactory("cliConfig");
    Kel::Ptr<RsvpConfig> const run = rsvpConfigFactory("config");
    struct Follower {
      Fd fd;
      Kel::LogReader reader;
      bool open = true;
      bool told = false;
    } trees[2]{{connectTo(where), Kel::LogReader(*cli)}, {connectTo(where), Kel::LogReader(*run)}};
    for (;;) {
      pollfd p[2];
      for (int i = 0; i < 2; ++i) p[i] = {trees[i].open ? trees[i].fd.get() : -1, POLLIN, 0};
      if (!trees[0].open && !trees[1].open) break;
      waitForAny(p, deadline);
      for (int i = 0; i < 2; ++i) {
        Follower& t = trees[i];
        if (p[i].revents) t.open = t.reader.readFrom(t.fd.get());
        if (t.reader.inSync() && !t.told) {
          writeAll(t.fd.get(), std::string_view(&kInSync, 1), deadline);
          t.told = true;
        }
      }
    }
    if (!trees[0].told || !trees[1].told) throw std::runtime_error("a stream ended early");
    // The running configuration's replica reaches the requests through its
    // own reference (the publisher compares what it reaches, too).
    Kel::Ptr<RsvpCliTunnelRequestColl const> const reqs = run->staticTunnelRequestColl();
    if (!reqs ||
        reqs->staticTunnelReqSize() != cli->staticTunnelRequestColl()->staticTunnelReqSize()) {
      throw std::runtime_error("the running configuration does not reach the static tunnels");
    }
    for (auto it = reqs->staticTunnelReqIter(); !it.done(); ++it) {
      RsvpCliTunnelRequest const& r = *it.value();
      std::cout << "replica: mpls/rsvp/config reaches static tunnel " << r.sessionName() << " "
                << r.srcIp() << " -> " << r.dstIp() << " (" << r.hopSize() << " hops)\n";
    }
    writeAll(trees[0].fd.get(), Kel::browseText(*cli), deadline);
    writeAll(trees[1].fd.get(), Kel::browseText(*run), deadline);
    return 0;
  } catch (std::exception const& e) {
    std::cerr << "configuration replica: " << e.what() << "\n";
    return 1;
  }
}

bool configSection() {
  using namespace Rsvp;
  section("Configuration: the operator's settings and the running configuration");
  Clock::time_point const deadline = Clock::now() + kGiveUpAfter;
  std::signal(SIGPIPE, SIG_IGN);
  try {
    // A key for the demonstration; an agent provisions the one in its key store.
    CipherkitLib::keyIs(Kel::String(CipherkitLib::kKeyBytes, 'k'));
    Kel::Ptr<RsvpCliConfig> const cli = rsvpCliConfigFactory("cliConfig");
    cli->refreshIntervalIs(45);
    cli->helloMultiplierIs(5);
    cli->authTypeIs(Cli::md5);
    cli->encodedPasswordIs(1, CipherkitLib::doEncodeKey("pe1-secret"));
    cli->activePasswordIndexIs(1);
    cli->frrModeIs(Cli::frrLinkProtection);
    cli->reversionModeIs(Cli::reversionLocal);
    cli->enabledIs(true);
    auto const tunnel = [&](Kel::U32 id, char const* dst, char const* via, char const* name) {
      auto const req =
          cli->staticTunnelRequestCollIs("static")->staticTunnelReqIs(RsvpTunnelRequestId(id, 0));
      req->srcIpIs(Lumo::IpGenAddr("10.0.0.1"));
      req->dstIpIs(Lumo::IpGenAddr(dst));
      req->hopIs(0, Lumo::IpGenAddr("10.1.0.2"));
      req->hopIs(1, Lumo::IpGenAddr(via));
      req->sessionNameIs(name);
      req->bandwidthIs(1.25e6f * static_cast<Kel::F32>(id));
    };
    tunnel(1, "10.0.0.2", "10.2.0.2", "pe1-to-pe2");
    Kel::String const stored = cli->encodedPassword(1);
    std::cout << "operator: refreshInterval " << cli->refreshInterval() << ", helloMultiplier "
              << +cli->helloMultiplier() << ", authType " << cli->authType() << ", frrMode "
              << cli->frrMode() << ", enabled " << std::boolalpha << cli->enabled() << "\n";
    std::cout << "operator: password 1 stored as " << stored.substr(0, 12) << "... ("
              << stored.size() << " characters), clear text in it: "
              << (stored.find("pe1-secret") != Kel::String::npos) << "\n";
    std::cout << "operator: activePassword() decodes it to \"" << cli->activePassword() << "\"\n";

    Kel::Ptr<RsvpConfig> const run = rsvpConfigFactory("config");
    derive(*run, *cli);
    std::cout << "agent:    refreshPeriod " << run->refreshPeriod() << " s, hello "
              << run->helloEnabled() << " every " << run->helloInterval() << " s, authType "
              << run->authType() << ", window " << run->authSeqWindowSize() << ", frr "
              << run->frrMode() << " local reversion " << run->frrLocalReversion() << ", "
              << run->runningState() << "\n";
    std::cout << "agent:    static tunnel requests by reference: "
              << run->staticTunnelRequestColl()->staticTunnelReqSize() << "\n";

    SocketPath const where;
    Fd listener = listenAt(where, 2);
    Child child(forkProcess([&] {
      listener.reset();
      return configReplicaProcess(where, deadline);
    }));
    struct Link {
      Fd conn;
      Kel::LogWriter writer;
      std::string back{};
      bool open = true;
    } links[2]{{acceptFrom(listener, deadline), Kel::LogWriter(*cli)},
               {acceptFrom(listener, deadline), Kel::LogWriter(*run)}};
    for (Link& l : links) l.writer.subscriberNew(std::make_unique<Kel::FdSink>(l.conn.get()));
    // Sends what waits for either socket and collects what the replica says
    // on each, until `done`.
    auto const pump = [&](auto done) {
      while (!done()) {
        pollfd p[2];
        for (int i = 0; i < 2; ++i) {
          Link const& l = links[i];
          if (l.open && l.writer.subscribers() == 0) throw std::runtime_error("a connection broke");
          if (!l.open && l.writer.pending()) throw std::runtime_error("the replica left early");
          auto const events = static_cast<short>(POLLIN | (l.writer.pending() ? POLLOUT : 0));
          p[i] = {l.open ? l.conn.get() : -1, events, 0};
        }
        if (!links[0].open && !links[1].open) throw std::runtime_error("the replica left early");
        waitForAny(p, deadline);
        for (int i = 0; i < 2; ++i) {
          if (p[i].revents & POLLOUT) links[i].writer.flush();
          if (p[i].revents & (POLLIN | POLLHUP | POLLERR)) {
            links[i].open = readSome(links[i].conn.get(), links[i].back);
          }
        }
      }
    };
    auto const sent = [&] { return !links[0].writer.pending() && !links[1].writer.pending(); };
    pump([&] { return !links[0].back.empty() && !links[1].back.empty() && sent(); });
    if (links[0].back.front() != kInSync || links[1].back.front() != kInSync) {
      throw std::runtime_error("unexpected answer from the replica");
    }
    std::cout << "publisher: snapshots of both trees sent, the replica is in sync with each\n";

    // After the snapshot: the operator adds a tunnel and lengthens the
    // refresh; the agent derives its configuration anew.
    tunnel(2, "10.0.0.3", "10.3.0.2", "pe1-to-pe3");
    cli->refreshIntervalIs(60);
    derive(*run, *cli);
    for (Link& l : links) l.writer.flush();
    pump(sent);
    std::cout << "publisher: added tunnel pe1-to-pe3, refreshInterval 60, derived anew; "
              << links[0].writer.records() << " + " << links[1].writer.records()
              << " records written; closing\n";
    std::cout.flush();  // before the replica's lines
    for (Link& l : links) {
      if (::shutdown(l.conn.get(), SHUT_WR) < 0) sysFail("shutdown");
    }
    pump([&] { return !links[0].open && !links[1].open; });
    bool equal = child.wait(deadline) == 0;
    Kel::Entity const* const sources[2] = {cli.get(), run.get()};
    for (int i = 0; i < 2; ++i) {
      bool const same = links[i].back.substr(1) == Kel::browseText(*sources[i]);
      std::cout << "replica of " << (i == 0 ? cli->mountPath() : run->mountPath())
                << " equals its source: " << same << "\n";
      equal = equal && same;
    }
    std::cout << "configuration replicas: " << (equal ? "PASS" : "FAIL") << "\n";
    return equal;
  } catch (std::exception const& e) {
    std::cout.flush();
    std::cerr << "configuration section failed: " << e.what() << "\n";
    return false;
  }
}

}  // namespace

int main(int argc, char** argv) {
  using namespace Rsvp;

  if (argc == 2 && std::string_view(argv[1]) == "--check-replica") {
    bool const pathsOk = replicaSection();
    return configSection() && pathsOk ? 0 : 1;
  }
  if (argc != 1) {
    std::cerr << "usage: " << argv[0] << " [--check-replica]\n";
    return 2;
  }

  section("Identifiers");
  RsvpSessionId const session(Lumo::IpGenAddr("10.0.0.2"), RsvpTunnelId(7),
                              Lumo::IpGenAddr("10.0.0.1"));
  RsvpSpId const sp(session, RsvpPathId(3));
  std::cout << "session      " << session << "\n";
  std::cout << "state path   " << sp << "\n";
  std::cout << "hash         0x" << std::hex << sp.hash() << std::dec << "\n";
  std::cout << "no path      " << RsvpPathId() << " (null: " << std::boolalpha << !RsvpPathId()
            << ")\n";

  section("Parsing back");
  RsvpSpId parsed;
  parsed.stringValueIs(sp.stringValue());
  std::cout << "parsed equals original: " << (parsed == sp) << "\n";
  RsvpPathId lsp;
  lsp.stringValueIs("<lspId=-1>");
  std::cout << "<lspId=-1> keeps the low 16 bits: " << lsp << "\n";
  for (char const* bad : {"<lspId=3>x", "<dstIp=10.0.0.2>_<tunnelId=70000>_<extTunnelId=>"}) {
    try {
      RsvpSessionId s;
      if (bad[1] == 'l') {
        lsp.stringValueIs(bad);
      } else {
        s.stringValueIs(bad);
      }
    } catch (Kel::RangeException const& e) {
      std::cout << "rejected " << bad << ": " << e.what() << "\n";
    }
  }

  section("Ordering");
  std::map<RsvpSpId, char const*> table;
  table[RsvpSpId(session, RsvpPathId())] = "no path yet";
  table[RsvpSpId(session, RsvpPathId(65535))] = "largest LSP id";
  table[sp] = "LSP 3";
  for (auto const& [id, what] : table) std::cout << id.pathId() << "  " << what << "\n";

  section("Values and enumerations");
  RsvpError const error(rsvpRoutingProblem, 5);
  std::cout << error << "\n";
  std::cout << strepToValue<RsvpError>(valueToStrep(error)) << "\n";
  std::cout << "style " << resvStyleSe << " = " << static_cast<Kel::U32>(resvStyleSe) << "\n";
  try {
    RsvpRefreshId refresh(1, 5);
    refresh.epochIs(RsvpMsgIdObj::invalidMsgIdEpochValue() + 1);
  } catch (Kel::RangeException const& e) {
    std::cout << "rejected epoch: " << e.what() << "\n";
  }

  section("Entities, notification and the state browser");
  struct Watcher : RsvpSpIdSet::NotifieeConst {
    using RsvpSpIdSet::NotifieeConst::NotifieeConst;
    using RsvpSpIdSet::NotifieeConst::onSpId;
    void onSpId(RsvpSpId const& id) override { std::cout << "  changed: " << id.pathId() << "\n"; }
  };
  Kel::Ptr<RsvpSpIdSet> const paths = rsvpSpIdSetFactory("activePaths");
  Watcher const watcher(paths.get());
  paths->spIdIs(sp);
  paths->spIdIs(sp);  // already there: nobody hears of it
  paths->spIdIs(RsvpSpId(session, RsvpPathId(4)));
  paths->spIdDel(RsvpSpId(session, RsvpPathId(9)));  // absent: nothing happens
  Kel::browse(std::cout, *paths);

  section("Refresh or change");
  // A Path message as the previous hop sends it, every object filled in;
  // `via` is the middle hop of its explicit route. The ttl, the time of
  // reception and the message id differ from one arrival to the next even
  // when the sender changed nothing.
  auto const arrival = [](char const* via, Kel::U8 ttl, Kel::Seconds at, Kel::U32 msgId) {
    using Lumo::IpGenAddr;
    auto m = rsvpPathMsgFactory();
    m->srcIpIs(IpGenAddr("10.1.0.1"));
    m->dstIpIs(IpGenAddr("10.0.0.2"));
    m->neighborIpIs(IpGenAddr("10.1.0.1"));
    m->ttlIs(ttl);
    m->recvTimestampIs(at);
    m->msgIdObjIs(RsvpMsgIdObj(true, 1, msgId));
    m->sessionObjIs(RsvpSessionObj(IpGenAddr("10.0.0.2"), 7, IpGenAddr("10.0.0.1")));
    m->hopObjIs(RsvpHopObj(IpGenAddr("10.1.0.1"), 4));
    m->timeValuesObjIs(RsvpTimeValuesObj(30000));
    m->senderTemplateObjIs(RsvpSenderTemplateObj(IpGenAddr("10.0.0.1"), 3));
    RsvpSenderTspecObj tspec;
    tspec.tokenBucketRateIs(1.25e6f);
    tspec.peakDataRateIs(1.25e6f);
    m->senderTspecObjIs(tspec);
    m->labelRequestObjIs(RsvpLabelRequestObj(0x0800));
    RsvpSessionAttributeObj attributes;
    attributes.setupPriorityIs(7);
    attributes.holdPriorityIs(7);
    attributes.sessionNameIs("pe1-to-pe2");
    m->sessionAttributeObjIs(attributes);
    auto ero = rsvpExplicitRouteObjFactory();
    Kel::U32 index = 0;
    for (char const* hop : {"10.1.0.2", via, "10.0.0.2"}) {
      ero->hopIs(index++, RsvpEroHopSubObj(false, Lumo::IpGenPrefix(IpGenAddr(hop), 32), 0));
    }
    m->explicitRouteObjIs(ero);
    auto rro = rsvpRecordRouteObjFactory();
    rro->hopIs(0, RsvpRroHopSubObj(IpGenAddr("10.0.0.1"), 0, Lumo::MplsLabel(), 0));
    rro->hopIs(1, RsvpRroHopSubObj(IpGenAddr("10.1.0.1"), 0, Lumo::MplsLabel(), 0));
    m->recordRouteObjIs(rro);
    return m;
  };
  // The path state holds the last message accepted. One equal to it only
  // refreshes the state; any other is a change, processed and sent on at once.
  Kel::Ptr<RsvpPathMsg const> held;
  auto const receive = [&](Kel::Ptr<RsvpPathMsg const> const& m) {
    std::cout << "ttl " << +m->ttl() << ", received at " << m->recvTimestamp() << " s, message id "
              << m->msgIdObj().msgId() << ", route";
    for (auto it = m->explicitRouteObj()->hopIter(); !it.done(); ++it) {
      std::cout << " " << it.value().prefix();
    }
    char const* const verdict = !held            ? "new (trigger)"
                                : held->equal(m) ? "refresh (unchanged)"
                                                 : "change (trigger)";
    std::cout << "\nPath from " << m->hopIp() << " for " << m->spId() << ": " << verdict << "\n";
    held = m;
  };
  receive(arrival("10.2.0.2", 254, 100.0, 1));
  receive(arrival("10.2.0.2", 253, 130.5, 2));
  receive(arrival("10.3.0.2", 253, 161.0, 3));

  bool const pathsOk = replicaSection();
  return configSection() && pathsOk ? 0 : 1;
}
