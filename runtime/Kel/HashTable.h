// The hash table behind every hashed collection of the model.
//
// Order. A key goes to the bucket given by the top bits of its bit-reversed
// 32-bit hash(): with 2^b buckets, bucket = bitReverse32(hash) >> (32 - b).
// Keys are kept sorted by the reversed hash (equal hashes in insertion
// order), so iteration visits keys in ascending reversed-hash order whatever
// the table's size or history: two tables holding the same keys iterate
// alike, and the keys of one bucket are always a contiguous run.
//
// Layout. The sorted sequence lives in an array of slots, each holding one
// element (reversed hash, key, value) in place, beside an array of two-byte
// slot tags: the element's displacement from its home slot (0 for an empty
// slot, saturating at 255) and the next eight bits of its position. A key's
// home slot is (reversedHash * slotCount) >> 32, which grows with the
// reversed hash, so linear probing that keeps the slots sorted (an ordered
// Robin Hood table) puts every key at or after its home with no empty slot
// in between, and the whole layout depends on the keys and the slot count
// only. A lookup reads the tags from the home slot, eight at a time, to
// the first slot not below the key, and reads an element only when its tag
// matches the key's: a miss usually reads no element. (A long run, which a
// table filled in another's order makes, is crossed by galloping over the
// elements' reversed hashes: see seek().) Insertion shifts the run after its
// place up by one slot; erasure shifts the displaced slots after it back
// down (no tombstones). Growth re-places the elements from their stored
// reversed hashes and never hashes a key.
//
// Elements move: an insertion or erasure shifts a run, and growth moves
// them all. A pointer that find() or insert() answers is valid until the
// table next changes. (Entities stored by pointer do not move; only the
// pointer does.) Keys and values move by memcpy when they are trivially
// relocatable (KelRelocatable), else by move construction.
//
// A table of entities that hold their own key (KeyOfEntity) keeps no copy
// of the key: the element's entity answers it, so the entity must stay in
// its element while the key is in the table (taking it out just before
// erasing is fine: erasure never reads keys).
//
// Growth policy: the first insertion makes 8 buckets; the buckets double
// when the table would hold more keys than buckets. The slots, which the
// buckets only order, are at most 0.85 full (0.8 for elements of up to 24
// bytes, whose empty slots cost little): an insertion shifts the run after
// its place up to the next empty slot, a run whose expected length grows as
// 1 / (1 - fill)^2, and a lookup past eight slots from home leaves the fast
// path. For larger elements that move by memcpy, a growth adds a quarter of
// the slots in tables of 1024 to 65536 slots (a neighbor's or a session's
// members, filled as paths come: fewer growths, each moving every element,
// and shorter shifts) and an eighth past that (the largest tables, whose
// empty slots cost the most memory, stay 0.75 to 0.85 full); a half
// otherwise. Past 1024 slots the elements live in segments of 1024 slots;
// an element's new place is never before its old one, so growth adds
// segments and moves the elements back to front within them rather than
// into fresh memory. Erasing never shrinks the table; clear() frees
// everything.
//
// Iterators stand on a slot and remember its reversed hash, and the key
// only when the key before it has that hash too (a copy), or the entity's
// address for KeyOfEntity: keys of one hash sit side by side in insertion
// order, so the first key of a hash stays the first of it. key() and value() are
// the element's own, valid until the table next changes; the iterator
// finds its element again after that. While one stands on key k, other
// keys may be inserted and erased and the table may grow: the next ++
// moves to the key that follows k in iteration order among the keys present
// at that moment. So every key present throughout the walk is visited once,
// in order; a key erased before the walk reaches it is not visited, a key
// inserted after k's place is, one inserted before it is not. The key an
// iterator stands on may be erased only through erase(Iterator&), which
// steps the iterator on; erasing it otherwise, or clear(), leaves the
// iterator unusable.
//
// K needs `U32 hash() const` (or a KeyTraits specialisation), operator== and
// (for KeyInNode) a default constructor; K and V need a noexcept move.
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

template <class T>
class Ptr;

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

// A key with its bit-reversed hash, computed once: for a caller that asks
// a table for a lookup's memory some work before making the lookup.
template <class K>
struct Hashed {
  explicit Hashed(K k) : key(std::move(k)), rh(bitReverse32(KeyTraits<K>::hash(key))) {}
  K key;
  U32 rh;
};

// The two steps of a prefetched lookup: the table's slots, then the entity
// that keeps the key (see HashTable::prefetch).
enum class PrefetchStep : U8 { slots, key };

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

// Whether a T may move by copying its bytes, the source then forgotten
// without its destructor: true of trivially copyable types and of owning
// pointers, which do not point into themselves. Specialise for other such
// types (a std::string does point into itself).
template <class T>
struct KelRelocatable : std::is_trivially_copyable<T> {};
template <class T>
struct KelRelocatable<Ptr<T>> : std::true_type {};
template <class T>
struct KelRelocatable<std::unique_ptr<T>> : std::true_type {};

// The value of a set: nothing.
struct NoValue {
  bool operator==(NoValue const&) const noexcept { return true; }
};

// Where an element finds its key: a copy in the element (KeyInNode), or the
// entity the element points at, through its kelKey() (KeyOfEntity).
struct KeyInNode {};
struct KeyOfEntity {};

namespace hash_internal {

template <class K, class V, class KeyOf>
struct Element {
  U32 rhash;  // the bit-reversed hash
  K key;
  [[no_unique_address]] V value;
  [[nodiscard]] K const& keyOf() const noexcept { return key; }
};

template <class K, class V>
struct Element<K, V, KeyOfEntity> {
  U32 rhash;
  V value;
  [[nodiscard]] K const& keyOf() const noexcept { return value->kelKey(); }
};

// What an iterator keeps, beside its element's reversed hash, to find the
// element again after the table changed. A key held in the element is
// copied only when the key before it has the same reversed hash: keys of
// one hash are neighbours, and a key inserted later goes after those
// present, so the first key of a hash stays the first of it until it is
// erased. An entity's key is held by its address.
template <class K, class KeyOf>
struct HeldKey {
  K key{};
  bool copied = false;
  // Whether k, met among the keys of the held hash in order (`first` for
  // the first of them), is the held key: without a copy, the first.
  [[nodiscard]] bool is(K const& k, bool first) const noexcept { return copied ? k == key : first; }
};
template <class K>
struct HeldKey<K, KeyOfEntity> {
  K const* key = nullptr;
  [[nodiscard]] bool is(K const& k, bool) const noexcept { return &k == key; }
};

}  // namespace hash_internal

template <class K, class V = NoValue, class KeyOf = KeyInNode>
class HashTable {
 public:
  using Element = hash_internal::Element<K, V, KeyOf>;

  class Iterator {
   public:
    Iterator() = default;
    // Valid until the table next changes, as value() is.
    [[nodiscard]] K const& key() const noexcept {
      if constexpr (std::is_same_v<KeyOf, KeyOfEntity>) {
        return *held_.key;
      } else {
        return element().keyOf();
      }
    }
    [[nodiscard]] V& value() const noexcept { return element().value; }
    [[nodiscard]] bool done() const noexcept { return slot_ == kDone; }
    Iterator& operator++() {
      table_->advance(*this);
      return *this;
    }
    bool operator==(Iterator const& o) const noexcept {
      return done() ? o.done() : !o.done() && key() == o.key();
    }
    Element& operator*() const noexcept { return element(); }
    Element* operator->() const noexcept { return &element(); }

   private:
    friend class HashTable;
    [[nodiscard]] Element& element() const noexcept {
      if (seen_ != table_->changes_) table_->refind(const_cast<Iterator&>(*this));
      return *element_;
    }
    HashTable const* table_ = nullptr;
    Element* element_ = nullptr;  // slot_'s, unless the table changed
    U32 slot_ = kDone;
    U32 seen_ = 0;   // the table's change count when slot_, element_ and ahead_ were read
    U32 ahead_ = 0;  // bit k: slot slot_ + 1 + k is used, unless the table changed
    U32 rh_ = 0;     // the reversed hash of the key it stands on
    hash_internal::HeldKey<K, KeyOf> held_;
  };

  HashTable() = default;
  HashTable(HashTable const&) = delete;
  HashTable& operator=(HashTable const&) = delete;
  ~HashTable() { clear(); }

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
  // 2^b, the number of buckets that order the keys (see above); 0 before the
  // first insertion or reserve().
  [[nodiscard]] std::size_t bucketCount() const noexcept {
    return tags_ ? std::size_t{1} << bits_ : 0;
  }

  // The bit-reversed hash of `key`: computed once, it serves findHashed()
  // and insertHashed() on one road.
  [[nodiscard]] static U32 reversedHash(K const& key) noexcept {
    return bitReverse32(KeyTraits<K>::hash(key));
  }

  // Where a lookup found a key, or would place it: insertHashed() given it
  // skips its own search while the table has not changed since.
  class Place {
   public:
    Place() = default;

   private:
    friend class HashTable;
    U32 slot_ = kAbsent;  // where() of the key, or kAbsent alone before any slot
    U32 seen_ = 0;        // the table's change count at the lookup
  };

  // The value stored under `key`, or null.
  [[nodiscard]] V* find(K const& key) const noexcept { return findHashed(reversedHash(key), key); }
  // The same given reversedHash(key).
  [[nodiscard]] V* findHashed(U32 rh, K const& key) const noexcept {
    return findIf(rh, [&](K const& k) { return k == key; });
  }
  // The same, noting in `place` where the key is or would go, for an
  // insertHashed() that follows a miss (a find-or-create).
  [[nodiscard]] V* findHashed(U32 rh, K const& key, Place& place) const noexcept {
    place.seen_ = changes_;
    place.slot_ = kAbsent;
    if (!tags_) return nullptr;
    place.slot_ = where(rh, [&](K const& k) { return k == key; });
    return place.slot_ & kAbsent ? nullptr : &at(place.slot_).value;
  }

  // An iterator standing on `key`, done when it is absent.
  [[nodiscard]] Iterator locate(K const& key) const {
    return locateIf(reversedHash(key), [&](K const& k) { return k == key; });
  }

  // An iterator standing on the key of reversed hash `rh` that `same(key)`
  // accepts, done when there is none: a lookup by a view of the key that
  // builds no key.
  template <class Same>
  [[nodiscard]] Iterator locateIf(U32 rh, Same&& same) const {
    Iterator it;
    it.table_ = this;
    if (!tags_) return it;
    U32 const i = where(rh, same);
    if (!(i & kAbsent)) standOn(it, i);
    return it;
  }

  // The value of the key of reversed hash `rh` that `same(key)` accepts, or
  // null: locateIf() without an iterator.
  template <class Same>
  [[nodiscard]] V* findIf(U32 rh, Same&& same) const {
    if (!tags_) return nullptr;
    U32 const i = where(rh, same);
    return i & kAbsent ? nullptr : &at(i).value;
  }
  // Removes that key; answers whether it was present.
  template <class Same>
  bool eraseIf(U32 rh, Same&& same) {
    if (!tags_) return false;
    U32 const i = where(rh, same);
    if (i & kAbsent) return false;
    removeAt(i);
    return true;
  }

  // Calls f(key, value) for each key in iteration order, without an
  // iterator (which keeps a copy of its key); f must not change the table.
  template <class F>
  void visit(F&& f) const {
    for (U32 i = 0, left = static_cast<U32>(size_); left != 0; ++i) {
      if (tags_[i] == 0) continue;
      Element& e = at(i);
      f(e.keyOf(), e.value);
      --left;
    }
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
    return insertHashed(Place{}, rh, key, std::forward<Args>(args)...);
  }
  // The same after findHashed(rh, key, place): the search it made serves
  // while the table is unchanged, else the key is searched anew.
  template <class... Args>
  std::pair<V*, bool> insertHashed(Place const& hint, U32 rh, K const& key, Args&&... args) {
    auto const same = [&](K const& k) { return k == key; };
    U32 place = kAbsent;  // where the key goes, while the table is unchanged
    if (tags_) {
      bool const fresh = hint.seen_ == changes_ && hint.slot_ != kAbsent;
      place = fresh ? hint.slot_ : where(rh, same);
      if (!(place & kAbsent)) return {&at(place).value, false};
    }
    // What may throw is made before the table changes, so that the table
    // stays as it was, and arguments that refer into the table are read
    // before it moves. An element made aside and copied in, though, is
    // loaded across members just stored in other widths, which the
    // processor cannot forward (a stall each insertion). So where the key
    // copies without throwing and cannot lie in the table (none of its keys
    // equals it, and a value is too small to hold one), only the value is
    // made aside, and the element is made in its slot; otherwise the whole
    // element is made aside, and destroyed if growing throws.
    constexpr bool inPlace = sizeof(V) < sizeof(K) && std::is_nothrow_copy_constructible_v<K> &&
                             std::is_nothrow_move_constructible_v<V>;
    alignas(Element) unsigned char room[sizeof(Element)];
    Element* made = nullptr;
    [[maybe_unused]] auto value = [&] {
      if constexpr (inPlace) {
        return V(std::forward<Args>(args)...);
      } else {
        made = ::new (static_cast<void*>(room))
            Element(makeElement(rh, key, std::forward<Args>(args)...));
        return NoValue{};
      }
    }();
    struct Unplaced {
      Element*& e;
      ~Unplaced() {
        if (e) e->~Element();
      }
    } const unplaced{made};
    if (!tags_ || size_ + 1 > maxSize()) {
      if (!tags_) {
        rebuild(kInitialSlots, kInitialTail);
      } else {
        rebuild(grownSlots(), tail_);
      }
      place = where(rh, same);
    }
    for (;;) {
      U32 const i = place & ~kAbsent;
      // i is the new key's place, after its equal hashes; the run from it
      // moves up to the first empty slot, which must lie before the end.
      U32 const e = firstEmpty(i);
      if (e == end_) {
        rebuild(slotCount_, tail_ * 2);
        place = where(rh, same);
        continue;
      }
      shiftUp(i, e);
      if constexpr (inPlace) {
        ::new (static_cast<void*>(&at(i))) Element(makeElement(rh, key, std::move(value)));
      } else {
        relocate(&at(i), made);
        made = nullptr;
      }
      tags_[i] = tagFor(i, rh);
      if (++size_ > (std::size_t{1} << bits_)) ++bits_;
      ++changes_;
      return {&at(i).value, true};
    }
  }

  // For lookups in a batch, each asked for some work before it is made:
  // prefetch(rh) asks for what a lookup of reversed hash `rh` reads first,
  // the tags and the element at its home; once those have arrived,
  // prefetchKey(rh) asks for the entity of the element whose tag is the
  // key's, where a table of entities keeps the key (a no-op for a table
  // that keeps its keys in its slots). Neither changes anything.
  void prefetch(U32 rh) const noexcept {
    if (!tags_) return;
    U32 const h = static_cast<U32>(position(rh) >> 32);
    __builtin_prefetch(&tags_[h]);
    __builtin_prefetch(&at(h));
  }
  void prefetchKey([[maybe_unused]] U32 rh) const noexcept {
#if defined(__SSE2__)
    if constexpr (std::is_same_v<KeyOf, KeyOfEntity>) {
      if (!tags_) return;
      U64 const p = position(rh);
      U32 const k = tagBlock(static_cast<U32>(p >> 32), 0, static_cast<U32>(p >> 24) & 0xFFu);
      if (k == kAllBelow || (k & kAbsent)) return;
      Element const& e = at(static_cast<U32>(p >> 32) + k);
      // The lookup compares the key; its answer counts a reference.
      __builtin_prefetch(&e.keyOf());
      __builtin_prefetch(e.value.get());
    }
#endif
  }

  // Room for `n` keys without growing: one re-placing now rather than a
  // growth at each step as they arrive. The order and the buckets do not
  // change (they follow the keys); only the slots do.
  void reserve(std::size_t n) {
    if (tags_ && n <= maxSize()) return;
    U64 const slots = U64{n} * 100 / kMaxLoadPercent + 1;
    if (slots > (U64{1} << 31)) throw std::length_error("Kel::HashTable is full");
    rebuild(std::max(static_cast<U32>(slots), kInitialSlots), tags_ ? tail_ : kInitialTail);
  }

  // Removes `key`; answers whether it was present.
  bool erase(K const& key) noexcept {
    return eraseIf(reversedHash(key), [&](K const& k) { return k == key; });
  }

  // Removes the element that `it` stands on and steps `it` on.
  void erase(Iterator& it) {
    U32 const i = slotOf(it);
    removeAt(i);
    stepFrom(it, i);  // the successor, if it was displaced, moved into i
  }

  void clear() noexcept {
    if (tags_) {
      if constexpr (!std::is_trivially_destructible_v<Element>) {
        for (U32 i = 0; i < end_; ++i) {
          if (tags_[i] != 0) at(i).~Element();
        }
      }
    }
    for (Element* g : segments_) freeElements(g);
    segments_.clear();
    segments_.shrink_to_fit();
    segmentSlots_ = 0;
    tags_.reset();
    bits_ = 0;
    size_ = 0;
    ++changes_;
    slotCount_ = 0;
    end_ = 0;
    tail_ = 0;
  }

  [[nodiscard]] Iterator begin() const {
    Iterator it;
    it.table_ = this;
    if (tags_) stepFrom(it, 0);
    return it;
  }
  [[nodiscard]] Iterator end() const noexcept {
    Iterator it;
    it.table_ = this;
    return it;
  }

  // Bytes held by the table itself: elements and tags.
  [[nodiscard]] std::size_t bytes() const noexcept {
    if (!tags_) return 0;
    return segments_.size() * (segmentSlots_ * sizeof(Element) + sizeof(Element*)) +
           (std::size_t{end_} + kEndRun) * sizeof(U16);
  }

 private:
  static constexpr U32 kInitialSlots = 4;
  static constexpr U32 kInitialTail = 4;
  static constexpr U32 kDone = ~U32{0};
  // where()'s answer for an absent key: its place, with this bit set.
  static constexpr U32 kAbsent = U32{1} << 31;
  // Tags past the last slot, so that a scan may read ahead without bounds
  // checks: each says "an element at home", and a home past every key's.
  static constexpr U32 kEndRun = 32;
  static constexpr U16 kEndTag = 1;
  // Small elements cost little in empty slots: the table grows by half
  // rather than by a quarter or an eighth, rebuilding less often.
  static constexpr bool kSmall = sizeof(Element) <= 24;
  // At most this percentage of the slots used. For large elements 85 rather
  // than 90 made the road's load about 7% faster (shorter shifts of its
  // state-path ids, 52 bytes then) for 17 more heap bytes per LSP.
  static constexpr U32 kMaxLoadPercent = kSmall ? 80 : 85;
  static constexpr bool kRelocatable = KelRelocatable<K>::value && KelRelocatable<V>::value;
  static_assert(std::is_nothrow_move_constructible_v<Element>,
                "Kel::HashTable moves its elements: keys and values need a noexcept move");

  // A tag: the displacement from the home slot plus one (0: empty; 255: at
  // least 254, the element's reversed hash tells), and in the high byte the
  // next eight bits of the position, which order the keys of one home.
  static U32 distOf(U16 tag) noexcept { return tag & 0xFFu; }
  static U32 fracOf(U16 tag) noexcept { return tag >> 8; }

  [[nodiscard]] U64 position(U32 rh) const noexcept { return U64{rh} * slotCount_; }
  // The tag of an element of position `p` in slot `slot`.
  static U16 tagAt(U64 p, U64 slot) noexcept {
    U64 const dist = std::min<U64>(slot - (p >> 32) + 1, 255);
    return static_cast<U16>(dist | ((p >> 16) & 0xFF00u));
  }
  [[nodiscard]] U16 tagFor(U32 slot, U32 rh) const noexcept { return tagAt(position(rh), slot); }

  // The fill a table may reach before it grows (see the growth policy).
  [[nodiscard]] std::size_t maxSize() const noexcept {
    return std::size_t{slotCount_} * kMaxLoadPercent / 100;
  }
  [[nodiscard]] U32 grownSlots() const {
    // By half while the elements fit in one segment (small tables grow
    // often, and their empty slots cost little) and when elements move one
    // by one; else by a quarter, or an eighth in the largest tables (see
    // the growth policy above).
    U64 more = slotCount_ / 2;
    if (!kSmall && kRelocatable && end_ >= kSegmentSlots)
      more = end_ < kQuarterGrowthSlots ? slotCount_ / 4 : slotCount_ / 8;
    U64 const slots = U64{slotCount_} + std::max<U64>(more, 4);
    if (slots > (U64{1} << 31)) throw std::length_error("Kel::HashTable is full");
    return static_cast<U32>(slots);
  }

  template <class... Args>
  static Element makeElement(U32 rh, K const& key, Args&&... args) {
    if constexpr (std::is_same_v<KeyOf, KeyInNode>) {
      return Element{rh, key, V(std::forward<Args>(args)...)};
    } else {
      Element e{rh, V(std::forward<Args>(args)...)};
      assert(e.keyOf() == key && "the entity holds another key");
      (void)key;
      return e;
    }
  }

  // Moves the element at `from` into the raw slot `to`, leaving `from` raw.
  static void relocate(Element* to, Element* from) noexcept {
    if constexpr (kRelocatable) {
      std::memcpy(static_cast<void*>(to), static_cast<void const*>(from), sizeof(Element));
    } else {
      ::new (static_cast<void*>(to)) Element(std::move(*from));
      from->~Element();
    }
  }

  // Moves the `count` elements from slot `from` on to slot `to` on, one
  // place up or down, the slot left behind raw: in one memmove within a
  // segment when they move by memcpy.
  void moveRun(U32 to, U32 from, U32 count) noexcept {
    if (count == 0) return;
    if constexpr (kRelocatable) {
      U32 const last = std::max(to, from) + count - 1;
      if ((std::min(to, from) >> kSegmentBits) == (last >> kSegmentBits)) {
        std::memmove(static_cast<void*>(&at(to)), static_cast<void const*>(&at(from)),
                     count * sizeof(Element));
        return;
      }
    }
    if (to > from) {
      for (U32 k = count; k > 0; --k) relocate(&at(to + k - 1), &at(from + k - 1));
    } else {
      for (U32 k = 0; k < count; ++k) relocate(&at(to + k), &at(from + k));
    }
  }

  // Moves slots [i, e) up by one into [i + 1, e + 1), slot e being empty;
  // slot i is left raw.
  void shiftUp(U32 i, U32 e) noexcept {
    moveRun(i + 1, i, e - i);
    std::memmove(&tags_[i + 1], &tags_[i], (e - i) * sizeof(U16));
    // One further from home: the displacements, saturating at 255.
    U32 k = i + 1;
#if defined(__SSE2__)
    __m128i const one = _mm_set1_epi16(1);
    for (; k + 8 <= e + 1; k += 8) {
      auto* const p = reinterpret_cast<__m128i*>(&tags_[k]);
      _mm_storeu_si128(p, _mm_adds_epu8(_mm_loadu_si128(p), one));
    }
#endif
    for (; k <= e; ++k) {
      if (distOf(tags_[k]) < 255) ++tags_[k];
    }
  }

  // The first empty slot at or after i, or end_ when there is none before it.
  [[nodiscard]] U32 firstEmpty(U32 i) const noexcept {
    for (;; i += 32) {
      if (i >= end_) return end_;
      U32 const empty = ~usedMask(&tags_[i]);
      if (empty != 0) return std::min(i + static_cast<U32>(std::countr_zero(empty)), end_);
    }
  }

  // Destroys slot i's element and moves the displaced slots after it down
  // one place.
  void removeAt(U32 i) noexcept {
    at(i).~Element();
    U32 j = i + 1;
    while (distOf(tags_[j]) > 1) ++j;  // stops at an empty slot, a home or the end
    moveRun(i, i + 1, j - i - 1);
    for (U32 k = i; k + 1 < j; ++k) {
      U16 const t = tags_[k + 1];
      tags_[k] = distOf(t) < 255 ? static_cast<U16>(t - 1) : tagFor(k, at(k).rhash);
    }
    tags_[j - 1] = 0;
    --size_;
    ++changes_;
  }

  // The slot of the key of reversed hash `rh` that `same` accepts, or its
  // place (where it would go, after its equal hashes) | kAbsent.
  template <class Same>
  [[nodiscard, gnu::always_inline]] inline U32 where(U32 rh, Same&& same) const {
    U64 const p = position(rh);
    U32 const h = static_cast<U32>(p >> 32);
    U32 const frac = static_cast<U32>(p >> 24) & 0xFFu;
    // The element at home is the likely match: asked for while the tags
    // are read.
    __builtin_prefetch(&at(h));
#if defined(__SSE2__)
    // Most lookups end within the eight slots from home, where the tags
    // alone tell a miss and one element a hit: in line. The rest (a long
    // run, keys that share position bits or hashes) goes out of line.
    // (h + k | kAbsent is h + (k | kAbsent): slots stay below kAbsent.)
    if (U32 const k = tagBlock(h, 0, frac); k != kAllBelow) {
      if (k & kAbsent) return h + k;
      Element const& e = at(h + k);
      if (e.rhash == rh && same(e.keyOf())) return h + k;
    }
#endif
    return whereFrom(rh, same, h, frac);
  }

  // The rest of where(), out of line: the tags from home h on, then the
  // elements while their tags may be the key's.
  template <class Same>
  [[nodiscard, gnu::noinline]] U32 whereFrom(U32 rh, Same& same, U32 h, U32 frac) const {
    U32 i = seek(h, frac, rh);
    if (i & kAbsent) return i;
    // From i on the slots are not below the key: while their tags are the
    // key's (or say nothing, far from home), the elements tell.
    for (;;) {
      Element const& e = at(i);
      if (e.rhash == rh) {
        if (same(e.keyOf())) return i;
      } else if (e.rhash > rh) {
        return i | kAbsent;
      }
      if (!mayHold(++i, h, frac)) return i | kAbsent;
    }
  }

  // Whether slot i, not below home h and position bits `frac`, may hold a
  // key of that home and those bits: its tag says so, or says nothing.
  [[nodiscard]] bool mayHold(U32 i, U32 h, U32 frac) const noexcept {
    U16 const t = tags_[i];
    U32 const d = distOf(t);
    if (d == 255) return true;
    // An empty slot's "home" is past i, an end tag's past every key's.
    return i + 1 - d == h && fracOf(t) == frac && d != 0;
  }

#if defined(__SSE2__)
  // What the tags of the eight slots from h + 8m say of a key of home h and
  // position bits `frac`: kAllBelow when every slot holds a key below it,
  // else the first slot k that does not, | kAbsent unless its tag is the
  // key's (its home and bits), in which case the key may be there. Slot
  // h + k is below when (its home, its bits) < (h, frac), that is when
  // (k + 1) * 256 + its bits < its distance * 256 + frac; both sides fit
  // sixteen bits, and with their top bits flipped a signed comparison
  // orders them. (A saturated distance is below, as its home is more than
  // 32 slots back; an empty slot or an end tag is not.)
  static constexpr U32 kAllBelow = 8;
  [[nodiscard, gnu::always_inline]] inline U32 tagBlock(U32 h, U32 m, U32 frac) const noexcept {
    __m128i const t = _mm_loadu_si128(reinterpret_cast<__m128i const*>(&tags_[h + 8 * m]));
    __m128i const slots = _mm_setr_epi16(static_cast<short>(0x8100), static_cast<short>(0x8200),
                                         static_cast<short>(0x8300), static_cast<short>(0x8400),
                                         static_cast<short>(0x8500), static_cast<short>(0x8600),
                                         static_cast<short>(0x8700), static_cast<short>(0x8800));
    __m128i const lhs = _mm_add_epi16(
        _mm_add_epi16(slots, _mm_set1_epi16(static_cast<short>(m << 11))), _mm_srli_epi16(t, 8));
    __m128i const rhs =
        _mm_xor_si128(_mm_slli_epi16(t, 8), _mm_set1_epi16(static_cast<short>(0x8000u | frac)));
    auto const below = static_cast<U32>(_mm_movemask_epi8(_mm_cmplt_epi16(lhs, rhs)));
    if (below == 0xFFFFu) return kAllBelow;
    auto const k = static_cast<U32>(std::countr_one(below));
    auto const same = static_cast<U32>(_mm_movemask_epi8(_mm_cmpeq_epi16(lhs, rhs)));
    return k / 2 | ((same >> k) & 1 ? 0 : kAbsent);
  }
#endif

  // The first slot at or after h, the home of `rh`, whose element is not
  // known to be below rh from its tag: (home, position bits) below (h,
  // frac). With kAbsent set when its tag alone shows that the key is not
  // there. "Below" holds for a prefix of the slots from a home (the run is
  // sorted, an empty slot or an end tag is not below, and every key after an
  // empty slot has a later home), so a long run is crossed by galloping and
  // halving over the elements' reversed hashes. Runs are short in a table
  // filled at random; a table filled in another's iteration order (a copy, a
  // replica) packs the keys seen so far into the front of the slots and
  // makes runs as long as the table until it grows.
  // Inlined: a call here cost the refresh road a few percent.
  [[nodiscard, gnu::always_inline]] inline U32 seek(U32 h, U32 frac, U32 rh) const noexcept {
#if defined(__SSE2__)
    for (U32 m = 0; m < 4; ++m) {
      if (U32 const k = tagBlock(h, m, frac); k != kAllBelow) return h + 8 * m + k;
    }
    U32 i = h + 32;
#else
    U32 i = h;
    for (U32 const stop = h + 32; i < stop; ++i) {
      U16 const t = tags_[i];
      U32 const d = distOf(t);
      if (d == 0) return i | kAbsent;
      if (d == 255) return i;  // far from home: where() reads it
      U32 const hi = i - (d - 1);
      if (hi > h || (hi == h && fracOf(t) >= frac)) return i | (mayHold(i, h, frac) ? 0 : kAbsent);
    }
#endif
    // Slots h .. i - 1 are below rh: gallop over the reversed hashes.
    U32 below = i - 1;
    U32 step = 1;
    U32 notBelow;
    for (;;) {
      notBelow = below + step;
      if (notBelow >= end_) {
        notBelow = end_;
        break;
      }
      if (!isBelow(notBelow, rh)) break;
      below = notBelow;
      step *= 2;
    }
    while (notBelow - below > 1) {
      U32 const mid = below + (notBelow - below) / 2;
      (isBelow(mid, rh) ? below : notBelow) = mid;
    }
    return notBelow | (mayHold(notBelow, h, frac) ? 0 : kAbsent);
  }

  [[nodiscard]] bool isBelow(U32 i, U32 rh) const noexcept {
    return tags_[i] != 0 && at(i).rhash < rh;
  }

  // Sets `it` on slot i's element, with nothing known of the walk before.
  void standOn(Iterator& it, U32 i) const {
    it.seen_ = changes_;
    it.ahead_ = 0;
    Element& e = at(i);
    placeOn(it, i, e, i > 0 && followsItsHash(i, e.rhash));
  }
  // Sets `it` on element e of slot i. `follows`: the key before it has the
  // same reversed hash, so that the iterator must keep a copy of the key to
  // find it again. The first key of a hash stays the first of it until it
  // is erased (a later key of that hash goes after it), so the reversed
  // hash alone finds that one again.
  void placeOn(Iterator& it, U32 i, Element& e, bool follows) const {
    it.slot_ = i;
    it.element_ = &e;
    it.rh_ = e.rhash;
    if constexpr (std::is_same_v<KeyOf, KeyOfEntity>) {
      it.held_.key = &e.keyOf();
    } else {
      it.held_.copied = follows;
      if (follows) it.held_.key = e.key;
    }
  }

  // Finds `it`'s key again after the table changed.
  void refind(Iterator& it) const noexcept {
    U32 const i = slotOf(it);
    it.slot_ = i;
    it.element_ = &at(i);
    it.seen_ = changes_;
    it.ahead_ = 0;
  }
  [[nodiscard]] U32 slotOf(Iterator const& it) const noexcept {
    if (it.seen_ == changes_) return it.slot_;
    return slotOfHeld(it.rh_, it.held_);
  }
  // The slot of the key of reversed hash rh that `held` names. It takes a
  // copy, so that no code out of line holds an iterator's address and a
  // walk's iterator can stay in registers.
  [[nodiscard, gnu::noinline]] U32 slotOfHeld(
      U32 rh, hash_internal::HeldKey<K, KeyOf> held) const noexcept {
    bool first = true;  // where() offers the keys of one hash in order
    U32 const i = where(rh, [&](K const& k) { return held.is(k, std::exchange(first, false)); });
    assert(!(i & kAbsent) && "the iterator's key was erased");
    return i;
  }

  // Whether slot i - 1 holds a key of reversed hash rh, that of used slot
  // i. Keys of one hash share their home and position bits, so their tags
  // differ by one (or are saturated): the tags rule most slots out.
  [[nodiscard]] bool followsItsHash(U32 i, U32 rh) const noexcept {
    U16 const t = tags_[i];
    U16 const prev = tags_[i - 1];
    return prev != 0 && (prev + 1 == t || distOf(t) == 255) && at(i - 1).rhash == rh;
  }

  // Bit k: slot s + k holds an element or an end tag, for k < 32.
  static U32 usedMask(U16 const* s) noexcept {
#if defined(__SSE2__)
    __m128i const low = _mm_set1_epi16(0xFF);
    auto const empty16 = [&](U16 const* p) {
      __m128i const a = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<__m128i const*>(p)), low);
      __m128i const b =
          _mm_and_si128(_mm_loadu_si128(reinterpret_cast<__m128i const*>(p + 8)), low);
      __m128i const z = _mm_setzero_si128();
      return static_cast<U32>(
          _mm_movemask_epi8(_mm_packs_epi16(_mm_cmpeq_epi16(a, z), _mm_cmpeq_epi16(b, z))));
    };
    return ~(empty16(s) | empty16(s + 16) << 16);
#else
    U32 used = 0;
    for (unsigned k = 0; k < 32; ++k) used |= U32{(s[k] & 0xFFu) != 0} << k;
    return used;
#endif
  }

  // Moves `it` to the next element: from the slots it read ahead when the
  // table has not changed since, else from where its key is now.
  void advance(Iterator& it) const {
    if (it.seen_ == changes_ && it.ahead_ != 0) {
      auto const k = static_cast<U32>(std::countr_zero(it.ahead_));
      it.ahead_ = (it.ahead_ >> k) >> 1;
      U32 const i = it.slot_ + 1 + k;
      if (i >= end_) {
        it.slot_ = kDone;
        return;
      }
      Element& e = at(i);
      prefetchKeyAhead(i);
      // Next to the element it leaves (k == 0), the iterator knows the
      // reversed hash before this one.
      placeOn(it, i, e, k == 0 && e.rhash == it.rh_);
      return;
    }
    stepFrom(it, slotOf(it) + 1);
  }

  // Sets `it` on the first element at or after slot i, or makes it done,
  // and reads which of the following slots are used.
  void stepFrom(Iterator& it, U32 i) const {
    U32 used;
    while ((used = usedMask(&tags_[i])) == 0) i += 32;
    auto const k = static_cast<U32>(std::countr_zero(used));
    i += k;
    if (i >= end_) {
      it.slot_ = kDone;
      return;
    }
    prefetchKeyAhead(i);
    standOn(it, i);
    it.ahead_ = (used >> k) >> 1;
  }

  // For entities that hold their key: the key lives in the entity, one more
  // miss per member, so a walk asks for it from an element some slots ahead.
  void prefetchKeyAhead(U32 i) const noexcept {
    if constexpr (std::is_same_v<KeyOf, KeyOfEntity>) {
      U32 const ahead = i + 16;
      if (ahead < end_ && tags_[ahead] != 0) {
        auto const* key = reinterpret_cast<char const*>(&at(ahead).keyOf());
        __builtin_prefetch(key);
        __builtin_prefetch(key + sizeof(K) - 1);
      }
    }
  }

  static Element* allocateElements(U32 count) {
    if constexpr (alignof(Element) > __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
      return static_cast<Element*>(
          ::operator new(count * sizeof(Element), std::align_val_t(alignof(Element))));
    } else {
      return static_cast<Element*>(::operator new(count * sizeof(Element)));
    }
  }
  static void freeElements(Element* e) noexcept {
    if constexpr (alignof(Element) > __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
      ::operator delete(static_cast<void*>(e), std::align_val_t(alignof(Element)));
    } else {
      ::operator delete(static_cast<void*>(e));
    }
  }

  // Writes into `tags` (end slots, empty) the tag of each element at its
  // new place among `slots` homes: its home, or just after the element
  // before it. False when the last ones do not fit before `end`.
  bool placeTags(U16* tags, U32 slots, U64 end) const noexcept {
    U64 next = 0;
    UsedSlots used(tags_.get(), 0);
    for (auto left = static_cast<U32>(size_); left != 0; --left) {
      U32 const i = used.next();
      U64 const p = U64{at(i).rhash} * slots;
      next = std::max(p >> 32, next);
      if (next >= end) return false;
      tags[next] = tagAt(p, next);
      ++next;
    }
    return true;
  }

  // The used slots of a tag array in ascending order, from slot `from` on
  // (a multiple of 32), 32 tags at a time: no branch on each slot.
  class UsedSlots {
   public:
    // Reads no tag before the first next().
    UsedSlots(U16 const* tags, U32 from) noexcept : tags_(tags), base_(from - 32) {}
    U32 next() noexcept {
      while (mask_ == 0) mask_ = usedMask(tags_ + (base_ += 32));
      auto const k = static_cast<U32>(std::countr_zero(mask_));
      mask_ &= mask_ - 1;
      return base_ + k;
    }

   private:
    U16 const* tags_;
    U32 base_;  // wraps below 0 before the first next()
    U32 mask_ = 0;
  };
  // The same in descending order, below slot `end`.
  class UsedSlotsDown {
   public:
    // Reads the tags below `end` only (the next ones may be end tags).
    UsedSlotsDown(U16 const* tags, U32 end) noexcept : tags_(tags), base_(end & ~U32{31}) {
      U32 const inFirst = end - base_;
      mask_ = inFirst == 0 ? 0 : usedMask(tags + base_) & ((U32{1} << inFirst) - 1);
    }
    U32 next() noexcept {
      while (mask_ == 0) mask_ = usedMask(tags_ + (base_ -= 32));
      auto const k = static_cast<U32>(31 - std::countl_zero(mask_));
      mask_ &= ~(U32{1} << k);
      return base_ + k;
    }

   private:
    U16 const* tags_;
    U32 base_;
    U32 mask_;
  };

  // Places the elements afresh in `slots` slots and a tail of at least
  // `tail`, each at its home or just after the previous one; a longer tail
  // when the last ones do not fit. An element's new place is never before
  // its old one, so a table of full segments grows in place: new segments
  // at the end, and the elements moved from the last to the first.
  void rebuild(U32 slots, U32 tail) {
    // The new tags, from the elements' reversed hashes in order: the k-th
    // used slot of the new tags is the k-th element's new place.
    std::unique_ptr<U16[]> tags;
    U64 end = 0;
    for (;; tail *= 2) {
      end = U64{slots} + tail;
      if (end + kEndRun > (U64{1} << 31)) throw std::length_error("Kel::HashTable is full");
      tags = std::make_unique_for_overwrite<U16[]>(end + kEndRun);
      std::fill_n(tags.get(), end, U16{0});
      std::fill_n(tags.get() + end, kEndRun, kEndTag);
      if (placeTags(tags.get(), slots, end)) break;
    }
    U32 const oldEnd = end_;
    if (end <= kSegmentSlots) {
      // One segment of the size needed, filled afresh.
      Element* const fresh = allocateElements(static_cast<U32>(end));
      UsedSlots from(tags_.get(), 0);
      UsedSlots to(tags.get(), 0);
      for (auto left = static_cast<U32>(size_); left != 0; --left)
        relocate(&fresh[to.next()], &at(from.next()));
      for (Element* g : segments_) freeElements(g);
      segments_.assign(1, fresh);
      segmentSlots_ = static_cast<U32>(end);
    } else {
      // Whole segments, the first made whole if it is not, then the
      // elements moved back to front.
      auto const count = static_cast<std::size_t>((end + kSegmentSlots - 1) >> kSegmentBits);
      segments_.reserve(count);
      if (!segments_.empty() && segmentSlots_ < kSegmentSlots) {
        Element* const whole = allocateElements(kSegmentSlots);
        for (U32 i = 0; i < oldEnd; ++i) {
          if (tags_[i] != 0) relocate(&whole[i], &at(i));
        }
        freeElements(segments_[0]);
        segments_[0] = whole;
      }
      segmentSlots_ = kSegmentSlots;
      while (segments_.size() < count) segments_.push_back(allocateElements(kSegmentSlots));
      UsedSlotsDown from(tags_.get(), size_ == 0 ? 0 : oldEnd);
      UsedSlotsDown to(tags.get(), static_cast<U32>(end));
      for (auto left = static_cast<U32>(size_); left != 0; --left) {
        U32 const i = from.next();
        U32 const j = to.next();
        if (j != i) relocate(&at(j), &at(i));
      }
    }
    slotCount_ = slots;
    tags_ = std::move(tags);
    tail_ = tail;
    end_ = static_cast<U32>(end);
    if (bits_ == 0) bits_ = 3;
    ++changes_;
  }

  // Slot i's element (raw storage when the slot is empty).
  [[nodiscard]] Element& at(U32 i) const noexcept {
    return segments_[i >> kSegmentBits][i & (kSegmentSlots - 1)];
  }

  // The elements live in segments of kSegmentSlots slots, or in one of the
  // size needed while the table is smaller: growth then adds segments
  // rather than moving everything into fresh memory.
  static constexpr unsigned kSegmentBits = 10;
  static constexpr U32 kSegmentSlots = U32{1} << kSegmentBits;
  static constexpr U32 kQuarterGrowthSlots = U32{1} << 16;
  std::vector<Element*> segments_;
  U32 segmentSlots_ = 0;         // the slots of each segment
  std::unique_ptr<U16[]> tags_;  // end_ tags, then kEndRun end tags
  unsigned bits_ = 0;
  U32 slotCount_ = 0;  // the slots that are homes
  U32 tail_ = 0;       // the slots after them, for the last runs
  U32 end_ = 0;        // slotCount_ + tail_
  std::size_t size_ = 0;
  U32 changes_ = 0;  // counts insertions, erasures and re-placings, for iterators
};

}  // namespace Kel

#endif  // KEL_HASHTABLE_H
