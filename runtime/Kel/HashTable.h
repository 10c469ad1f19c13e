// The hash table behind every hashed collection of the model.
//
// A key goes to the bucket given by the top bits of its bit-reversed 32-bit
// hash(): with 2^b buckets, bucket = bitReverse32(hash) >> (32 - b). Each
// bucket's chain is kept sorted by the reversed hash (equal hashes in
// insertion order), so iteration visits keys in ascending reversed-hash
// order whatever the table's size or history: two tables holding the same
// keys iterate alike, and doubling splits every chain in one pass.
//
// Growth policy: the first insertion allocates 8 buckets; the table doubles
// when it holds more keys than buckets (load factor at most 1). Erasing never
// shrinks it, so erasing during iteration is safe; clear() frees everything.
//
// K needs `U32 hash() const` (or a KeyTraits specialisation) and operator==.
// Nodes are allocated one by one and never move: pointers to keys and values
// stay valid until their key is erased.
#ifndef KEL_HASHTABLE_H
#define KEL_HASHTABLE_H

#include <Kel/Hash.h>
#include <Kel/Types.h>

#include <cassert>
#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

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

template <class K, class V = NoValue>
class HashTable {
 public:
  struct Node {
    Node* next;
    U32 rhash;  // the bit-reversed hash
    K key;
    [[no_unique_address]] V value;
  };

  class Iterator {
   public:
    Iterator() = default;
    [[nodiscard]] Node* node() const noexcept { return node_; }
    [[nodiscard]] K const& key() const noexcept { return node_->key; }
    [[nodiscard]] V& value() const noexcept { return node_->value; }
    [[nodiscard]] bool done() const noexcept { return node_ == nullptr; }
    Iterator& operator++() noexcept {
      node_ = table_->following(node_);
      return *this;
    }
    bool operator==(Iterator const& o) const noexcept { return node_ == o.node_; }
    Node& operator*() const noexcept { return *node_; }
    Node* operator->() const noexcept { return node_; }

   private:
    friend class HashTable;
    Iterator(HashTable const* t, Node* n) noexcept : table_(t), node_(n) {}
    HashTable const* table_ = nullptr;
    Node* node_ = nullptr;
  };

  HashTable() = default;
  HashTable(HashTable const&) = delete;
  HashTable& operator=(HashTable const&) = delete;
  ~HashTable() { clear(); }

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
  [[nodiscard]] std::size_t bucketCount() const noexcept {
    return buckets_ ? std::size_t{1} << bits_ : 0;
  }

  // The value stored under `key`, or null.
  [[nodiscard]] V* find(K const& key) const noexcept {
    if (!buckets_) return nullptr;
    U32 const rh = bitReverse32(KeyTraits<K>::hash(key));
    for (Node* n = buckets_[rh >> shift()]; n && n->rhash <= rh; n = n->next) {
      if (n->rhash == rh && n->key == key) return &n->value;
    }
    return nullptr;
  }

  // Inserts `key` with a value made from `args` unless present. Answers the
  // stored value and whether it is new.
  template <class... Args>
  std::pair<V*, bool> insert(K const& key, Args&&... args) {
    U32 const rh = bitReverse32(KeyTraits<K>::hash(key));
    if (buckets_) {
      Node** link = &buckets_[rh >> shift()];
      for (; *link && (*link)->rhash <= rh; link = &(*link)->next) {
        if ((*link)->rhash == rh && (*link)->key == key) return {&(*link)->value, false};
      }
      if (size_ < (std::size_t{1} << bits_))
        return {&linkNode(link, rh, key, std::forward<Args>(args)...)->value, true};
    }
    grow();
    Node** link = &buckets_[rh >> shift()];
    while (*link && (*link)->rhash <= rh) link = &(*link)->next;
    return {&linkNode(link, rh, key, std::forward<Args>(args)...)->value, true};
  }

  // Removes `key`; answers whether it was present.
  bool erase(K const& key) noexcept {
    if (!buckets_) return false;
    U32 const rh = bitReverse32(KeyTraits<K>::hash(key));
    for (Node** link = &buckets_[rh >> shift()]; *link && (*link)->rhash <= rh;
         link = &(*link)->next) {
      Node* const n = *link;
      if (n->rhash == rh && n->key == key) {
        *link = n->next;
        --size_;
        delete n;
        return true;
      }
    }
    return false;
  }

  // Removes the node that `it` stands on and steps `it` on.
  void erase(Iterator& it) noexcept {
    Node* const n = it.node_;
    ++it;
    erase(n->key);
  }

  void clear() noexcept {
    if (!buckets_) return;
    std::size_t const count = std::size_t{1} << bits_;
    for (std::size_t i = 0; i < count; ++i) {
      for (Node* n = buckets_[i]; n;) {
        Node* const next = n->next;
        delete n;
        n = next;
      }
    }
    buckets_.reset();
    bits_ = 0;
    size_ = 0;
  }

  [[nodiscard]] Iterator begin() const noexcept { return Iterator(this, first(0)); }
  [[nodiscard]] Iterator end() const noexcept { return Iterator(this, nullptr); }
  [[nodiscard]] Iterator iteratorAt(Node* n) const noexcept { return Iterator(this, n); }

  // Bytes held by the table itself: buckets and nodes.
  [[nodiscard]] std::size_t bytes() const noexcept {
    return bucketCount() * sizeof(Node*) + size_ * sizeof(Node);
  }

 private:
  static constexpr unsigned kInitialBits = 3;

  [[nodiscard]] unsigned shift() const noexcept { return 32 - bits_; }

  Node* first(std::size_t bucket) const noexcept {
    if (!buckets_) return nullptr;
    std::size_t const count = std::size_t{1} << bits_;
    for (; bucket < count; ++bucket) {
      if (buckets_[bucket]) return buckets_[bucket];
    }
    return nullptr;
  }

  Node* following(Node* n) const noexcept {
    if (n->next) return n->next;
    return first((n->rhash >> shift()) + 1);
  }

  template <class... Args>
  Node* linkNode(Node** link, U32 rh, K const& key, Args&&... args) {
    Node* n = new Node{*link, rh, key, V(std::forward<Args>(args)...)};
    *link = n;
    ++size_;
    return n;
  }

  // Doubles the buckets; each chain splits in two, order kept.
  void grow() {
    if (!buckets_) {
      bits_ = kInitialBits;
      buckets_ = std::make_unique<Node*[]>(std::size_t{1} << bits_);
      return;
    }
    unsigned const newBits = bits_ + 1;
    auto fresh = std::make_unique<Node*[]>(std::size_t{1} << newBits);
    std::size_t const count = std::size_t{1} << bits_;
    for (std::size_t i = 0; i < count; ++i) {
      Node** low = &fresh[2 * i];
      Node** high = &fresh[2 * i + 1];
      for (Node* n = buckets_[i]; n;) {
        Node* const next = n->next;
        Node**& tail = ((n->rhash >> (32 - newBits)) & 1) ? high : low;
        *tail = n;
        tail = &n->next;
        n = next;
      }
      *low = nullptr;
      *high = nullptr;
    }
    buckets_ = std::move(fresh);
    bits_ = newBits;
  }

  std::unique_ptr<Node*[]> buckets_;
  unsigned bits_ = 0;
  std::size_t size_ = 0;
};

}  // namespace Kel

#endif  // KEL_HASHTABLE_H
