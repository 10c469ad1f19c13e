// The Redis peer: the synthetic per-LSP records, and either the harness over
// a private redis-server (with hiredis) or a stub that says why there is none.
#include "RedisPeer.h"

#include <cstdio>
#include <stdexcept>

namespace RsvpBench {

namespace {

std::string dotted(std::uint32_t a) {
  return std::to_string(a >> 24) + '.' + std::to_string((a >> 16) & 0xff) + '.' +
         std::to_string((a >> 8) & 0xff) + '.' + std::to_string(a & 0xff);
}

// Seconds with milliseconds, as a state table prints a timestamp.
std::string timestamp(std::uint64_t millis) {
  char text[32];
  std::snprintf(text, sizeof text, "%llu.%03u", static_cast<unsigned long long>(millis / 1000),
                static_cast<unsigned>(millis % 1000));
  return text;
}

constexpr std::uint64_t epochMillis = 1'700'000'000'000ull;

}  // namespace

std::vector<RedisRecord> syntheticSpRecords(std::size_t count) {
  static char const* const roles[] = {"ingress", "transit", "egress"};
  std::vector<RedisRecord> records;
  records.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    // Four LSPs per session, as make-before-break and path changes leave.
    auto const session = static_cast<std::uint32_t>(i / 4);
    auto const lsp = static_cast<std::uint32_t>(i % 4 + 1);
    auto const dst = dotted(0x0a000000u + (session % 65536));
    auto const tunnel = std::to_string(session / 65536 + 1);
    auto const src = dotted(0xc0a80001u + (session % 251));
    auto const role = roles[i % 3];
    auto const prevHop = dotted(0xac100000u + static_cast<std::uint32_t>(i % 1021) * 2);
    auto const nextHop = dotted(0xac110000u + static_cast<std::uint32_t>(i % 1019) * 2);
    auto const label = static_cast<std::uint32_t>(16 + i % 1'000'000);
    RedisRecord r;
    r.key = "sp:" + dst + '-' + tunnel + '-' + src + ':' + std::to_string(lsp);
    r.fields = {
        {"role", role},
        {"oper_path_state", "up"},
        {"oper_resv_state", "up"},
        {"admin_state", "enabled"},
        {"in_label", i % 3 == 0 ? "none" : std::to_string(label)},
        {"out_label", i % 3 == 2 ? "implicit-null" : std::to_string(label + 7)},
        {"prev_hop", i % 3 == 0 ? "none" : prevHop},
        {"next_hop", i % 3 == 2 ? "none" : nextHop},
        {"in_interface", "Ethernet" + std::to_string(i % 48 + 1)},
        {"out_interface", "Ethernet" + std::to_string((i + 17) % 48 + 1)},
        {"upstream_neighbor", i % 3 == 0 ? "none" : prevHop},
        {"downstream_neighbor", i % 3 == 2 ? "none" : nextHop},
        {"tunnel_source", src},
        {"tunnel_destination", dst},
        {"tunnel_id", tunnel},
        {"lsp_id", std::to_string(lsp)},
        {"session_name", "tunnel-" + std::to_string(session)},
        {"bandwidth", std::to_string(100'000'000ull * (1 + i % 10))},
        {"setup_priority", "7"},
        {"hold_priority", "0"},
        {"path_refresh_interval", "30"},
        {"path_refresh_time", timestamp(epochMillis + i)},
        {"resv_refresh_time", timestamp(epochMillis + i + 5)},
        {"last_change", timestamp(epochMillis)},
        {"path_msg_id", std::to_string(i * 2 + 1)},
    };
    records.push_back(std::move(r));
  }
  return records;
}

std::vector<RedisRecord> syntheticSpRefresh(std::vector<RedisRecord> const& records,
                                            std::uint32_t round) {
  std::vector<RedisRecord> updates;
  updates.reserve(records.size());
  auto const base = epochMillis + 30'000ull * round;
  for (std::size_t i = 0; i < records.size(); ++i) {
    updates.push_back({records[i].key,
                       {{"path_refresh_time", timestamp(base + i)},
                        {"resv_refresh_time", timestamp(base + i + 5)},
                        {"last_change", timestamp(base)},
                        {"path_msg_id", std::to_string(i * 2 + 1 + 2 * records.size() * round)}}});
  }
  return updates;
}

std::vector<std::string> recordKeys(std::vector<RedisRecord> const& records) {
  std::vector<std::string> keys;
  keys.reserve(records.size());
  for (auto const& r : records) keys.push_back(r.key);
  return keys;
}

}  // namespace RsvpBench

#if RSVP_BENCH_HAVE_HIREDIS

#include <hiredis/hiredis.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string_view>
#include <thread>

namespace RsvpBench {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct FreeReply {
  void operator()(redisReply* r) const { freeReplyObject(r); }
};
using Reply = std::unique_ptr<redisReply, FreeReply>;

bool executable(std::string const& path) { return ::access(path.c_str(), X_OK) == 0; }

// The binary to run, or empty with the reason in `why`.
std::string findServer(std::string& why) {
  if (char const* chosen = std::getenv("RSVP_REDIS_SERVER"); chosen && *chosen) {
    if (executable(chosen)) return chosen;
    why = std::string("redis-server not found at ") + chosen + " (RSVP_REDIS_SERVER)";
    return {};
  }
  if (char const* path = std::getenv("PATH")) {
    std::string_view rest(path);
    while (!rest.empty()) {
      auto const colon = rest.find(':');
      auto const dir = rest.substr(0, colon);
      rest = colon == rest.npos ? std::string_view() : rest.substr(colon + 1);
      if (dir.empty()) continue;
      auto candidate = std::string(dir) + "/redis-server";
      if (executable(candidate)) return candidate;
    }
  }
  if (executable("/usr/bin/redis-server")) return "/usr/bin/redis-server";
  why = "redis-server not found on PATH or at /usr/bin/redis-server (Debian: redis-server)";
  return {};
}

// The last non-empty line of the server's log, to explain a failed start.
std::string lastLogLine(std::string const& log) {
  std::ifstream in(log);
  std::string line, last;
  while (std::getline(in, line)) {
    if (!line.empty()) last = line;
  }
  return last.empty() ? "no log" : last;
}

// Sends `count` commands in batches of `batch`, each batch in one write, and
// hands every reply to `onReply`; a refused command throws.
template <class Append, class OnReply>
void pipelined(redisContext* c, std::size_t count, std::size_t batch, Append append,
               OnReply onReply) {
  if (batch == 0) batch = 1;
  for (std::size_t begin = 0; begin < count; begin += batch) {
    auto const end = std::min(count, begin + batch);
    for (auto i = begin; i < end; ++i) {
      if (append(i) != REDIS_OK) throw std::runtime_error(std::string("redis: ") + c->errstr);
    }
    for (auto i = begin; i < end; ++i) {
      void* raw = nullptr;
      if (redisGetReply(c, &raw) != REDIS_OK || !raw) {
        throw std::runtime_error(std::string("redis: ") + c->errstr);
      }
      Reply reply(static_cast<redisReply*>(raw));
      if (reply->type == REDIS_REPLY_ERROR) {
        throw std::runtime_error("redis refused a command: " + std::string(reply->str, reply->len));
      }
      onReply(i, *reply);
    }
  }
}

// HSET of every record, its fields in one command.
double hsetAll(redisContext* c, std::vector<RedisRecord> const& records, std::size_t batch) {
  std::vector<char const*> argv;
  std::vector<std::size_t> lens;
  auto const start = Clock::now();
  pipelined(
      c, records.size(), batch,
      [&](std::size_t i) {
        auto const& r = records[i];
        argv.assign({"HSET", r.key.data()});
        lens.assign({4, r.key.size()});
        for (auto const& [field, value] : r.fields) {
          argv.push_back(field.data());
          lens.push_back(field.size());
          argv.push_back(value.data());
          lens.push_back(value.size());
        }
        return redisAppendCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data());
      },
      [](std::size_t, redisReply const& reply) {
        if (reply.type != REDIS_REPLY_INTEGER)
          throw std::runtime_error("redis: HSET answered oddly");
      });
  return secondsSince(start);
}

Reply command(redisContext* c, char const* text) {
  auto* raw = static_cast<redisReply*>(redisCommand(c, text));
  if (!raw) throw std::runtime_error(std::string("redis: ") + c->errstr);
  Reply reply(raw);
  if (reply->type == REDIS_REPLY_ERROR) {
    throw std::runtime_error("redis refused " + std::string(text) + ": " +
                             std::string(reply->str, reply->len));
  }
  return reply;
}

}  // namespace

RedisPeer::RedisPeer() { start(); }

RedisPeer::~RedisPeer() { stop(); }

void RedisPeer::start() {
  auto const binary = findServer(whyNot_);
  if (binary.empty()) return;
  // A server that dies mid-run must fail a command, not kill the benchmark
  // with SIGPIPE on the next write.
  ::signal(SIGPIPE, SIG_IGN);

  // A short directory: a Unix socket path must fit in about 100 bytes.
  std::string pattern = "/tmp/rsvp-redis-XXXXXX";
  if (!::mkdtemp(pattern.data())) {
    whyNot_ = std::string("cannot make a temporary directory: ") + std::strerror(errno);
    return;
  }
  dir_ = pattern;
  auto const socket = dir_ + "/redis.sock";
  auto const log = dir_ + "/redis.log";

  // Only a Unix socket (port 0 closes TCP), nothing written to disk, in the
  // foreground so that the process is ours to stop.
  std::vector<std::string> args = {
      binary, "--port", "0",  "--unixsocket", socket, "--unixsocketperm",
      "700",  "--save", "",   "--appendonly", "no",   "--daemonize",
      "no",   "--dir",  dir_, "--logfile",    ""};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  auto const parent = ::getpid();
  pid_ = ::fork();
  if (pid_ < 0) {
    whyNot_ = std::string("cannot fork: ") + std::strerror(errno);
    return;
  }
  if (pid_ == 0) {
    // The server dies with the benchmark, however the benchmark ends.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(126);
    int const out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int const none = ::open("/dev/null", O_RDONLY);
    if (out >= 0) {
      ::dup2(out, 1);
      ::dup2(out, 2);
    }
    if (none >= 0) ::dup2(none, 0);
    ::execv(argv[0], argv.data());
    static char const failed[] = "exec of redis-server failed\n";
    [[maybe_unused]] auto const n = ::write(2, failed, sizeof failed - 1);
    ::_exit(127);
  }

  // Wait until it answers PING.
  auto const deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      whyNot_ = "redis-server stopped at start (" +
                (WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                                   : "signal " + std::to_string(WTERMSIG(status))) +
                "): " + lastLogLine(log);
      return;
    }
    if (std::filesystem::exists(socket)) {
      redisContext* c = redisConnectUnixWithTimeout(socket.c_str(), timeval{1, 0});
      if (c && !c->err) {
        auto* raw = static_cast<redisReply*>(redisCommand(c, "PING"));
        bool const pong =
            raw && raw->type == REDIS_REPLY_STATUS && std::strcmp(raw->str, "PONG") == 0;
        if (raw) freeReplyObject(raw);
        if (pong) {
          // A hung server fails a command rather than the whole run.
          redisSetTimeout(c, timeval{120, 0});
          context_ = c;
          break;
        }
      }
      if (c) redisFree(c);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (!context_) {
    whyNot_ = "no answer to PING from redis-server within 10 s: " + lastLogLine(log);
    return;
  }
  try {
    baseline_ = usedMemoryBytes();
  } catch (std::exception const& e) {
    whyNot_ = e.what();
    redisFree(context_);
    context_ = nullptr;
  }
}

void RedisPeer::stop() {
  bool asked = false;
  if (context_) {
    // The connection closes without a reply.
    if (auto* raw = redisCommand(context_, "SHUTDOWN NOSAVE")) {
      freeReplyObject(raw);
    }
    redisFree(context_);
    context_ = nullptr;
    asked = true;
  }
  if (pid_ > 0) {
    // A server that never answered is told to stop by signal; it saves nothing.
    if (!asked) ::kill(pid_, SIGTERM);
    auto const deadline = Clock::now() + std::chrono::seconds(5);
    while (::waitpid(pid_, nullptr, WNOHANG) == 0) {
      if (Clock::now() >= deadline) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pid_ = -1;
  }
  if (!dir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
    dir_.clear();
  }
}

double RedisPeer::loadHashes(std::vector<RedisRecord> const& records, std::size_t batch) {
  return hsetAll(context_, records, batch);
}

double RedisPeer::updateFields(std::vector<RedisRecord> const& updates, std::size_t batch) {
  return hsetAll(context_, updates, batch);
}

RedisReadBack RedisPeer::readBack(std::vector<std::string> const& keys, std::size_t batch) {
  RedisReadBack result;
  auto const start = Clock::now();
  pipelined(
      context_, keys.size(), batch,
      [&](std::size_t i) {
        char const* argv[] = {"HGETALL", keys[i].data()};
        std::size_t const lens[] = {7, keys[i].size()};
        return redisAppendCommandArgv(context_, 2, argv, lens);
      },
      [&](std::size_t, redisReply const& reply) {
        if (reply.type != REDIS_REPLY_ARRAY)
          throw std::runtime_error("redis: HGETALL answered oddly");
        if (reply.elements > 0) ++result.keysFound;
        result.fields += reply.elements / 2;
        for (std::size_t e = 0; e < reply.elements; ++e) {
          auto const& s = *reply.element[e];
          result.bytes += s.len;
          result.checksum =
              result.checksum * 31 + s.len + (s.len ? static_cast<unsigned char>(s.str[0]) : 0u);
        }
      });
  result.seconds = secondsSince(start);
  return result;
}

std::uint64_t RedisPeer::infoMemoryField(char const* name) {
  auto const reply = command(context_, "INFO memory");
  if (reply->type != REDIS_REPLY_STRING) throw std::runtime_error("redis: INFO answered oddly");
  std::string_view const text(reply->str, reply->len);
  auto const wanted = std::string(name) + ':';
  for (std::size_t at = 0; at < text.size();) {
    auto const eol = text.find('\n', at);
    auto const line = text.substr(at, eol == text.npos ? text.npos : eol - at);
    if (line.starts_with(wanted)) {
      return std::strtoull(std::string(line.substr(wanted.size())).c_str(), nullptr, 10);
    }
    if (eol == text.npos) break;
    at = eol + 1;
  }
  throw std::runtime_error(std::string("redis: INFO memory has no ") + name);
}

std::uint64_t RedisPeer::usedMemoryBytes() { return infoMemoryField("used_memory"); }

std::uint64_t RedisPeer::usedMemoryRssBytes() { return infoMemoryField("used_memory_rss"); }

std::uint64_t RedisPeer::dbSize() {
  auto const reply = command(context_, "DBSIZE");
  if (reply->type != REDIS_REPLY_INTEGER) throw std::runtime_error("redis: DBSIZE answered oddly");
  return static_cast<std::uint64_t>(reply->integer);
}

void RedisPeer::flushAll() {
  command(context_, "FLUSHALL");
  baseline_ = usedMemoryBytes();
}

}  // namespace RsvpBench

#else  // without hiredis: a peer that is never available

namespace RsvpBench {

namespace {

[[noreturn]] void unavailable() {
  throw std::logic_error("the Redis peer is not available; check available() first");
}

}  // namespace

RedisPeer::RedisPeer() {
  whyNot_ =
      "hiredis not built in (install libhiredis-dev and configure again; scripts/bench.sh does)";
}

RedisPeer::~RedisPeer() = default;

void RedisPeer::start() {}
void RedisPeer::stop() {}
double RedisPeer::loadHashes(std::vector<RedisRecord> const&, std::size_t) { unavailable(); }
double RedisPeer::updateFields(std::vector<RedisRecord> const&, std::size_t) { unavailable(); }
RedisReadBack RedisPeer::readBack(std::vector<std::string> const&, std::size_t) { unavailable(); }
std::uint64_t RedisPeer::infoMemoryField(char const*) { unavailable(); }
std::uint64_t RedisPeer::usedMemoryBytes() { unavailable(); }
std::uint64_t RedisPeer::usedMemoryRssBytes() { unavailable(); }
std::uint64_t RedisPeer::dbSize() { unavailable(); }
void RedisPeer::flushAll() { unavailable(); }

}  // namespace RsvpBench

#endif
