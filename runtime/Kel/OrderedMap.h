// The ordered collection behind every ordered attribute: a red-black tree
// (std::map) in ascending key order, with the iteration interface that the
// hash table and the queue share (done(), ++, key(), value()).
//
// Most ordered attributes of a router's state hold nothing (a RESV's further
// flow descriptors, a message's authentication keys), so the tree is made on
// the first insertion and freed by clear(): an empty map is one pointer
// rather than a tree header. Pointers to values and iterators keep the
// tree's rules: valid until their own element is erased or the map cleared.
#ifndef KEL_ORDEREDMAP_H
#define KEL_ORDEREDMAP_H

#include <Kel/Types.h>

#include <map>
#include <memory>
#include <utility>

namespace Kel {

template <class K, class V>
class OrderedMap {
  using Map = std::map<K, V>;

 public:
  class Iterator {
   public:
    Iterator() = default;
    [[nodiscard]] bool done() const noexcept { return it_ == end_; }
    [[nodiscard]] K const& key() const noexcept { return it_->first; }
    [[nodiscard]] V& value() const noexcept { return it_->second; }
    Iterator& operator++() noexcept {
      ++it_;
      return *this;
    }
    bool operator==(Iterator const& o) const noexcept { return it_ == o.it_; }
    auto& operator*() const noexcept { return *it_; }
    auto* operator->() const noexcept { return &*it_; }

   private:
    friend class OrderedMap;
    Iterator(typename Map::iterator it, typename Map::iterator end) noexcept : it_(it), end_(end) {}
    typename Map::iterator it_{};
    typename Map::iterator end_{};
  };

  OrderedMap() = default;
  OrderedMap(OrderedMap const& other)
      : map_(other.empty() ? nullptr : std::make_unique<Map>(*other.map_)) {}
  OrderedMap& operator=(OrderedMap const& other) {
    if (this != &other) map_ = std::move(OrderedMap(other).map_);
    return *this;
  }
  OrderedMap(OrderedMap&&) noexcept = default;
  OrderedMap& operator=(OrderedMap&&) noexcept = default;

  [[nodiscard]] std::size_t size() const noexcept { return map_ ? map_->size() : 0; }
  [[nodiscard]] bool empty() const noexcept { return !map_ || map_->empty(); }

  [[nodiscard]] V* find(K const& key) const noexcept {
    if (!map_) return nullptr;
    auto const it = map_->find(key);
    return it == map_->end() ? nullptr : &it->second;
  }

  // Inserts `key` with a value made from `args` unless present. Answers the
  // value and whether it is new.
  template <class... Args>
  std::pair<V*, bool> insert(K const& key, Args&&... args) {
    if (!map_) map_ = std::make_unique<Map>();
    auto [it, added] = map_->try_emplace(key, std::forward<Args>(args)...);
    return {&it->second, added};
  }

  bool erase(K const& key) { return map_ && map_->erase(key) > 0; }
  void clear() noexcept { map_.reset(); }

  [[nodiscard]] Iterator begin() const noexcept {
    Map& m = tree();
    return Iterator(m.begin(), m.end());
  }
  [[nodiscard]] Iterator end() const noexcept {
    Map& m = tree();
    return Iterator(m.end(), m.end());
  }

 private:
  // The tree, or a shared empty one to iterate while there is none (never
  // changed: insertion makes this map's own tree).
  Map& tree() const noexcept {
    static Map none;
    return map_ ? *map_ : none;
  }

  std::unique_ptr<Map> map_;
};

}  // namespace Kel

#endif  // KEL_ORDEREDMAP_H
