// The dedup table in both layouts: random dedups and releases against a map
// of value to the identity of its live handle, the states a handle passes
// through, the flags beside the count, the lifetime notifier, and the fatal
// misuses with their texts.
#include <Kel/Hash.h>
#include <Orv/DedupHashTable.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Kel::U32;
using Kel::U64;
using Orv::DedupHandle;
using State = DedupHandle::DedupState;

// Values four apart share a hash, so that chains hold equal hashes.
class IdHandle : public DedupHandle {
 public:
  static Kel::Ptr<IdHandle> make(U32 value) { return Kel::Ptr<IdHandle>(new IdHandle(value)); }

  [[nodiscard]] U32 value() const noexcept { return value_; }
  [[nodiscard]] U64 serial() const noexcept { return serial_; }
  [[nodiscard]] U32 dedupHash() const noexcept override {
    Kel::OneAtATime h;
    h.addU32(value_ / 4);
    return h.finish();
  }
  [[nodiscard]] bool dedupEquals(DedupHandle const& other) const noexcept override {
    auto const* const o = dynamic_cast<IdHandle const*>(&other);
    return o && o->value_ == value_;
  }
  // A misuse for the death test.
  void destroyNow() { delete this; }

  static inline U64 made = 0;
  static inline U64 destroyed = 0;

 protected:
  explicit IdHandle(U32 value) : DedupHandle("id"), value_(value), serial_(++made) {}
  ~IdHandle() override { ++destroyed; }

 private:
  U32 value_;
  U64 serial_;
};

// Dedups an equal value from its lifetime notifier, holding itself for a
// while: it must get a new handle, and go only once.
class NoticedHandle : public IdHandle {
 public:
  static Kel::Ptr<NoticedHandle> make(U32 value, Orv::DedupHashTable* table) {
    Kel::Ptr<NoticedHandle> h(new NoticedHandle(value, table));
    h->hasLifeTimeNotifierIs(true);
    return h;
  }
  static inline std::vector<Kel::Ptr<IdHandle>> successors;
  static inline int notices = 0;
  static inline bool keepSelf = false;
  static inline Kel::Ptr<DedupHandle const> kept;

 private:
  NoticedHandle(U32 value, Orv::DedupHashTable* table) : IdHandle(value), table_(table) {}
  void onLifeTimeEnd() const noexcept override {
    ++notices;
    Kel::Ptr<DedupHandle const> const self(this);
    EXPECT_TRUE(unlinking());
    EXPECT_EQ(dedupState(), State::linked) << "still linked while notified";
    successors.push_back(table_->dedup(IdHandle::make(value())));
    EXPECT_NE(successors.back().get(), this) << "a handle on its way out was handed out";
    if (keepSelf) kept = self;
  }
  Orv::DedupHashTable* table_;
};

class Dedup : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Layouts, Dedup, testing::Values(false, true),
                         [](auto const& p) { return p.param ? "UnorderedSet" : "Chained"; });

// Random dedups and releases of 40 values (ten hashes) by many holders,
// against a map from value to the serial of its live handle.
TEST_P(Dedup, AgreesWithAModel) {
  Orv::DedupHashTable table(GetParam());
  ASSERT_EQ(table.unorderedSet(), GetParam());
  std::mt19937 rng(GetParam() ? 2 : 1);
  std::map<U32, U64> live;
  std::vector<Kel::Ptr<IdHandle>> holders;
  U64 const madeBefore = IdHandle::made, destroyedBefore = IdHandle::destroyed;
  for (int op = 0; op < 20000; ++op) {
    if (rng() % 2 || holders.empty()) {
      U32 const v = rng() % 40;
      Kel::Ptr<IdHandle> const candidate = IdHandle::make(v);
      Kel::Ptr<IdHandle> const got = table.dedup(candidate);
      auto const [it, isNew] = live.try_emplace(v, got->serial());
      ASSERT_EQ(got->value(), v);
      ASSERT_EQ(got->serial(), it->second) << "value " << v << ": not the live handle";
      ASSERT_EQ(got == candidate, isNew) << "value " << v;
      ASSERT_EQ(got->dedupState(), State::linked);
      ASSERT_TRUE(got->frozen());
      holders.push_back(got);
    } else {
      std::size_t const i = rng() % holders.size();
      U32 const v = holders[i]->value();
      std::swap(holders[i], holders.back());
      holders.pop_back();
      if (std::none_of(holders.begin(), holders.end(),
                       [v](auto const& h) { return h->value() == v; })) {
        live.erase(v);
      }
    }
    ASSERT_EQ(table.size(), live.size());
    ASSERT_EQ(IdHandle::made - madeBefore - (IdHandle::destroyed - destroyedBefore), live.size())
        << "a released handle outlived its last reference";
    if (op % 97 == 0) {
      std::vector<Kel::Ptr<DedupHandle>> const listed = table.handles();
      std::map<U32, U64> seen;
      for (auto const& h : listed) {
        auto const* const id = static_cast<IdHandle const*>(h.get());
        seen[id->value()] = id->serial();
      }
      ASSERT_EQ(seen, live);
      ASSERT_EQ(listed.size(), live.size());
      if (!GetParam()) {  // ascending reversed hash, ties in link order
        auto const place = [&](std::size_t j) {
          auto const* const h = static_cast<IdHandle const*>(listed[j].get());
          return std::pair(Kel::bitReverse32(h->dedupHash()), h->serial());
        };
        for (std::size_t j = 1; j < listed.size(); ++j) ASSERT_LT(place(j - 1), place(j)) << j;
      }
    }
  }
  holders.clear();
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(IdHandle::made - madeBefore, IdHandle::destroyed - destroyedBefore);
}

// A handle's path: detached, linked (shared by equal values), released when
// its table goes; the flags beside the count stay apart from it.
TEST_P(Dedup, StatesFlagsAndTheTablesEnd) {
  Kel::Ptr<IdHandle> a = IdHandle::make(7);
  EXPECT_EQ(a->dedupState(), State::detached);
  EXPECT_FALSE(a->frozen());
  a->hasLifeTimeNotifierIs(true);
  Kel::Ptr<IdHandle> const extra = a;
  EXPECT_EQ(a->references(), 2u) << "a flag counted as references";
  EXPECT_TRUE(a->hasLifeTimeNotifier());
  a->hasLifeTimeNotifierIs(false);
  EXPECT_FALSE(a->hasLifeTimeNotifier());
  EXPECT_EQ(a->references(), 2u);
  U64 const destroyedBefore = IdHandle::destroyed;
  {
    Orv::DedupHashTable table(GetParam());
    EXPECT_EQ(table.dedup(a), a);
    EXPECT_EQ(a->dedupState(), State::linked);
    EXPECT_FALSE(a->hasLifeTimeNotifier()) << "the state overwrote a flag";
    EXPECT_EQ(table.dedup(a), a) << "a linked handle answers for itself";
    Kel::Ptr<IdHandle> const again = table.dedup(IdHandle::make(7));
    EXPECT_EQ(again, a);
    Kel::Ptr<IdHandle> const sameHash = table.dedup(IdHandle::make(6));
    EXPECT_NE(sameHash, a);
    EXPECT_EQ(table.size(), 2u);
    EXPECT_EQ(a->references(), 3u) << "dedup answered a with one reference more";
    EXPECT_FALSE(a->unlinking());
  }
  EXPECT_EQ(IdHandle::destroyed, destroyedBefore + 2)
      << "only the candidate that was not kept and the unheld handle went";
  EXPECT_EQ(a->dedupState(), State::released) << "let go by its table";
  EXPECT_EQ(a->references(), 2u);
  a = nullptr;
  EXPECT_EQ(IdHandle::destroyed, destroyedBefore + 2) << "extra still holds it";
}

TEST_P(Dedup, LifeTimeNotifierRunsOnceAndTheValueGetsANewHandle) {
  Orv::DedupHashTable table(GetParam());
  NoticedHandle::notices = 0;
  NoticedHandle::successors.clear();
  Kel::Ptr<IdHandle> h = table.dedup(Kel::Ptr<IdHandle>(NoticedHandle::make(3, &table)));
  U64 const serial = h->serial();
  U64 const destroyedBefore = IdHandle::destroyed;
  h = nullptr;
  EXPECT_EQ(NoticedHandle::notices, 1);
  EXPECT_EQ(IdHandle::destroyed, destroyedBefore + 1);
  ASSERT_EQ(NoticedHandle::successors.size(), 1u);
  EXPECT_NE(NoticedHandle::successors[0]->serial(), serial);
  EXPECT_EQ(table.size(), 1u) << "the successor stays, the noticed handle left";
  EXPECT_EQ(table.dedup(IdHandle::make(3)), NoticedHandle::successors[0]);
  NoticedHandle::successors.clear();
  EXPECT_EQ(table.size(), 0u);
}

TEST(DedupDeathTest, MisusesStopWithTheirText) {
  std::tuple<char const*, void (*)(), char const*> const cases[] = {
      // what, act, text
      {"destroying a linked handle",
       [] {
         Orv::DedupHashTable table;
         Kel::Ptr<IdHandle> const h = table.dedup(IdHandle::make(1));
         h->destroyNow();
       },
       "Assertion failed: !hook\\.is_linked\\(\\)"},
      {"linking a released handle again",
       [] {
         Kel::Ptr<IdHandle> const h = IdHandle::make(1);
         { Orv::DedupHashTable(false).dedup(h); }
         Orv::DedupHashTable(false).dedup(h);
       },
       "A dedup handle that left its table cannot be linked again"},
      {"a lifetime notifier keeping its handle",
       [] {
         Orv::DedupHashTable table;
         NoticedHandle::keepSelf = true;
         (void)table.dedup(Kel::Ptr<IdHandle>(NoticedHandle::make(2, &table)));
       },
       "A lifetime notifier kept a reference to its dedup handle"},
  };
  for (auto const& [what, act, text] : cases) EXPECT_DEATH(act(), text) << what;
}

}  // namespace
