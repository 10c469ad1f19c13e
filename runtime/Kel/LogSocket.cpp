// Publishing mounted trees on a Unix socket, and replicas attached to it.
#include <Kel/LogSocket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Kel {

namespace {

std::string quoted(std::string const& path) { return "'" + path + "'"; }

sockaddr_un addressOf(std::string const& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.empty()) throw Exception("Publisher socket path is empty");
  if (path.size() >= sizeof a.sun_path) {
    throw Exception("Publisher socket path " + quoted(path) + " is too long (at most " +
                    std::to_string(sizeof a.sun_path - 1) + " bytes)");
  }
  std::memcpy(a.sun_path, path.data(), path.size());
  return a;
}

// Connects a new blocking stream socket to `path`: the descriptor, or -1
// with errno set.
int connectTo(sockaddr_un const& a) {
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<sockaddr const*>(&a), sizeof a) == 0) return fd;
  int const saved = errno;
  ::close(fd);
  errno = saved;
  return -1;
}

void putU32(std::string& out, U32 v) {
  char const b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                     static_cast<char>(v >> 8), static_cast<char>(v)};
  out.append(b, 4);
}

U32 getU32(char const* p) {
  auto const* u = reinterpret_cast<unsigned char const*>(p);
  return U32{u[0]} << 24 | U32{u[1]} << 16 | U32{u[2]} << 8 | U32{u[3]};
}

constexpr std::size_t kEnvelopeHeader = 8;

}  // namespace

// ---- publisher

// One replica's socket, shared by the sinks of every tree so that their
// envelopes go out whole and in order; bytes the socket does not take yet
// wait in its FdSink.
struct LogPublisher::Connection {
  explicit Connection(int fd) : out(fd) {}
  ~Connection() { ::close(out.fd()); }
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  bool envelope(U32 tree, std::string_view bytes) {
    String head;
    putU32(head, tree);
    putU32(head, static_cast<U32>(bytes.size()));
    out.append(head);
    return out.write(bytes);
  }
  // Bytes are still waiting on a socket that still takes them.
  [[nodiscard]] bool waiting() const { return !out.broken() && out.pending(); }

  FdSink out;
};

// A tree's subscriber on a replica's connection.
class LogPublisher::Sink final : public LogSink {
 public:
  Sink(std::shared_ptr<Connection> conn, U32 tree) : conn_(std::move(conn)), tree_(tree) {}
  bool write(std::string_view bytes) override { return conn_->envelope(tree_, bytes); }
  bool flush() override { return conn_->out.flush(); }
  [[nodiscard]] bool pending() const override { return conn_->out.pending(); }

 private:
  std::shared_ptr<Connection> conn_;
  U32 tree_;
};

LogPublisher::LogPublisher(std::string path) : path_(std::move(path)) {
  sockaddr_un const a = addressOf(path_);
  struct stat st {};
  if (::lstat(path_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
    int const probe = connectTo(a);
    if (probe >= 0) {
      ::close(probe);
      throw Exception("Publisher socket path " + quoted(path_) + " is in use by a live publisher");
    }
    // Nobody accepts there: the socket of a process that died.
    if (errno == ECONNREFUSED) ::unlink(path_.c_str());
  }
  listen_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listen_ < 0 || ::bind(listen_, reinterpret_cast<sockaddr const*>(&a), sizeof a) != 0 ||
      ::listen(listen_, 64) != 0) {
    std::string const reason = std::strerror(errno);
    if (listen_ >= 0) ::close(listen_);
    throw Exception("Cannot listen at " + quoted(path_) + ": " + reason);
  }
}

LogPublisher::~LogPublisher() {
  while (!connections_.empty()) drop(connections_.begin()->first);
  ::close(listen_);
  ::unlink(path_.c_str());
}

void LogPublisher::treeIs(U32 number, Entity& root) {
  if (number == logDirectoryTree) throw Exception("Tree number 0 is the publisher's directory");
  for (Tree const& t : trees_) {
    if (t.number == number) {
      throw Exception("Tree " + std::to_string(number) + " is already published");
    }
  }
  trees_.push_back({number, &root});
}

void LogPublisher::drop(U32 stream) {
  for (Tree const& t : trees_) t.root->kelNboAttrLogSaIs(logObserveNone, stream, nullptr);
  connections_.erase(stream);
}

void LogPublisher::serve() {
  for (;;) {
    int const fd = ::accept4(listen_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      break;  // EAGAIN: none left; anything else is retried at the next call
    }
    auto conn = std::make_shared<Connection>(fd);
    conn->out.paceIs(paceBytes_, patience_);
    std::string directory;
    for (Tree const& t : trees_) {
      directory += std::to_string(t.number) + " " + std::string(t.root->fwkType().name()) + "\n";
    }
    conn->envelope(logDirectoryTree, directory);
    U32 const stream = nextStream_++;
    if (nextStream_ == 0) nextStream_ = logPublisherStreamBase;
    connections_[stream] = conn;
    for (Tree const& t : trees_) {
      t.root->kelNboAttrLogSaIs(logObserveAll, stream, std::make_unique<Sink>(conn, t.number));
    }
  }
  for (Tree const& t : trees_) {
    if (LogWriter* const w = t.root->kelNboAttrLogSa()) w->flush();
  }
  std::vector<U32> gone;
  for (auto const& [stream, conn] : connections_) {
    if (!conn->out.flush()) gone.push_back(stream);
  }
  for (U32 const stream : gone) drop(stream);
}

bool LogPublisher::pending() const {
  for (auto const& [stream, conn] : connections_) {
    if (conn->waiting()) return true;
  }
  return false;
}

std::vector<int> LogPublisher::pendingFds() const {
  std::vector<int> fds;
  for (auto const& [stream, conn] : connections_) {
    if (conn->waiting()) fds.push_back(conn->out.fd());
  }
  return fds;
}

// ---- replica

LogReplica::LogReplica(std::string path) : path_(std::move(path)) {
  sockaddr_un const a = addressOf(path_);
  fd_ = connectTo(a);
  if (fd_ < 0) {
    if (errno == ENOENT || errno == ECONNREFUSED || errno == ENOTSOCK) {
      throw Exception("No publisher at " + quoted(path_));
    }
    throw Exception("Cannot connect to " + quoted(path_) + ": " + std::strerror(errno));
  }
  int const flags = ::fcntl(fd_, F_GETFL);
  ::fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
}

LogReplica::~LogReplica() {
  if (fd_ >= 0) ::close(fd_);
}

void LogReplica::treeIs(U32 number, Entity& root) {
  if (number == logDirectoryTree) throw Exception("Tree number 0 is the publisher's directory");
  roots_[number] = &root;
  readers_[number] = std::make_unique<LogReader>(root);
}

LogReader const* LogReplica::reader(U32 number) const {
  auto const it = readers_.find(number);
  return it == readers_.end() ? nullptr : it->second.get();
}

bool LogReplica::inSync() const {
  if (!directoryRead_) return false;
  for (auto const& [number, r] : readers_) {
    if (!r->inSync()) return false;
  }
  return true;
}

bool LogReplica::readAvailable() {
  char buf[1 << 16];
  bool any = false;
  for (;;) {
    ssize_t const n = ::read(fd_, buf, sizeof buf);
    if (n > 0) {
      any = true;
      envelopes({buf, static_cast<std::size_t>(n)});
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return any;
    throw Exception("Publisher at " + quoted(path_) + " went away");
  }
}

void LogReplica::inSyncAwait(int timeoutMs) {
  using Clock = std::chrono::steady_clock;
  auto const deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!inSync()) {
    auto const left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      throw Exception("Publisher at " + quoted(path_) + " sent no snapshot within " +
                      std::to_string(timeoutMs) + " ms");
    }
    pollfd p{fd_, POLLIN, 0};
    int const n = ::poll(&p, 1, static_cast<int>(left));
    if (n > 0) readAvailable();
  }
}

void LogReplica::envelopes(std::string_view bytes) {
  while (!bytes.empty()) {
    if (header_.size() < kEnvelopeHeader) {
      std::size_t const take = std::min(kEnvelopeHeader - header_.size(), bytes.size());
      header_.append(bytes.substr(0, take));
      bytes.remove_prefix(take);
      if (header_.size() < kEnvelopeHeader) return;
      tree_ = getU32(header_.data());
      left_ = getU32(header_.data() + 4);
      if (left_ == 0) header_.clear();
      continue;
    }
    std::size_t const take = std::min<std::size_t>(left_, bytes.size());
    std::string_view const part = bytes.substr(0, take);
    bytes.remove_prefix(take);
    left_ -= static_cast<U32>(take);
    if (tree_ == logDirectoryTree) {
      directory_.append(part);
      if (left_ == 0) directoryIs(directory_);
    } else if (auto const it = readers_.find(tree_); it != readers_.end()) {
      it->second->bytesIs(part);
    }
    if (left_ == 0) header_.clear();
  }
}

void LogReplica::directoryIs(std::string_view text) {
  std::map<U32, std::string> served;
  while (!text.empty()) {
    std::size_t const end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    std::size_t const space = line.find(' ');
    if (space == std::string_view::npos) continue;
    served[static_cast<U32>(std::strtoul(std::string(line.substr(0, space)).c_str(), nullptr,
                                         10))] = std::string(line.substr(space + 1));
  }
  for (auto const& [number, root] : roots_) {
    auto const it = served.find(number);
    if (it == served.end()) {
      throw Exception("Publisher at " + quoted(path_) + " serves no tree " +
                      std::to_string(number));
    }
    std::string_view const mine = root->fwkType().name();
    if (it->second != mine) {
      throw Exception("Publisher at " + quoted(path_) + ": tree " + std::to_string(number) +
                      " is a " + it->second + ", not a " + std::string(mine));
    }
  }
  directoryRead_ = true;
  directory_.clear();
}

}  // namespace Kel
