// The ordered collection behind every ordered attribute: a red-black tree
// (std::map) in ascending key order, with the iteration interface that the
// hash table and the queue share (done(), ++, key(), value()).
#ifndef KEL_ORDEREDMAP_H
#define KEL_ORDEREDMAP_H

#include <Kel/Types.h>

#include <map>
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

  [[nodiscard]] std::size_t size() const noexcept { return map_.size(); }
  [[nodiscard]] bool empty() const noexcept { return map_.empty(); }

  [[nodiscard]] V* find(K const& key) const noexcept {
    auto const it = map_.find(key);
    return it == map_.end() ? nullptr : &it->second;
  }

  // Inserts `key` with a value made from `args` unless present. Answers the
  // value and whether it is new.
  template <class... Args>
  std::pair<V*, bool> insert(K const& key, Args&&... args) {
    auto [it, added] = map_.try_emplace(key, std::forward<Args>(args)...);
    return {&it->second, added};
  }

  bool erase(K const& key) { return map_.erase(key) > 0; }
  void clear() noexcept { map_.clear(); }

  [[nodiscard]] Iterator begin() const noexcept { return Iterator(map_.begin(), map_.end()); }
  [[nodiscard]] Iterator end() const noexcept { return Iterator(map_.end(), map_.end()); }

 private:
  mutable Map map_;
};

}  // namespace Kel

#endif  // KEL_ORDEREDMAP_H
