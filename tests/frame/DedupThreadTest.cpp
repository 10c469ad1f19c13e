// Threads: several threads dedup and release handles of one table at once,
// and pass handles to each other so that a handle is often released by a
// thread other than the one that linked it. Run under ThreadSanitizer
// (preset tsan), where an unsynchronised access fails. Then the same through
// the typed layer: one dedup table entity per thread over a shared base
// table, deduplicated values handed from thread to thread.
#include <Kel/Hash.h>
#include <Orv/DedupHashTable.h>
#include <Rsvp/RsvpIdDedup.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <array>
#include <atomic>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

using Kel::U32;

std::atomic<int> liveHandles{0};

class ValueHandle : public Orv::DedupHandle {
 public:
  explicit ValueHandle(U32 value, bool noticed) : DedupHandle("value"), value_(value) {
    liveHandles.fetch_add(1, std::memory_order_relaxed);
    hasLifeTimeNotifierIs(noticed);
  }
  [[nodiscard]] U32 value() const noexcept { return value_; }
  [[nodiscard]] U32 dedupHash() const noexcept override {
    Kel::OneAtATime h;
    h.addU32(value_);
    return h.finish();
  }
  [[nodiscard]] bool dedupEquals(DedupHandle const& other) const noexcept override {
    return static_cast<ValueHandle const&>(other).value_ == value_;
  }

 protected:
  ~ValueHandle() override { liveHandles.fetch_sub(1, std::memory_order_relaxed); }
  // Holds itself for a moment while it goes: another thread may meet it in
  // the table meanwhile, with a count above zero, and must pass it by.
  void onLifeTimeEnd() const noexcept override {
    Kel::Ptr<DedupHandle const> const self(this);
    std::this_thread::yield();
  }

 private:
  U32 value_;
};

// Handles passed from thread to thread.
struct Mailbox {
  std::mutex mutex;
  std::array<Kel::Ptr<ValueHandle>, 8> slots;
};

// Each thread holds a few handles of a few values. Holding a handle keeps
// it live, so a dedup of its value must answer that very handle.
void churn(Orv::DedupHashTable& table, Mailbox& mailbox, unsigned seed, int rounds,
           std::atomic<int>* wrong) {
  std::mt19937 rng(seed);
  std::vector<Kel::Ptr<ValueHandle>> held;
  for (int round = 0; round < rounds; ++round) {
    U32 const value = rng() % 12;
    Kel::Ptr<ValueHandle> const got =
        table.dedup(Kel::Ptr<ValueHandle>(new ValueHandle(value, rng() % 4 == 0)));
    for (auto const& h : held) {
      if (h->value() == value && h != got) wrong->fetch_add(1);
    }
    if (got->value() != value) wrong->fetch_add(1);
    held.push_back(got);
    if (rng() % 3 == 0) {  // swap one with the mailbox
      std::size_t const i = rng() % held.size();
      std::lock_guard const lock(mailbox.mutex);
      held[i].swap(mailbox.slots[rng() % mailbox.slots.size()]);
      if (!held[i]) held.erase(held.begin() + static_cast<std::ptrdiff_t>(i));
    }
    while (held.size() > 3)
      held.erase(held.begin() + static_cast<std::ptrdiff_t>(rng() % held.size()));
  }
}

TEST(DedupThreads, ConcurrentDedupsAndReleasesOfOneTable) {
  for (bool const unorderedSet : {false, true}) {
    std::atomic<int> wrong{0};
    {
      Orv::DedupHashTable table(unorderedSet);
      Mailbox mailbox;
      TestSupport::inThreads(4, [&](unsigned t) { churn(table, mailbox, t + 1, 20000, &wrong); });
      EXPECT_EQ(table.size(), table.handles().size()) << "all that is linked is live";
      mailbox.slots = {};
      EXPECT_EQ(table.size(), 0u) << (unorderedSet ? "unordered set" : "chained");
    }
    EXPECT_EQ(wrong.load(), 0) << "a value had two live handles";
    EXPECT_EQ(liveHandles.load(), 0) << "every handle was destroyed";
  }
}

// Deduplicated session ids passed between threads, some parsed (a handle
// that no table knows). A thread keeps its own table entity: entities that
// are not frozen belong to one thread, the base table is shared.
void typedChurn(Orv::DedupHashTable& shared, std::mutex& mutex,
                std::vector<Rsvp::RsvpSessionIdDeduped>& box, unsigned seed, int rounds,
                std::atomic<int>* wrong) {
  auto const table = Rsvp::rsvpSessionIdDedupTableRealFactory();
  table->dedupTableIs(&shared);
  std::mt19937 rng(seed);
  std::vector<Rsvp::RsvpSessionIdDeduped> held;
  for (int round = 0; round < rounds; ++round) {
    Rsvp::RsvpSessionId const id(Lumo::IpGenAddr::ipv4(0x0a000000u + rng() % 8),
                                 Rsvp::RsvpTunnelId(7), Lumo::IpGenAddr());
    Rsvp::RsvpSessionIdDeduped got(table->dedupFromValue(id));
    if (rng() % 5 == 0) got.stringValueIs(got.stringValue());
    for (auto const& h : held) {
      bool const linked = h.handle()->dedupState() == Orv::DedupHandle::DedupState::linked &&
                          got.handle()->dedupState() == Orv::DedupHandle::DedupState::linked;
      if (h.value() == id && linked && h.handle() != got.handle()) wrong->fetch_add(1);
    }
    if (got.value() != id || got.hash() != id.hash()) wrong->fetch_add(1);
    held.push_back(got);
    if (rng() % 3 == 0) {
      std::size_t const i = rng() % held.size();
      std::lock_guard const lock(mutex);
      std::swap(held[i], box[rng() % box.size()]);
      if (!held[i].handle()) held.erase(held.begin() + static_cast<std::ptrdiff_t>(i));
    }
    while (held.size() > 3)
      held.erase(held.begin() + static_cast<std::ptrdiff_t>(rng() % held.size()));
  }
}

TEST(DedupThreads, TypedValuesCrossThreads) {
  std::atomic<int> wrong{0};
  Orv::DedupHashTable shared;
  std::mutex mutex;
  std::vector<Rsvp::RsvpSessionIdDeduped> box(8);
  TestSupport::inThreads(4,
                         [&](unsigned t) { typedChurn(shared, mutex, box, t + 1, 10000, &wrong); });
  EXPECT_EQ(wrong.load(), 0) << "a live id had two linked handles";
  box.clear();
  EXPECT_EQ(shared.size(), 0u) << "every handle left the table with its last holder";
}

}  // namespace
