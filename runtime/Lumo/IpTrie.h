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
// children), so a lookup visits at most one node per distinct length on its
// path, and a table on the top bits of the address (up to 2^16 slots, about
// one per key, none below 64 keys) that starts each lookup where the walk
// from the root would reach length 16, with the best match above it.
// Insertion and erasure cost O(length) plus the slots under the changed
// prefix (2^(16 - length) for a short one); the table grows and shrinks with
// the size. Not thread-safe: like the other collections, one thread at a
// time.
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
  ~PrefixTrie() { destroyTree(root_); }

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
        return added(v, v);
      }
      unsigned const c = std::min({F::common(n->bits, w), unsigned{n->len}, len});
      if (c == n->len && c == len) {
        if (n->hasValue) return {static_cast<ValueNode*>(n)->value(), false};
        if (n->valueRoom) {  // a branch that once held a value
          new (static_cast<ValueNode*>(n)->room) V(std::forward<Args>(args)...);
          n->hasValue = true;
          return added(static_cast<ValueNode*>(n), n);
        }
        ValueNode* const v = newValueNode(w, len, parent, std::forward<Args>(args)...);
        for (unsigned b = 0; b < 2; ++b) {
          v->child[b] = n->child[b];
          if (v->child[b]) v->child[b]->parent = v;
        }
        *link = v;
        delete n;
        return added(v, v);
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
        return added(v, v);
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
      return added(v, branch);
    }
  }

  // Stores `value` under `key`, replacing any value there. Raises as insert().
  template <class U>
  V& insertOrAssign(IpGenPrefix const& key, U&& value) {
    auto const [v, isNew] = insert(key, std::forward<U>(value));
    if (!isNew) *v = std::forward<U>(value);
    return *v;
  }

  // Removes `key`; answers whether it was there. Never allocates or throws.
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
    changed(w, key.len());
    return true;
  }

  void clear() noexcept {
    destroyTree(root_);
    root_ = nullptr;
    size_ = 0;
    slots_.reset();
    slotBits_ = 0;
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
  // Where a walk from the root reaches the first node of length slotBits_
  // or more, for every address whose top bits are the slot's index: that
  // node if it lies under the slot (else null), and the node with the
  // longest key passed on the way (null when none).
  struct Slot {
    Node* best;
    Node* next;
  };
  static constexpr unsigned maxSlotBits = 16;
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

  Node* match(Word a) const noexcept {
    Node* best = nullptr;
    Node* n = root_;
    if (slots_) {
      Slot const& s = slots_[F::top(a, slotBits_)];
      best = s.best;
      n = s.next;
    }
    while (n && F::common(n->bits, a) >= n->len) {
      if (n->hasValue) best = n;
      if (n->len == F::width) break;
      n = n->child[F::bit(a, n->len)];
    }
    return best;
  }

  std::pair<V*, bool> added(ValueNode* v, Node* top) {
    ++size_;
    changed(top->bits, top->len);
    return {v->value(), true};
  }

  // Keeps the slot table right after a change at or under prefix (w, len).
  void changed(Word w, unsigned len) noexcept {
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
    if (slots_) refill(w, len);
  }

  static unsigned wantedSlotBits(std::size_t n) noexcept {
    if (n < minSlottedSize) return 0;
    return std::min<unsigned>(maxSlotBits, static_cast<unsigned>(std::bit_width(n)) - 1);
  }

  // Rebuilds the table with 2^bits slots (none for 0); answers false, with
  // the old table kept, when memory runs out.
  bool resizeSlots(unsigned bits) noexcept {
    if (bits == 0) {
      slots_.reset();
      slotBits_ = 0;
      return true;
    }
    std::unique_ptr<Slot[]> fresh(new (std::nothrow) Slot[std::size_t{1} << bits]);
    if (!fresh) return false;
    slots_ = std::move(fresh);
    slotBits_ = bits;
    fill(Word{}, 0, root_, nullptr);
    return true;
  }

  // Recomputes the slots under the prefix (w, len), or the one slot it lies in.
  void refill(Word w, unsigned len) noexcept {
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
    fill(p, q, n, best);
  }

  // Fills the slots under (p, q), q at most slotBits_: `n` is the first node
  // of length q or more on their walk from the root (or null) and `best` the
  // last value before it. O(slots + nodes) below.
  void fill(Word p, unsigned q, Node* n, Node* best) noexcept {
    if (n && F::common(n->bits, p) < q) n = nullptr;
    if (!n || n->len >= slotBits_) {
      fillRange(p, q, best);
      if (n) slots_[F::top(n->bits, slotBits_)].next = n;
      return;
    }
    for (unsigned i = q; i < n->len; ++i) {  // the sides that leave n's path
      fillRange(F::flip(F::masked(n->bits, i + 1), i), i + 1, best);
    }
    if (n->hasValue) best = n;
    fill(n->bits, n->len + 1u, n->child[0], best);
    fill(F::flip(n->bits, n->len), n->len + 1u, n->child[1], best);
  }
  void fillRange(Word p, unsigned q, Node* best) noexcept {
    std::fill_n(&slots_[F::top(p, slotBits_)], std::size_t{1} << (slotBits_ - q),
                Slot{best, nullptr});
  }

  Node* root_ = nullptr;
  std::size_t size_ = 0;
  std::unique_ptr<Slot[]> slots_;
  unsigned slotBits_ = 0;
};

template <class V>
using IpTrie = PrefixTrie<trie_internal::Ipv4, V>;
template <class V>
using Ip6Trie = PrefixTrie<trie_internal::Ipv6, V>;

}  // namespace Lumo

#endif  // LUMO_IPTRIE_H
