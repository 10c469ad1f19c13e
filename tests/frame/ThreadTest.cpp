// Threads, run under ThreadSanitizer (preset tsan), where an unsynchronised
// access fails: trees used by different threads share frozen entities;
// several threads dedup and release handles of one table at once, and pass
// handles to each other so that a handle is often released by a thread other
// than the one that linked it; then the same through the typed layer: one
// dedup table entity per thread over a shared base table, deduplicated values
// handed from thread to thread.
#include <Rsvp/FrameTestModel.h>
#include <Rsvp/Rsvp.h>

#include <Kel/Hash.h>
#include <Orv/DedupHashTable.h>
#include <Rsvp/RsvpIdDedup.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <atomic>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

using namespace Rsvp;
using Sample::Leaf;
using Sample::Root;

// Two threads each publish their own tree with their own writer and
// replicate it, both trees referring to one frozen message (a leaf that
// refers to another). A writer tracks the shared entities it announces and
// holds pointers to them, so their counts go up and down in both threads.
// Writers that registered with the message raced on its notifiee list.
TEST(Threads, WritersOfTwoTreesRaceOnASharedEntity) {
  Kel::Ptr<Leaf> const message = Sample::leafFactory(1);
  message->weightIs(7);
  message->nextIs(Sample::leafFactory(2));
  message->frozenIs();
  Kel::Ptr<Leaf const> const shared = message;

  constexpr int rounds = 1000;
  auto publish = [&shared](std::vector<Kel::U32>* seen) {
    TestSupport::LogLink<Root> link(Sample::rootFactory("root"), Sample::rootFactory("root"));
    for (int round = 0; round < rounds; ++round) {
      link.connect();
      for (Kel::U32 i = 0; i < 5; ++i) {  // ends referring to it
        link.source->sharedIs(i % 2 ? nullptr : shared);
        link.source->countIs(i);
        link.sync();
      }
      Kel::Ptr<Leaf const> const copy = link.replica->shared();
      seen->push_back(copy ? copy->weight() + copy->next()->id() : 0);
      link.writer.subscriberDel(link.sink);
    }
  };
  std::vector<Kel::U32> a, b;
  TestSupport::inThreads(2, [&](unsigned t) { publish(t == 0 ? &a : &b); });
  EXPECT_EQ(a, std::vector<Kel::U32>(rounds, 9));
  EXPECT_EQ(b, a);
  EXPECT_EQ(shared->references(), 2u) << "the writers dropped every pointer they took";
}

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

// Handles, or deduplicated values, passed from thread to thread.
template <class H>
struct Mailbox {
  std::mutex mutex;
  std::vector<H> slots = std::vector<H>(8);
};

Orv::DedupHandle const* handleOf(Kel::Ptr<ValueHandle> const& h) { return h.get(); }
Orv::DedupHandle const* handleOf(Rsvp::RsvpSessionIdDeduped const& d) { return d.handle().get(); }

// A thread's rounds: it keeps what `draw` answers (and counts as wrong what
// disagrees with those it holds), now and then swaps one held with a slot of
// the mailbox, and holds at most three.
template <class H, class Draw>
void churn(Mailbox<H>& mailbox, unsigned seed, int rounds, Draw const& draw) {
  std::mt19937 rng(seed);
  std::vector<H> held;
  for (int round = 0; round < rounds; ++round) {
    held.push_back(draw(rng, held));
    if (rng() % 3 == 0) {
      std::size_t const i = rng() % held.size();
      std::lock_guard const lock(mailbox.mutex);
      std::swap(held[i], mailbox.slots[rng() % mailbox.slots.size()]);
      if (!handleOf(held[i])) held.erase(held.begin() + static_cast<std::ptrdiff_t>(i));
    }
    while (held.size() > 3)
      held.erase(held.begin() + static_cast<std::ptrdiff_t>(rng() % held.size()));
  }
}

// Each thread holds a few handles of a few values. Holding a handle keeps
// it live, so a dedup of its value must answer that very handle.
TEST(DedupThreads, ConcurrentDedupsAndReleasesOfOneTable) {
  using Handle = Kel::Ptr<ValueHandle>;
  for (bool const unorderedSet : {false, true}) {
    std::atomic<int> wrong{0};
    {
      Orv::DedupHashTable table(unorderedSet);
      Mailbox<Handle> mailbox;
      auto const draw = [&](std::mt19937& rng, std::vector<Handle> const& held) {
        U32 const value = rng() % 12;
        Handle const got = table.dedup(Handle(new ValueHandle(value, rng() % 4 == 0)));
        for (auto const& h : held) {
          if (h->value() == value && h != got) ++wrong;
        }
        if (got->value() != value) ++wrong;
        return got;
      };
      TestSupport::inThreads(4, [&](unsigned t) { churn(mailbox, t + 1, 20000, draw); });
      EXPECT_EQ(table.size(), table.handles().size()) << "all that is linked is live";
      mailbox.slots.clear();
      EXPECT_EQ(table.size(), 0u) << (unorderedSet ? "unordered set" : "chained");
    }
    EXPECT_EQ(wrong.load(), 0) << "a value had two live handles";
    EXPECT_EQ(liveHandles.load(), 0) << "every handle was destroyed";
  }
}

// Deduplicated session ids passed between threads, some parsed (a handle
// that no table knows). A thread keeps its own table entity: entities that
// are not frozen belong to one thread, the base table is shared.
TEST(DedupThreads, TypedValuesCrossThreads) {
  using Rsvp::RsvpSessionIdDeduped;
  using State = Orv::DedupHandle::DedupState;
  std::atomic<int> wrong{0};
  Orv::DedupHashTable shared;
  Mailbox<RsvpSessionIdDeduped> mailbox;
  TestSupport::inThreads(4, [&](unsigned t) {
    auto const table = Rsvp::rsvpSessionIdDedupTableRealFactory();
    table->dedupTableIs(&shared);
    churn(mailbox, t + 1, 10000,
          [&](std::mt19937& rng, std::vector<RsvpSessionIdDeduped> const& held) {
            Rsvp::RsvpSessionId const id(Lumo::IpGenAddr::ipv4(0x0a000000u + rng() % 8),
                                         Rsvp::RsvpTunnelId(7), Lumo::IpGenAddr());
            RsvpSessionIdDeduped got(table->dedupFromValue(id));
            if (rng() % 5 == 0) got.stringValueIs(got.stringValue());
            for (auto const& h : held) {
              bool const linked = h.handle()->dedupState() == State::linked &&
                                  got.handle()->dedupState() == State::linked;
              if (h.value() == id && linked && h.handle() != got.handle()) ++wrong;
            }
            if (got.value() != id || got.hash() != id.hash()) ++wrong;
            return got;
          });
  });
  EXPECT_EQ(wrong.load(), 0) << "a live id had two linked handles";
  mailbox.slots.clear();
  EXPECT_EQ(shared.size(), 0u) << "every handle left the table with its last holder";
}

}  // namespace
