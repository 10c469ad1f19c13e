// Mounted trees published on a Unix stream socket, and read-only replicas
// that attach to them from other processes. docs/LOG_FORMAT.md gives the
// bytes ("Publishing on a socket").
//
//   Kel::LogPublisher publisher("/tmp/rsvp.sock");   // the agent
//   publisher.treeIs(1, *status);
//   ... poll publisher.fd() and publisher.pendingFds() (POLLOUT) ...
//   publisher.serve();                                // accepts, then flushes
//
//   Kel::LogReplica replica("/tmp/rsvp.sock");        // a tool
//   replica.treeIs(1, *replicaStatus);
//   replica.inSyncAwait(5000);                        // the snapshot
//   while (...) { poll replica.fd(); replica.readAvailable(); }
//
// One socket serves every tree of the publisher: each connection carries all
// of them, each tree's bytes in envelopes that name the tree. A replica keeps
// the trees it named and skips the others. No threads: the publisher works
// when serve() is called, the replica when readAvailable() is.
#ifndef KEL_LOGSOCKET_H
#define KEL_LOGSOCKET_H

#include <Kel/AttrLog.h>
#include <Kel/Entity.h>
#include <Kel/Exception.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Kel {

// Stream numbers of Entity::kelNboAttrLogSaIs() that a publisher takes for
// its connections, one per connection, counting up from here; a caller's own
// streams stay below.
inline constexpr U32 logPublisherStreamBase = 0x80000000u;

// Tree number 0 is the publisher's directory, sent first on each connection.
inline constexpr U32 logDirectoryTree = 0;

class LogPublisher {
 public:
  // Binds and listens at `path`. A socket file left there by a process that
  // died is replaced. Raises Kel::Exception "Publisher socket path '<path>'
  // is in use by a live publisher", "... is too long (at most 107 bytes)" or
  // "Cannot listen at '<path>': <reason>".
  explicit LogPublisher(std::string path);
  // Detaches every replica (their connections close) and removes the socket
  // file.
  ~LogPublisher();
  LogPublisher(LogPublisher const&) = delete;
  LogPublisher& operator=(LogPublisher const&) = delete;

  // Publishes `root` as tree `number` (1 or more) to the replicas that
  // attach from now on. The tree is mounted (kelNboAttrLogSaIs) while a
  // replica follows it; `root` must outlive the publisher. Raises
  // Kel::Exception for number 0 or a number already published.
  void treeIs(U32 number, Entity& root);

  // Paces the replicas that attach from now on (FdSink::paceIs): a
  // snapshot waits for a replica past `backlogBytes` waiting on its socket,
  // within `patience`, instead of keeping all that the replica has not read.
  // For replicas in other processes or threads: one served by the
  // publisher's own thread cannot read while it waits. Off by default.
  void paceIs(std::size_t backlogBytes, std::chrono::milliseconds patience) noexcept {
    paceBytes_ = backlogBytes;
    patience_ = patience;
  }

  // The listening descriptor: readable when a replica waits to attach.
  [[nodiscard]] int fd() const noexcept { return listen_; }
  [[nodiscard]] std::string const& path() const noexcept { return path_; }
  // Accepts every pending connection without blocking (each gets the
  // directory, then a snapshot of every tree), flushes the trees' writers
  // so that every replica gets the changes since the last call, and forgets
  // replicas that went away.
  void serve();
  // Whether bytes wait for a slow replica's socket; serve() again later.
  [[nodiscard]] bool pending() const;
  // The replicas' descriptors whose bytes wait: poll them for writability
  // (POLLOUT) beside fd(), and serve() when one is ready, so that a large
  // snapshot goes out as fast as the replica reads it.
  [[nodiscard]] std::vector<int> pendingFds() const;
  [[nodiscard]] std::size_t replicas() const noexcept { return connections_.size(); }

 private:
  struct Connection;
  class Sink;
  struct Tree {
    U32 number;
    Entity* root;
  };
  void drop(U32 stream);

  std::string path_;
  int listen_ = -1;
  std::vector<Tree> trees_;
  std::map<U32, std::shared_ptr<Connection>> connections_;  // by stream number
  U32 nextStream_ = logPublisherStreamBase;
  std::size_t paceBytes_ = 0;  // 0: unpaced
  std::chrono::milliseconds patience_{0};
};

class LogReplica {
 public:
  // Connects to the publisher at `path`. Raises Kel::Exception "No
  // publisher at '<path>'" when nothing listens there, or "Cannot connect
  // to '<path>': <reason>".
  explicit LogReplica(std::string path);
  ~LogReplica();
  LogReplica(LogReplica const&) = delete;
  LogReplica& operator=(LogReplica const&) = delete;

  // Keeps `root` equal to the publisher's tree `number`; name the trees
  // before the first read. `root` must be of the type the publisher's tree
  // is, and outlive the replica.
  void treeIs(U32 number, Entity& root);

  // The connected descriptor (non-blocking), to poll for readability.
  [[nodiscard]] int fd() const noexcept { return fd_; }
  // Reads what has arrived and applies it to the replicas; answers whether
  // anything arrived. Raises Kel::Exception "Publisher at '<path>' went
  // away" at the end of the stream, "Publisher at '<path>' serves no tree
  // <n>" or "... tree <n> is a <Type>, not a <Type>" from its directory,
  // and Kel::LogException for a corrupt stream.
  bool readAvailable();
  // Whether the directory has come and every named tree had its snapshot.
  [[nodiscard]] bool inSync() const;
  // Reads until inSync(); raises Kel::Exception "Publisher at '<path>' sent
  // no snapshot within <ms> ms" at the deadline.
  void inSyncAwait(int timeoutMs);
  // What each named tree's reader has read.
  [[nodiscard]] LogReader const* reader(U32 number) const;
  [[nodiscard]] std::string const& path() const noexcept { return path_; }

 private:
  void envelopes(std::string_view bytes);
  void directoryIs(std::string_view text);

  std::string path_;
  int fd_ = -1;
  std::map<U32, std::unique_ptr<LogReader>> readers_;
  std::map<U32, Entity*> roots_;
  // The envelope being read: its header so far, then its tree and what is
  // left of its payload.
  std::string header_;
  U32 tree_ = 0;
  U32 left_ = 0;
  std::string directory_;
  bool directoryRead_ = false;
};

}  // namespace Kel

#endif  // KEL_LOGSOCKET_H
