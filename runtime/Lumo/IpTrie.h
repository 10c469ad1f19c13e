// Longest-prefix-match tries: `IpTrie<V>` maps IPv4 prefixes to values and
// `Ip6Trie<V>` IPv6 prefixes, with the container interface of
// Kel::OrderedMap<Lumo::IpGenPrefix, V> (so that a map attribute keyed by
// prefix can be stored in one) and a longest-prefix lookup of an address.
//
//   Lumo::IpTrie<Kel::U32> routes;
//   routes.insert(Lumo::IpGenPrefix(Lumo::IpGenAddr("10.0.0.0"), 8), 1);
//   auto const hit = routes.longestMatch(Lumo::IpGenAddr("10.1.2.3"));
//   if (!hit.done()) use(hit.key(), hit.value());  // 10.0.0.0/8, 1
//
// This is the network library's seam (docs/PLATFORM.md): a platform with its
// own route tables may put them behind the same interface.
#ifndef LUMO_IPTRIE_H
#define LUMO_IPTRIE_H

#include <Kel/Types.h>
#include <Lumo/IpGenAddr.h>
#include <Lumo/IpGenPrefix.h>
#include <Lumo/NetSupport.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace Lumo {

namespace trie_internal {

// Raise Kel::RangeException: "<trie> key <prefix> is not an <family> prefix"
// and "<trie> key <prefix> has bits set beyond its length".
[[noreturn]] void throwWrongFamily(std::string_view trie, std::string_view family,
                                   IpGenPrefix const& key);
[[noreturn]] void throwHostBits(std::string_view trie, IpGenPrefix const& key);

// The bits of a family's addresses as one unsigned word, bit 0 being the
// most significant, with the few operations the trie needs.
struct Ipv4 {
  using Word = Kel::U32;
  static constexpr unsigned width = 32;
  static constexpr AddressFamily family = afIpv4;
  static constexpr std::string_view trieName = "IpTrie";
  static constexpr std::string_view familyName = "IPv4";

  static Word word(IpGenAddr const& a) noexcept { return a.ipv4HostOrder(); }
  static IpGenAddr addr(Word w) noexcept { return IpGenAddr::ipv4(w); }
  static unsigned bit(Word w, unsigned i) noexcept { return w >> (31 - i) & 1u; }
  static Word flip(Word w, unsigned i) noexcept {
    return w ^ Word { 1 } << (31 - i);
  }
  static Word masked(Word w, unsigned len) noexcept {
    return w & static_cast<Word>(~Kel::U64{0} << (32 - len));  // a 64-bit shift: len may be 0
  }
  // The number of leading bits a and b share (width when equal).
  static unsigned common(Word a, Word b) noexcept {
    return static_cast<unsigned>(std::countl_zero(a ^ b));
  }
  // The top k bits (k at most 16) as a number.
  static std::size_t top(Word w, unsigned k) noexcept { return k == 0 ? 0 : w >> (32 - k); }
  static bool le(Word a, Word b) noexcept { return a <= b; }
  // w with the bits beyond len set: the last address under the prefix.
  static Word last(Word w, unsigned len) noexcept { return w | ~masked(~Word{0}, len); }
  static Word next(Word w) noexcept { return w + 1; }
};

struct U128 {
  Kel::U64 hi = 0;
  Kel::U64 lo = 0;
  friend bool operator==(U128 const&, U128 const&) = default;
};

struct Ipv6 {
  using Word = U128;
  static constexpr unsigned width = 128;
  static constexpr AddressFamily family = afIpv6;
  static constexpr std::string_view trieName = "Ip6Trie";
  static constexpr std::string_view familyName = "IPv6";

  static Word word(IpGenAddr const& a) noexcept {
    Kel::U8 const* const b = a.addr().bytes().data();
    return {detail::loadBe64(b), detail::loadBe64(b + 8)};
  }
  static IpGenAddr addr(Word w) noexcept {
    Ip6Addr::Bytes b{};
    detail::storeBe32(b.data(), static_cast<Kel::U32>(w.hi >> 32));
    detail::storeBe32(b.data() + 4, static_cast<Kel::U32>(w.hi));
    detail::storeBe32(b.data() + 8, static_cast<Kel::U32>(w.lo >> 32));
    detail::storeBe32(b.data() + 12, static_cast<Kel::U32>(w.lo));
    return IpGenAddr::ipv6(Ip6Addr(b));
  }
  static unsigned bit(Word w, unsigned i) noexcept {
    return static_cast<unsigned>(i < 64 ? w.hi >> (63 - i) & 1u : w.lo >> (127 - i) & 1u);
  }
  static Word flip(Word w, unsigned i) noexcept {
    if (i < 64) {
      w.hi ^= Kel::U64{1} << (63 - i);
    } else {
      w.lo ^= Kel::U64{1} << (127 - i);
    }
    return w;
  }
  static Word masked(Word w, unsigned len) noexcept {
    if (len <= 64) return {len == 0 ? 0 : w.hi & ~Kel::U64{0} << (64 - len), 0};
    return {w.hi, w.lo & ~Kel::U64{0} << (128 - len)};
  }
  static unsigned common(Word a, Word b) noexcept {
    Kel::U64 const x = a.hi ^ b.hi;
    return static_cast<unsigned>(x ? std::countl_zero(x) : 64 + std::countl_zero(a.lo ^ b.lo));
  }
  static std::size_t top(Word w, unsigned k) noexcept { return k == 0 ? 0 : w.hi >> (64 - k); }
  // Without branches: lookups compare random addresses.
  static bool le(Word a, Word b) noexcept {
    return static_cast<bool>((a.hi < b.hi) | ((a.hi == b.hi) & (a.lo <= b.lo)));
  }
  static Word last(Word w, unsigned len) noexcept {
    Word const m = masked({~Kel::U64{0}, ~Kel::U64{0}}, len);
    return {w.hi | ~m.hi, w.lo | ~m.lo};
  }
  static Word next(Word w) noexcept { return {w.lo == ~Kel::U64{0} ? w.hi + 1 : w.hi, w.lo + 1}; }
};

}  // namespace trie_internal

// A map from the prefixes of one family to values of type V.
//
// Keys. A key is a prefix of the trie's family whose bits beyond its length
// are zero ("10.0.0.0/8", not "10.0.0.1/8"): keys are not normalised, so
// every key stored comes back exactly as given and the trie holds the same
// keys as an ordered map would. insert() and insertOrAssign() raise
// Kel::RangeException for any other prefix ("IpTrie key 2001:db8::/32 is not
// an IPv4 prefix", "IpTrie key 10.0.0.1/8 has bits set beyond its length")
// and change nothing; find(), erase() and longestMatch() answer nothing for
// such a key or an address of another family. `normalised()` clears the bits
// beyond the length for callers that want to store such a prefix.
//
// Order. Iteration visits keys in the order of IpGenPrefix's operator<
// (address, then length), which for keys of one family is the trie's
// pre-order: a prefix before the longer ones it covers, zero bits first.
//
// Values live in the nodes and never move: a pointer or reference to a value
// (and an iterator at it) stays valid until its own key is erased or the
// trie is cleared or destroyed, whatever else is inserted or erased.
//
// Structure: a path-compressed binary trie (a node branches on the first bit
// where the keys below it differ; a node without a value always has two
// children) holds the keys and values, and a lookup table answers
// longestMatch(). The table has a slot per value of the address's top bits
// (up to 2^16 slots, about one per key, none below 64 keys). A slot with no
// key longer than the slot holds its answer; otherwise it holds the slot's
// runs: the addresses where the longest covering key changes, sorted, with
// that key. A lookup then reads the slot and binary-searches its runs, about
// two cache misses whatever the key lengths. A slot with more than 512 runs
// is walked down the trie instead (at most one node per distinct length).
// Insertion and erasure cost O(length), plus the slots under a key no longer
// than the slot (2^(16 - length)), or remaking the runs of the key's slot
// for a longer one (O(keys in the slot), counting stopping past 512 runs;
// nothing for an insertion into a walked slot).
// The table grows and shrinks with the size; the runs cost about 30 bytes
// per IPv4 key and 60 per IPv6 one. Without memory for the table or a
// slot's runs, lookups walk the trie instead, still exact. Not thread-safe:
// like the other collections, one thread at a time.
template <class F, class V>
class PrefixTrie {
  using Word = typename F::Word;

  struct Node {
    Word bits;  // zero beyond len
    Kel::U8 len;
    bool hasValue;
    bool valueRoom;  // a ValueNode, with room for a value
    Node* child[2];
    Node* parent;
  };
  // The value's storage is raw so that a node can lose its value and stay
  // as a branch without moving anything.
  struct ValueNode : Node {
    alignas(V) unsigned char room[sizeof(V)];
    V* value() noexcept { return std::launder(reinterpret_cast<V*>(room)); }
  };

 public:
  using Key = IpGenPrefix;
  using Value = V;

  // Walks the values in key order. done() at the end; key() is built from
  // the node and stays valid while the iterator does.
  class Iterator {
   public:
    Iterator() = default;
    [[nodiscard]] bool done() const noexcept { return n_ == nullptr; }
    [[nodiscard]] IpGenPrefix const& key() const noexcept {
      key_ = IpGenPrefix(F::addr(n_->bits), n_->len);
      return key_;
    }
    [[nodiscard]] V& value() const noexcept { return *static_cast<ValueNode*>(n_)->value(); }
    Iterator& operator++() noexcept {
      n_ = nextValue(n_);
      return *this;
    }
    bool operator==(Iterator const& o) const noexcept { return n_ == o.n_; }

   private:
    friend class PrefixTrie;
    explicit Iterator(Node* n) noexcept : n_(n) {}
    Node* n_ = nullptr;
    mutable IpGenPrefix key_;
  };

  PrefixTrie() = default;
  PrefixTrie(PrefixTrie const& o) {
    try {
      root_ = cloneTree(o.root_, nullptr);
    } catch (...) {
      destroyTree(root_);
      throw;
    }
    size_ = o.size_;
    resizeSlots(wantedSlotBits(size_));
  }
  PrefixTrie(PrefixTrie&& o) noexcept { swap(o); }
  PrefixTrie& operator=(PrefixTrie o) noexcept {
    swap(o);
    return *this;
  }
  ~PrefixTrie() {
    freeRuns();
    destroyTree(root_);
  }

  void swap(PrefixTrie& o) noexcept {
    std::swap(root_, o.root_);
    std::swap(size_, o.size_);
    std::swap(slots_, o.slots_);
    std::swap(slotBits_, o.slotBits_);
  }

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] bool empty() const noexcept { return size_ == 0; }

  // The value stored under exactly `key`, or null.
  [[nodiscard]] V* find(IpGenPrefix const& key) const noexcept {
    Word w;
    if (!wordOf(key, &w)) return nullptr;
    Node* const n = exact(w, key.len());
    return n && n->hasValue ? static_cast<ValueNode*>(n)->value() : nullptr;
  }

  // Inserts `key` with a value made from `args` unless present. Answers the
  // value and whether it is new. Raises Kel::RangeException for a key the
  // trie does not take (see above); then, or when V's constructor throws,
  // nothing changes.
  template <class... Args>
  std::pair<V*, bool> insert(IpGenPrefix const& key, Args&&... args) {
    Word const w = checkedWord(key);
    unsigned const len = key.len();
    Node** link = &root_;
    Node* parent = nullptr;
    for (;;) {
      Node* const n = *link;
      if (!n) {
        ValueNode* const v = newValueNode(w, len, parent, std::forward<Args>(args)...);
        *link = v;
        return added(v);
      }
      unsigned const c = std::min({F::common(n->bits, w), unsigned{n->len}, len});
      if (c == n->len && c == len) {
        if (n->hasValue) return {static_cast<ValueNode*>(n)->value(), false};
        if (n->valueRoom) {  // a branch that once held a value
          new (static_cast<ValueNode*>(n)->room) V(std::forward<Args>(args)...);
          n->hasValue = true;
          return added(static_cast<ValueNode*>(n));
        }
        ValueNode* const v = newValueNode(w, len, parent, std::forward<Args>(args)...);
        for (unsigned b = 0; b < 2; ++b) {
          v->child[b] = n->child[b];
          if (v->child[b]) v->child[b]->parent = v;
        }
        *link = v;
        delete n;
        return added(v);
      }
      if (c == n->len) {
        parent = n;
        link = &n->child[F::bit(w, n->len)];
        continue;
      }
      ValueNode* const v = newValueNode(w, len, parent, std::forward<Args>(args)...);
      if (c == len) {  // the new key covers n
        v->child[F::bit(n->bits, len)] = n;
        n->parent = v;
        *link = v;
        return added(v);
      }
      Node* branch;
      try {
        branch = new Node{F::masked(w, c), static_cast<Kel::U8>(c), false, false, {}, parent};
      } catch (...) {
        freeNode(v);
        throw;
      }
      unsigned const side = F::bit(w, c);
      branch->child[side] = v;
      branch->child[1 - side] = n;
      v->parent = branch;
      n->parent = branch;
      *link = branch;
      return added(v);
    }
  }

  // Stores `value` under `key`, replacing any value there. Raises as insert().
  template <class U>
  V& insertOrAssign(IpGenPrefix const& key, U&& value) {
    auto const [v, isNew] = insert(key, std::forward<U>(value));
    if (!isNew) *v = std::forward<U>(value);
    return *v;
  }

  // Removes `key`; answers whether it was there. Never throws: memory for
  // the lookup table, when asked for, is optional.
  bool erase(IpGenPrefix const& key) noexcept {
    Word w;
    if (!wordOf(key, &w)) return false;
    Node* const n = exact(w, key.len());
    if (!n || !n->hasValue) return false;
    static_cast<ValueNode*>(n)->value()->~V();
    n->hasValue = false;
    --size_;
    if (!n->child[0] || !n->child[1]) {
      Node* const parent = n->parent;
      Node* const only = n->child[0] ? n->child[0] : n->child[1];
      *linkOf(n) = only;
      if (only) only->parent = parent;
      freeNode(n);
      if (!only && parent && !parent->hasValue) {  // a branch left with one child
        Node* const other = parent->child[0] ? parent->child[0] : parent->child[1];
        *linkOf(parent) = other;
        other->parent = parent->parent;
        freeNode(parent);
      }
    }
    changed(w, key.len(), false);
    return true;
  }

  void clear() noexcept {
    resizeSlots(0);
    destroyTree(root_);
    root_ = nullptr;
    size_ = 0;
  }

  [[nodiscard]] Iterator begin() const noexcept {
    if (!root_ || root_->hasValue) return Iterator(root_);
    return Iterator(nextValue(root_));
  }
  [[nodiscard]] Iterator end() const noexcept { return Iterator(); }

  // The entry with the longest key that covers `addr`, or end() when none
  // does or `addr` is of another family. Iterating on from it continues in
  // key order.
  [[nodiscard]] Iterator longestMatch(IpGenAddr const& addr) const noexcept {
    if (addr.family() != F::family) return Iterator();
    return Iterator(match(F::word(addr)));
  }

  // `prefix` with its bits beyond the length cleared: a key this trie
  // takes. Raises Kel::RangeException for a prefix of another family.
  [[nodiscard]] static IpGenPrefix normalised(IpGenPrefix const& prefix) {
    if (prefix.addr().family() != F::family) {
      trie_internal::throwWrongFamily(F::trieName, F::familyName, prefix);
    }
    return IpGenPrefix(F::addr(F::masked(F::word(prefix.addr()), prefix.len())), prefix.len());
  }

  // For tests and memory figures: the nodes (at most 2 * size() - 1) and
  // the slots of the lookup table (0 below 64 keys).
  [[nodiscard]] std::size_t nodeCount() const noexcept { return countNodes(root_); }
  [[nodiscard]] std::size_t slotCount() const noexcept {
    return slots_ ? std::size_t{1} << slotBits_ : 0;
  }

 private:
  static constexpr unsigned maxSlotBits = 16;
  // A slot with more runs than this is walked: the bound keeps what a
  // change spends on its slot's runs small.
  static constexpr Kel::U32 maxRuns = 512;
  static constexpr std::uintptr_t runsTag = 1;
  static constexpr std::uintptr_t walkSlot = 2;
  static constexpr std::size_t minSlottedSize = 64;

  static bool wordOf(IpGenPrefix const& key, Word* out) noexcept {
    if (key.addr().family() != F::family) return false;
    *out = F::word(key.addr());
    return F::masked(*out, key.len()) == *out;
  }
  static Word checkedWord(IpGenPrefix const& key) {
    if (key.addr().family() != F::family) {
      trie_internal::throwWrongFamily(F::trieName, F::familyName, key);
    }
    Word const w = F::word(key.addr());
    if (!(F::masked(w, key.len()) == w)) trie_internal::throwHostBits(F::trieName, key);
    return w;
  }

  template <class... Args>
  static ValueNode* newValueNode(Word w, unsigned len, Node* parent, Args&&... args) {
    auto* const v = static_cast<ValueNode*>(::operator new(sizeof(ValueNode)));
    try {
      new (v->room) V(std::forward<Args>(args)...);
    } catch (...) {
      ::operator delete(v);
      throw;
    }
    static_cast<Node&>(*v) = Node{w, static_cast<Kel::U8>(len), true, true, {}, parent};
    return v;
  }
  // Frees a node whose value, if any, is already destroyed.
  static void freeNode(Node* n) noexcept {
    if (n->valueRoom) {
      ::operator delete(static_cast<ValueNode*>(n));
    } else {
      delete n;
    }
  }
  static void destroyTree(Node* n) noexcept {
    if (!n) return;
    destroyTree(n->child[0]);
    destroyTree(n->child[1]);
    if (n->hasValue) static_cast<ValueNode*>(n)->value()->~V();
    freeNode(n);
  }
  // Links each node into the copy as soon as it exists, so that a throwing
  // copy of a value leaves a tree that destroyTree() can free.
  static Node* cloneTree(Node const* n, Node* parent) {
    if (!n) return nullptr;
    Node* copy;
    if (n->hasValue) {
      copy = newValueNode(n->bits, n->len, parent,
                          *static_cast<ValueNode*>(const_cast<Node*>(n))->value());
    } else {
      copy = new Node{n->bits, n->len, false, false, {}, parent};
    }
    try {
      copy->child[0] = cloneTree(n->child[0], copy);
      copy->child[1] = cloneTree(n->child[1], copy);
    } catch (...) {
      destroyTree(copy);
      throw;
    }
    return copy;
  }
  static std::size_t countNodes(Node const* n) noexcept {
    return n ? 1 + countNodes(n->child[0]) + countNodes(n->child[1]) : 0;
  }

  // The next node with a value in pre-order (zero side first).
  static Node* nextValue(Node* n) noexcept {
    do {
      if (n->child[0]) {
        n = n->child[0];
      } else if (n->child[1]) {
        n = n->child[1];
      } else {
        for (;;) {
          Node* const p = n->parent;
          if (!p) return nullptr;
          if (p->child[0] == n && p->child[1]) {
            n = p->child[1];
            break;
          }
          n = p;
        }
      }
    } while (!n->hasValue);
    return n;
  }

  Node** linkOf(Node* n) noexcept {
    Node* const p = n->parent;
    return p ? &p->child[F::bit(n->bits, p->len)] : &root_;
  }

  Node* exact(Word w, unsigned len) const noexcept {
    Node* n = root_;
    while (n && n->len < len) {
      if (F::common(n->bits, w) < n->len) return nullptr;
      n = n->child[F::bit(w, n->len)];
    }
    return n && n->len == len && n->bits == w ? n : nullptr;
  }

  // The longest key covering `a`: from its slot, at most a binary search
  // in the slot's runs.
  Node* match(Word a) const noexcept {
    if (!slots_) return walk(a);
    std::uintptr_t const e = slots_[F::top(a, slotBits_)];
    if (e & runsTag) {
      Runs const* const r = reinterpret_cast<Runs const*>(e - runsTag);
      // Branch-free: the last start at or before `a` (the first start is
      // the slot's first address, so there is one).
      Word const* s = r->starts();
      std::size_t len = r->n;
      while (len > 1) {
        std::size_t const half = len / 2;
        s = F::le(s[half], a) ? s + half : s;
        len -= half;
      }
      Node* const best = r->bests()[s - r->starts()];
      return best ? best : r->up;
    }
    if (e == walkSlot) return walk(a);
    return reinterpret_cast<Node*>(e);
  }

  // The lookup without the table: down the trie from the root.
  Node* walk(Word a) const noexcept {
    Node* best = nullptr;
    Node* n = root_;
    while (n && F::common(n->bits, a) >= n->len) {
      if (n->hasValue) best = n;
      if (n->len == F::width) break;
      n = n->child[F::bit(a, n->len)];
    }
    return best;
  }

  std::pair<V*, bool> added(ValueNode* v) noexcept {
    ++size_;
    changed(v->bits, v->len, true);
    return {v->value(), true};
  }

  // Keeps the slot table right after the key (w, len) came (`added`) or went.
  void changed(Word w, unsigned len, bool added) noexcept {
    // Shrinking waits for a quarter of the size that grew the table, so that
    // a size going up and down across a boundary does not rebuild it each time.
    unsigned const want = wantedSlotBits(size_);
    unsigned target = slotBits_;
    if (want > slotBits_) {
      target = want;
    } else if (size_ < minSlottedSize / 4) {
      target = 0;
    } else if (want != 0 && want + 2 < slotBits_) {
      target = want;
    }
    if (target != slotBits_ && resizeSlots(target)) return;
    if (slots_) refill(w, len, added);
  }

  static unsigned wantedSlotBits(std::size_t n) noexcept {
    if (n < minSlottedSize) return 0;
    return std::min<unsigned>(maxSlotBits, static_cast<unsigned>(std::bit_width(n)) - 1);
  }

  // Rebuilds the table with 2^bits slots (none for 0); answers false, with
  // the old table kept, when memory runs out.
  bool resizeSlots(unsigned bits) noexcept {
    std::unique_ptr<std::uintptr_t[]> fresh;
    if (bits != 0) {
      fresh.reset(new (std::nothrow) std::uintptr_t[std::size_t{1} << bits]());
      if (!fresh) return false;
    }
    freeRuns();
    slots_ = std::move(fresh);
    slotBits_ = bits;
    if (slots_) fill(Word{}, 0, root_, nullptr, true);
    return true;
  }

  void freeRuns() noexcept {
    for (std::size_t i = 0, n = slotCount(); i < n; ++i) {
      if (slots_[i] & runsTag) ::operator delete(reinterpret_cast<Runs*>(slots_[i] - runsTag));
    }
  }

  // After a change at key (w, len): a key no longer than the slots changes
  // the best match above the slots under it; a longer one changes the runs
  // of its own slot only.
  void refill(Word w, unsigned len, bool added) noexcept {
    unsigned const q = std::min(len, slotBits_);
    Word const p = F::masked(w, q);
    Node* best = nullptr;
    Node* n = root_;
    while (n && n->len < q) {
      if (F::common(n->bits, p) < n->len) {
        n = nullptr;
        break;
      }
      if (n->hasValue) best = n;
      n = n->child[F::bit(p, n->len)];
    }
    // An insertion never joins runs, so a walked slot stays walked.
    bool const walked = slots_[F::top(w, slotBits_)] == walkSlot;
    fill(p, q, n, best, len > slotBits_ && !(added && walked));
  }

  // Sets the slots under (p, q), q at most slotBits_: `n` is the first node
  // of length q or more on their walk from the root (or null) and `best` the
  // last value before it. With `runs` remakes the runs of the slot holding
  // keys longer than the slot, else only sets the best match above them.
  // O(slots + nodes) below.
  void fill(Word p, unsigned q, Node* n, Node* best, bool runs) noexcept {
    if (n && F::common(n->bits, p) < q) n = nullptr;
    if (!n || n->len >= slotBits_) {
      std::size_t const own = n ? F::top(n->bits, slotBits_) : 0;
      std::size_t const first = F::top(p, slotBits_);
      for (std::size_t i = first, e = first + (std::size_t{1} << (slotBits_ - q)); i < e; ++i) {
        if (!n || i != own) setSlot(i, reinterpret_cast<std::uintptr_t>(best));
      }
      if (n) fillSlot(own, n, n->len == slotBits_ && n->hasValue ? n : best, runs);
      return;
    }
    for (unsigned i = q; i < n->len; ++i) {  // the sides that leave n's path
      std::size_t const first = F::top(F::flip(F::masked(n->bits, i + 1), i), slotBits_);
      for (std::size_t j = first, e = first + (std::size_t{1} << (slotBits_ - i - 1)); j < e; ++j) {
        setSlot(j, reinterpret_cast<std::uintptr_t>(best));
      }
    }
    if (n->hasValue) best = n;
    fill(n->bits, n->len + 1u, n->child[0], best, runs);
    fill(F::flip(n->bits, n->len), n->len + 1u, n->child[1], best, runs);
  }

  void setSlot(std::size_t i, std::uintptr_t e) noexcept {
    if (slots_[i] & runsTag) ::operator delete(reinterpret_cast<Runs*>(slots_[i] - runsTag));
    slots_[i] = e;
  }

  // The slot that `n`, the first node of the slot length or more in it,
  // lies in; `up` is the longest key covering it no longer than the slot.
  void fillSlot(std::size_t i, Node* n, Node* up, bool runs) noexcept {
    std::uintptr_t const e = slots_[i];
    Runs* const had = e & runsTag ? reinterpret_cast<Runs*>(e - runsTag) : nullptr;
    if (n->len == slotBits_ && !n->child[0] && !n->child[1]) {  // no key below the slot
      setSlot(i, reinterpret_cast<std::uintptr_t>(up));
      return;
    }
    if (!runs && (had || e == walkSlot)) {  // the keys below are as they were
      if (had) had->up = up;
      return;
    }
    RunCounter count;
    if (!emitSlot(n, count)) {
      setSlot(i, walkSlot);
      return;
    }
    Runs* r = had;
    // Erasing a key never adds a run (the runs it ends join their
    // neighbours), so an erasure rewrites the runs in place; runs grown
    // beyond their block, or left in half of it, get a block of their size.
    // Out of memory, the slot is walked instead.
    if (!had || count.n > had->cap || count.n * 2 < had->cap) {
      void* const block = ::operator new(Runs::bytes(count.n), std::nothrow);
      if (block) {
        r = new (block) Runs{nullptr, 0, count.n};
      } else if (!had || count.n > had->cap) {
        setSlot(i, walkSlot);
        return;
      }
    }
    r->up = up;
    r->n = 0;
    RunWriter write{r};
    emitSlot(n, write);
    if (r != had) setSlot(i, reinterpret_cast<std::uintptr_t>(r) | runsTag);
  }

  // The runs of a slot: each start and the addresses after it up to the
  // next share their longest key longer than the slot (null for none, and
  // then `up`, the longest no longer than the slot, is the answer). Starts
  // ascend from the slot's first address. One block: this header, then the
  // starts, then the bests.
  struct Runs {
    Node* up;
    Kel::U32 n;
    Kel::U32 cap;

    static std::size_t startBytes(std::size_t cap) noexcept {
      return (cap * sizeof(Word) + alignof(Node*) - 1) / alignof(Node*) * alignof(Node*);
    }
    static std::size_t bytes(std::size_t cap) noexcept {
      return sizeof(Runs) + startBytes(cap) + cap * sizeof(Node*);
    }
    Word* starts() noexcept { return reinterpret_cast<Word*>(this + 1); }
    Word const* starts() const noexcept { return reinterpret_cast<Word const*>(this + 1); }
    Node** bests() const noexcept {
      return reinterpret_cast<Node**>(
          reinterpret_cast<unsigned char*>(const_cast<Runs*>(this) + 1) + startBytes(cap));
    }
  };
  static_assert(sizeof(Runs) % alignof(Word) == 0 && alignof(Word) <= alignof(Node*));

  // Both take the runs in address order and join a run to the one before
  // when their bests are the same. Counting stops past maxRuns.
  struct RunCounter {
    Kel::U32 n = 0;
    Node* last = nullptr;
    bool operator()(Word, Node* best) noexcept {
      if (n != 0 && best == last) return true;
      last = best;
      return ++n <= maxRuns;
    }
  };
  struct RunWriter {
    Runs* r;
    bool operator()(Word start, Node* best) noexcept {
      if (r->n != 0 && best == r->bests()[r->n - 1]) return true;
      r->starts()[r->n] = start;
      r->bests()[r->n] = best;
      ++r->n;
      return true;
    }
  };

  // The runs of the slot that `n`, the first node of the slot length or
  // more in it, lies in: those of the keys longer than the slot. Answers
  // false when the sink stopped.
  template <class Sink>
  bool emitSlot(Node* n, Sink& sink) const noexcept {
    if (n->len == slotBits_) {  // its own value counts above the slot
      return emit(n->bits, slotBits_ + 1, n->child[0], nullptr, sink) &&
             emit(F::flip(n->bits, slotBits_), slotBits_ + 1, n->child[1], nullptr, sink);
    }
    return emit(F::masked(n->bits, slotBits_), slotBits_, n, nullptr, sink);
  }
  // The runs under (p, q) in address order: `n` is the first node of length
  // q or more on their walk (or null) and `best` the last value before it.
  template <class Sink>
  static bool emit(Word p, unsigned q, Node* n, Node* best, Sink& sink) noexcept {
    if (n && F::common(n->bits, p) < q) n = nullptr;
    if (!n) return sink(p, best);
    if (!(n->bits == p) && !sink(p, best)) return false;  // the addresses before n's
    Node* const inner = n->hasValue ? n : best;
    if (n->len == F::width) {
      if (!sink(n->bits, inner)) return false;
    } else if (!emit(n->bits, n->len + 1u, n->child[0], inner, sink) ||
               !emit(F::flip(n->bits, n->len), n->len + 1u, n->child[1], inner, sink)) {
      return false;
    }
    Word const last = F::last(n->bits, n->len);
    return last == F::last(p, q) || sink(F::next(last), best);  // the addresses after
  }

  Node* root_ = nullptr;
  std::size_t size_ = 0;
  // Per slot (the top slotBits_ bits of an address) a tagged word: a Node*,
  // the longest key covering the slot when none is longer than the slot; a
  // Runs* plus runsTag; or walkSlot.
  std::unique_ptr<std::uintptr_t[]> slots_;
  unsigned slotBits_ = 0;
};

template <class V>
using IpTrie = PrefixTrie<trie_internal::Ipv4, V>;
template <class V>
using Ip6Trie = PrefixTrie<trie_internal::Ipv6, V>;

}  // namespace Lumo

#endif  // LUMO_IPTRIE_H
