#include <Kel/AttrLog.h>
#include <Kel/Reflect.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Kel {

namespace {

constexpr U32 kMagic = 0x4b454c31;   // "KEL1"
constexpr std::size_t kHeader = 24;  // the last 4 bytes: CRC-32 of the first 20
constexpr std::size_t kTrailer = 4;
constexpr U32 kMaxPayload = 64u << 20;

constexpr U8 frameChanges = logFrameChanges;
constexpr U8 frameSnapshot = logFrameSnapshot;
constexpr U8 frameInSync = logFrameInSync;
constexpr U8 frameSnapshotMore = logFrameSnapshotMore;

// The length of the longest run of whole records at the start of
// `payload` that fits in `limit` bytes (a single larger record counts whole).
std::size_t wholeRecordsWithin(std::string_view payload, std::size_t limit) {
  std::size_t cut = 0;
  while (cut < payload.size()) {
    // A record: reference, identifier, value length, value.
    auto const b = reinterpret_cast<U8 const*>(payload.data() + cut + 8);
    std::size_t const length =
        (std::size_t{b[0]} << 24) | (std::size_t{b[1]} << 16) | (std::size_t{b[2]} << 8) | b[3];
    std::size_t const next = cut + 12 + length;
    if (cut != 0 && next > limit) break;
    cut = next;
  }
  return cut;
}

// Cuts `payload` at record boundaries into parts of at most
// `limit` bytes (a single larger record stays whole) and hands each to
// `emit` with its kind: the first `first`, the others `more`.
template <class F>
void forEachPart(std::string_view payload, std::size_t limit, U8 first, U8 more, F&& emit) {
  U8 kind = first;
  while (payload.size() > limit) {
    std::size_t const cut = wholeRecordsWithin(payload, limit);
    if (cut >= payload.size()) break;
    emit(kind, payload.substr(0, cut));
    payload.remove_prefix(cut);
    kind = more;
  }
  emit(kind, payload);
}

U32 bigEndian(U32 v) noexcept {
  if constexpr (std::endian::native == std::endian::little) return __builtin_bswap32(v);
  return v;
}

}  // namespace

// Every record opens and closes here, millions to a snapshot: the head goes
// in one step, and the length in place.
std::size_t openLogRecord(LogOut& out, U32 ref, S32 id) {
  // Stored straight from registers: a head built on the stack in 4-byte
  // words and copied out with wider loads stalls every record (the
  // processor cannot forward two stores into one load).
  U8* const head = out.reserve(12);
  U32 const fields[2] = {bigEndian(ref), bigEndian(static_cast<U32>(id))};
  std::memcpy(head, &fields[0], 4);
  std::memcpy(head + 4, &fields[1], 4);
  std::memset(head + 8, 0, 4);
  return out.size() - 4;
}

void closeLogRecord(LogOut& out, std::size_t lengthAt) {
  U32 const n = bigEndian(static_cast<U32>(out.size() - lengthAt - 4));
  std::memcpy(out.buffer().data() + lengthAt, &n, sizeof n);
}

namespace {

std::size_t openRecord(LogOut& out, U32 ref, S32 id) { return openLogRecord(out, ref, id); }
void closeRecord(LogOut& out, std::size_t lengthAt) { closeLogRecord(out, lengthAt); }

// The value's encoding into `into`, whose room serves again: for a walk
// that encodes the keys of a collection's members one after another.
void encodeInto(TypeDesc const& type, void const* v, String& into) {
  into.clear();
  LogOut out(into);
  type.ops()->logWrite(out, v);
}

String encode(TypeDesc const& type, void const* v) {
  // Written where there is room, then copied at its size: a state-path id
  // would grow a fresh string twice on the way, and a short key fits in
  // the string itself.
  thread_local String scratch;
  encodeInto(type, v, scratch);
  return scratch;
}

#if defined(__x86_64__)
// A lane carried 128 bits on (k3k4) or 512 (k1k2), plus the `next` block.
[[gnu::target("pclmul,sse4.1")]] inline __m128i crcFold(__m128i lane, __m128i k,
                                                        __m128i next) noexcept {
  __m128i const lo = _mm_clmulepi64_si128(lane, k, 0x00);
  __m128i const hi = _mm_clmulepi64_si128(lane, k, 0x11);
  return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

// The CRC of whole 16-byte blocks, n >= 64, by carry-less multiplication:
// four 128-bit lanes folded 64 bytes a step, then into one lane, then
// reduced to 32 bits (Barrett). The constants are powers of x modulo the
// polynomial, bit-reflected; `c` is the running state of the table loop.
[[gnu::target("pclmul,sse4.1")]] U32 crc32Folded(U8 const* p, std::size_t n, U32 c) noexcept {
  auto const load = [](U8 const* at) {
    return _mm_loadu_si128(reinterpret_cast<__m128i const*>(at));
  };
  __m128i const k1k2 = _mm_set_epi64x(0x01c6e41596, 0x0154442bd4);
  __m128i const k3k4 = _mm_set_epi64x(0x00ccaa009e, 0x01751997d0);
  __m128i const k5 = _mm_set_epi64x(0, 0x0163cd6124);
  __m128i const poly = _mm_set_epi64x(0x01f7011641, 0x01db710641);
  __m128i const low32 = _mm_setr_epi32(-1, 0, -1, 0);

  __m128i x1 = _mm_xor_si128(load(p), _mm_cvtsi32_si128(static_cast<int>(c)));
  __m128i x2 = load(p + 16);
  __m128i x3 = load(p + 32);
  __m128i x4 = load(p + 48);
  for (p += 64, n -= 64; n >= 64; p += 64, n -= 64) {
    x1 = crcFold(x1, k1k2, load(p));
    x2 = crcFold(x2, k1k2, load(p + 16));
    x3 = crcFold(x3, k1k2, load(p + 32));
    x4 = crcFold(x4, k1k2, load(p + 48));
  }
  x1 = crcFold(x1, k3k4, x2);
  x1 = crcFold(x1, k3k4, x3);
  x1 = crcFold(x1, k3k4, x4);
  for (; n >= 16; p += 16, n -= 16) x1 = crcFold(x1, k3k4, load(p));

  // 128 bits to 64, then Barrett's reduction to 32.
  x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), _mm_clmulepi64_si128(x1, k3k4, 0x10));
  x1 = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x1, low32), k5, 0x00),
                     _mm_srli_si128(x1, 4));
  __m128i t = _mm_clmulepi64_si128(_mm_and_si128(x1, low32), poly, 0x10);
  t = _mm_clmulepi64_si128(_mm_and_si128(t, low32), poly, 0x00);
  return static_cast<U32>(_mm_extract_epi32(_mm_xor_si128(x1, t), 1));
}

bool hasCarrylessMultiply() noexcept {
  static bool const has = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return has;
}
#endif

}  // namespace

U32 crc32(std::string_view bytes) noexcept {
  // Long runs by carry-less multiplication where the processor has it; the
  // rest with eight tables, eight bytes a step (slicing by eight).
  static auto const tables = [] {
    std::array<std::array<U32, 256>, 8> t{};
    for (U32 i = 0; i < 256; ++i) {
      U32 c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xedb88320u ^ (c >> 1) : c >> 1;
      t[0][i] = c;
    }
    for (U32 i = 0; i < 256; ++i) {
      for (std::size_t k = 1; k < 8; ++k) t[k][i] = (t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xff];
    }
    return t;
  }();
  U32 c = 0xffffffffu;
  auto const* p = reinterpret_cast<U8 const*>(bytes.data());
  std::size_t n = bytes.size();
#if defined(__x86_64__)
  if (n >= 64 && hasCarrylessMultiply()) {
    std::size_t const whole = n & ~std::size_t{15};
    c = crc32Folded(p, whole, c);
    p += whole;
    n -= whole;
  }
#endif
  for (; n >= 8; n -= 8, p += 8) {
    U32 const lo = c ^ (U32{p[0]} | (U32{p[1]} << 8) | (U32{p[2]} << 16) | (U32{p[3]} << 24));
    U32 const hi = U32{p[4]} | (U32{p[5]} << 8) | (U32{p[6]} << 16) | (U32{p[7]} << 24);
    c = tables[7][lo & 0xff] ^ tables[6][(lo >> 8) & 0xff] ^ tables[5][(lo >> 16) & 0xff] ^
        tables[4][lo >> 24] ^ tables[3][hi & 0xff] ^ tables[2][(hi >> 8) & 0xff] ^
        tables[1][(hi >> 16) & 0xff] ^ tables[0][hi >> 24];
  }
  for (; n > 0; --n, ++p) c = tables[0][(c ^ *p) & 0xff] ^ (c >> 8);
  return c ^ 0xffffffffu;
}

// ---- sinks

bool MemorySink::write(std::string_view bytes) {
  bytes_.append(bytes);
  return true;
}

String MemorySink::take() { return std::exchange(bytes_, String()); }

namespace {

// Sends what `iov` holds to `fd`, a socket or (writev) anything else.
// Answers the bytes taken, 0 when the descriptor would block; sets `broken`
// when it refuses for good. A socket whose reader has gone must not kill the
// process with SIGPIPE.
std::size_t sendSome(int fd, iovec* iov, std::size_t count, bool& broken) {
  msghdr msg{};
  msg.msg_iov = iov;
  msg.msg_iovlen = count;
  for (;;) {
    ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) n = ::writev(fd, iov, static_cast<int>(count));
    if (n > 0) return static_cast<std::size_t>(n);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) broken = true;
    return 0;
  }
}

}  // namespace

FdSink::FdSink(int fd) : fd_(fd) {}

void FdSink::append(std::string_view bytes) {
  if (broken_ || bytes.empty()) return;
  backlog_ += bytes.size();
  if (!parts_.empty() && bytes.size() < kPartBytes &&
      parts_.back().size() + bytes.size() <= parts_.back().capacity()) {
    parts_.back().append(bytes);
    return;
  }
  std::size_t const room = std::max(bytes.size(), kPartBytes);
  auto const spare = std::find_if(spares_.begin(), spares_.end(),
                                  [&](String const& p) { return p.capacity() >= room; });
  if (spare != spares_.end()) {
    parts_.push_back(std::move(*spare));
    spares_.erase(spare);
    parts_.back().clear();
  } else {
    parts_.emplace_back();
    parts_.back().reserve(room);
  }
  parts_.back().append(bytes);
}

bool FdSink::write(std::string_view bytes) {
  if (broken_) return false;
  if (!parts_.empty()) {
    append(bytes);
    flush();
  } else {
    // Nothing waits: the descriptor takes what it can straight from the
    // caller's bytes, and only the rest is copied.
    while (!bytes.empty()) {
      iovec iov{const_cast<char*>(bytes.data()), bytes.size()};
      std::size_t const n = sendSome(fd_, &iov, 1, broken_);
      if (n == 0) break;
      bytes.remove_prefix(n);
    }
    append(bytes);
  }
  if (paceBytes_ != 0 && backlog() > paceBytes_) paceWait();
  return !broken_;
}

void FdSink::paceIs(std::size_t backlogBytes, std::chrono::milliseconds patience) noexcept {
  paceBytes_ = backlogBytes;
  patience_ = patienceLeft_ = patience;
}

void FdSink::paceWait() {
  using Clock = std::chrono::steady_clock;
  while (!broken_ && backlog() > paceBytes_ && patienceLeft_.count() > 0) {
    auto const start = Clock::now();
    pollfd p{fd_, POLLOUT, 0};
    auto const ms = std::chrono::ceil<std::chrono::milliseconds>(patienceLeft_).count();
    ::poll(&p, 1, static_cast<int>(std::min<decltype(ms)>(ms, 60000)));
    patienceLeft_ -= Clock::now() - start;
    flush();
  }
}

bool FdSink::flush() {
  while (!broken_ && !parts_.empty()) {
    // Several parts in one call: a snapshot's frames, or envelope heads and
    // the bytes they announce.
    constexpr std::size_t kMaxIov = 16;
    iovec iov[kMaxIov];
    std::size_t count = 0;
    for (String const& p : parts_) {
      std::size_t const skip = count == 0 ? sent_ : 0;
      iov[count].iov_base = const_cast<char*>(p.data() + skip);
      iov[count].iov_len = p.size() - skip;
      if (++count == kMaxIov) break;
    }
    std::size_t taken = sendSome(fd_, iov, count, broken_);
    if (taken == 0) break;
    while (taken != 0) {
      String& front = parts_.front();
      std::size_t const left = front.size() - sent_;
      if (taken < left) {
        sent_ += taken;
        break;
      }
      taken -= left;
      backlog_ -= front.size();
      sent_ = 0;
      if (spares_.size() < kSpares) spares_.push_back(std::move(front));
      parts_.pop_front();
    }
  }
  if (broken_) {
    parts_.clear();
    spares_.clear();
    backlog_ = sent_ = 0;
  } else if (parts_.empty()) {
    // Caught up: large parts are not kept for a backlog that may not come,
    // and a paced writer may wait again.
    std::erase_if(spares_, [](String const& p) { return p.capacity() > kPartBytes; });
    patienceLeft_ = patience_;
  }
  return !broken_;
}

// ---- writer

namespace {

// The key of entity `e` as the log encodes it; empty for an unkeyed type.
// In a buffer of the calling thread, which the next call reuses: a snapshot
// compares hundreds of thousands of members' keys, and a copy of each
// would cost an allocation.
std::string_view encodedKeyView(Entity const& e) {
  TypeDesc const& type = e.fwkType();
  if (type.keyAttr() == 0) return {};
  KelAttr const& key = *type.attr(type.keyAttr());
  GenericValue v(*key.type);
  type.attributeOp(v.get(), const_cast<Entity*>(&e), &key, attrOpRead);
  thread_local String scratch;
  encodeInto(*key.type, v.get(), scratch);
  return scratch;
}

// Where a holder keeps an entity in its hash table: the attribute's index
// and the member's encoded key. Short keys are kept in place and long ones
// on the heap, except the key of an owned member that holds it as its own
// key: that is read from the member when compared (a snapshot tracks
// hundreds of thousands of such members).
class HeldWhere {
 public:
  HeldWhere(U32 attr, std::string_view key) : attr_(attr), size_(static_cast<U32>(key.size())) {
    char* const to = size_ <= kInPlace ? inPlace_ : (bytes_ = new char[size_]);
    if (size_ != 0) std::memcpy(to, key.data(), size_);
  }
  HeldWhere(U32 attr, Entity const* member) noexcept : attr_(attr), size_(kOfMember) {
    member_ = member;
  }
  // Where (attr, key) is for `member`, an owned member or null: a long key
  // that is the member's own is read from it.
  static HeldWhere of(U32 attr, std::string_view key, Entity const* member) {
    if (member && key.size() > kInPlace && encodedKeyView(*member) == key)
      return HeldWhere(attr, member);
    return HeldWhere(attr, key);
  }
  HeldWhere(HeldWhere const& o) : attr_(o.attr_), size_(o.size_) {
    if (size_ > kInPlace && size_ != kOfMember) {
      bytes_ = new char[size_];
      std::memcpy(bytes_, o.bytes_, size_);
    } else {
      std::memcpy(inPlace_, o.inPlace_, kInPlace);
    }
  }
  HeldWhere(HeldWhere&& o) noexcept : attr_(o.attr_), size_(o.size_) {
    std::memcpy(inPlace_, o.inPlace_, kInPlace);
    o.size_ = 0;
  }
  HeldWhere& operator=(HeldWhere const&) = delete;
  ~HeldWhere() {
    if (size_ > kInPlace && size_ != kOfMember) delete[] bytes_;
  }

  [[nodiscard]] static U32 hashOf(U32 attr, std::string_view key) noexcept {
    return static_cast<U32>(std::hash<std::string_view>()(key) * 31 + attr);
  }
  // Whether this is where (attr, key) is.
  [[nodiscard]] bool is(U32 attr, std::string_view key) const {
    if (attr != attr_) return false;
    if (size_ != kOfMember) return bytes() == key;
    return encodedKeyView(*member_) == key;
  }
  bool operator==(HeldWhere const& o) const {
    if (size_ == kOfMember && o.size_ == kOfMember && member_ == o.member_) return attr_ == o.attr_;
    if (size_ != kOfMember) return o.is(attr_, bytes());
    // A copy: o may read its own member's key into the same buffer.
    String const mine(encodedKeyView(*member_));
    return o.is(attr_, mine);
  }

 private:
  static constexpr std::size_t kInPlace = sizeof(char*);
  static constexpr U32 kOfMember = ~U32{0};  // size_ of a key read from the member
  [[nodiscard]] std::string_view bytes() const noexcept {
    return {size_ <= kInPlace ? inPlace_ : bytes_, size_};
  }
  U32 attr_;
  U32 size_;
  union {
    char inPlace_[kInPlace];
    char* bytes_;
    Entity const* member_;
  };
};

// Accepts the HeldWhere of (attr, key) without making one.
struct IsHeldWhere {
  U32 attr;
  std::string_view key;
  bool operator()(HeldWhere const& w) const { return w.is(attr, key); }
};

}  // namespace

// Owns its bytes through a pointer, never into itself.
template <>
struct KelRelocatable<HeldWhere> : std::true_type {};

// What one entity holds, by where: owned children, or shared entities. Most
// entities hold nothing or one thing without a key (a block its message, a
// slot its child), kept in place; the others (the children of several slots,
// a short queue) go to a short list with their keys in place, and a long key
// (a member of a keyed collection) or a holder of many to a hash table.
// A snapshot tracks millions of entities: 24 bytes in each record, and no
// allocation for one that holds one thing without a key.
class LogWriter::Holdings {
 public:
  // What (attr, key) holds; a null entity when nothing.
  [[nodiscard]] Held find(U32 attr, std::string_view key) const {
    if (isOne(attr, key)) return one_.held();
    if (!more_) return {};
    if (Entry const* e = findFew(attr, key)) return e->held();
    if (more_->many) {
      if (Held const* h = findMany(reversedHashOf(attr, key), attr, key)) return *h;
    }
    return {};
  }
  // Sets what (attr, key) holds; `member`, when given, is an owned member
  // that may hold `key` as its own key.
  void put(U32 attr, std::string_view key, Held held, Entity const* member = nullptr) {
    if (isOne(attr, key)) {
      one_.set(held);
      return;
    }
    if (more_) {
      if (Entry* e = findFew(attr, key)) {
        e->set(held);
        return;
      }
    }
    // Hashed once for the table's lookup and insertion; the short list,
    // where most go, needs no hash.
    bool const many = more_ && more_->many;
    bool const toList = key.size() <= Entry::kKeyBytes && (!more_ || more_->few.size() < kFew);
    U32 const rh = many || !toList ? reversedHashOf(attr, key) : 0;
    if (many) {
      if (Held* h = findMany(rh, attr, key)) {
        if (h->entity == held.entity) {
          *h = held;
          return;
        }
        // Another entity under the key: the old one's place may read the
        // key from it.
        more_->many->eraseIf(rh, IsHeldWhere{attr, key});
      }
    }
    if (key.empty() && !one_.entity) {
      one_.attr = attr;
      one_.set(held);
      return;
    }
    if (!more_) more_ = std::make_unique<More>();
    if (toList) {
      Entry& e = more_->few.emplace_back();
      e.attr = attr;
      e.set(held);
      e.keySize = static_cast<U8>(key.size());
      // An empty key (a child slot's) may have no bytes at all to copy.
      if (!key.empty()) std::memcpy(e.key, key.data(), key.size());
      return;
    }
    if (!more_->many) more_->many = std::make_unique<HashTable<HeldWhere, Held>>();
    *more_->many->insertHashed(rh, HeldWhere::of(attr, key, member)).first = held;
  }
  // Room for `n` more keyed entries: a snapshot meets a collection's
  // members all at once, and knows how many.
  void reserve(std::size_t n) {
    if (n <= kFew) return;
    if (!more_) more_ = std::make_unique<More>();
    if (!more_->many) more_->many = std::make_unique<HashTable<HeldWhere, Held>>();
    more_->many->reserve(more_->many->size() + n);
  }
  void erase(U32 attr, std::string_view key) {
    if (isOne(attr, key)) {
      one_ = One{};
      return;
    }
    if (!more_) return;
    if (Entry* e = findFew(attr, key)) {
      *e = more_->few.back();
      more_->few.pop_back();
      return;
    }
    if (more_->many) more_->many->eraseIf(reversedHashOf(attr, key), IsHeldWhere{attr, key});
  }
  template <class F>
  void forEach(F&& f) const {
    if (one_.entity) f(one_.held());
    if (!more_) return;
    for (Entry const& e : more_->few) f(e.held());
    if (more_->many) more_->many->visit([&](HeldWhere const&, Held const& h) { f(h); });
  }

 private:
  static constexpr std::size_t kFew = 8;
  // The one holding without a key kept in place; a null entity when none.
  struct One {
    Entity* entity = nullptr;
    U32 attr = 0;
    bool shared = false;
    [[nodiscard]] Held held() const noexcept { return Held{entity, shared}; }
    void set(Held h) noexcept {
      entity = h.entity;
      shared = h.shared;
    }
  };
  struct Entry {
    static constexpr std::size_t kKeyBytes = 18;
    Entity* entity;
    U32 attr;
    bool shared;
    U8 keySize;
    char key[kKeyBytes];
    [[nodiscard]] Held held() const noexcept { return Held{entity, shared}; }
    void set(Held h) noexcept {
      entity = h.entity;
      shared = h.shared;
    }
    [[nodiscard]] bool is(U32 a, std::string_view k) const noexcept {
      return attr == a && std::string_view(key, keySize) == k;
    }
  };
  static_assert(sizeof(Entry) == 32);
  struct More {
    std::vector<Entry> few;
    std::unique_ptr<HashTable<HeldWhere, Held>> many;
  };

  [[nodiscard]] bool isOne(U32 attr, std::string_view key) const noexcept {
    return key.empty() && one_.entity && one_.attr == attr;
  }
  [[nodiscard]] Entry* findFew(U32 attr, std::string_view key) const {
    if (key.size() > Entry::kKeyBytes) return nullptr;
    for (Entry& e : more_->few) {
      if (e.is(attr, key)) return &e;
    }
    return nullptr;
  }
  [[nodiscard]] static U32 reversedHashOf(U32 attr, std::string_view key) noexcept {
    return bitReverse32(HeldWhere::hashOf(attr, key));
  }
  // In the hash table, given reversedHashOf(attr, key).
  [[nodiscard]] Held* findMany(U32 rh, U32 attr, std::string_view key) const {
    return more_->many->findIf(rh, IsHeldWhere{attr, key});
  }

  One one_;
  std::unique_ptr<More> more_;
};

// What the writer keeps of a tracked entity. The type's state adapter lives
// in the same allocation, right before it: a change goes from the entity to
// the adapter, its notifiee, and on to this record, whose first members are
// what a change touches; a flush comes back the same way.
struct LogWriter::Tracked final : LogDirtySink {
  // A record of `e` with room for an adapter of `adapterBytes` before it.
  static Tracked* make(Entity& e, std::size_t adapterBytes);
  // Frees the room before the record with it.
  static void operator delete(Tracked* t, std::destroying_delete_t) noexcept;
  [[nodiscard]] void* adapterRoom() noexcept { return reinterpret_cast<char*>(this) - roomBefore; }

  // What a change touches comes first, right after the adapter (the
  // record's vtable pointer, the dirty ids, the flags, the room before the
  // record and the writer), then what a flush reads besides: the entity and
  // its reference.
  // Attribute log ids changed since the last flush, each once: the first
  // few here (an id fits sixteen bits: a type has far fewer attributes),
  // the others in dirtyMore.
  static constexpr U8 kFewDirty = 4;
  U16 dirtyFew[kFewDirty] = {};
  U8 fewDirty = 0;
  bool queued = false;
  bool dead = false;     // no longer tracked; skipped by the flush that meets it
  bool shared = false;   // held by references or queues, not owned in the tree
  bool adapted = false;  // the type's own adapter lives in adapterRoom()
  bool inTable = false;  // found in the writer's tracked_, not through a notifiee
  U16 roomBefore = 0;    // bytes allocated before the record, for the adapter
  LogWriter* writer = nullptr;
  Entity* entity = nullptr;  // holds a reference to the entity
  U32 ref = 0;
  int holders = 0;       // of a shared entity: the places that refer to it
  U32 snapshotMark = 0;  // the number of the last snapshot that wrote this shared entity
  U32 followedAt = 0;    // its index in the writer's followed_
  // What few entities need, made for those that do: a snapshot tracks
  // millions of entities, most of which change one attribute at a time.
  struct Rare {
    std::vector<U32> dirtyMore;
    std::map<U32, std::set<String>> dirtyKeys;  // attribute index -> encoded keys
    std::unique_ptr<NotifieeBase> notifiee;     // the generic path, without an adapter
  };
  std::unique_ptr<Rare> rare;
  Holdings children;

  // The key of the writer's table of records: the entity's address.
  [[nodiscard]] Entity const* const& kelKey() const noexcept {
    // Entity* and Entity const* are similar types: one may be read as the other.
    return reinterpret_cast<Entity const* const&>(entity);
  }

  Rare& rareNeeded() {
    if (!rare) rare = std::make_unique<Rare>();
    return *rare;
  }

  explicit Tracked(Entity& e) noexcept : entity(&e) { e.newRef(); }
  Tracked(Tracked const&) = delete;
  Tracked& operator=(Tracked const&) = delete;
  ~Tracked() override {
    adapterDrop();
    rare.reset();
    entity->deleteRef();
  }

  // The type's adapter, or null.
  [[nodiscard]] LogStateAdapter* adapter() noexcept {
    return adapted ? std::launder(static_cast<LogStateAdapter*>(adapterRoom())) : nullptr;
  }
  void adapterDrop() noexcept {
    if (adapted) adapter()->~LogStateAdapter();
    adapted = false;
  }

  void attrDirtyIs(S32 id) override {
    markDirty(static_cast<U32>(id));
    writer->queue(*this);
  }
  void markDirty(U32 id) {
    // An entity has few attributes, and few change between two flushes.
    if (id <= std::numeric_limits<U16>::max()) {
      if (std::find(dirtyFew, dirtyFew + fewDirty, id) != dirtyFew + fewDirty) return;
      if (fewDirty < kFewDirty) {
        dirtyFew[fewDirty++] = static_cast<U16>(id);
        return;
      }
    }
    std::vector<U32>& more = rareNeeded().dirtyMore;
    if (std::find(more.begin(), more.end(), id) == more.end()) more.push_back(id);
  }
  // Moves the dirty ids to `out`, in order.
  void takeDirty(std::vector<U32>& out) {
    out.assign(dirtyFew, dirtyFew + fewDirty);
    fewDirty = 0;
    if (rare && !rare->dirtyMore.empty()) {
      out.insert(out.end(), rare->dirtyMore.begin(), rare->dirtyMore.end());
      rare->dirtyMore.clear();
    }
    if (out.size() > 1) std::sort(out.begin(), out.end());
  }
  void memberDirtyIs(S32 id, String encodedKey) override {
    rareNeeded().dirtyKeys[static_cast<U32>(id)].insert(std::move(encodedKey));
    writer->queue(*this);
  }
};

LogWriter::Tracked* LogWriter::Tracked::make(Entity& e, std::size_t adapterBytes) {
  // The adapter starts where operator new aligns; the record follows it at
  // its own alignment.
  constexpr std::size_t align = alignof(Tracked);
  std::size_t const before = (adapterBytes + align - 1) & ~(align - 1);
  if (before > std::numeric_limits<U16>::max())
    throw std::length_error("Kel: state adapter too large");
  auto* const base = static_cast<char*>(::operator new(before + sizeof(Tracked)));
  Tracked* t = nullptr;
  try {
    t = new (base + before) Tracked(e);
  } catch (...) {
    ::operator delete(base);
    throw;
  }
  t->roomBefore = static_cast<U16>(before);
  return t;
}

void LogWriter::Tracked::operator delete(Tracked* t, std::destroying_delete_t) noexcept {
  char* const base = reinterpret_cast<char*>(t) - t->roomBefore;
  t->~Tracked();
  ::operator delete(base);
}

class LogWriter::Tracker : public GenericNotifiee {
 public:
  explicit Tracker(LogWriter* w) : w_(w) {}
  void onAttribute(Entity const& e, KelAttr const& attr, void const* key) override {
    w_->changed(e, attr, key);
  }

 private:
  LogWriter* w_;
};

LogWriter::LogWriter(Entity& root) : root_(&root), tracker_(std::make_unique<Tracker>(this)) {
  track(root);
}

LogWriter::~LogWriter() {
  for (Tracked* t : followed_) delete t;
}

bool LogWriter::foundByNotifiee(Entity const& e) noexcept {
  return !e.frozen() && e.fwkType().logStateAdapter() != nullptr;
}

// The first of the writers' records that the notifiees of `e` lead to (a
// state adapter, a notifiee, knows how far after it its record lies) for
// which `f(record)` answers true, or null.
template <class F>
LogWriter::Tracked* LogWriter::recordWhere(Entity const& e, F&& f) {
  auto const at = [&f](NotifieeBase* n) -> Tracked* {
    if (!n || n->logRecordOffset_ == 0) return nullptr;
    auto* const t = reinterpret_cast<Tracked*>(reinterpret_cast<char*>(n) + n->logRecordOffset_);
    return f(*t) ? t : nullptr;
  };
  if (e.notifiees_ & Entity::kOne) return at(e.one());
  if (e.notifiees_ == 0) return nullptr;
  Entity::NotifieeList& list = *e.list();
  for (U32 i = 0; i < list.count; ++i) {
    if (Tracked* const t = at(list.at(i))) return t;
  }
  return nullptr;
}

LogWriter::Tracked* LogWriter::recordByNotifiee(Entity const& e) const noexcept {
  return recordWhere(e, [this](Tracked const& t) { return t.writer == this; });
}

LogWriter::Tracked* LogWriter::trackedOf(Entity const* e) const noexcept {
  if (foundByNotifiee(*e)) return recordByNotifiee(*e);
  Tracked* const* found = tracked_.find(e);
  return found ? *found : nullptr;
}

void LogWriter::entityFreezing(Entity const& e) {
  recordWhere(e, [&e](Tracked& t) {
    if (!t.inTable) {
      t.writer->tracked_.insert(&e, &t);
      t.inTable = true;
    }
    return false;  // every writer's record
  });
}

LogWriter::Tracked& LogWriter::track(Entity& e, bool& made) {
  // A frozen entity never changes, and may be read by other threads:
  // nothing to observe.
  bool const observed = !e.frozen();
  auto const make = observed ? e.fwkType().logStateAdapter() : nullptr;
  U32 rh = 0;
  decltype(tracked_)::Place place;
  if (make) {
    if (Tracked* const found = recordByNotifiee(e)) {
      made = false;
      return *found;
    }
  } else {
    rh = decltype(tracked_)::reversedHash(&e);
    if (Tracked* const* found = tracked_.findHashed(rh, &e, place)) {
      made = false;
      return **found;
    }
  }
  std::unique_ptr<Tracked> t(Tracked::make(e, make ? e.fwkType().logStateAdapterBytes() : 0));
  t->ref = nextRef_;
  t->writer = this;
  // Room first, so that the push below cannot fail once the adapter is in
  // place.
  if (followed_.size() == followed_.capacity()) followed_.reserve(2 * followed_.size() + 64);
  if (make) {
    // The adapter's first base is at its start, so the record finds it at
    // the start of its room. Its notifiee part, the entity's newest
    // notifiee, learns how far the record lies after it.
    [[maybe_unused]] LogStateAdapter* const a = make(t->adapterRoom(), e);
    assert(static_cast<void*>(a) == t->adapterRoom());
    t->adapted = true;
    NotifieeBase* const notifiee =
        e.notifiees_ & Entity::kOne ? e.one() : e.list()->at(e.list()->count - 1);
    auto const offset = reinterpret_cast<char*>(t.get()) - reinterpret_cast<char*>(notifiee);
    assert(offset > 0 && static_cast<std::size_t>(offset) <= t->roomBefore &&
           "a state adapter registers with the entity");
    notifiee->logRecordOffset_ = static_cast<U32>(offset);
  } else {
    if (observed) t->rareNeeded().notifiee = e.fwkType().genericNotifiee(&e, tracker_.get());
    tracked_.insertHashed(place, rh, &e, t.get());
    t->inTable = true;
  }
  t->followedAt = static_cast<U32>(followed_.size());
  followed_.push_back(t.get());
  ++nextRef_;
  made = true;
  return *t.release();
}

// Stops following `e` and what it holds, and tells the readers to forget
// it. An entity that left the tree while something still refers to it
// lives on as a shared entity instead.
void LogWriter::untrack(Entity& e) {
  Tracked* const gone = trackedOf(&e);
  if (!gone) return;
  if (gone->holders > 0) {
    gone->shared = true;
    return;
  }
  released_.push_back(gone->ref);
  gone->dead = true;
  if (gone->rare) gone->rare->notifiee.reset();
  gone->adapterDrop();
  graveyard_.emplace_back(gone);
  if (gone->inTable) tracked_.erase(&e);
  Tracked* const last = followed_.back();
  followed_[gone->followedAt] = last;
  last->followedAt = gone->followedAt;
  followed_.pop_back();
  gone->children.forEach([this](Held held) { drop(held); });
}

void LogWriter::drop(Held held) {
  if (!held.shared) {
    untrack(*held.entity);
    return;
  }
  Tracked* const t = trackedOf(held.entity);
  if (t && --t->holders <= 0 && t->shared) {
    untrack(*held.entity);
  }
}

void LogWriter::writeCtorArgs(LogOut& out, TypeDesc const& declared, Entity const& e,
                              bool withKey) {
  TypeDesc const& type = e.fwkType();
  for (U32 index : declared.ctorAttrs()) {
    if (!withKey && index == declared.keyAttr()) continue;
    KelAttr const& a = *declared.attr(index);
    GenericValue v(*a.type);
    type.attributeOp(v.get(), const_cast<Entity*>(&e), &a, attrOpRead);
    a.type->ops()->logWrite(out, v.get());
  }
}

LogWriter::Tracked* LogWriter::writeShared(LogOut& out, Tracked& holder, U32 attr,
                                           std::string_view key, TypeDesc const& declared,
                                           Entity const* target) {
  Held const old = holder.children.find(attr, key);
  bool const heldAlready = old.entity && old.entity == target;
  if (old.entity && !heldAlready) {
    holder.children.erase(attr, key);
    drop(old);
  }
  if (!target) {
    out.u32(0);
    out.u8(0);
    return nullptr;
  }
  Entity* const e = const_cast<Entity*>(target);
  bool made = false;
  Tracked& t = track(*e, made);
  bool const fresh = made || (snapshotting_ && t.shared && t.snapshotMark != snapshots_);
  if (made) t.shared = true;
  // Entities of the tree count their holders too: one that leaves the tree
  // while referred to lives on as a shared entity.
  if (!heldAlready) {
    ++t.holders;
    holder.children.put(attr, key, Held{e, true});
  }
  out.u32(t.ref);
  TypeDesc const& actual = e->fwkType();
  if (!fresh) {
    out.u8(0);
  } else if (&actual == &declared) {
    out.u8(1);
  } else {
    // A type derived from the declared one names itself.
    out.u8(2);
    kelLogWrite(out, String(actual.name()));
  }
  if (fresh) writeCtorArgs(out, actual, *e, true);
  return fresh ? &t : nullptr;
}

void LogWriter::changed(Entity const& e, KelAttr const& attr, void const* key) {
  if (attr.logId == 0) return;
  Tracked* const found = trackedOf(&e);
  if (!found) return;
  Tracked& t = *found;
  if (key) {
    t.rareNeeded().dirtyKeys[attr.logId].insert(encode(*attr.keyType, key));
  } else {
    t.markDirty(attr.logId);
  }
  queue(t);
}

void LogWriter::queue(Tracked& t) {
  if (!t.queued && !t.dead) {
    t.queued = true;
    dirty_.push_back(&t);
  }
}

void LogWriter::writeAttr(LogOut& out, Tracked& t, KelAttr const& attr, bool announcing) {
  Entity& e = *t.entity;
  TypeDesc const& type = e.fwkType();
  S32 const id = static_cast<S32>(attr.logId);
  switch (attr.kind) {
    case AttrKind::plain: {
      // A replica makes an announced entity anew: what a new entity holds
      // already goes without saying.
      bool isDefault = false;
      if (announcing && type.attributeOp(&isDefault, &e, &attr, attrOpIsDefault) == attrDone &&
          isDefault)
        return;
      GenericValue v(*attr.type);
      type.attributeOp(v.get(), &e, &attr, attrOpRead);
      std::size_t const at = openRecord(out, t.ref, id);
      attr.type->ops()->logWrite(out, v.get());
      closeRecord(out, at);
      ++records_;
      return;
    }
    case AttrKind::child: {
      Ptr<Entity const> child;
      type.attributeOp(&child, &e, &attr, attrOpRead);
      Held const old = t.children.find(attr.index, {});
      bool const heldAlready = old.entity && old.entity == child.get();
      if (old.entity && !heldAlready) {
        t.children.erase(attr.index, {});
        drop(old);
      }
      if (!child) {
        // A new entity's slot is empty already (a kept one's the reader
        // empties at the snapshot's end).
        if (announcing) return;
        closeRecord(out, openRecord(out, t.ref, -id));
        ++records_;
        return;
      }
      Entity* const c = const_cast<Entity*>(child.get());
      bool made = false;
      Tracked& ct = track(*c, made);
      bool const fresh = snapshotting_ || made;
      // The readers know this child already.
      if (!fresh && heldAlready) return;
      t.children.put(attr.index, {}, Held{c, false});
      std::size_t const at = openRecord(out, t.ref, id);
      out.u32(ct.ref);
      writeCtorArgs(out, *attr.type, *c, true);
      // A slot's child may be named otherwise than its attribute ("nsc").
      kelLogWrite(out, c->name());
      closeRecord(out, at);
      ++records_;
      if (fresh) writeEntity(out, ct);
      return;
    }
    case AttrKind::ref: {
      // Its address only: the target is asked for before it is written.
      // (A type without the peek answers through a read; the attribute
      // keeps the target alive either way.)
      Entity const* target = nullptr;
      if (type.attributeOp(&target, &e, &attr, attrOpPeek) != attrDone) {
        Ptr<Entity const> read;
        type.attributeOp(&read, &e, &attr, attrOpRead);
        target = read.get();
      }
      // A new entity's reference is null already (a kept one's the reader
      // clears at the snapshot's end), unless the writer must let go of
      // the target it held there.
      if (announcing && !target && !t.children.find(attr.index, {}).entity) return;
      if (!writingRefs_) {
        // After every announcement of the frame, so that the target is known.
        deferredRefs_.push_back({&t, &attr, target});
        return;
      }
      writeRef(out, t, attr, target);
      return;
    }
    default: return;  // constants, derived and fixed attributes are not state to send
  }
}

void LogWriter::writeMember(LogOut& out, Tracked& t, KelAttr const& attr, String const& key) {
  Entity& e = *t.entity;
  TypeDesc const& type = e.fwkType();
  S32 const id = static_cast<S32>(attr.logId);
  GenericValue k(*attr.keyType);
  LogIn in(key);
  attr.keyType->ops()->logRead(in, k.get());
  bool present = false;
  std::size_t at = 0;
  if (attr.kind == AttrKind::hashedSet) {
    type.attributeOp(&present, &e, &attr, attrOpMemberRead, k.get());
    if (present) {
      at = openRecord(out, t.ref, id);
      out.bytes(key.data(), key.size());
    }
  } else if (attr.type->kind() == TypeKind::entity) {
    Ptr<Entity const> child;
    present = type.attributeOp(&child, &e, &attr, attrOpMemberRead, k.get()) == attrDone;
    Held const old = t.children.find(attr.index, key);
    if (old.entity && (!present || old.entity != child.get())) {
      t.children.erase(attr.index, key);
      drop(old);
    }
    if (present && holdsShared(attr) && !writingRefs_) {
      // After every announcement of the frame, as references are: the
      // target may be an entity of the tree that the frame announces later.
      deferredMembers_.push_back({&t, &attr, key});
      return;
    }
    if (present && holdsShared(attr)) {
      writeSharedMember(out, t, attr, key, child.get());
      return;
    }
    if (present) {
      writeOwnedMember(out, t, attr, key, const_cast<Entity*>(child.get()));
      return;
    }
  } else {
    GenericValue v(*attr.type);
    present = type.attributeOp(v.get(), &e, &attr, attrOpMemberRead, k.get()) == attrDone;
    if (present) {
      at = openRecord(out, t.ref, id);
      out.bytes(key.data(), key.size());
      attr.type->ops()->logWrite(out, v.get());
    }
  }
  if (!present) {
    at = openRecord(out, t.ref, -id);
    out.bytes(key.data(), key.size());
  }
  closeRecord(out, at);
  ++records_;
}

// A member of a map of shared entities, present under `key`, written with
// the references.
void LogWriter::writeSharedMember(LogOut& out, Tracked& t, KelAttr const& attr,
                                  std::string_view key, Entity const* member) {
  std::size_t const at = openRecord(out, t.ref, static_cast<S32>(attr.logId));
  out.bytes(key.data(), key.size());
  Tracked* const fresh = writeShared(out, t, attr.index, key, *attr.type, member);
  closeRecord(out, at);
  ++records_;
  if (fresh) writeFresh(out, *fresh);
}

// A member of a collection of owned entities, present under `key`.
void LogWriter::writeOwnedMember(LogOut& out, Tracked& t, KelAttr const& attr, String const& key,
                                 Entity* c) {
  bool made = false;
  Tracked& ct = track(*c, made);
  bool const fresh = snapshotting_ || made;
  if (!fresh) {
    if (t.children.find(attr.index, key).entity == c) return;
  }
  t.children.put(attr.index, key, Held{c, false}, c);
  std::size_t const at = openRecord(out, t.ref, static_cast<S32>(attr.logId));
  out.bytes(key.data(), key.size());
  out.u32(ct.ref);
  writeCtorArgs(out, *attr.type, *c, false);
  closeRecord(out, at);
  ++records_;
  if (fresh) writeEntity(out, ct);
}

// The number the queue's next enqueue starts from, after its entries: a
// replica that saw the entries only (a snapshot, or changes that cancelled
// out within one frame) would not know it. A new, never used queue says
// nothing unless asked to. `knownEmpty`: the caller has just found the
// queue empty, so its size is not asked again.
void LogWriter::writeQueueNext(LogOut& out, Tracked& t, KelAttr const& attr, bool evenIfZero,
                               bool knownEmpty) {
  Entity& e = *t.entity;
  U32 next = 0;
  std::size_t size = 0;
  if (e.fwkType().attributeOp(&next, &e, &attr, attrOpNextSeq) != attrDone) return;
  if (!knownEmpty) e.fwkType().attributeOp(&size, &e, &attr, attrOpSize);
  if (!evenIfZero && next == 0 && size == 0) return;
  if (holdsShared(attr) && !writingRefs_) {
    // After the entries, which wait for the references.
    deferredMembers_.push_back({&t, &attr, {}, nullptr, true});
    return;
  }
  std::size_t const at = openRecord(out, t.ref, -static_cast<S32>(attr.logId));
  out.u32(next);
  out.u8(1);
  closeRecord(out, at);
  ++records_;
}

void LogWriter::writeEntity(LogOut& out, Tracked& t) {
  if (stream_) streamParts(out);
  TypeDesc const& type = t.entity->fwkType();
  std::vector<KelAttr const*> const& walk = attrs_.walk(type, t.adapted);
  // The children of the slots, and their places among the tracking
  // records, lie anywhere in a large heap: asked for now, they arrive while
  // the values below are written, and the records of the first few while
  // the children before them are.
  constexpr std::size_t kAsked = 8;
  std::array<Entity const*, kAsked> asked{};
  std::size_t children = 0;
  if (snapshotting_) {
    for (KelAttr const* attr : walk) {
      if (attr->kind != AttrKind::child) continue;
      Entity const* child = nullptr;
      type.attributeOp(&child, t.entity, attr, attrOpPeek);
      if (!child) continue;
      askForTracking(child);
      if (children < kAsked) asked[children++] = child;
    }
  }
  // The plain values first, through the type's typed dispatch, which takes
  // no generic value; the loop below skips them.
  if (t.adapted) {
    records_ += static_cast<U64>(t.adapter()->handleAnnounceValues(out, t.ref, *t.entity));
  }
  for (std::size_t i = 0; i < children; ++i) askForRecord(asked[i]);
  auto const visit = [&](KelAttr const& attr) {
    if (!isCollection(attr.kind)) {
      writeAttr(out, t, attr, true);
      return;
    }
    // Most collections of a large tree are empty: no iterator for those.
    std::size_t members = 1;
    bool const sized = type.attributeOp(&members, t.entity, &attr, attrOpSize) == attrDone;
    if (sized && members == 0) {
      if (attr.kind == AttrKind::queue) writeQueueNext(out, t, attr, false, true);
      return;
    }
    std::unique_ptr<GenericIter> it;
    if (type.attributeOp(&it, t.entity, &attr, attrOpIterate) != attrDone) return;
    if (attr.type->kind() == TypeKind::entity && snapshotting_ && !holdsShared(attr)) {
      // Owned members, straight from the walk: writing them changes nothing
      // in the collection.
      if (sized) t.children.reserve(members);
      // Two members behind the walk: the next member and its place among
      // the tracking records lie anywhere in a large heap. Its notifiees
      // are asked for while the member before the last is written, subtree
      // and all, and then its record while the last one is.
      struct Pending {
        Entity* member = nullptr;
        String key;
      };
      Pending older;  // its record asked for
      Pending last;   // its notifiees asked for
      for (; !it->done(); it->next()) {
        Entity* const next = const_cast<Entity*>(it->entity());
        askForTracking(next);
        if (last.member) askForRecord(last.member);
        if (older.member) writeOwnedMember(out, t, attr, older.key, older.member);
        std::swap(older, last);
        last.member = next;
        encodeInto(*attr.keyType, it->key(), last.key);
      }
      if (last.member) askForRecord(last.member);
      if (older.member) writeOwnedMember(out, t, attr, older.key, older.member);
      if (last.member) writeOwnedMember(out, t, attr, last.key, last.member);
      if (attr.kind == AttrKind::queue) writeQueueNext(out, t, attr, false);
      return;
    }
    if (attr.type->kind() == TypeKind::entity && snapshotting_) {
      // Shared members, noted as the walk meets them and written with the
      // references: nothing changes the tree before the snapshot ends.
      for (; !it->done(); it->next()) {
        deferredMembers_.push_back({&t, &attr, encode(*attr.keyType, it->key()), it->entity()});
      }
      if (attr.kind == AttrKind::queue) writeQueueNext(out, t, attr, false);
      return;
    }
    if (attr.type->kind() == TypeKind::entity) {
      // Children are tracked as they are written: go by key.
      std::vector<String> keys;
      for (; !it->done(); it->next()) keys.push_back(encode(*attr.keyType, it->key()));
      for (String const& key : keys) writeMember(out, t, attr, key);
      if (attr.kind == AttrKind::queue) writeQueueNext(out, t, attr, false);
      return;
    }
    // Values: straight from the walk, without looking each member up again.
    S32 const id = static_cast<S32>(attr.logId);
    bool const set = attr.kind == AttrKind::hashedSet;
    for (; !it->done(); it->next()) {
      std::size_t const at = openRecord(out, t.ref, id);
      attr.keyType->ops()->logWrite(out, it->key());
      if (!set) attr.type->ops()->logWrite(out, it->element());
      closeRecord(out, at);
      ++records_;
    }
    if (attr.kind == AttrKind::queue) writeQueueNext(out, t, attr, false);
  };
  for (KelAttr const* attr : walk) visit(*attr);
}

void LogWriter::writeRef(LogOut& out, Tracked& t, KelAttr const& attr, Entity const* target) {
  std::size_t const at = openRecord(out, t.ref, static_cast<S32>(attr.logId));
  Tracked* const fresh = writeShared(out, t, attr.index, {}, *attr.type, target);
  closeRecord(out, at);
  ++records_;
  if (fresh) writeFresh(out, *fresh);
}

void LogWriter::writeFresh(LogOut& out, Tracked& t) {
  if (snapshotting_) t.snapshotMark = snapshots_;
  writeEntity(out, t);
}

void LogWriter::writeDeferredRefs(LogOut& out) {
  writingRefs_ = true;
  // Writing a shared entity may defer more references: go on until none.
  std::size_t refs = 0;
  std::size_t members = 0;
  // A snapshot's references come after its whole walk, so their holders,
  // targets and tracking records are long out of the cache: ask for those
  // some entries ahead (both lines of a holder's record, whose holdings the
  // write reads).
  auto const ahead = [this](Tracked const* holder, Entity const* target) {
    __builtin_prefetch(holder);
    __builtin_prefetch(reinterpret_cast<char const*>(holder) + 64);
    if (target) askForTracking(target);
  };
  constexpr std::size_t kAhead = 8;
  while (refs < deferredRefs_.size() || members < deferredMembers_.size()) {
    for (; refs < deferredRefs_.size(); ++refs) {
      if (stream_) streamParts(out);
      if (refs + kAhead < deferredRefs_.size()) {
        DeferredRef const& next = deferredRefs_[refs + kAhead];
        ahead(next.holder, next.target);
      }
      DeferredRef const d = deferredRefs_[refs];
      if (!d.holder->dead) writeRef(out, *d.holder, *d.attr, d.target);
    }
    for (; members < deferredMembers_.size(); ++members) {
      if (stream_) streamParts(out);
      if (members + kAhead < deferredMembers_.size()) {
        DeferredMember const& next = deferredMembers_[members + kAhead];
        ahead(next.holder, next.member);
      }
      // Taken out, as writing may defer more members and move the rest.
      DeferredMember const m = std::move(deferredMembers_[members]);
      if (m.holder->dead) continue;
      if (m.queueNext) {
        writeQueueNext(out, *m.holder, *m.attr, true);
      } else if (m.member) {
        writeSharedMember(out, *m.holder, *m.attr, m.key, m.member);
      } else {
        writeMember(out, *m.holder, *m.attr, m.key);
      }
    }
  }
  writingRefs_ = false;
  deferredRefs_.clear();
  deferredMembers_.clear();
}

void logFrame(String& out, U8 kind, U64 seq, std::string_view payload) {
  std::size_t const start = out.size();
  LogOut o(out);
  o.u32(kMagic);
  o.u8(kind);
  o.u8(0);
  o.u16(0);
  o.u64(seq);
  o.u32(static_cast<U32>(payload.size()));
  o.u32(crc32(std::string_view(out).substr(start, 20)));
  o.bytes(payload.data(), payload.size());
  o.u32(crc32(payload));
}

// The snapshot a new subscriber receives goes out part by part while it is
// written, so that its replica applies one part while the next is made.
struct LogWriter::SnapshotStream {
  // Between two parts the sink is asked this often (bytes written) to pass
  // on what its descriptor would not take at once: a replica that applied
  // a part is fed the next at once instead of when another part is whole.
  static constexpr std::size_t kRetryBytes = 64u << 10;

  Subscriber subscriber;
  bool ok = true;
  U8 kind = frameSnapshot;
  std::size_t retryAt = kRetryBytes;  // the payload size of the next retry

  void retry() {
    if (ok && subscriber.sink->pending()) ok = subscriber.sink->flush();
  }

  void frame(std::string_view part) {
    bytes.clear();
    logFrame(bytes, kind, ++subscriber.seq, part);
    ok = ok && subscriber.sink->write(bytes);
    kind = frameSnapshotMore;
  }

  // The frame being sent, kept for the next, so that each 16 MiB part does
  // not take fresh memory.
  String bytes = String();
};

// Called between records: sends the whole parts written so far.
void LogWriter::streamParts(LogOut& out) {
  String& payload = out.buffer();
  if (payload.size() >= stream_->retryAt) {
    stream_->retry();
    stream_->retryAt = payload.size() + SnapshotStream::kRetryBytes;
  }
  std::size_t const part = snapshotPart();
  if (payload.size() <= part) return;
  std::size_t done = 0;
  while (payload.size() - done > part) {
    std::string_view const rest = std::string_view(payload).substr(done);
    std::size_t const cut = wholeRecordsWithin(rest, part);
    if (cut >= rest.size()) break;
    stream_->frame(rest.substr(0, cut));
    done += cut;
  }
  payload.erase(0, done);
  stream_->retryAt = payload.size() + SnapshotStream::kRetryBytes;
}

void LogWriter::subscriberNew(std::unique_ptr<LogSink> sink) {
  flush();  // the others get what is pending; the newcomer starts clean
  SnapshotStream stream{Subscriber{std::move(sink), 0}};
  String payload;
  LogOut out(payload);
  snapshotting_ = true;
  ++snapshots_;
  stream_ = &stream;
  writeEntity(out, *trackedOf(root_));
  writeDeferredRefs(out);
  stream_ = nullptr;
  snapshotting_ = false;
  graveyard_.clear();
  forEachPart(payload, snapshotPart(), stream.kind, frameSnapshotMore,
              [&](U8 kind, std::string_view part) {
                stream.kind = kind;
                stream.frame(part);
              });
  String bytes;
  logFrame(bytes, frameInSync, ++stream.subscriber.seq, {});
  if (stream.ok && stream.subscriber.sink->write(bytes))
    sinks_.push_back(std::move(stream.subscriber));
}

void LogWriter::subscriberDel(LogSink const* sink) {
  std::erase_if(sinks_, [sink](Subscriber const& s) { return s.sink.get() == sink; });
}

void LogWriter::flush() {
  if (!dirty_.empty() || !released_.empty()) {
    String& payload = payload_;
    payload.clear();
    LogOut out(payload);
    // Entities announced while writing join the end of the list.
    std::vector<U32> attrs;
    for (std::size_t i = 0; i < dirty_.size(); ++i) {
      // The tracking records lie all over the heap: ask for the ones ahead.
      // Both lines of a record: the flush reads its first 80 bytes.
      if (i + 16 < dirty_.size()) {
        __builtin_prefetch(dirty_[i + 16]);
        __builtin_prefetch(reinterpret_cast<char const*>(dirty_[i + 16]) + 64);
      }
      if (i + 8 < dirty_.size()) {
        // The entity's first two lines: a block's changed times often lie
        // past its first.
        __builtin_prefetch(dirty_[i + 8]->entity);
        __builtin_prefetch(reinterpret_cast<char const*>(dirty_[i + 8]->entity) + 64);
        __builtin_prefetch(dirty_[i + 8]->adapterRoom());
      }
      Tracked& t = *dirty_[i];
      t.queued = false;
      if (t.dead) continue;
      // In the order of their ids, as the records of an entity always go.
      t.takeDirty(attrs);
      auto const keys =
          t.rare ? std::exchange(t.rare->dirtyKeys, {}) : std::map<U32, std::set<String>>();
      TypeDesc const& type = t.entity->fwkType();
      for (U32 id : attrs) {
        int const written =
            t.adapted ? t.adapter()->handleAttrFlowOut(static_cast<S32>(id), out, t.ref, *t.entity)
                      : -1;
        KelAttr const& attr = *attrs_.find(type, id);
        if (written >= 0) {
          records_ += static_cast<U64>(written);
        } else {
          writeAttr(out, t, attr);
        }
        if (attr.kind == AttrKind::queue) writeQueueNext(out, t, attr, true);
      }
      for (auto const& [id, members] : keys) {
        KelAttr const& attr = *attrs_.find(type, id);
        for (String const& key : members) {
          if (t.dead) break;
          writeMember(out, t, attr, key);
        }
        if (attr.kind == AttrKind::queue && !t.dead) writeQueueNext(out, t, attr, true);
      }
    }
    dirty_.clear();
    writeDeferredRefs(out);
    // The references forgotten by this frame (or since the last one), last,
    // so that the records above could still name them.
    for (U32 ref : released_) {
      closeRecord(out, openRecord(out, ref, 0));
      ++records_;
    }
    released_.clear();
    graveyard_.clear();
    if (!payload.empty()) {
      for (Subscriber& s : sinks_) {
        forEachPart(payload, partBytes_, frameChanges, frameChanges,
                    [&](U8 kind, std::string_view part) {
                      frame_.clear();
                      logFrame(frame_, kind, ++s.seq, part);
                      if (s.sink && !s.sink->write(frame_)) s.sink.reset();
                    });
      }
    }
    // What one part needs stays; a larger flush's buffers go.
    for (String* kept : {&payload_, &frame_}) {
      if (kept->capacity() > partBytes_ + kHeader + kTrailer) String().swap(*kept);
    }
  }
  for (Subscriber& s : sinks_) {
    if (s.sink && !s.sink->flush()) s.sink.reset();
  }
  std::erase_if(sinks_, [](Subscriber const& s) { return !s.sink; });
}

bool LogWriter::pending() const {
  for (Subscriber const& s : sinks_) {
    if (s.sink->pending()) return true;
  }
  return false;
}

// ---- reader

namespace {

// Whether a record of `a` may go through its type's typed dispatch: plain
// values, and members of maps and sets of values.
bool typedInLog(KelAttr const& a) noexcept {
  return a.kind == AttrKind::plain || a.kind == AttrKind::hashedSet ||
         ((a.kind == AttrKind::hashedMap || a.kind == AttrKind::orderedMap) &&
          a.type->kind() != TypeKind::entity);
}

}  // namespace

struct LogReader::Decoded {
  U32 ref = 0;
  S32 id = 0;
  std::string_view raw;  // the record's value, in the frame's payload
  KelAttr const* attr = nullptr;
  bool del = false;
  bool release = false;      // the writer has forgotten `ref`
  std::string_view key;      // encoded, in the frame's payload
  std::string_view element;  // a queue entry's encoded element, after the key
  std::optional<GenericValue> keyValue;
  std::optional<GenericValue> value;
  U32 childRef = 0;
  bool fresh = false;                   // a shared entity announced by this record
  TypeDesc const* freshType = nullptr;  // and its type
  bool queueNext = false;               // the key is a queue's next number
  // Constructor arguments of a new entity, in place: a deque neither moves
  // them nor, cleared, gives back its first block.
  std::deque<GenericValue> args;
  String childName;  // a slot's child: its name at the source

  // Every field above back to its initial value, keeping the memory of the
  // lists: a frame decodes millions of records into one.
  void clear() noexcept {
    ref = 0;
    id = 0;
    // One by one: a chained assignment reads back what it just stored in
    // halves, which the processor cannot forward (a stall per record).
    raw = {};
    key = {};
    element = {};
    attr = nullptr;
    del = release = fresh = queueNext = false;
    keyValue.reset();
    value.reset();
    childRef = 0;
    freshType = nullptr;
    if (!args.empty()) args.clear();  // a deque's clear() costs even when empty
    childName.clear();
  }

  // The arguments as a creator takes them: null when there are none.
  [[nodiscard]] void const* const* argPointers() const {
    argAt.clear();
    for (GenericValue const& a : args) argAt.push_back(a.get());
    return argAt.empty() ? nullptr : argAt.data();
  }
  mutable std::vector<void const*> argAt;  // argPointers()'s, kept for the next
};

// What the first pass over a frame knows: the entities the frame announces
// and releases, and the numbers each queue it touches will hold, so that
// everything the replica could refuse is refused before anything is applied.
struct LogReader::Check {
  explicit Check(LogReader& reader)
      : announced(reader.announced_), announcedRefs(reader.announcedRefs_) {
    announced.arrayAtLeast(reader.refs_.denseBase(), reader.refs_.denseSize());
  }
  ~Check() {
    for (U32 ref : announcedRefs) (void)announced.take(ref);
    announcedRefs.clear();
  }
  Check(Check const&) = delete;
  Check& operator=(Check const&) = delete;
  void announce(U32 ref, TypeDesc const* type) {
    announced.set(ref, type);
    announcedRefs.push_back(ref);
  }

  bool snapshot = false;
  bool snapshotStart = false;  // names nothing but the root and what it announces
  LogRefTable<TypeDesc const*>& announced;
  std::vector<U32>& announcedRefs;
  HashTable<U32> released;
  LogRefMemo<TypeDesc const*> types;  // the last answers of the checking typeOf
  struct Entry {
    U32 seq;
    std::string_view element;  // as last written by this frame; empty: the replica's own
    bool fromFrame;
  };
  std::map<std::pair<U32, U32>, std::vector<Entry>> queues;  // by (reference, attribute index)
  // The queue the last record met: a queue's records come together.
  std::pair<U32, U32> lastQueueKey;
  std::vector<Entry>* lastQueue = nullptr;
};

namespace {

// Whether `e` hangs in the tree below `root`.
bool attached(Entity const* e, Entity const* root) noexcept {
  while (e && e != root) e = e->parent();
  return e != nullptr;
}

// Calls f(entity) for every entity that `e` holds a reference to: children,
// members of collections of entities and references.
template <class F>
void forEachHeld(Entity& e, F&& f) {
  TypeDesc const& type = e.fwkType();
  type.forEachAttr([&](KelAttr const& a) {
    if (a.kind == AttrKind::child || a.kind == AttrKind::ref) {
      Entity* held = nullptr;
      {
        Ptr<Entity const> p;
        if (type.attributeOp(&p, &e, &a, attrOpRead) == attrDone)
          held = const_cast<Entity*>(p.get());
      }
      if (held) f(held);
      return;
    }
    if (!isCollection(a.kind) || a.type->kind() != TypeKind::entity) return;
    std::unique_ptr<GenericIter> it;
    if (type.attributeOp(&it, &e, &a, attrOpIterate) != attrDone || !it) return;
    for (; !it->done(); it->next()) {
      if (Entity const* m = it->entity()) f(const_cast<Entity*>(m));
    }
  });
}

// Drops the references `e` holds that are not ownership: its reference
// attributes, its queues of entities and its shared maps.
void breakReferences(Entity& e) {
  TypeDesc const& type = e.fwkType();
  type.forEachAttr([&](KelAttr const& a) {
    if (a.kind == AttrKind::ref) {
      Ptr<Entity const> const none;
      type.attributeOp(nullptr, &e, &a, attrOpWrite, &none);
    } else if (isCollection(a.kind) && holdsShared(a)) {
      type.attributeOp(nullptr, &e, &a, attrOpDelAll);
    }
  });
}

// Whether the constructor arguments of `e` equal those a record carries.
bool sameCtorArgs(Entity const& e, TypeDesc const& declared, bool withKey,
                  std::deque<GenericValue> const& args) {
  std::size_t i = 0;
  for (U32 index : declared.ctorAttrs()) {
    if (!withKey && index == declared.keyAttr()) continue;
    KelAttr const& a = *declared.attr(index);
    GenericValue v(*a.type);
    e.fwkType().attributeOp(v.get(), const_cast<Entity*>(&e), &a, attrOpRead);
    if (i >= args.size() || !a.type->ops()->equal(v.get(), args[i].get())) return false;
    ++i;
  }
  return true;
}

}  // namespace

LogReader::LogReader(Entity& replica) : replica_(&replica) { reset(); }

LogReader::~LogReader() {
  // When nobody else holds the replica any more, cycles within its tree are
  // broken too; otherwise only among the entities it no longer holds.
  bool const replicaLetGo = replica_->references() == 1;
  std::vector<Ptr<Entity>> named = std::move(previous_);
  refs_.forEach([&](U32, Ptr<Entity>& e) { named.push_back(std::move(e)); });
  unnameAll();
  if (replicaLetGo) {
    for (auto& e : named) limbo_.push_back(std::move(e));
  } else {
    for (auto& e : named) forget(std::move(e));
  }
  named.clear();
  collect(replicaLetGo);
}

void LogReader::reset() {
  announced_.clear();
  reused_.clear();
  reusedWritten_.clear();
  pending_.clear();
  pending_.shrink_to_fit();
  expectedSeq_ = 1;
  inSync_ = false;
  snapshot_ = false;
  broken_ = false;
  seen_.clear();
  for (auto& e : previous_) forget(std::move(e));
  previous_.clear();
  std::vector<Ptr<Entity>> named;
  named.reserve(refs_.size());
  refs_.forEach([&](U32, Ptr<Entity>& e) {
    if (e.get() != replica_) named.push_back(std::move(e));
  });
  unnameAll();
  nameIs(1, replica_);
  for (auto& e : named) forget(std::move(e));
  if (!limbo_.empty()) collect(false);
}

void LogReader::bytesIs(std::string_view bytes) {
  if (broken_) throw LogException("The attribute log reader needs a new connection");
  pending_.append(bytes);
  std::size_t done = 0;
  try {
    for (;;) {
      std::string_view const rest = std::string_view(pending_).substr(done);
      if (rest.size() < kHeader) break;
      LogIn head(rest.substr(0, kHeader));
      if (head.u32() != kMagic) throw LogException("Bad frame in the attribute log");
      // The header's own checksum first, so that a garbled length is not
      // waited for.
      if (LogIn(rest.substr(20, 4)).u32() != crc32(rest.substr(0, 20))) {
        throw LogException("Bad checksum in the attribute log");
      }
      U8 const kind = head.u8();
      if (kind < frameChanges || kind > frameSnapshotMore || head.u8() != 0 || head.u16() != 0) {
        throw LogException("Bad frame in the attribute log");
      }
      U64 const seq = head.u64();
      U32 const length = head.u32();
      (void)head.u32();
      if (length > maxFrameBytes_ || length > kMaxPayload) {
        throw LogException("Attribute log frame of " + std::to_string(length) +
                           " bytes is over the limit of " +
                           std::to_string(std::min(maxFrameBytes_, kMaxPayload)) + " bytes");
      }
      if (rest.size() < kHeader + length + kTrailer) {
        // Room for the whole frame at once rather than by doubling.
        pending_.reserve(done + kHeader + length + kTrailer);
        break;
      }
      LogIn trailer(rest.substr(kHeader + length, kTrailer));
      if (trailer.u32() != crc32(rest.substr(kHeader, length))) {
        throw LogException("Bad checksum in the attribute log");
      }
      frameIs(kind, seq, LogIn(rest.substr(kHeader, length)));
      done += kHeader + length + kTrailer;
    }
  } catch (...) {
    broken_ = true;
    inSync_ = false;
    pending_.clear();
    pending_.shrink_to_fit();
    throw;
  }
  pending_.erase(0, done);
  if (pending_.empty() && pending_.capacity() > (1u << 20)) pending_.shrink_to_fit();
}

bool LogReader::readFrom(int fd) {
  char buf[65536];
  for (;;) {
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
      bytesIs(std::string_view(buf, static_cast<std::size_t>(n)));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return true;
    } else {
      inSync_ = false;
      return false;
    }
  }
}

void LogReader::frameIs(U8 kind, U64 seq, LogIn payload) {
  if (seq != expectedSeq_) {
    throw LogException("Gap in the attribute log: frame " + std::to_string(seq) + " where " +
                       std::to_string(expectedSeq_) + " was due");
  }
  if (kind == frameInSync) {
    if (!snapshot_ || !payload.atEnd()) throw LogException("Unexpected in-sync marker");
    ++expectedSeq_;
    ++frames_;
    sweep();
    settle();
    snapshot_ = false;
    inSync_ = true;
    return;
  }
  if (kind == frameChanges && !inSync_) {
    throw LogException("Changes before the snapshot in the attribute log");
  }
  if (kind == frameSnapshotMore && (!snapshot_ || inSync_)) {
    throw LogException("Snapshot part without its start in the attribute log");
  }
  bool const snapshot = kind == frameSnapshot || kind == frameSnapshotMore;

  // First pass: decode and check every record; nothing is applied.
  std::size_t count = 0;
  {
    Check check(*this);
    check.snapshot = snapshot;
    check.snapshotStart = kind == frameSnapshot;
    LogIn in = payload;
    try {
      Decoded d;
      while (!in.atEnd()) {
        d.clear();
        decode(in, d, &check);
        ++count;
      }
    } catch (RangeException const& e) {
      throw LogException(std::string("Bad value in the attribute log: ") + e.what());
    }
  }

  // Second pass: apply. The first pass refused everything the replica could.
  ++expectedSeq_;
  ++frames_;
  if (kind == frameSnapshot) {
    snapshot_ = true;
    inSync_ = false;
    for (auto& e : previous_) forget(std::move(e));
    previous_.clear();
    previous_.reserve(refs_.size());
    refs_.forEach([&](U32 ref, Ptr<Entity>& e) {
      if (ref != 1) previous_.push_back(std::move(e));
    });
    unnameAll();
    nameIs(1, replica_);
    seen_.clear();
    reused_.clear();
    reusedWritten_.clear();
    reusedWritten_[replica_];
  }
  // (entity, attribute) per record, for the transaction's end; entities the
  // frame releases are forgotten after it.
  // Only types whose transaction end settles something are followed.
  std::vector<std::pair<Ptr<Entity>, S32>> changed;
  std::vector<Ptr<Entity>> released;
  try {
    LogIn in = payload;
    Last last;
    Decoded d;
    while (!in.atEnd()) {
      d.clear();
      decode(in, d, nullptr, &last);
      if (d.release) {
        if (Ptr<Entity> known = refs_.take(d.ref)) released.push_back(std::move(known));
        last = Last{};
        continue;
      }
      if (!last.entity) throw LogException("Bad reference in the attribute log");
      Entity* const e = last.entity;
      apply(*e, d, last.reused);
      if (!e->fwkType().logTransactionSettles()) continue;
      auto const id = static_cast<S32>(d.attr->logId);
      if (changed.empty() || changed.back().first.get() != e || changed.back().second != id)
        changed.emplace_back(e, id);
    }
  } catch (LogException const&) {
    throw;
  } catch (std::exception const& e) {
    throw LogException(std::string("Attribute log record refused: ") + e.what());
  }
  // The frame is a transaction: each entity type hears its end, once per
  // attribute the frame changed, with the number of records.
  auto const before = [](auto const& x, auto const& y) {
    return std::make_pair(x.first.get(), x.second) < std::make_pair(y.first.get(), y.second);
  };
  std::stable_sort(changed.begin(), changed.end(), before);
  for (std::size_t i = 0; i < changed.size();) {
    std::size_t j = i + 1;
    while (j < changed.size() && !before(changed[i], changed[j])) ++j;
    if (auto const end = changed[i].first->fwkType().logTransaction()) {
      end(*changed[i].first, changed[i].second, kind, static_cast<U32>(j - i));
    }
    i = j;
  }
  changed.clear();
  for (Ptr<Entity>& e : released) forget(std::move(e));
  records_ += count;
}

// The indexes of `type`, made the first time the type is met.
LogAttrIndex::Table const& LogAttrIndex::make(TypeDesc const& type) {
  auto const [found, fresh] = tables_.try_emplace(&type);
  Table& table = found->second;
  if (fresh) {
    type.forEachAttr([&](KelAttr const& a) {
      if (a.logId == 0) return;
      table.walk.push_back(&a);
      if (!a.typedAnnounce) table.walkAdapted.push_back(&a);
      if (a.logId > kTableIds) return;
      if (table.byId.size() <= a.logId) table.byId.resize(a.logId + 1, nullptr);
      table.byId[a.logId] = &a;
    });
  }
  return table;
}

// Reads one record. With `check` (the first pass) it also checks the record
// against the replica's types, ranges, references and queues, and records
// what the record announces; without, it only decodes.
void LogReader::decode(LogIn& in, Decoded& d, Check* check, Last* last) {
  auto typeOf = [&](U32 ref) -> TypeDesc const* {
    if (check) {
      if (auto const* const known = check->types.find(ref)) return *known;
      TypeDesc const* type = nullptr;
      if (check->released.find(ref)) return nullptr;
      if (TypeDesc const* const a = check->announced.find(ref)) {
        type = a;
      } else if (ref == 1) {
        type = &replica_->fwkType();
      } else if (check->snapshotStart) {
        return nullptr;  // names nothing else yet
      } else if (Entity const* const named = namedBy(ref)) {
        type = &named->fwkType();
      }
      if (type) check->types.set(ref, type);
      return type;
    }
    if (last) {
      if (ref != last->ref || !last->entity) {
        Entity* const named = namedBy(ref);
        bool const reused = snapshot_ && named && reusedWritten_.contains(named);
        *last = Last{ref, named, named ? &named->fwkType() : nullptr, reused};
      }
      return last->type;
    }
    Entity const* const named = namedBy(ref);
    return named ? &named->fwkType() : nullptr;
  };
  LogIn value(nullptr, 0);
  // A new entity's constructor arguments (all, or all but its key).
  auto readArgs = [&](TypeDesc const& declared, bool withKey) {
    for (U32 index : declared.ctorAttrs()) {
      if (!withKey && index == declared.keyAttr()) continue;
      KelAttr const* arg = declared.attr(index);
      arg->type->ops()->logRead(value, d.args.emplace_back(*arg->type).get());
    }
  };
  // A reference to a shared entity: known already, or announced here.
  auto readShared = [&](TypeDesc const& declared) {
    d.childRef = value.u32();
    U8 const fresh = value.u8();
    if (fresh > 2 || (fresh && d.childRef == 0))
      throw LogException("Bad reference in the attribute log");
    d.fresh = fresh != 0;
    if (d.fresh) {
      d.freshType = &declared;
      if (fresh == 2) {
        String name;
        kelLogRead(value, &name);
        d.freshType = declared.selfOrDerived(name);
        if (!d.freshType) {
          throw LogException("Unknown type " + excerpt(name) + " for " + String(declared.name()) +
                             " in the attribute log");
        }
      }
      if (!d.freshType->createWithArgs()) throw LogException("Bad reference in the attribute log");
      readArgs(*d.freshType, true);
    } else if (check && d.childRef != 0) {
      TypeDesc const* target = typeOf(d.childRef);
      if (!target || !target->isA(declared))
        throw LogException("Bad reference in the attribute log");
    }
  };

  d.ref = in.u32();
  S32 const id = static_cast<S32>(in.u32());
  U32 const length = in.u32();
  U8 const* const rawAt = in.bytes(length);
  value = LogIn(rawAt, length);
  d.id = id;
  // Kept in registers for the copies below: reading d.raw back just after
  // storing it stalls, as above.
  std::string_view const raw(reinterpret_cast<char const*>(rawAt), length);
  d.raw = raw;
  if (id == 0) {
    // The writer has forgotten this reference: no value. Forgetting one the
    // reader does not know changes nothing.
    d.release = true;
    if (check) {
      if (length != 0) throw LogException("Bad record length in the attribute log");
      if (d.ref == 1) throw LogException("The root of the attribute log cannot be released");
      check->announced.take(d.ref);
      check->released.insert(d.ref);
      check->types.forget(d.ref);
    }
    return;
  }
  TypeDesc const* type = typeOf(d.ref);
  if (!type)
    throw LogException("Unknown entity " + std::to_string(d.ref) + " in the attribute log");
  d.del = id < 0;
  U32 const logId = static_cast<U32>(d.del ? -static_cast<S64>(id) : id);
  d.attr = attrs_.find(*type, logId);
  if (!d.attr) {
    throw LogException("Unknown attribute " + std::to_string(id) + " of " + String(type->name()));
  }
  KelAttr const& a = *d.attr;
  if (check && typedInLog(a) && type->logCheck() && type->logCheck()(id, value)) {
    // Checked by the type's typed dispatch, without generic values: a plain
    // value or a member of a collection of values announces nothing.
    if (!value.atEnd()) throw LogException("Bad record length in the attribute log");
    return;
  }
  bool const entities = a.type->kind() == TypeKind::entity;
  // The apply pass leaves the values that the type's typed dispatch reads
  // from the record itself (the first pass has checked them).
  bool const typedLater = !check && !d.del && type->logDeserialize() && typedInLog(a);
  if (isCollection(a.kind)) {
    U8 const* const keyAt = value.position();
    d.keyValue.emplace(*a.keyType);
    a.keyType->ops()->logRead(value, d.keyValue->get());
    d.key = std::string_view(reinterpret_cast<char const*>(keyAt),
                             static_cast<std::size_t>(value.position() - keyAt));
    d.element =
        std::string_view(reinterpret_cast<char const*>(value.position()), value.remaining());
    if (d.del && a.kind == AttrKind::queue && !value.atEnd()) {
      // A deletion's form with a trailing 1: the queue's next number.
      if (value.u8() != 1) throw LogException("Bad record length in the attribute log");
      d.queueNext = true;
    }
    if (!d.del) {
      if (holdsShared(a)) {
        readShared(*a.type);
      } else if (entities) {
        d.childRef = value.u32();
        readArgs(*a.type, false);
      } else if (typedLater) {
        (void)value.bytes(value.remaining());
      } else if (a.kind != AttrKind::hashedSet) {
        d.value.emplace(*a.type);
        a.type->ops()->logRead(value, d.value->get());
      }
    }
  } else if (a.kind == AttrKind::plain && !d.del) {
    d.element = raw;
    if (typedLater) {
      (void)value.bytes(value.remaining());
    } else {
      d.value.emplace(*a.type);
      a.type->ops()->logRead(value, d.value->get());
    }
    if (check) type->attributeOp(nullptr, nullptr, &a, attrOpCheck, d.value->get());
  } else if (a.kind == AttrKind::child && !d.del) {
    d.childRef = value.u32();
    readArgs(*a.type, true);
    kelLogRead(value, &d.childName);
  } else if (a.kind == AttrKind::ref && !d.del) {
    readShared(*a.type);
  } else if (!(a.kind == AttrKind::child && d.del)) {
    throw LogException("Attribute " + String(a.name) + " cannot be written from the attribute log");
  }
  if (!value.atEnd()) throw LogException("Bad record length in the attribute log");
  if (!check) return;

  bool const shared = holdsShared(a);
  // A shared map and a queue of entities hold no null (a reference may be
  // null): refused here, before the apply pass takes out the entry it
  // would replace.
  if (shared && a.kind != AttrKind::ref && !d.del && d.childRef == 0)
    throw LogException("Bad reference in the attribute log");
  if (a.kind == AttrKind::queue) checkQueue(*check, d);
  bool const child = a.kind == AttrKind::child || (entities && !shared);
  if (child && !d.del && d.childRef < 2) throw LogException("Bad reference in the attribute log");
  if (d.childRef != 0 && (!shared || d.fresh)) {
    // A new entity: its reference must be new to the stream (a snapshot
    // names the tree's entities again).
    bool const known =
        d.childRef == 1 || check->announced.find(d.childRef) ||
        (!check->snapshot && namedBy(d.childRef) && !check->released.find(d.childRef));
    if (known) throw LogException("Entity announced twice in the attribute log");
    check->released.erase(d.childRef);
    TypeDesc const* const announcedType = d.freshType ? d.freshType : a.type;
    check->announce(d.childRef, announcedType);
    check->types.set(d.childRef, announcedType);
  }
}

// Follows, record by record, the numbers a queue will hold, so that an entry
// the queue would refuse (not after its tail, and not equal to the entry
// already under its number) refuses the whole frame.
void LogReader::checkQueue(Check& check, Decoded const& d) {
  KelAttr const& a = *d.attr;
  bool const entities = a.type->kind() == TypeKind::entity;
  auto const queueKey = std::make_pair(d.ref, a.index);
  bool first = false;
  if (!check.lastQueue || check.lastQueueKey != queueKey) {
    auto const [where, made] = check.queues.try_emplace(queueKey);
    check.lastQueueKey = queueKey;
    check.lastQueue = &where->second;
    first = made;
  }
  std::vector<Check::Entry>& q = *check.lastQueue;
  Entity* const e = [&]() -> Entity* {
    if (check.snapshot || check.announced.find(d.ref)) return nullptr;  // starts empty
    return namedBy(d.ref);
  }();
  if (first && e) {
    std::unique_ptr<GenericIter> it;
    if (e->fwkType().attributeOp(&it, e, &a, attrOpIterate) == attrDone && it) {
      for (; !it->done(); it->next()) q.push_back({*static_cast<U32 const*>(it->key()), {}, false});
    }
  }
  U32 const seq = *static_cast<U32 const*>(d.keyValue->get());
  // Entries lie within 2^31 of the head, in increasing distance from it.
  std::size_t found = q.size();
  if (!q.empty()) {
    U32 const base = q.front().seq;
    U32 const at = seq - base;
    if (at <= q.back().seq - base) {
      auto const pos =
          std::lower_bound(q.begin(), q.end(), at,
                           [base](Check::Entry const& x, U32 v) { return x.seq - base < v; });
      if (pos != q.end() && pos->seq == seq) found = static_cast<std::size_t>(pos - q.begin());
    }
  }
  auto refuse = [&] {
    throw LogException("Attribute log record for " + String(a.name) + " refused");
  };
  if (d.queueNext) {
    // As Queue::nextSeqRestore: any number for an empty queue, else the
    // tail's or one after it within 2^31 of the head's.
    if (!q.empty() && seq != q.back().seq &&
        !(seq - q.front().seq > q.back().seq - q.front().seq &&
          seq - q.front().seq < 0x80000000u)) {
      refuse();
    }
    return;
  }
  if (d.del) {
    if (found < q.size()) q.erase(q.begin() + static_cast<std::ptrdiff_t>(found));
    return;
  }
  if (found < q.size()) {
    Check::Entry& entry = q[found];
    bool same = false;
    if (entities) {
      // Only a known entity, named by both, is the same.
      if (!d.fresh) {
        if (entry.fromFrame) {
          LogIn prior(entry.element);
          U32 const priorRef = prior.u32();
          same = prior.u8() == 0 && priorRef == d.childRef;
        } else {
          Ptr<Entity const> existing;
          e->fwkType().attributeOp(&existing, e, &a, attrOpMemberRead, &seq);
          Entity const* const named = namedBy(d.childRef);
          same = d.childRef == 0
                     ? !existing
                     : (!check.announced.find(d.childRef) && named && existing.get() == named);
        }
      }
    } else {
      GenericValue prior(*a.type);
      if (entry.fromFrame) {
        LogIn in(entry.element);
        a.type->ops()->logRead(in, prior.get());
      } else {
        e->fwkType().attributeOp(prior.get(), e, &a, attrOpMemberRead, &seq);
      }
      same = a.type->ops()->equal(prior.get(), d.value->get());
    }
    if (same) return;
    if (found + 1 != q.size()) refuse();  // only the tail can be replaced
    entry.element = d.element;
    entry.fromFrame = true;
    return;
  }
  if (!q.empty()) {
    U32 const at = seq - q.front().seq;
    if (at <= q.back().seq - q.front().seq || at >= 0x80000000u) refuse();
  }
  q.push_back({seq, d.element, true});
}

void LogReader::apply(Entity& entity, Decoded& d, bool reused) {
  Entity* const e = &entity;
  TypeDesc const& type = e->fwkType();
  KelAttr const& a = *d.attr;
  auto refuse = [&] {
    throw LogException("Attribute log record for " + String(a.name) + " refused");
  };
  // Of an entity from before the snapshot, the members it names are noted
  // for sweep(), and a queue starts again at its first record (a queue's
  // next number may be all a snapshot says of it: a queue used and
  // emptied). An entity the snapshot made holds only what it names.
  if (reused && isCollection(a.kind) && (!d.del || d.queueNext)) {
    auto [named, first] = seen_.try_emplace(SeenKey{e, a.index});
    if (first) {
      std::size_t size = 0;
      if (a.kind == AttrKind::queue) {
        // A queue starts again: entries cannot be replaced in the middle of a
        // queue, and the copies of shared entities it holds are not the ones
        // the snapshot announces.
        type.attributeOp(nullptr, e, &a, attrOpDelAll);
      } else {
        type.attributeOp(&size, e, &a, attrOpSize);
      }
      // Members of a collection that was empty when the snapshot reached it
      // all come from the snapshot: no need to remember their keys.
      named->second.wasEmpty = size == 0;
    }
    if (!named->second.wasEmpty) named->second.keys.emplace(d.key);
  }
  if (reused &&
      (a.kind == AttrKind::plain || a.kind == AttrKind::child || a.kind == AttrKind::ref)) {
    reusedWritten_.find(e)->second.push_back(a.index);
  }
  // Plain values and members of maps and sets of values go through the
  // type's own typed dispatch when it has one.
  if (typedInLog(a) && type.logDeserialize()) {
    LogIn in(d.raw);
    if (type.logDeserialize()(*e, d.id, in)) return;
    if (!d.del && !d.value && a.kind != AttrKind::hashedSet) {
      // The decoding left the value to the typed dispatch, which declined.
      LogIn rest(d.element);
      d.value.emplace(*a.type);
      a.type->ops()->logRead(rest, d.value->get());
    }
  }
  switch (a.kind) {
    case AttrKind::plain: type.attributeOp(nullptr, e, &a, attrOpWrite, d.value->get()); return;
    case AttrKind::child: applyChild(*e, d); return;
    case AttrKind::ref: {
      Ptr<Entity const> const target = shared(d);
      if (type.attributeOp(nullptr, e, &a, attrOpWrite, &target) != attrDone) refuse();
      return;
    }
    case AttrKind::queue: {
      bool was = false;
      if (d.queueNext) {
        if (type.attributeOp(nullptr, e, &a, attrOpNextSeqIs, d.keyValue->get()) != attrDone)
          refuse();
        return;
      }
      if (d.del) {
        type.attributeOp(&was, e, &a, attrOpMemberDel, d.keyValue->get());
        return;
      }
      if (a.type->kind() == TypeKind::entity) {
        Ptr<Entity const> const entry = shared(d);
        Ptr<Entity const> existing;
        if (type.attributeOp(&existing, e, &a, attrOpMemberRead, d.keyValue->get()) == attrDone) {
          if (existing == entry) return;
          type.attributeOp(&was, e, &a, attrOpMemberDel, d.keyValue->get());
        }
        if (type.attributeOp(nullptr, e, &a, attrOpEnqAt, d.keyValue->get(), &entry) != attrDone) {
          refuse();
        }
        return;
      }
      GenericValue existing(*a.type);
      if (type.attributeOp(existing.get(), e, &a, attrOpMemberRead, d.keyValue->get()) ==
          attrDone) {
        if (a.type->ops()->equal(existing.get(), d.value->get())) return;
        type.attributeOp(&was, e, &a, attrOpMemberDel, d.keyValue->get());
      }
      if (type.attributeOp(nullptr, e, &a, attrOpEnqAt, d.keyValue->get(), d.value->get()) !=
          attrDone)
        refuse();
      return;
    }
    default: break;
  }
  if (d.del) {
    bool was = false;
    type.attributeOp(&was, e, &a, attrOpMemberDel, d.keyValue->get());
    return;
  }
  if (a.shared) {
    Ptr<Entity const> const target = shared(d);
    if (!target ||
        type.attributeOp(nullptr, e, &a, attrOpMemberWrite, d.keyValue->get(), &target) != attrDone)
      refuse();
    return;
  }
  if (d.childRef != 0) {
    applyChild(*e, d);
    return;
  }
  void const* value = d.value ? d.value->get() : nullptr;
  if (type.attributeOp(nullptr, e, &a, attrOpMemberWrite, d.keyValue->get(), value) != attrDone)
    refuse();
}

// A child announced in a slot or a map of entities. A change frame announces
// a new entity, which replaces the one there; a snapshot keeps the one there
// when its constructor arguments agree, so that unchanged state notifies
// nobody.
void LogReader::applyChild(Entity& e, Decoded& d) {
  TypeDesc const& type = e.fwkType();
  KelAttr const& a = *d.attr;
  bool const slot = a.kind == AttrKind::child;
  auto refuse = [&] {
    throw LogException("Attribute log record for " + String(a.name) + " refused");
  };
  if (slot && d.del) {
    type.attributeOp(nullptr, &e, &a, attrOpDelAll);
    return;
  }
  Ptr<Entity const> existing;
  int const there = slot ? type.attributeOp(&existing, &e, &a, attrOpRead)
                         : type.attributeOp(&existing, &e, &a, attrOpMemberRead, d.keyValue->get());
  bool const kept =
      there == attrDone && existing && snapshot_ && sameCtorArgs(*existing, *a.type, slot, d.args);
  // An entity from before the snapshot: its members may need sweeping.
  if (kept) {
    reused_.push_back(ptrConstCast(existing));
    reusedWritten_[existing.get()];
  }
  if (there == attrDone && existing && !kept) {
    bool was = false;
    if (slot) {
      type.attributeOp(nullptr, &e, &a, attrOpDelAll);
    } else {
      type.attributeOp(&was, &e, &a, attrOpMemberDel, d.keyValue->get());
    }
  }
  existing = nullptr;
  void const* const* const packed = d.argPointers();
  Ptr<Entity> child;
  if (slot) {
    if (type.attributeOp(&child, &e, &a, attrOpCreate, packed) != attrDone || !child) refuse();
    if (child->name() != d.childName) child->nameIsFromBackup(d.childName);
  } else {
    Ptr<Entity const> made;
    if (type.attributeOp(&made, &e, &a, attrOpMemberWrite, d.keyValue->get(), packed) != attrDone ||
        !made)
      refuse();
    child = ptrConstCast(made);
  }
  nameIs(d.childRef, std::move(child));
}

// The shared entity a record refers to, made first when the record announces it.
Ptr<Entity const> LogReader::shared(Decoded const& d) {
  if (d.childRef == 0) return nullptr;
  if (d.fresh) {
    Ptr<Entity> made = d.freshType->createWithArgs()(d.argPointers());
    nameIs(d.childRef, made);
    return made;
  }
  Entity* const named = namedBy(d.childRef);
  if (!named) throw LogException("Bad reference in the attribute log");
  return Ptr<Entity const>(named);
}

// An entity the stream no longer names. Freed at once when the reader held
// the last reference; otherwise the replica (or a cycle) still holds it, and
// it waits among the held entities for collect().
void LogReader::forget(Ptr<Entity> e) {
  if (!e || e.get() == replica_) return;
  if (e->references() == 1) return;         // freed here
  if (attached(e.get(), replica_)) return;  // the replica's tree holds it
  limbo_.push_back(std::move(e));
  if (limbo_.size() >= collectAt_) {
    collect(false);
    collectAt_ = std::max<std::size_t>(64, 2 * limbo_.size());
  }
}

// Breaks the cycles of references among the held entities that nothing
// outside them holds any more, so that they are freed. Every entity held
// (directly or through what it holds) is counted with the references that
// come from within that set; one with more references than that is held
// from outside, and so is everything it reaches. The others are garbage:
// their references are dropped. Entities of the replica's tree count as
// outside unless `everything` (the reader's end, when the replica may have
// been let go too).
void LogReader::collect(bool everything) {
  if (limbo_.empty()) return;
  // The graph of what the held entities hold: nodes by number, found by
  // entity in the library's hash table; each node's edges lie together in
  // one array, since a node is walked once.
  struct Node {
    Entity* entity;
    U32 internal = 0;
    U32 edgesBegin = 0;
    U32 edgesEnd = 0;
    bool live = false;
    bool walked = false;
    bool kept = false;
  };
  std::vector<Node> nodes;
  HashTable<Entity*, U32> numbers;
  auto const nodeOf = [&](Entity* e) {
    auto const [number, fresh] = numbers.insert(e);
    if (fresh) {
      *number = static_cast<U32>(nodes.size());
      nodes.push_back(Node{e});
    }
    return *number;
  };
  std::vector<U32> edges;
  bool const rootOutside = !everything;
  std::vector<U32> stack;
  for (Ptr<Entity> const& held : limbo_) {
    U32 const n = nodeOf(held.get());
    ++nodes[n].internal;
    stack.push_back(n);
  }
  while (!stack.empty()) {
    U32 const n = stack.back();
    stack.pop_back();
    if (nodes[n].walked) continue;
    nodes[n].walked = true;
    nodes[n].edgesBegin = static_cast<U32>(edges.size());
    forEachHeld(*nodes[n].entity, [&](Entity* target) {
      if (rootOutside && attached(target, replica_)) return;
      U32 const t = nodeOf(target);
      ++nodes[t].internal;
      edges.push_back(t);
      stack.push_back(t);
    });
    nodes[n].edgesEnd = static_cast<U32>(edges.size());
  }
  for (U32 n = 0; n < nodes.size(); ++n) {
    if (nodes[n].entity->references() > nodes[n].internal) stack.push_back(n);
  }
  while (!stack.empty()) {
    Node& node = nodes[stack.back()];
    stack.pop_back();
    if (node.live) continue;
    node.live = true;
    stack.insert(stack.end(), edges.begin() + node.edgesBegin, edges.begin() + node.edgesEnd);
  }
  std::vector<Ptr<Entity>> garbage;
  for (Node const& node : nodes) {
    if (!node.live) garbage.emplace_back(node.entity);
  }
  // Held entities stay while something outside holds them and they are not
  // in the replica's tree (which holds them for good).
  std::vector<Ptr<Entity>> keep;
  for (Ptr<Entity>& held : limbo_) {
    Node& node = nodes[nodeOf(held.get())];  // numbered already
    if (node.live && !node.kept && !attached(held.get(), replica_)) {
      node.kept = true;
      keep.push_back(std::move(held));
    }
  }
  limbo_.swap(keep);
  keep.clear();
  for (Ptr<Entity> const& g : garbage) breakReferences(*g);
}

// At the end of a snapshot: the entities named before it and not again are
// forgotten.
void LogReader::settle() {
  reused_.clear();
  reusedWritten_.clear();
  // A replica that held nothing before the snapshot has nothing to forget.
  if (!previous_.empty()) {
    std::unordered_set<Entity const*> named;
    named.reserve(refs_.size());
    refs_.forEach([&](U32, Ptr<Entity>& e) { named.insert(e.get()); });
    std::vector<Ptr<Entity>> previous = std::move(previous_);
    previous_.clear();
    for (Ptr<Entity>& e : previous) {
      if (!named.count(e.get())) forget(std::move(e));
    }
    previous.clear();
  }
  if (!limbo_.empty()) collect(false);
}

// After a snapshot: puts back what a new entity holds in every plain
// value, child slot and reference that the snapshot did not write, and
// removes every member that it did not name. Only the entities that lived
// before the snapshot can hold anything else: the root and those the
// snapshot kept; the others it made anew.
void LogReader::sweep() {
  reused_.push_back(replica_);
  for (Ptr<Entity> const& kept : reused_) {
    Entity* const entity = kept.get();
    TypeDesc const& type = entity->fwkType();
    if (auto const found = reusedWritten_.find(entity); found != reusedWritten_.end()) {
      std::vector<U32>& written = found->second;
      std::sort(written.begin(), written.end());
      type.forEachAttr([&](KelAttr const& a) {
        if (a.logId == 0 || std::binary_search(written.begin(), written.end(), a.index)) return;
        if (a.kind == AttrKind::plain) {
          bool isDefault = true;
          type.attributeOp(&isDefault, entity, &a, attrOpIsDefault);
          if (!isDefault) type.attributeOp(nullptr, entity, &a, attrOpDefaultIs);
        } else if (a.kind == AttrKind::child || a.kind == AttrKind::ref) {
          // Emptied or cleared. What it held, no longer named, is forgotten
          // with the snapshot's other leftovers.
          Ptr<Entity const> held;
          type.attributeOp(&held, entity, &a, attrOpRead);
          if (!held) return;
          if (a.kind == AttrKind::child) {
            type.attributeOp(nullptr, entity, &a, attrOpDelAll);
          } else {
            Ptr<Entity const> const none;
            type.attributeOp(nullptr, entity, &a, attrOpWrite, &none);
          }
        }
      });
      reusedWritten_.erase(found);  // once, though the root may be listed twice
    }
    type.forEachAttr([&](KelAttr const& a) {
      if (!isCollection(a.kind) || a.logId == 0) return;
      auto const named = seen_.find({entity, a.index});
      if (named != seen_.end() && named->second.wasEmpty) return;
      std::size_t size = 0;
      type.attributeOp(&size, entity, &a, attrOpSize);
      if (size == 0 || (named != seen_.end() && named->second.keys.size() == size)) return;
      std::unique_ptr<GenericIter> it;
      if (type.attributeOp(&it, entity, &a, attrOpIterate) != attrDone) return;
      while (!it->done()) {
        if (named != seen_.end() && named->second.keys.count(encode(*a.keyType, it->key()))) {
          it->next();
        } else {
          // A member the snapshot left out may hold itself or its holders
          // in a cycle the stream made: once out of the tree, it is
          // forgotten as a released entity is, and collected if nothing
          // else holds it.
          Ptr<Entity> const gone(const_cast<Entity*>(it->entity()));
          it->delCurrent();
          forget(gone);
        }
      }
    });
  }
  seen_.clear();
}

}  // namespace Kel
