// The attribute log: a mounted entity tree written as a stream of frames of
// attribute records, and a replica rebuilt from that stream in another
// process. docs/LOG_FORMAT.md gives the bytes.
//
//   Kel::LogWriter writer(*status);            // the source tree
//   writer.subscriberNew(std::make_unique<Kel::FdSink>(fd));  // gets a snapshot first
//   status->countIs(3);
//   writer.flush();                            // one frame with every change since the last
//
//   Kel::LogReader reader(*replica);           // in the other process
//   reader.readFrom(fd);                       // applies what has arrived
//
// No threads and no event loop of its own: the writer writes when asked
// (flush()), and the reader applies what arrived when asked. Changes between
// two flushes are coalesced: each attribute and each collection member is
// written once, with its value at the flush.
#ifndef KEL_ATTRLOG_H
#define KEL_ATTRLOG_H

#include <Kel/Entity.h>
#include <Kel/Exception.h>
#include <Kel/HashTable.h>
#include <Kel/LogCodec.h>
#include <Kel/TypeDesc.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Kel {

// A stream that is corrupt, out of order or inconsistent with the replica.
// The reader applies nothing of the frame at fault; the caller drops the
// connection and subscribes again, which starts with a snapshot.
class LogException : public Exception {
 public:
  using Exception::Exception;
};

// Opens a record of `ref`'s attribute `id` in `out`; closeLogRecord() fills
// in the length of the value written in between.
[[nodiscard]] std::size_t openLogRecord(LogOut& out, U32 ref, S32 id);
void closeLogRecord(LogOut& out, std::size_t lengthAt);

// What a state adapter tells its writer: an attribute, or a member of a
// collection (its key encoded), has changed.
class LogDirtySink {
 public:
  virtual ~LogDirtySink() = default;
  virtual void attrDirtyIs(S32 id) = 0;
  virtual void memberDirtyIs(S32 id, String encodedKey) = 0;
};

// The state adapter that the generator makes for each entity type
// (X::KelNboAttrLogSa): a notifiee of the entity, it hears each change
// through the typed callbacks and marks the attribute dirty in the writer's
// record, which lies a known distance after it (NotifieeBase::
// logDirtySink()); it keeps the dirty keys of each collection of values in
// a typed map, and writes the records of the entity that the writer hands
// it with the typed accessors and encoders. Children and shared entities
// are left to the writer.
class LogStateAdapter {
 public:
  virtual ~LogStateAdapter() = default;
  // Writes the records of attribute `id` that changed since the last call
  // and answers how many; -1 for an attribute it leaves to the writer.
  virtual int handleAttrFlowOut(S32 id, LogOut& out, U32 ref, Entity const& entity) = 0;
  // The records of the plain attributes marked typedAnnounce, of an entity
  // the readers make anew, in declaration order; a value equal to what a new
  // entity holds is left out. Answers how many.
  virtual int handleAnnounceValues(LogOut& out, U32 ref, Entity const& entity) = 0;
};

// Where a writer's bytes go.
class LogSink {
 public:
  virtual ~LogSink() = default;
  // Accepts the bytes (buffering what cannot be written yet); answers false
  // once the sink is broken, after which the writer drops it.
  virtual bool write(std::string_view bytes) = 0;
  // Tries again to write buffered bytes; answers false once broken.
  virtual bool flush() { return true; }
  // Whether bytes wait for the descriptor to become writable.
  [[nodiscard]] virtual bool pending() const { return false; }
};

// Collects the bytes in memory (tests, and replicas in the same process).
class MemorySink : public LogSink {
 public:
  bool write(std::string_view bytes) override;
  [[nodiscard]] String take();
  [[nodiscard]] String const& bytes() const noexcept { return bytes_; }

 private:
  String bytes_;
};

// Writes to a file descriptor (a Unix or TCP socket, a pipe) without
// blocking; what the descriptor does not take waits for the next flush().
// Does not close the descriptor.
//
// The backlog is a chain of parts sent in order: a snapshot that outruns
// its replica by hundreds of megabytes is never copied to grow, and each
// part is let go once sent. Small writes share a part; a write of a
// megabyte or more keeps its own.
class FdSink : public LogSink {
 public:
  explicit FdSink(int fd);
  bool write(std::string_view bytes) override;
  bool flush() override;
  [[nodiscard]] bool pending() const override { return !parts_.empty(); }
  [[nodiscard]] int fd() const noexcept { return fd_; }
  // Whether the descriptor refused bytes for good (its reader went away).
  [[nodiscard]] bool broken() const noexcept { return broken_; }
  // Bytes waiting for the descriptor.
  [[nodiscard]] std::size_t backlog() const noexcept { return backlog_ - sent_; }
  // Queues bytes without sending them: the next write() or flush() sends
  // them first.
  void append(std::string_view bytes);
  // Paces a writer that outruns its reader (a snapshot of a large tree):
  // while more than `backlogBytes` wait after a write(), it waits for the
  // descriptor to take bytes, for at most `patience` in all until the
  // backlog next empties. Past that it keeps what the descriptor does not
  // take, as an unpaced sink does: a reader that stopped reading holds the
  // writer up once, for `patience`. Off (the default) when `backlogBytes`
  // is 0. A paced snapshot keeps a few megabytes instead of whatever the
  // reader has not applied yet, and fresh memory for that backlog costs
  // the writer more than the wait.
  void paceIs(std::size_t backlogBytes, std::chrono::milliseconds patience) noexcept;

 private:
  void paceWait();

  static constexpr std::size_t kPartBytes = 1u << 20;
  static constexpr std::size_t kSpares = 2;
  int fd_;
  std::deque<String> parts_;
  std::size_t sent_ = 0;     // bytes of parts_.front() already sent
  std::size_t backlog_ = 0;  // bytes in parts_, sent_ included
  // Sent parts kept for the next ones while a backlog lasts, so that it
  // does not ask for fresh memory at each part.
  std::vector<String> spares_;
  bool broken_ = false;
  std::size_t paceBytes_ = 0;  // 0: unpaced
  std::chrono::nanoseconds patience_{0};
  std::chrono::nanoseconds patienceLeft_{0};  // until the backlog next empties
};

// Frame kinds. A payload larger than logFramePartBytes is cut at record
// boundaries into several frames: a snapshot into one logFrameSnapshot and
// then logFrameSnapshotMore frames, changes into several logFrameChanges.
enum LogFrameKind : U8 {
  logFrameChanges = 1,
  logFrameSnapshot = 2,
  logFrameInSync = 3,
  logFrameSnapshotMore = 4,
};
inline constexpr std::size_t logFramePartBytes = 16u << 20;
// A snapshot goes in smaller parts: the part being written and the frame
// made of it then stay in the processor's own cache, where a 16 MiB part
// went out to memory record by record (a 100k-LSP snapshot is written some
// 3 to 13% faster, and read no slower).
inline constexpr std::size_t logSnapshotPartBytes = 256u << 10;

// The attributes of the types met, by attribute-log id: a table per type,
// reached through a small direct-mapped cache, since a snapshot or a flush
// meets another type at nearly every entity.
class LogAttrIndex {
 public:
  // The attribute of `type` with `logId`, or null.
  [[nodiscard]] KelAttr const* find(TypeDesc const& type, U32 logId) {
    Table const& table = tableOf(type);
    if (logId < table.byId.size()) return table.byId[logId];
    return logId > kTableIds ? type.attrByLogId(logId) : nullptr;
  }
  // The logged attributes of `type` in declaration order, without those its
  // state adapter writes in one typed call when `adapted`: what a walk
  // over an entity of the type visits.
  [[nodiscard]] std::vector<KelAttr const*> const& walk(TypeDesc const& type, bool adapted) {
    Table const& table = tableOf(type);
    return adapted ? table.walkAdapted : table.walk;
  }

 private:
  // Ids are the schema's (from 256 up) or the index: a table either way.
  static constexpr U32 kTableIds = 65535;
  struct Table {
    std::vector<KelAttr const*> byId;
    std::vector<KelAttr const*> walk;
    std::vector<KelAttr const*> walkAdapted;
  };
  Table const& tableOf(TypeDesc const& type) {
    auto const key = reinterpret_cast<std::uintptr_t>(&type);
    Cached& c = cache_[static_cast<std::size_t>((key * 0x9E3779B97F4A7C15ULL) >> 58)];
    if (c.type != &type) c = Cached{&type, &make(type)};
    return *c.table;
  }
  Table const& make(TypeDesc const& type);
  struct Cached {
    TypeDesc const* type = nullptr;
    Table const* table = nullptr;
  };
  std::array<Cached, 64> cache_{};
  std::unordered_map<TypeDesc const*, Table> tables_;  // nodes stay put
};

class LogWriter {
 public:
  // Mounts `root`: from now on its changes and those of every entity it owns
  // are tracked.
  explicit LogWriter(Entity& root);
  ~LogWriter();
  LogWriter(LogWriter const&) = delete;
  LogWriter& operator=(LogWriter const&) = delete;

  // A new subscriber: it receives a snapshot of the whole tree and an
  // in-sync marker at once, then every later flush.
  void subscriberNew(std::unique_ptr<LogSink> sink);
  // Drops a subscriber (its sink is destroyed); unknown sinks are ignored.
  void subscriberDel(LogSink const* sink);
  [[nodiscard]] std::size_t subscribers() const noexcept { return sinks_.size(); }
  // Writes one frame with every change since the last flush to every
  // subscriber, and retries pending bytes. Drops broken subscribers.
  void flush();
  // Whether some subscriber waits for its descriptor to become writable.
  [[nodiscard]] bool pending() const;
  // The largest frame payload the writer makes before it cuts a snapshot or
  // a flush into several frames (logFramePartBytes unless set; at least 64).
  void framePartBytesIs(std::size_t bytes) noexcept { partBytes_ = bytes < 64 ? 64 : bytes; }
  // The largest part of a snapshot (logSnapshotPartBytes unless set, and
  // never more than the frame part above; at least 64).
  void snapshotPartBytesIs(std::size_t bytes) noexcept {
    snapshotPartBytes_ = bytes < 64 ? 64 : bytes;
  }

  // Frames and records written, for statistics.
  [[nodiscard]] U64 records() const noexcept { return records_; }
  // Entities whose changes are followed: the tree, and the entities outside
  // it that something in it refers to.
  [[nodiscard]] std::size_t trackedEntities() const noexcept { return followed_.size(); }

  // For Entity::frozenIs(): `e` is about to freeze and lose its notifiees,
  // through which the writers that follow it find their records.
  static void entityFreezing(Entity const& e);

 private:
  class Tracker;
  struct Tracked;
  // An entity that a tracked one holds: its own child, or a shared entity.
  struct Held {
    Entity* entity = nullptr;
    bool shared = false;
  };
  class Holdings;
  struct Subscriber {
    std::unique_ptr<LogSink> sink;
    U64 seq = 0;
  };
  struct SnapshotStream;

  // The record of `e`, made when the writer did not follow it yet; `made`
  // says which.
  Tracked& track(Entity& e, bool& made);
  // Asks for `e`, for a walk that will track it some work from now: its
  // notifiees, which lead to its record (the word, not the entity's first
  // line: it lies in the second line of half the entities).
  void askForTracking(Entity const* e) const noexcept { __builtin_prefetch(&e->notifiees_); }
  // The next step, once those have come: the entity's one notifiee, which
  // a writer's state adapter is, and its record right after it.
  static void askForRecord(Entity const* e) noexcept {
    if (!(e->notifiees_ & Entity::kOne)) return;
    auto const* const n = reinterpret_cast<char const*>(e->one());
    __builtin_prefetch(n);
    __builtin_prefetch(n + 64);
  }
  Tracked& track(Entity& e) {
    bool made = false;
    return track(e, made);
  }
  void untrack(Entity& e);
  void changed(Entity const& e, KelAttr const& attr, void const* key);
  void writeEntity(LogOut& out, Tracked& t);
  // `announcing`: the entity is new to the readers, which make it anew.
  void writeAttr(LogOut& out, Tracked& t, KelAttr const& attr, bool announcing = false);
  void writeRef(LogOut& out, Tracked& t, KelAttr const& attr, Entity const* target);
  void writeMember(LogOut& out, Tracked& t, KelAttr const& attr, String const& key);
  void writeSharedMember(LogOut& out, Tracked& t, KelAttr const& attr, std::string_view key,
                         Entity const* member);
  void writeOwnedMember(LogOut& out, Tracked& t, KelAttr const& attr, String const& key, Entity* c);
  void writeQueueNext(LogOut& out, Tracked& t, KelAttr const& attr, bool evenIfZero,
                      bool knownEmpty = false);
  void writeDeferredRefs(LogOut& out);
  void queue(Tracked& t);
  void drop(Held held);
  void writeCtorArgs(LogOut& out, TypeDesc const& declared, Entity const& e, bool withKey);
  Tracked* writeShared(LogOut& out, Tracked& holder, U32 attr, std::string_view key,
                       TypeDesc const& declared, Entity const* target);
  void writeFresh(LogOut& out, Tracked& t);
  void streamParts(LogOut& out);

  Entity* root_;
  std::unique_ptr<GenericNotifiee> tracker_;
  // The record of each tracked entity; null for one the writer never met.
  [[nodiscard]] Tracked* trackedOf(Entity const* e) const noexcept;
  // Whether the record of `e`, if any, is found through its notifiees
  // (else in tracked_): an entity that is not frozen and whose type has a
  // state adapter, a notifiee that knows where the record lies.
  [[nodiscard]] static bool foundByNotifiee(Entity const& e) noexcept;
  [[nodiscard]] Tracked* recordByNotifiee(Entity const& e) const noexcept;
  template <class F>
  static Tracked* recordWhere(Entity const& e, F&& f);
  // Every record the writer owns but the graveyard's, each knowing its
  // place here.
  std::vector<Tracked*> followed_;
  // The records of frozen entities and of types without a state adapter,
  // by the entity each follows (its key). A snapshot tracks millions of
  // entities: most are found through their notifiees instead, without a
  // lookup in a table of that size.
  HashTable<Entity const*, Tracked*, KeyOfEntity> tracked_;
  std::vector<Tracked*> dirty_;
  // Entities no longer tracked, kept until the flush that met them ends.
  std::vector<std::unique_ptr<Tracked>> graveyard_;
  U32 nextRef_ = 1;
  bool snapshotting_ = false;  // every child is written in full
  bool writingRefs_ = false;
  U32 snapshots_ = 0;  // snapshots written: marks the shared entities each has written
  // References, written after every announcement of their frame. The
  // target is noted as the walk meets it: nothing changes the tree before
  // the frame ends, and the holder's attribute keeps the target alive.
  struct DeferredRef {
    Tracked* holder;
    KelAttr const* attr;
    Entity const* target;
  };
  std::vector<DeferredRef> deferredRefs_;
  // Members of shared maps and queues, written with the references. A
  // snapshot notes the member its walk met, as nothing changes the tree
  // until the snapshot's end; a change frame looks the key up when it
  // writes. A queue's next number follows its entries.
  struct DeferredMember {
    Tracked* holder;
    KelAttr const* attr;
    String key;
    Entity const* member = nullptr;
    bool queueNext = false;  // the queue's next number, not a member
  };
  std::vector<DeferredMember> deferredMembers_;
  // References forgotten since the last frame, announced in the next one.
  std::vector<U32> released_;
  std::vector<Subscriber> sinks_;
  SnapshotStream* stream_ = nullptr;  // the snapshot being written, sent as it goes
  U64 records_ = 0;
  std::size_t partBytes_ = logFramePartBytes;
  std::size_t snapshotPartBytes_ = logSnapshotPartBytes;
  [[nodiscard]] std::size_t snapshotPart() const noexcept {
    return std::min(partBytes_, snapshotPartBytes_);
  }
  LogAttrIndex attrs_;
  // A flush's payload and the frame around it, kept for the next flush: a
  // flush every 10k refreshes makes half a megabyte, which a fresh string
  // would grow to by doubling, copying each time, on memory malloc may have
  // to map anew. Up to one part's worth is kept.
  String payload_;
  String frame_;
};

// What a few recent references stood for, by reference (0 is none): a small
// table in front of a large one, each reference in one place.
template <class T>
class LogRefMemo {
 public:
  [[nodiscard]] T const* find(U32 ref) const noexcept {
    Entry const& e = entries_[ref % kSize];
    return e.ref == ref && ref != 0 ? &e.value : nullptr;
  }
  void set(U32 ref, T value) noexcept { entries_[ref % kSize] = Entry{ref, value}; }
  void forget(U32 ref) noexcept {
    Entry& e = entries_[ref % kSize];
    if (e.ref == ref) e.ref = 0;
  }
  void clear() noexcept { entries_.fill(Entry{}); }

 private:
  static constexpr U32 kSize = 256;
  struct Entry {
    U32 ref = 0;
    T value{};
  };
  std::array<Entry, kSize> entries_{};
};

// What a stream's references name, by reference: the entities, or while a
// frame is checked the types it announces. T is a pointer or a Ptr, null
// where nothing is named. A writer numbers its entities from one counter, so
// most references index an array, from the first reference named into it (a
// frame's announcements start where the last frame's ended). A snapshot
// names them in order when the writer met the tree with it, and in the
// tree's order when it followed the tree as it grew. The array reaches at
// most kDenseFactor times the references named at once (in it or not), plus
// kDenseFloor; other references go to a hash table and move into the array
// when it grows over them, so that a long or hostile stream costs memory in
// proportion to what it names at once. The factor is wide so that a
// snapshot in the tree's order, which names references from all over the
// writer's range from its start, soon finds them in the array: at most 64
// bytes of array per name, against some 300 bytes that a replica's entity
// takes.
template <class T>
class LogRefTable {
  static auto raw(T const& v) noexcept {
    if constexpr (std::is_pointer_v<T>) {
      return v;
    } else {
      return v.get();
    }
  }

 public:
  using Raw = decltype(raw(std::declval<T const&>()));

  // What `ref` names, or null.
  [[nodiscard]] Raw find(U32 ref) const noexcept {
    if (U32 const i = ref - base_; i < dense_.size()) return raw(dense_[i]);
    if (auto const* known = recent_.find(ref)) return *known;
    auto const* found = sparse_.find(ref);
    if (!found) return nullptr;
    recent_.set(ref, raw(*found));
    return raw(*found);
  }
  // Names `v` (not null) `ref`, in place of what it named.
  void set(U32 ref, T v) {
    if (dense_.empty()) base_ = ref;
    U32 const i = ref - base_;
    if (std::size_t const limit = kDenseFactor * (size() + 1) + kDenseFloor;
        i >= dense_.size() && i < limit) {
      // At least doubling, so that the hash table's names move in a few
      // times only however the references come.
      grow(std::min(limit, std::max(std::size_t{i} + 1, 2 * dense_.size())));
    }
    if (i < dense_.size()) {
      if (!dense_[i]) ++denseNamed_;
      dense_[i] = std::move(v);
      return;
    }
    recent_.forget(ref);
    *sparse_.insert(ref).first = std::move(v);
  }
  // Forgets `ref`; answers what it named, or null.
  T take(U32 ref) noexcept {
    if (U32 const i = ref - base_; i < dense_.size()) {
      if (dense_[i]) --denseNamed_;
      return std::exchange(dense_[i], T());
    }
    recent_.forget(ref);
    auto it = sparse_.locate(ref);
    if (it.done()) return T();
    T v = std::move(it.value());
    sparse_.erase(it);
    return v;
  }
  [[nodiscard]] std::size_t size() const noexcept { return denseNamed_ + sparse_.size(); }
  // The places of the array: at most kDenseFactor times the references
  // named at its fullest, plus kDenseFloor (or what arrayAtLeast() asked).
  [[nodiscard]] std::size_t denseSize() const noexcept { return dense_.size(); }
  [[nodiscard]] U32 denseBase() const noexcept { return base_; }
  // Makes the array cover `places` references from `base`, for a table
  // that names the references another table does (a frame's announcements
  // next to the names): an empty table starts its array at `base`, one
  // whose array starts elsewhere is left as it is.
  void arrayAtLeast(U32 base, std::size_t places) {
    if (dense_.empty() && sparse_.empty()) base_ = base;
    if (base_ == base && places > dense_.size()) grow(places);
  }
  void clear() noexcept {
    dense_.clear();
    dense_.shrink_to_fit();
    denseNamed_ = 0;
    base_ = 0;
    sparse_.clear();
    recent_.clear();
  }
  // Calls f(ref, T&) for each named reference.
  template <class F>
  void forEach(F&& f) {
    for (U32 i = 0; i < dense_.size(); ++i) {
      if (dense_[i]) f(base_ + i, dense_[i]);
    }
    for (auto it = sparse_.begin(); !it.done(); ++it) f(it.key(), it.value());
  }

  static constexpr U32 kDenseFactor = 8;
  static constexpr U32 kDenseFloor = 4096;

 private:
  // Makes the array `to` places long; the names in the hash table that it
  // now covers move in, found by reference or by a walk of the table,
  // whichever reads less.
  void grow(std::size_t to) {
    std::size_t const from = dense_.size();
    dense_.resize(to);
    auto const moveIn = [&](U32 k, T& named) {
      recent_.forget(base_ + k);
      dense_[k] = std::move(named);
      ++denseNamed_;
    };
    if (to - from <= sparse_.size()) {
      for (auto k = static_cast<U32>(from); !sparse_.empty() && k < to; ++k) {
        auto it = sparse_.locate(base_ + k);
        if (it.done()) continue;
        moveIn(k, it.value());
        sparse_.erase(it);
      }
      return;
    }
    for (auto it = sparse_.begin(); !it.done();) {
      U32 const k = it.key() - base_;
      if (k < from || k >= to) {
        ++it;
        continue;
      }
      moveIn(k, it.value());
      sparse_.erase(it);
    }
  }

  std::vector<T> dense_;  // dense_[i] for reference base_ + i
  U32 base_ = 0;
  std::size_t denseNamed_ = 0;
  HashTable<U32, T> sparse_;
  // The last references found in the hash table.
  mutable LogRefMemo<Raw> recent_;
};

class LogReader {
 public:
  // Keeps `replica` equal to the tree the stream comes from. The replica
  // must be of the same type as the source's root.
  explicit LogReader(Entity& replica);
  // Forgets every entity the stream named; a cycle of references among
  // entities that nothing else holds is broken so that they are freed.
  ~LogReader();
  LogReader(LogReader const&) = delete;
  LogReader& operator=(LogReader const&) = delete;

  // The largest frame payload accepted, 64 MiB unless set. A frame whose
  // header announces more is refused before its payload is buffered.
  static constexpr U32 kDefaultMaxFrameBytes = 64u << 20;
  void maxFrameBytesIs(U32 bytes) noexcept { maxFrameBytes_ = bytes; }
  [[nodiscard]] U32 maxFrameBytes() const noexcept { return maxFrameBytes_; }

  // Applies every complete frame in `bytes` (and in what came before).
  // Raises LogException for a corrupt stream, a gap in the sequence numbers
  // or a record the replica cannot take; nothing of the frame at fault is
  // applied and the reader wants a new connection (reset()).
  void bytesIs(std::string_view bytes);
  // Reads what is available on a non-blocking descriptor and applies it;
  // answers false at the end of the stream or when the connection broke.
  bool readFrom(int fd);
  // The descriptor the caller's loop watches for readability, and the call
  // to make when it is readable. fdIs() also resets for the new connection.
  void fdIs(int fd) {
    reset();
    fd_ = fd;
  }
  [[nodiscard]] int fd() const noexcept { return fd_; }
  bool readAvailable() { return readFrom(fd_); }
  // Forgets the connection's state, for a new subscription.
  void reset();

  // Whether the replica has received a whole snapshot and follows since.
  [[nodiscard]] bool inSync() const noexcept { return inSync_; }
  [[nodiscard]] U64 frames() const noexcept { return frames_; }
  [[nodiscard]] U64 records() const noexcept { return records_; }
  // Entities the stream names at present (the root included); equals the
  // writer's trackedEntities() while in sync.
  [[nodiscard]] std::size_t namedEntities() const noexcept { return refs_.size(); }
  // Entities no longer named but still held by the replica, kept to break
  // cycles among them once nothing else holds them.
  [[nodiscard]] std::size_t heldEntities() const noexcept { return limbo_.size(); }

 private:
  struct Decoded;
  struct Check;
  void frameIs(U8 kind, U64 seq, LogIn payload);
  // The entity the apply pass met last: the records of one entity come
  // together, so each is looked up once.
  struct Last {
    U32 ref = 0;
    Entity* entity = nullptr;
    TypeDesc const* type = nullptr;
    // During a snapshot: the entity lived before it (the root, or a child
    // the snapshot kept), so what the snapshot writes to it is noted for
    // sweep(). The others it made anew, and they hold nothing else.
    bool reused = false;
  };
  void decode(LogIn& in, Decoded& d, Check* check, Last* last = nullptr);
  void checkQueue(Check& check, Decoded const& d);
  void checkQueue(Check& check, Decoded const& d, std::size_t recordNo);
  void apply(Entity& e, Decoded& d, bool reused);
  void applyChild(Entity& e, Decoded& d);
  Ptr<Entity const> shared(Decoded const& d);
  void forget(Ptr<Entity> e);
  void collect(bool everything);
  void sweep();
  void settle();

  Entity* replica_;
  int fd_ = -1;
  U32 maxFrameBytes_ = kDefaultMaxFrameBytes;
  String pending_;
  U64 expectedSeq_ = 1;
  bool inSync_ = false;
  bool snapshot_ = false;
  bool broken_ = false;
  // The entities the stream names, by their reference.
  LogRefTable<Ptr<Entity>> refs_;
  // The types of the entities a frame announces, by reference, while its
  // check runs; emptied after it but for the array, which follows refs_'s,
  // so that announcements from all over the writer's range find their
  // place without a hash table (8 bytes a place, as refs_).
  LogRefTable<TypeDesc const*> announced_;
  std::vector<U32> announcedRefs_;
  [[nodiscard]] Entity* namedBy(U32 ref) const noexcept { return refs_.find(ref); }
  void nameIs(U32 ref, Ptr<Entity> e) { refs_.set(ref, std::move(e)); }
  void unnameAll() noexcept { refs_.clear(); }
  // During a snapshot: the entities named before it, forgotten at its end
  // unless the snapshot names them again.
  std::vector<Ptr<Entity>> previous_;
  // Entities from before the snapshot that it kept (a child with the same
  // constructor arguments), swept with the root at its end.
  std::vector<Ptr<Entity>> reused_;
  // Of those and the root: the plain values, child slots and references
  // the snapshot wrote. The writer leaves out those that hold what a new
  // entity holds (a default value, no child, a null reference), so the
  // others go back to it at the end.
  std::unordered_map<Entity const*, std::vector<U32>> reusedWritten_;
  LogAttrIndex attrs_;
  // Entities no longer named that something still held when they were
  // forgotten (see collect()).
  std::vector<Ptr<Entity>> limbo_;
  std::size_t collectAt_ = 64;
  // Members met during a snapshot (encoded keys), by entity and attribute.
  struct SeenKey {
    Entity const* entity;
    U32 attr;
    bool operator==(SeenKey const&) const = default;
  };
  struct SeenHash {
    std::size_t operator()(SeenKey const& k) const noexcept {
      return std::hash<Entity const*>()(k.entity) * 31 + k.attr;
    }
  };
  struct Named {
    bool wasEmpty = false;
    std::unordered_set<String> keys;  // only when it was not empty
  };
  std::unordered_map<SeenKey, Named, SeenHash> seen_;
  U64 frames_ = 0;
  U64 records_ = 0;
};

// Appends one frame holding `payload` (records) to `out`.
void logFrame(String& out, U8 kind, U64 seq, std::string_view payload);

// CRC-32 (IEEE 802.3) of `bytes`, as the frames carry it.
[[nodiscard]] U32 crc32(std::string_view bytes) noexcept;

}  // namespace Kel

#endif  // KEL_ATTRLOG_H
