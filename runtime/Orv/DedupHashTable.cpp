#include <Orv/DedupHashTable.h>

#include <Kel/Assert.h>
#include <Kel/Hash.h>

#include <atomic>
#include <mutex>

namespace Orv {

namespace {

std::atomic<bool> unorderedSetDefault{false};

constexpr unsigned firstBucketBits = 3;

}  // namespace

void DedupHashTableUnorderedSetIs(bool on) noexcept {
  unorderedSetDefault.store(on, std::memory_order_relaxed);
}

bool DedupHashTableUnorderedSet() noexcept {
  return unorderedSetDefault.load(std::memory_order_relaxed);
}

DedupHashTable::DedupHashTable() : DedupHashTable(DedupHashTableUnorderedSet()) {}

DedupHashTable::DedupHashTable(bool unorderedSet) : unorderedSet_(unorderedSet) {}

DedupHashTable::~DedupHashTable() {
  std::lock_guard const lock(mutex_);
  forEachLinked([](DedupHandle* h) {
    h->hook_ = {};
    h->dedupStateIs(DedupHandle::DedupState::released);
  });
}

template <class F>
void DedupHashTable::forEachLinked(F&& f) const {
  if (unorderedSet_) {
    for (DedupHandle* const h : set_) f(h);
    return;
  }
  if (!buckets_) return;
  for (std::size_t b = 0; b < std::size_t{1} << bucketBits_; ++b) {
    for (DedupHandle* h = buckets_[b]; h;) {
      DedupHandle* const next = h->hook_.next;  // f may clear the hook
      f(h);
      h = next;
    }
  }
}

Kel::Ptr<DedupHandle> DedupHashTable::dedup(Kel::Ptr<DedupHandle> candidate) {
  KEL_ASSERT(candidate && "A null handle cannot be deduplicated");
  Kel::U32 const rhash = Kel::bitReverse32(candidate->dedupHash());
  std::lock_guard const lock(mutex_);
  DedupHandle::DedupState const state = candidate->dedupState();
  if (state == DedupHandle::DedupState::linked) {
    // The caller's reference keeps it live, so it answers for its value.
    KEL_ASSERT(candidate->hook_.table == this && !candidate->unlinking() &&
               "A dedup handle belongs to one table and is not deduplicated while released");
    return candidate;
  }
  KEL_ASSERT(state == DedupHandle::DedupState::detached &&
             "A dedup handle that left its table cannot be linked again");

  if (unorderedSet_) {
    candidate->hook_.rhash = rhash;  // the set's hash of the candidate
    auto const [first, last] = set_.equal_range(candidate.get());
    for (auto it = first; it != last; ++it) {
      if ((*it)->tryRef()) return Kel::Ptr<DedupHandle>::adopt(*it);
    }
    if (!candidate->frozen()) candidate->frozenIs();
    set_.insert(candidate.get());
    link(candidate.get(), nullptr);
    return candidate;
  }

  DedupHandle** at = nullptr;
  if (buckets_) {
    at = &buckets_[rhash >> (32 - bucketBits_)];
    for (DedupHandle* h; (h = *at) && h->hook_.rhash <= rhash; at = &h->hook_.next) {
      if (h->hook_.rhash == rhash && h->dedupEquals(*candidate) && h->tryRef()) {
        return Kel::Ptr<DedupHandle>::adopt(h);
      }
    }
  }
  if (!candidate->frozen()) candidate->frozenIs();
  if (!buckets_ || size_ >= std::size_t{1} << bucketBits_) {
    grow();
    // Equal hashes stay in link order: the new handle goes after them.
    at = &buckets_[rhash >> (32 - bucketBits_)];
    while (*at && (*at)->hook_.rhash <= rhash) at = &(*at)->hook_.next;
  }
  candidate->hook_.rhash = rhash;
  link(candidate.get(), at);
  return candidate;
}

void DedupHashTable::link(DedupHandle* h, DedupHandle** at) {
  if (at) {
    h->hook_.next = *at;
    *at = h;
  }
  h->hook_.table = this;
  h->dedupStateIs(DedupHandle::DedupState::linked);
  ++size_;
}

// Doubles the chains (8 at first). A chain sorted by the reversed hash
// splits in one pass into the two that take its place, both still sorted.
void DedupHashTable::grow() {
  unsigned const bits = buckets_ ? bucketBits_ + 1 : firstBucketBits;
  std::size_t const n = std::size_t{1} << bits;
  std::unique_ptr<DedupHandle*[]> fresh(new DedupHandle*[n]());
  if (buckets_) {
    for (std::size_t b = 0; b < std::size_t{1} << bucketBits_; ++b) {
      DedupHandle** tails[2] = {&fresh[2 * b], &fresh[2 * b + 1]};
      for (DedupHandle* h = buckets_[b]; h; h = h->hook_.next) {
        DedupHandle**& tail = tails[h->hook_.rhash >> (32 - bits) & 1u];
        *tail = h;
        tail = &h->hook_.next;
      }
      *tails[0] = nullptr;
      *tails[1] = nullptr;
    }
  }
  buckets_ = std::move(fresh);
  bucketBits_ = bits;
}

void DedupHashTable::unlink(DedupHandle const& h) noexcept {
  std::lock_guard const lock(mutex_);
  auto* const self = const_cast<DedupHandle*>(&h);
  if (unorderedSet_) {
    auto [it, last] = set_.equal_range(self);
    while (*it != self) ++it;
    set_.erase(it);
  } else {
    DedupHandle** at = &buckets_[h.hook_.rhash >> (32 - bucketBits_)];
    while (*at != self) at = &(*at)->hook_.next;
    *at = h.hook_.next;
  }
  h.hook_ = {};
  h.dedupStateIs(DedupHandle::DedupState::released);
  --size_;
}

std::size_t DedupHashTable::size() const {
  std::lock_guard const lock(mutex_);
  return size_;
}

std::vector<Kel::Ptr<DedupHandle>> DedupHashTable::handles() const {
  std::vector<Kel::Ptr<DedupHandle>> out;
  std::lock_guard const lock(mutex_);
  // Reserved first: growing the vector under the lock must not throw with
  // a reference in hand (dropping one here could unlink, under the lock).
  out.reserve(size_);
  forEachLinked([&out](DedupHandle* h) {
    if (h->tryRef()) out.push_back(Kel::Ptr<DedupHandle>::adopt(h));
  });
  return out;
}

}  // namespace Orv
