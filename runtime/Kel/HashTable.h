// The hash table behind every hashed collection of the model.
//
// Order. A key goes to the bucket given by the top bits of its bit-reversed
// 32-bit hash(): with 2^b buckets, bucket = bitReverse32(hash) >> (32 - b).
// Keys are kept sorted by the reversed hash (equal hashes in insertion
// order), so iteration visits keys in ascending reversed-hash order whatever
// the table's size or history: two tables holding the same keys iterate
// alike, and the keys of one bucket are always a contiguous run.
//
// Layout. The sorted sequence lives in an array of 8-byte slots, each the
// key's reversed hash and the number of its node; a slot array of 1.5 * 2^b
// slots plus a short overflow tail. A key's home slot is
// (reversedHash * slotCount) >> 32, which grows with the reversed hash, so
// linear probing that keeps the slots sorted (an ordered Robin Hood table)
// puts every key at or after its home with no empty slot in between, and the
// whole layout depends on the keys and the size only. A lookup starts at the
// home slot, skips smaller reversed hashes and stops at the first greater
// one or an empty slot: a miss reads one run of slots and no node (a long
// run, which a table filled in another's order makes, is crossed by
// galloping: see seek()). Insertion
// shifts the run after its place up by one slot; erasure shifts the
// displaced slots after it back down (no tombstones). Growth and the
// overflow tail re-place the slots in one ordered pass and never hash a key.
//
// Nodes (reversed hash, key, value) are allocated from chunks of up to 1024
// nodes and never move: pointers to keys and values stay valid until their
// key is erased or the table is cleared. Erased nodes are reused. A table of
// entities that hold their own key (KeyOfEntity) keeps no copy of the key in
// the node: the node's entity answers it, so the entity must stay in the node
// while the key is in the table (taking it out just before erasing is fine:
// erasure never reads keys).
//
// Growth policy: the first insertion makes 8 buckets (12 slots); the buckets
// double when the table would hold more keys than buckets, so at most two
// thirds of the slots are ever used. Erasing never shrinks the table;
// clear() frees everything.
//
// Iterators stand on a node. While one stands on key k, other keys may be
// inserted and erased and the table may grow: the next ++ moves to the key
// that follows k in iteration order among the keys present at that moment.
// So every key present throughout the walk is visited once, in order; a key
// erased before the walk reaches it is not visited, a key inserted after k's
// place is, one inserted before it is not. The key an iterator stands on may
// be erased only through erase(Iterator&), which steps the iterator on;
// erasing it otherwise, or clear(), leaves the iterator unusable.
//
// K needs `U32 hash() const` (or a KeyTraits specialisation) and operator==.
#ifndef KEL_HASHTABLE_H
#define KEL_HASHTABLE_H

#include <Kel/Hash.h>
#include <Kel/Types.h>

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Kel {

// How a key type is hashed; specialise for keys without a hash() member.
template <class K>
struct KeyTraits {
  static U32 hash(K const& k) noexcept { return k.hash(); }
};
template <>
struct KeyTraits<U32> {
  static U32 hash(U32 k) noexcept {
    OneAtATime h;
    h.addU32(k);
    return h.finish();
  }
};
template <>
struct KeyTraits<U64> {
  static U32 hash(U64 k) noexcept {
    OneAtATime h;
    h.addU64(k);
    return h.finish();
  }
};

// A pointer hashes by its address, mixed so that the low bits, which
// choose the bucket, depend on every bit. For the library's own tables: no
// key of the model is a pointer.
template <class T>
struct KeyTraits<T*> {
  static U32 hash(T* p) noexcept {
    U64 x = reinterpret_cast<std::uintptr_t>(p);
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    x *= 0xc4ceb9fe1a85ec53ULL;
    x ^= x >> 33;
    return static_cast<U32>(x);
  }
};

// An enumeration hashes as its number.
template <class K>
requires std::is_enum_v<K>
struct KeyTraits<K> {
  static U32 hash(K k) noexcept { return KeyTraits<U32>::hash(static_cast<U32>(k)); }
};

// The value of a set: nothing.
struct NoValue {
  bool operator==(NoValue const&) const noexcept { return true; }
};

// Where a node finds its key: a copy in the node (KeyInNode), or the entity
// the node points at, through its kelKey() (KeyOfEntity).
struct KeyInNode {};
struct KeyOfEntity {};

namespace hash_internal {

template <class K, class V, class KeyOf>
struct Node {
  U32 rhash;  // the bit-reversed hash
  K key;
  [[no_unique_address]] V value;
  [[nodiscard]] K const& keyOf() const noexcept { return key; }
};

template <class K, class V>
struct Node<K, V, KeyOfEntity> {
  U32 rhash;
  V value;
  [[nodiscard]] K const& keyOf() const noexcept { return value->kelKey(); }
};

}  // namespace hash_internal

template <class K, class V = NoValue, class KeyOf = KeyInNode>
class HashTable {
 public:
  using Node = hash_internal::Node<K, V, KeyOf>;

 private:
  // One place of the sorted sequence: a node number, 0 when empty.
  struct Slot {
    U32 rhash;
    U32 node;
  };

 public:
  class Iterator {
   public:
    Iterator() = default;
    [[nodiscard]] Node* node() const noexcept { return node_; }
    [[nodiscard]] K const& key() const noexcept { return node_->keyOf(); }
    [[nodiscard]] V& value() const noexcept { return node_->value; }
    [[nodiscard]] bool done() const noexcept { return node_ == nullptr; }
    Iterator& operator++() noexcept {
      table_->advance(*this);
      return *this;
    }
    bool operator==(Iterator const& o) const noexcept { return node_ == o.node_; }
    Node& operator*() const noexcept { return *node_; }
    Node* operator->() const noexcept { return node_; }

   private:
    friend class HashTable;
    HashTable const* table_ = nullptr;
    Node* node_ = nullptr;
    U32 id_ = 0;     // node_'s number
    U32 slot_ = 0;   // where node_ was last seen; checked before use
    U32 seen_ = 0;   // the table's change count when `ahead_` was read
    U64 ahead_ = 0;  // bit k: slot slot_ + 1 + k is used, unless the table changed
  };

  HashTable() = default;
  HashTable(HashTable const&) = delete;
  HashTable& operator=(HashTable const&) = delete;
  ~HashTable() { clear(); }

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
  // 2^b, the number of buckets that order the keys (see above); 0 before the
  // first insertion.
  [[nodiscard]] std::size_t bucketCount() const noexcept {
    return slots_ ? std::size_t{1} << bits_ : 0;
  }

  // The bit-reversed hash of `key`: computed once, it serves findHashed()
  // and insertHashed() on one road.
  [[nodiscard]] static U32 reversedHash(K const& key) noexcept {
    return bitReverse32(KeyTraits<K>::hash(key));
  }

  // The value stored under `key`, or null.
  [[nodiscard]] V* find(K const& key) const noexcept { return findHashed(reversedHash(key), key); }
  // The same given reversedHash(key).
  [[nodiscard]] V* findHashed(U32 rh, K const& key) const noexcept {
    if (!slots_) return nullptr;
    for (Slot const* s = slots_.get() + seek(home(rh), rh); s->rhash == rh && isNode(s->node);
         ++s) {
      Node* const n = nodeAt(s->node);
      if (n->keyOf() == key) return &n->value;
    }
    return nullptr;
  }

  // An iterator standing on `key`, done when it is absent.
  [[nodiscard]] Iterator locate(K const& key) const noexcept {
    Iterator it;
    it.table_ = this;
    if (!slots_) return it;
    U32 const rh = reversedHash(key);
    for (U32 i = seek(home(rh), rh); slots_[i].rhash == rh && isNode(slots_[i].node); ++i) {
      Node* const n = nodeAt(slots_[i].node);
      if (n->keyOf() == key) {
        standOn(it, i);
        return it;
      }
    }
    return it;
  }

  // An iterator standing on the key of reversed hash `rh` that `same(key)`
  // accepts, done when there is none: a lookup by a view of the key that
  // builds no key.
  template <class Same>
  [[nodiscard]] Iterator locateIf(U32 rh, Same&& same) const {
    Iterator it;
    it.table_ = this;
    if (!slots_) return it;
    for (U32 i = seek(home(rh), rh); slots_[i].rhash == rh && isNode(slots_[i].node); ++i) {
      if (same(nodeAt(slots_[i].node)->keyOf())) {
        standOn(it, i);
        return it;
      }
    }
    return it;
  }

  // Inserts `key` with a value made from `args` unless present. Answers the
  // stored value and whether it is new.
  template <class... Args>
  std::pair<V*, bool> insert(K const& key, Args&&... args) {
    return insertHashed(reversedHash(key), key, std::forward<Args>(args)...);
  }
  // The same given reversedHash(key), for example from a findHashed() that
  // missed; the table may have changed since.
  template <class... Args>
  std::pair<V*, bool> insertHashed(U32 rh, K const& key, Args&&... args) {
    if (!slots_) rebuild(kInitialBits, kInitialTail);
    for (;;) {
      U32 i = seek(home(rh), rh);
      for (; slots_[i].rhash == rh && isNode(slots_[i].node); ++i) {
        Node* const n = nodeAt(slots_[i].node);
        if (n->keyOf() == key) return {&n->value, false};
      }
      if (size_ >= (std::size_t{1} << bits_)) {
        rebuild(bits_ + 1, tail_);
        continue;
      }
      // i is the new key's place, after its equal hashes; the run from it
      // moves up to the first empty slot, which must lie before the end.
      U32 e = i;
      while (slots_[e].node != 0 && e < end_) ++e;
      if (e == end_) {
        rebuild(bits_, tail_ * 2);
        continue;
      }
      U32 const id = allocate();
      Node* const n = nodeAt(id);
      try {
        if constexpr (std::is_same_v<KeyOf, KeyInNode>) {
          ::new (static_cast<void*>(n)) Node{rh, key, V(std::forward<Args>(args)...)};
        } else {
          ::new (static_cast<void*>(n)) Node{rh, V(std::forward<Args>(args)...)};
          assert(n->keyOf() == key && "the entity holds another key");
        }
      } catch (...) {
        release(id);
        throw;
      }
      std::memmove(&slots_[i + 1], &slots_[i], (e - i) * sizeof(Slot));
      slots_[i] = Slot{rh, id};
      ++size_;
      ++changes_;
      return {&n->value, true};
    }
  }

  // Removes `key`; answers whether it was present.
  bool erase(K const& key) noexcept {
    Iterator it = locate(key);
    if (it.done()) return false;
    removeAt(it.slot_);
    return true;
  }

  // Removes the node that `it` stands on and steps `it` on.
  void erase(Iterator& it) noexcept {
    U32 const i = slotOf(it);
    removeAt(i);
    stepFrom(it, i);  // the successor, if it was displaced, moved into i
  }

  void clear() noexcept {
    if (slots_) {
      for (U32 i = 0; i < end_; ++i) {
        if (slots_[i].node != 0) nodeAt(slots_[i].node)->~Node();
      }
    }
    for (Node* c : chunks_) {
      if (c) freeChunk(c);
    }
    chunks_.clear();
    chunks_.shrink_to_fit();
    slots_.reset();
    bits_ = 0;
    size_ = 0;
    ++changes_;
    end_ = 0;
    tail_ = 0;
    nodeCapacity_ = 0;
    nextId_ = 0;
    chunkEnd_ = 0;
    free_ = 0;
  }

  [[nodiscard]] Iterator begin() const noexcept {
    Iterator it;
    it.table_ = this;
    if (slots_) stepFrom(it, 0);
    return it;
  }
  [[nodiscard]] Iterator end() const noexcept {
    Iterator it;
    it.table_ = this;
    return it;
  }
  // An iterator standing on `n`, a node of this table.
  [[nodiscard]] Iterator iteratorAt(Node* n) const noexcept {
    Iterator it;
    it.table_ = this;
    if (!n) return it;
    U32 i = home(n->rhash);
    while (!isNode(slots_[i].node) || nodeAt(slots_[i].node) != n) ++i;
    standOn(it, i);
    return it;
  }

  // Bytes held by the table itself: slots, nodes and the chunk list.
  [[nodiscard]] std::size_t bytes() const noexcept {
    std::size_t const slots = slots_ ? std::size_t{end_} + kEndRun : 0;
    return slots * sizeof(Slot) + nodeCapacity_ * sizeof(Node) + chunks_.capacity() * sizeof(Node*);
  }

 private:
  static constexpr unsigned kInitialBits = 3;
  static constexpr U32 kInitialTail = 8;
  static constexpr unsigned kChunkBits = 10;  // node number = chunk << 10 | index
  static constexpr U32 kChunkMax = U32{1} << kChunkBits;
  static constexpr U32 kEnd = ~U32{0};  // the node number of the end marker
  // The end marker is repeated this many times, so that a walk may read
  // ahead without bounds checks.
  static constexpr U32 kEndRun = 32;

  static bool isNode(U32 id) noexcept { return id - 1 < kEnd - 1; }

  [[nodiscard]] U32 home(U32 rh) const noexcept {
    return static_cast<U32>((U64{rh} * slotCount_) >> 32);
  }

  // The first slot at or after slot i, the home of `rh`, whose reversed hash
  // is not below rh: where a key of that hash is, or would go. From a home,
  // "below rh" holds for a prefix of the slots (the rest of the run is
  // sorted, an empty slot holds ~0, and every key after it has a later
  // home), so a long run is crossed by galloping and halving. Runs are
  // short in a table filled at random; a table filled in another's
  // iteration order (a copy, a replica) packs the keys seen so far into the
  // front of the slots and makes runs as long as the table until it grows.
  [[nodiscard]] U32 seek(U32 i, U32 rh) const noexcept {
    for (U32 const stop = i + 8; i < stop; ++i) {
      if (slots_[i].rhash >= rh) return i;
    }
    U32 below = i - 1;  // the last slot known to be below rh
    U32 step = 8;
    U32 notBelow;
    for (;;) {
      notBelow = below + step;
      // The end marker at end_ holds ~0; the slots before it are in range.
      if (notBelow >= end_) {
        notBelow = end_;
        break;
      }
      if (slots_[notBelow].rhash >= rh) break;
      below = notBelow;
      step *= 2;
    }
    while (notBelow - below > 1) {
      U32 const mid = below + (notBelow - below) / 2;
      (slots_[mid].rhash < rh ? below : notBelow) = mid;
    }
    return notBelow;
  }

  [[nodiscard]] Node* nodeAt(U32 id) const noexcept {
    return chunks_[id >> kChunkBits] + (id & (kChunkMax - 1));
  }

  // Sets `it` on the node of slot i.
  void standOn(Iterator& it, U32 i) const noexcept {
    it.id_ = slots_[i].node;
    it.node_ = nodeAt(it.id_);
    it.slot_ = i;
  }

  // Where `it`'s node is now: its last slot, unless other keys moved it.
  U32 slotOf(Iterator const& it) const noexcept {
    if (slots_[it.slot_].node == it.id_) return it.slot_;
    U32 i = home(it.node_->rhash);
    while (slots_[i].node != it.id_) ++i;
    return i;
  }

  // Bit k: slot s + k holds a node or the end marker, for k < 32.
  static U64 usedMask(Slot const* s) noexcept {
#if defined(__SSE2__)
    // The node numbers of four slots at a time, compared with 0.
    auto const empty4 = [](Slot const* p) {
      __m128 const a = _mm_loadu_ps(reinterpret_cast<float const*>(p));
      __m128 const b = _mm_loadu_ps(reinterpret_cast<float const*>(p + 2));
      __m128i const n = _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
      return static_cast<U64>(
          _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(n, _mm_setzero_si128()))));
    };
    U64 empty = 0;
    for (unsigned k = 0; k < 32; k += 4) empty |= empty4(s + k) << k;
    return ~empty & 0xFFFFFFFFu;
#else
    U64 used = 0;
    for (unsigned k = 0; k < 32; ++k) used |= U64{s[k].node != 0} << k;
    return used;
#endif
  }

  // Moves `it` to the next node: from the slots it read ahead when the table
  // has not changed since, else from where its node is now.
  void advance(Iterator& it) const noexcept {
    if (it.seen_ == changes_ && it.ahead_ != 0) {
      auto const k = static_cast<U32>(std::countr_zero(it.ahead_));
      it.ahead_ = (it.ahead_ >> k) >> 1;
      land(it, it.slot_ + 1 + k);
      return;
    }
    stepFrom(it, slotOf(it) + 1);
  }

  // Sets `it` on the first node at or after slot i, or makes it done, and
  // reads which of the following slots are used.
  void stepFrom(Iterator& it, U32 i) const noexcept {
    Slot const* const s = slots_.get();
    U64 used;
    while ((used = usedMask(s + i)) == 0) i += 32;
    auto const k = static_cast<U32>(std::countr_zero(used));
    it.ahead_ = (used >> k) >> 1;
    it.seen_ = changes_;
    land(it, i + k);
  }

  // Sets `it` on the node of used slot i, or makes it done at the end
  // marker. Walks go in slot order, so the node some slots ahead is fetched
  // early.
  void land(Iterator& it, U32 i) const noexcept {
    Slot const* const s = slots_.get();
    if (s[i].node == kEnd) {
      it.node_ = nullptr;
      it.id_ = 0;
      return;
    }
    if (isNode(s[i + kEndRun].node)) {
      auto const* ahead = reinterpret_cast<char const*>(nodeAt(s[i + kEndRun].node));
      __builtin_prefetch(ahead);
      __builtin_prefetch(ahead + sizeof(Node) - 1);
    }
    if constexpr (std::is_same_v<KeyOf, KeyOfEntity>) {
      // The key lives in the entity, one more miss per member: ask for it
      // from a node asked for half a run ago.
      if (isNode(s[i + kEndRun / 2].node)) {
        auto const* key = reinterpret_cast<char const*>(&nodeAt(s[i + kEndRun / 2].node)->keyOf());
        __builtin_prefetch(key);
        __builtin_prefetch(key + sizeof(K) - 1);
      }
    }
    standOn(it, i);
  }

  // Empties slot i and moves the displaced slots after it down one place.
  void removeAt(U32 i) noexcept {
    U32 const id = slots_[i].node;
    nodeAt(id)->~Node();
    release(id);
    U32 j = i + 1;
    while (isNode(slots_[j].node) && home(slots_[j].rhash) < j) ++j;
    std::memmove(&slots_[i], &slots_[i + 1], (j - i - 1) * sizeof(Slot));
    slots_[j - 1] = Slot{kEnd, 0};
    --size_;
    ++changes_;
  }

  // A node number for a new node: a released one, else the next unused.
  U32 allocate() {
    if (free_ != 0) {
      U32 const id = free_;
      std::memcpy(&free_, static_cast<void*>(nodeAt(id)), sizeof(U32));
      return id;
    }
    if (nextId_ == chunkEnd_) {
      U32 const c = chunks_.empty() ? 1 : static_cast<U32>(chunks_.size());
      if (c >= (kEnd >> kChunkBits)) throw std::length_error("Kel::HashTable is full");
      U32 const count = std::clamp<U32>(static_cast<U32>(nodeCapacity_), 8, kChunkMax);
      if (chunks_.empty()) chunks_.push_back(nullptr);  // number 0 means empty
      if (chunks_.size() == chunks_.capacity()) chunks_.reserve(2 * chunks_.size());
      chunks_.push_back(newChunk(count));
      nodeCapacity_ += count;
      nextId_ = c << kChunkBits;
      chunkEnd_ = nextId_ + count;
    }
    return nextId_++;
  }

  static constexpr bool kOverAligned = alignof(Node) > __STDCPP_DEFAULT_NEW_ALIGNMENT__;
  static Node* newChunk(U32 count) {
    if constexpr (kOverAligned) {
      return static_cast<Node*>(
          ::operator new(count * sizeof(Node), std::align_val_t(alignof(Node))));
    } else {
      return static_cast<Node*>(::operator new(count * sizeof(Node)));
    }
  }
  static void freeChunk(Node* c) noexcept {
    if constexpr (kOverAligned) {
      ::operator delete(static_cast<void*>(c), std::align_val_t(alignof(Node)));
    } else {
      ::operator delete(static_cast<void*>(c));
    }
  }

  // Returns a node number, its node destroyed, for reuse.
  void release(U32 id) noexcept {
    std::memcpy(static_cast<void*>(nodeAt(id)), &free_, sizeof(U32));
    free_ = id;
  }

  // Places the slots afresh for 2^bits buckets and a tail of `tail` slots,
  // each at its home or just after the previous one; a longer tail when the
  // last ones do not fit.
  void rebuild(unsigned bits, U32 tail) {
    if (bits > 30) throw std::length_error("Kel::HashTable is full");
    for (;; tail *= 2) {
      U32 const count = U32{3} << (bits - 1);
      U32 const end = count + tail;
      auto fresh = std::make_unique_for_overwrite<Slot[]>(std::size_t{end} + kEndRun);
      std::fill_n(fresh.get(), end, Slot{kEnd, 0});
      std::fill_n(fresh.get() + end, kEndRun, Slot{kEnd, kEnd});
      U32 next = 0;
      bool fits = true;
      for (U32 i = 0; slots_ && i < end_; ++i) {
        Slot const s = slots_[i];
        if (s.node == 0) continue;
        U32 const at = std::max(static_cast<U32>((U64{s.rhash} * count) >> 32), next);
        if (at >= end) {
          fits = false;
          break;
        }
        fresh[at] = s;
        next = at + 1;
      }
      if (!fits) continue;
      slots_ = std::move(fresh);
      ++changes_;
      bits_ = bits;
      slotCount_ = count;
      tail_ = tail;
      end_ = end;
      return;
    }
  }

  std::unique_ptr<Slot[]> slots_;  // end_ slots, then kEndRun end markers
  unsigned bits_ = 0;
  U32 slotCount_ = 0;  // the slots that are homes: 1.5 * 2^bits_
  U32 tail_ = 0;       // the slots after them, for the last runs
  U32 end_ = 0;        // slotCount_ + tail_
  std::size_t size_ = 0;
  U32 changes_ = 0;  // counts insertions, erasures and re-placings, for iterators

  std::vector<Node*> chunks_;  // chunk 0 is never used: node number 0 means empty
  std::size_t nodeCapacity_ = 0;
  U32 nextId_ = 0;    // the next never-used node number
  U32 chunkEnd_ = 0;  // past the last number of the newest chunk
  U32 free_ = 0;      // the released node numbers, through their nodes
};

}  // namespace Kel

#endif  // KEL_HASHTABLE_H
