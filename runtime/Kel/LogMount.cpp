// Mounting an entity by its own member: one LogWriter per mounted entity,
// with numbered streams, kept in a table of the process.
#include <Kel/AttrLog.h>
#include <Kel/RangeException.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <unordered_map>

namespace Kel {

namespace {

struct Mount;

// Forwards to the caller's stream and leaves the mount's table of numbers
// when the writer drops it (a broken stream) or the mount removes it.
class NumberedSink final : public LogSink {
 public:
  NumberedSink(Mount& mount, U32 number, std::unique_ptr<LogSink> stream)
      : mount_(mount), number_(number), stream_(std::move(stream)) {}
  ~NumberedSink() override;
  bool write(std::string_view bytes) override { return stream_->write(bytes); }
  bool flush() override { return stream_->flush(); }
  [[nodiscard]] bool pending() const override { return stream_->pending(); }

 private:
  Mount& mount_;
  U32 number_;
  std::unique_ptr<LogSink> stream_;
};

struct Mount {
  explicit Mount(Entity& root) : writer(root) {}
  std::map<U32, NumberedSink const*> streams;
  LogWriter writer;  // last: it destroys its sinks while the table is alive
};

NumberedSink::~NumberedSink() {
  auto const it = mount_.streams.find(number_);
  if (it != mount_.streams.end() && it->second == this) mount_.streams.erase(it);
}

// Mounting is rare; one lock for the process keeps trees of several threads
// apart. The writer itself belongs to the thread that owns the tree.
std::mutex mountsMutex;
std::unordered_map<Entity const*, std::unique_ptr<Mount>>& mounts() {
  static std::unordered_map<Entity const*, std::unique_ptr<Mount>> table;
  return table;
}

}  // namespace

LogWriter* Entity::kelNboAttrLogSaIs(U32 observerMask, U32 number,
                                     std::unique_ptr<LogSink> stream) {
  if (observerMask != logObserveNone && observerMask != logObserveAll) {
    char text[64];
    std::snprintf(text, sizeof text, "Unsupported attribute-log observer mask 0x%x", observerMask);
    throw RangeException(text);
  }
  if (observerMask == logObserveAll && !stream) throw RangeException("Null attribute-log stream");
  std::unique_ptr<Mount> gone;  // destroyed outside the lock
  std::lock_guard const lock(mountsMutex);
  auto& table = mounts();
  auto it = table.find(this);
  if (observerMask == logObserveNone) {
    if (it == table.end()) return nullptr;
    Mount& m = *it->second;
    auto const s = m.streams.find(number);
    if (s != m.streams.end()) m.writer.subscriberDel(s->second);
    if (!m.streams.empty()) return &m.writer;
    gone = std::move(it->second);
    table.erase(it);
    return nullptr;
  }
  if (it == table.end()) it = table.emplace(this, std::make_unique<Mount>(*this)).first;
  Mount& m = *it->second;
  if (auto const s = m.streams.find(number); s != m.streams.end())
    m.writer.subscriberDel(s->second);
  auto sink = std::make_unique<NumberedSink>(m, number, std::move(stream));
  m.streams[number] = sink.get();
  m.writer.subscriberNew(std::move(sink));
  return &m.writer;
}

LogWriter* Entity::kelNboAttrLogSa() const {
  std::lock_guard const lock(mountsMutex);
  auto const it = mounts().find(this);
  return it == mounts().end() ? nullptr : &it->second->writer;
}

}  // namespace Kel
