// The Redis peer of the state-table comparison: a private redis-server,
// started on a Unix socket in a fresh temporary directory and stopped with
// the object, and timed bulk operations on hashes, one hash per record, as a
// network operating system keeps per-LSP state in a Redis state table.
//
// Every bulk operation is pipelined: a batch of commands goes out in one
// write and the replies come back together, as a well-written client of a
// state table does. Times are wall-clock seconds for the whole operation,
// client-side formatting and reply parsing included.
//
// Without hiredis at build time (RSVP_BENCH_HAVE_HIREDIS unset), or when no
// redis-server can be started, available() answers false and whyNot() says
// why; the benchmark then reports that it skipped the peer. The bulk
// operations must not be called then. A command refused by the server throws
// std::runtime_error.
//
// RSVP_REDIS_SERVER, when set, names the redis-server binary to run instead
// of the one on PATH or /usr/bin/redis-server.
#ifndef RSVP_BENCH_REDISPEER_H
#define RSVP_BENCH_REDISPEER_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct redisContext;

namespace RsvpBench {

// One hash: its key and its (field, value) pairs. An update carries only the
// fields it changes.
struct RedisRecord {
  std::string key;
  std::vector<std::pair<std::string, std::string>> fields;
};

// What reading every hash back found: the work is counted so that it cannot
// be optimised away and so that the caller can check it against what it
// wrote.
struct RedisReadBack {
  double seconds = 0;
  std::uint64_t keysFound = 0;  // keys whose hash was not empty
  std::uint64_t fields = 0;     // (field, value) pairs, over every key
  std::uint64_t bytes = 0;      // bytes of field names and values
  std::uint64_t checksum = 0;   // mixes every length and first byte
};

class RedisPeer {
 public:
  // Commands sent in one write by default.
  static constexpr std::size_t defaultBatch = 1000;

  // Starts the server and connects; never throws for a missing server or
  // client library, available() tells.
  RedisPeer();
  ~RedisPeer();
  RedisPeer(RedisPeer const&) = delete;
  RedisPeer& operator=(RedisPeer const&) = delete;

  bool available() const { return context_ != nullptr; }
  // Empty when available.
  std::string const& whyNot() const { return whyNot_; }

  // HSET key f1 v1 f2 v2 ... for every record; answers the seconds taken.
  double loadHashes(std::vector<RedisRecord> const& records, std::size_t batch = defaultBatch);
  // The same command for a round of updates, each with the fields it changes.
  double updateFields(std::vector<RedisRecord> const& updates, std::size_t batch = defaultBatch);
  // HGETALL of every key.
  RedisReadBack readBack(std::vector<std::string> const& keys, std::size_t batch = defaultBatch);

  // used_memory of INFO memory: bytes the server's allocator handed out.
  std::uint64_t usedMemoryBytes();
  // used_memory_rss: what the process holds from the system.
  std::uint64_t usedMemoryRssBytes();
  // used_memory when the server was empty: after start and after flushAll().
  std::uint64_t baselineMemoryBytes() const { return baseline_; }
  // Keys in the database.
  std::uint64_t dbSize();
  // Empties the database (synchronously) and takes a new baseline.
  void flushAll();

 private:
  void start();
  void stop();
  std::uint64_t infoMemoryField(char const* name);

  redisContext* context_ = nullptr;
  std::string whyNot_;
  std::string dir_;  // the temporary directory holding the socket and log
  pid_t pid_ = -1;
  std::uint64_t baseline_ = 0;
};

// Synthetic records shaped like per-LSP state, shared by both sides of the
// comparison: `count` hashes keyed sp:<session>:<lsp>, 25 fields each (role,
// operational states, labels, hops, interfaces, refresh times, bandwidth,
// priorities, neighbors, message ids, ...). Deterministic.
std::vector<RedisRecord> syntheticSpRecords(std::size_t count);
// One refresh round over those records: each gets its path and reservation
// refresh times, its last-change time and its path message id changed.
std::vector<RedisRecord> syntheticSpRefresh(std::vector<RedisRecord> const& records,
                                            std::uint32_t round);
// The keys of the records, in order.
std::vector<std::string> recordKeys(std::vector<RedisRecord> const& records);

}  // namespace RsvpBench

#endif  // RSVP_BENCH_REDISPEER_H
