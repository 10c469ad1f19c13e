// The table that deduplicates handles: dedup(candidate) answers the live
// handle equal to the candidate, or links the candidate and answers it. The
// table holds its handles without counting them; a handle unlinks itself
// when its last reference goes. This is the base library's seam
// (docs/PLATFORM.md); the rules are in docs/DEDUP.md.
//
//   Orv::DedupHashTable table;
//   auto a = table.dedup(Kel::Ptr<IdHandle>(new IdHandle(7)));
//   auto b = table.dedup(Kel::Ptr<IdHandle>(new IdHandle(7)));  // a == b
#ifndef ORV_DEDUPHASHTABLE_H
#define ORV_DEDUPHASHTABLE_H

#include <Kel/Ptr.h>
#include <Kel/Types.h>
#include <Orv/DedupHandle.h>

#include <concepts>
#include <cstddef>
#include <memory>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#if KEL_THREAD_SAFE_PTR
#include <mutex>
#endif

namespace Orv {

// The layout of the tables made from now on in this process: false (the
// default) for intrusive chains, true for a standard unordered multiset of
// handle pointers. The two keep the same contract; they differ in cost and
// iteration order (DedupHashTable::handles()). Tables already made keep
// theirs.
void DedupHashTableUnorderedSetIs(bool on) noexcept;
[[nodiscard]] bool DedupHashTableUnorderedSet() noexcept;

class DedupHashTable {
 public:
  // In the layout DedupHashTableUnorderedSet() names.
  DedupHashTable();
  explicit DedupHashTable(bool unorderedSet);
  // Handles still linked are let go: their state becomes released and they
  // live on while referenced. No other thread may use the table or release
  // one of its handles meanwhile.
  ~DedupHashTable();
  DedupHashTable(DedupHashTable const&) = delete;
  DedupHashTable& operator=(DedupHashTable const&) = delete;

  // The live handle equal to `candidate`, or `candidate` itself, linked and
  // frozen. A handle whose last reference has gone is never answered, even
  // while it is still linked. The candidate's hash is taken before the lock.
  // `candidate` must be non-null and new (DedupState::detached) or already
  // linked here; one that left a table or is being released is a fatal
  // error. Raises std::bad_alloc when the table cannot grow; nothing changes.
  Kel::Ptr<DedupHandle> dedup(Kel::Ptr<DedupHandle> candidate);
  // The same for a typed handle: an equal handle has the candidate's type.
  template <class T>
  requires(std::derived_from<T, DedupHandle> &&
           !std::is_same_v<T, DedupHandle>) Kel::Ptr<T> dedup(Kel::Ptr<T> candidate) {
    return Kel::Ptr<T>::adopt(
        static_cast<T*>(dedup(Kel::Ptr<DedupHandle>(std::move(candidate))).release()));
  }

  // The linked handles, those being released included.
  [[nodiscard]] std::size_t size() const;
  [[nodiscard]] bool unorderedSet() const noexcept { return unorderedSet_; }

  // For tests and diagnostics: the live handles, each with a reference
  // taken under the lock (handles being released are left out). Chained
  // layout: ascending bit-reversed hash, equal hashes in link order, so two
  // tables that hold the same values list them alike. Unordered set: the
  // standard container's order.
  [[nodiscard]] std::vector<Kel::Ptr<DedupHandle>> handles() const;

 private:
  friend class DedupHandle;

  struct SetHash {
    std::size_t operator()(DedupHandle const* h) const noexcept { return rhashOf(h); }
  };
  struct SetEqual {
    bool operator()(DedupHandle const* a, DedupHandle const* b) const noexcept {
      return a == b || a->dedupEquals(*b);
    }
  };
  using Set = std::unordered_multiset<DedupHandle*, SetHash, SetEqual>;

#if KEL_THREAD_SAFE_PTR
  using Mutex = std::mutex;
#else
  // Counts are plain, so handles belong to one thread: nothing to lock.
  struct Mutex {
    void lock() noexcept {}
    void unlock() noexcept {}
  };
#endif

  static Kel::U32 rhashOf(DedupHandle const* h) noexcept { return h->hook_.rhash; }

  // Called by a handle whose last reference went, without the lock.
  void unlink(DedupHandle const& h) noexcept;
  void link(DedupHandle* h, DedupHandle** at);
  void grow();
  template <class F>
  void forEachLinked(F&& f) const;

  bool const unorderedSet_;
  mutable Mutex mutex_;
  // Chained layout: 2^bucketBits_ chains, by the top bits of the reversed
  // hash, each sorted by it; doubled when the handles outnumber them.
  std::unique_ptr<DedupHandle*[]> buckets_;
  unsigned bucketBits_ = 0;
  std::size_t size_ = 0;
  Set set_;
};

}  // namespace Orv

#endif  // ORV_DEDUPHASHTABLE_H
