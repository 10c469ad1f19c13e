// The framework's containers against reference models: the hash table against
// std::map, the numbered queue against a model written from its numbering
// rules, the ordered map's copies, and the reference counts of Kel::Ptr.
#include <Kel/Hash.h>
#include <Kel/HashTable.h>
#include <Kel/OrderedMap.h>
#include <Kel/Ptr.h>
#include <Kel/Queue.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <deque>
#include <map>
#include <numeric>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Kel::U32;
using Kel::U64;

// ---- HashTable

// A key whose hash is chosen by `H`, so that tests control collisions.
template <U32 (*H)(U32)>
struct ChosenHashKey {
  U32 v;
  [[nodiscard]] U32 hash() const noexcept { return H(v); }
  bool operator==(ChosenHashKey const& o) const noexcept { return v == o.v; }
  bool operator<(ChosenHashKey const& o) const noexcept { return v < o.v; }
};

// Only seven distinct hashes: long runs of equal hashes in one chain.
constexpr U32 hashMod7(U32 v) { return v % 7; }
// Distinct hashes whose low sixteen bits are zero: every key lands in bucket 0
// of any table up to 2^16 buckets, so chains are long but sorted by hash.
constexpr U32 hashHighBits(U32 v) { return (v + 1) << 16; }

// Distinct hashes whose low sixteen bits are all ones: the reversed hashes
// crowd the top of the range, so every key's home is among the last slots.
constexpr U32 hashLowOnes(U32 v) { return (v << 16) | 0xFFFFu; }
// Reversed hashes 0 and all ones (what empty slots hold), and some near the top.
constexpr U32 hashExtremes(U32 v) {
  return v % 3 == 0 ? 0u : v % 3 == 1 ? ~0u : (v << 20) | 0xFFFFFu;
}

// A key that owns heap memory (a long string), which the table must move
// by its move constructor rather than by copying its bytes.
struct NamedKey {
  U32 v;
  std::string name = "a key named past the short-string buffer, number " + std::to_string(v);
  [[nodiscard]] U32 hash() const noexcept { return v % 97; }
  bool operator==(NamedKey const& o) const noexcept { return v == o.v && name == o.name; }
  bool operator<(NamedKey const& o) const noexcept { return v < o.v; }
};

using Mod7Key = ChosenHashKey<hashMod7>;
using HighBitsKey = ChosenHashKey<hashHighBits>;
using LowOnesKey = ChosenHashKey<hashLowOnes>;
using ExtremesKey = ChosenHashKey<hashExtremes>;

template <class K>
U32 keyNumber(K const& k) {
  if constexpr (std::is_same_v<K, U32>) {
    return k;
  } else {
    return k.v;
  }
}

template <class K>
U32 reversedHash(K const& k) {
  return Kel::bitReverse32(Kel::KeyTraits<K>::hash(k));
}

struct Stored {
  int value;
  U64 stamp;  // when the key was (last) newly inserted
};

// Checks everything that the table promises about its present state.
template <class K>
void expectAgrees(Kel::HashTable<K, int> const& table, std::map<K, Stored> const& model,
                  std::size_t expectedBuckets) {
  ASSERT_EQ(table.size(), model.size());
  ASSERT_EQ(table.empty(), model.empty());
  ASSERT_EQ(table.bucketCount(), expectedBuckets);  // a power of two, at least the size

  // Keys order like their numbers, so the model's last key bounds them all.
  std::vector<bool> seen(model.empty() ? 0 : keyNumber(model.rbegin()->first) + 1);
  std::optional<std::pair<U32, U64>> previous;  // reversed hash and stamp
  std::size_t visited = 0;
  for (auto it = table.begin(); !it.done(); ++it) {
    ASSERT_LE(++visited, model.size()) << "iteration does not end";
    K const& key = it.key();
    auto const found = model.find(key);
    ASSERT_NE(found, model.end()) << "iteration visits absent key " << keyNumber(key);
    ASSERT_FALSE(seen[keyNumber(key)]) << "key " << keyNumber(key) << " visited twice";
    seen[keyNumber(key)] = true;
    ASSERT_EQ(it.value(), found->second.value);
    U32 const rh = reversedHash(key);
    ASSERT_EQ(it->rhash, rh);
    if (previous) {
      ASSERT_LE(previous->first, rh) << "reversed hashes out of order at " << keyNumber(key);
      if (previous->first == rh) {
        ASSERT_LT(previous->second, found->second.stamp)
            << "equal hashes out of insertion order at " << keyNumber(key);
      }
    }
    previous = std::pair(rh, found->second.stamp);
  }
  ASSERT_EQ(visited, model.size());
  ASSERT_EQ(table.begin() == table.end(), model.empty());
}

// The bucket count that the growth policy dictates: none before the first
// insertion, then 8 doubled while the peak size since then exceeds it.
std::size_t policyBuckets(std::size_t peak, bool allocated) {
  return allocated ? std::max<std::size_t>(8, std::bit_ceil(peak)) : 0;
}

struct TableCase {
  char const* what;
  void (*run)(TableCase const&);
  unsigned seed;
  U32 pool;  // keys are drawn from [0, pool)
  int steps;
  int clearOneIn;  // a clear() about once in this many steps
};

template <class K>
void runTableModel(TableCase const& c) {
  std::mt19937 rng(c.seed);
  Kel::HashTable<K, int> table;
  std::map<K, Stored> model;
  U64 stamp = 0;
  std::size_t peak = 0;
  bool allocated = false;
  auto const pick = [&] { return K{static_cast<U32>(rng() % c.pool)}; };

  for (int step = 0; step < c.steps; ++step) {
    SCOPED_TRACE(testing::Message() << c.what << ", step " << step);
    U32 const op = rng() % 100;
    if (static_cast<int>(rng() % static_cast<U32>(c.clearOneIn)) == 0) {
      table.clear();
      model.clear();
      peak = 0;
      allocated = false;
    } else if (op < 50) {
      K const key = pick();
      int const value = static_cast<int>(rng() % 1000);
      // Half the insertions follow a lookup that notes the key's place, as
      // a find-or-create does; some of those places go stale first.
      std::pair<int*, bool> inserted;
      if (op % 2 == 0) {
        inserted = table.insert(key, value);
      } else {
        U32 const rh = Kel::HashTable<K, int>::reversedHash(key);
        typename Kel::HashTable<K, int>::Place place;
        int* const found = table.findHashed(rh, key, place);
        if (op % 4 == 1) {
          K const other = pick();
          if (!(other == key) && table.erase(other)) model.erase(other);
        }
        inserted = table.insertHashed(place, rh, key, value);
        if (found && op % 4 == 3) {
          ASSERT_EQ(inserted.first, found);
        }
      }
      auto const [stored, added] = inserted;
      auto const [it, modelAdded] = model.try_emplace(key, Stored{value, stamp++});
      ASSERT_EQ(added, modelAdded) << "insert of " << keyNumber(key);
      ASSERT_NE(stored, nullptr);
      ASSERT_EQ(*stored, it->second.value) << "a present key keeps its value";
      ASSERT_EQ(stored, table.find(key));
      allocated = true;
      peak = std::max(peak, model.size());
    } else if (op < 85) {
      K const key = pick();
      ASSERT_EQ(table.erase(key), model.erase(key) == 1) << "erase of " << keyNumber(key);
      ASSERT_EQ(table.find(key), nullptr);
    } else {
      K const key = pick();
      table.prefetch(Kel::HashTable<K, int>::reversedHash(key));  // changes nothing
      int const* found = table.find(key);
      auto const it = model.find(key);
      ASSERT_EQ(found ? std::optional(*found) : std::nullopt,
                it == model.end() ? std::nullopt : std::optional(it->second.value))
          << "find of " << keyNumber(key);
    }
    ASSERT_NO_FATAL_FAILURE(expectAgrees(table, model, policyBuckets(peak, allocated)));
    if (step % 64 == 0 || step + 1 == c.steps) {
      for (U32 n = 0; n < c.pool; ++n) {
        K const key{n};
        ASSERT_EQ(table.find(key) != nullptr, model.count(key) == 1) << "find of " << n;
      }
    }
  }
}

void PrintTo(TableCase const& c, std::ostream* os) { *os << c.what; }

class HashTableModel : public testing::TestWithParam<TableCase> {};

// Random inserts, erasures, finds and clears agree with std::map, and the
// table keeps its promises (order, buckets) after every step.
TEST_P(HashTableModel, AgreesWithStdMap) { GetParam().run(GetParam()); }

INSTANTIATE_TEST_SUITE_P(
    Keys, HashTableModel,
    testing::Values(
        TableCase{"U32 keys, few", runTableModel<U32>, 11, 12, 4000, 150},
        TableCase{"U32 keys, many", runTableModel<U32>, 12, 200, 10000, 4000},
        TableCase{"hash mod 7, few", runTableModel<Mod7Key>, 13, 30, 6000, 400},
        TableCase{"hash mod 7, long chains", runTableModel<Mod7Key>, 14, 400, 10000, 5000},
        TableCase{"hashes equal in the low 16 bits", runTableModel<HighBitsKey>, 15, 300, 10000,
                  8000},
        TableCase{"reversed hashes crowding the top", runTableModel<LowOnesKey>, 16, 300, 10000,
                  8000},
        TableCase{"reversed hashes 0 and all ones", runTableModel<ExtremesKey>, 17, 200, 8000,
                  6000},
        TableCase{"keys that own memory", runTableModel<NamedKey>, 18, 400, 6000, 5000}),
    [](testing::TestParamInfo<TableCase> const& p) { return "Case" + std::to_string(p.index); });

// Walks the table while changing it at random: erasing the current key
// through the iterator, erasing and inserting other keys before and after it,
// growing the table. After every step the iterator must stand on the key that
// follows the last one visited in the order of the keys present then; a key
// erased through the iterator is gone and the buckets stay. (The bucket
// count's boundaries and clear() are the model's: policyBuckets at every step.)
template <class K>
void walkWhileChanging(unsigned seed, U32 pool, U32 initial) {
  SCOPED_TRACE(testing::Message() << "seed " << seed << ", pool " << pool);
  std::mt19937 rng(seed);
  Kel::HashTable<K, int> table;
  std::map<std::pair<U32, U64>, U32> order;  // (reversed hash, stamp) -> key
  std::map<U32, std::pair<U32, U64>> placeOf;
  U64 stamp = 0;
  auto const insert = [&](U32 n) {
    if (!table.insert(K{n}, static_cast<int>(n)).second) return;
    std::pair<U32, U64> const place{reversedHash(K{n}), stamp++};
    order.emplace(place, n);
    placeOf.emplace(n, place);
  };
  auto const erase = [&](U32 n) {
    ASSERT_EQ(table.erase(K{n}), placeOf.count(n) == 1);
    if (auto const p = placeOf.find(n); p != placeOf.end()) {
      order.erase(p->second);
      placeOf.erase(p);
    }
  };
  while (table.size() < initial) insert(static_cast<U32>(rng() % pool));

  std::size_t steps = 0;
  for (auto it = table.begin(); !it.done(); ++steps) {
    ASSERT_LT(steps, 20 * std::size_t{pool}) << "the walk does not end";
    U32 const current = keyNumber(it.key());
    auto const place = placeOf.at(current);
    ASSERT_EQ(table.find(it.key()), &it.value());
    ASSERT_EQ(it.value(), static_cast<int>(current));
    if (rng() % 4 == 0) {
      std::size_t const buckets = table.bucketCount();
      table.erase(it);
      order.erase(place);
      placeOf.erase(current);
      ASSERT_EQ(table.find(K{current}), nullptr) << current;
      ASSERT_EQ(table.bucketCount(), buckets) << "erasing never shrinks the table";
    } else {
      for (U32 changes = rng() % 4; changes > 0; --changes) {
        U32 const n = static_cast<U32>(rng() % pool);
        if (n == current) continue;
        if (rng() % 2 == 0) {
          insert(n);
        } else {
          ASSERT_NO_FATAL_FAILURE(erase(n));
        }
      }
      ASSERT_EQ(keyNumber(it.key()), current) << "the iterator keeps its key";
      ++it;
    }
    auto const next = order.upper_bound(place);
    if (next == order.end()) {
      ASSERT_TRUE(it.done()) << "after " << current;
    } else {
      ASSERT_FALSE(it.done()) << "after " << current;
      ASSERT_EQ(keyNumber(it.key()), next->second) << "after " << current;
    }
  }
  ASSERT_EQ(table.size(), order.size());
}

// Grows a table through many doublings: the buckets follow the policy at
// every step, every key keeps its value, and the large table keeps the order
// of reversed hashes and insertion (erasures are the model's). `asCopied`
// inserts the keys in iteration order, as a copy of another table does,
// which crowds them into the front of the slots until the table grows.
// `reserved`: room for half the keys is asked for first.
template <class K>
void growAcrossDoublings(U32 count, bool asCopied = false, bool reserved = false) {
  SCOPED_TRACE(testing::Message() << count << " keys" << (asCopied ? ", in order" : "")
                                  << (reserved ? ", half reserved" : ""));
  Kel::HashTable<K, int> table;
  if (reserved) {
    table.reserve(count / 2);
    ASSERT_EQ(table.size(), 0u);
    ASSERT_TRUE(table.begin().done());
  }
  std::map<K, Stored> model;
  U64 stamp = 0;
  std::vector<U32> keys(count);
  std::iota(keys.begin(), keys.end(), U32{0});
  if (asCopied) {
    std::stable_sort(keys.begin(), keys.end(),
                     [](U32 a, U32 b) { return reversedHash(K{a}) < reversedHash(K{b}); });
  }
  for (U32 const n : keys) {
    auto const [value, added] = table.insert(K{n}, static_cast<int>(n));
    ASSERT_TRUE(added);
    ASSERT_EQ(*value, static_cast<int>(n));
    model.emplace(K{n}, Stored{static_cast<int>(n), stamp++});
    ASSERT_EQ(table.bucketCount(), policyBuckets(model.size(), true));
  }
  for (U32 n = 0; n < count; ++n) {
    int const* const value = table.find(K{n});
    ASSERT_NE(value, nullptr) << n << " lost";
    ASSERT_EQ(*value, static_cast<int>(n)) << "the value of " << n;
  }
  ASSERT_NO_FATAL_FAILURE(expectAgrees(table, model, policyBuckets(count, true)));
}

// The walk and the growth above: the walk for every kind of hash and several
// seeds, the growth up to 2^17 keys.
TEST(HashTable, WalksWhileChangingAndGrowsAcrossDoublings) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    walkWhileChanging<U32>(seed, 3000, 1000);
    walkWhileChanging<Mod7Key>(seed, 200, 60);
    walkWhileChanging<HighBitsKey>(seed, 600, 200);
    walkWhileChanging<LowOnesKey>(seed, 600, 200);
    walkWhileChanging<ExtremesKey>(seed, 300, 100);
    walkWhileChanging<Mod7Key>(seed, 12, 2);  // a small table of eight buckets
    walkWhileChanging<NamedKey>(seed, 400, 150);
  }

  growAcrossDoublings<U32>(U32{1} << 17);
  growAcrossDoublings<Mod7Key>(3000);
  growAcrossDoublings<HighBitsKey>(4000);
  growAcrossDoublings<LowOnesKey>(4000);
  growAcrossDoublings<ExtremesKey>(3000);
  growAcrossDoublings<U32>(U32{1} << 17, true);
  growAcrossDoublings<HighBitsKey>(4000, true);
  growAcrossDoublings<NamedKey>(5000);
  growAcrossDoublings<U32>(U32{1} << 17, false, true);
  growAcrossDoublings<HighBitsKey>(4000, true, true);
  growAcrossDoublings<NamedKey>(5000, false, true);
}

// An insertion's value may be read from the table itself: it is read before
// the table moves its elements to make room or to grow. Both ways of making
// the element: the value alone made aside (small values), and the whole
// element (a value that may throw as it is copied).
template <class V>
void insertFromItself(V (*valueOf)(U32)) {
  Kel::HashTable<U64, V> t;
  std::map<U64, V> model;
  for (U32 i = 0; i < 64; ++i) {
    t.insert(i, valueOf(i));
    model.emplace(i, valueOf(i));
  }
  std::mt19937 rng(5);
  for (U32 i = 64; i < 5000; ++i) {
    U32 const from = static_cast<U32>(rng() % i);
    V const* const source = t.find(from);
    ASSERT_NE(source, nullptr);
    t.insert(i, *source);
    model.emplace(i, model.at(from));
  }
  for (auto const& [key, value] : model) {
    V const* const found = t.find(key);
    ASSERT_NE(found, nullptr);
    ASSERT_EQ(*found, value) << key;
  }
}

TEST(HashTable, InsertionReadsItsValueBeforeTheTableMoves) {
  insertFromItself<U32>([](U32 i) { return i + 7; });
  insertFromItself<std::string>([](U32 i) { return std::string(40, char('a' + i % 26)); });
}

// ---- Queue

// The numbering rules of the queue, written out plainly: numbers are 64-bit
// here and never wrap; the queue must agree with their low 32 bits.
class QueueModel {
 public:
  explicit QueueModel(U32 start) : next_(start) {}

  U32 enq(std::string value) {
    U64 seq = next_;
    if (!entries_.empty() && !(next_ > entries_.back().first)) seq = entries_.back().first + 1;
    next_ = seq;
    entries_.emplace_back(seq, std::move(value));
    return static_cast<U32>(seq);
  }

  std::optional<std::pair<U32, std::string>> deq() {
    if (entries_.empty()) return std::nullopt;
    std::pair<U32, std::string> head(static_cast<U32>(entries_.front().first),
                                     entries_.front().second);
    removeAt(0);
    return head;
  }

  bool del(U32 seq) {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (static_cast<U32>(entries_[i].first) == seq) {
        removeAt(i);
        return true;
      }
    }
    return false;
  }

  void clear() { entries_.clear(); }

  [[nodiscard]] std::deque<std::pair<U64, std::string>> const& entries() const { return entries_; }
  [[nodiscard]] U32 next() const { return static_cast<U32>(next_); }
  [[nodiscard]] U64 next64() const { return next_; }
  [[nodiscard]] U64 removals() const { return removals_; }

 private:
  // The tail before the removal decides the raise, so that a number is never
  // reused while entries remain, even when the tail itself was removed.
  void removeAt(std::size_t i) {
    U64 const tailSeq = entries_.back().first;
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
    ++removals_;
    if (!entries_.empty() && !(next_ > tailSeq)) next_ = tailSeq + 1;
  }

  std::deque<std::pair<U64, std::string>> entries_;
  U64 next_;
  U64 removals_ = 0;
};

// With `findEach`, also looks every entry up by its number.
void expectAgrees(Kel::Queue<std::string> const& q, QueueModel const& model, bool findEach) {
  auto const& entries = model.entries();
  ASSERT_EQ(q.size(), entries.size());
  ASSERT_EQ(q.empty(), entries.empty());
  ASSERT_EQ(q.nextSeq(), model.next());
  ASSERT_EQ(q.removals(), model.removals());
  auto const seqOf = [](auto const* entry) {
    return entry ? std::optional(entry->seq) : std::nullopt;
  };
  ASSERT_EQ(seqOf(q.head()), entries.empty()
                                 ? std::nullopt
                                 : std::optional(static_cast<U32>(entries.front().first)));
  ASSERT_EQ(seqOf(q.tail()),
            entries.empty() ? std::nullopt : std::optional(static_cast<U32>(entries.back().first)));
  std::size_t i = 0;
  std::optional<U32> previous;
  for (auto it = q.begin(); !it.done(); ++it, ++i) {
    ASSERT_LT(i, entries.size()) << "iteration does not end";
    ASSERT_EQ(it.key(), static_cast<U32>(entries[i].first)) << "entry " << i;
    ASSERT_EQ(it.value(), entries[i].second) << "entry " << i;
    if (previous) {
      ASSERT_TRUE(Kel::seqAfter(it.key(), *previous)) << "numbers must increase from head to tail";
    }
    previous = it.key();
    if (findEach) {
      auto const* const found = q.find(it.key());
      ASSERT_NE(found, nullptr) << "find of " << it.key();
      ASSERT_EQ(found->seq, it.key());
      ASSERT_EQ(found->value, entries[i].second);
    }
  }
  ASSERT_EQ(i, entries.size());
}

struct QueueCase {
  char const* what;
  unsigned seed;
  int steps;
  // Cumulative weights out of 100: enq, deq, del of a present number, del of
  // any number up to nextSeq()+2; the rest is find of such a number, and a
  // clear() comes about once in clearOneIn steps.
  U32 enqBelow, deqBelow, delPresentBelow, delAnyBelow;
  U32 clearOneIn;
  U32 start = 0;  // the first number; near 2^32 the numbers wrap during the run
};

void PrintTo(QueueCase const& c, std::ostream* os) { *os << c.what; }

class QueueAgainstModel : public testing::TestWithParam<QueueCase> {};

// Random operations agree with the model: numbers, order, size, removals.
TEST_P(QueueAgainstModel, NumberingAndOrder) {
  QueueCase const& c = GetParam();
  std::mt19937 rng(c.seed);
  Kel::Queue<std::string> q;
  ASSERT_TRUE(q.nextSeqIs(c.start));
  QueueModel model(c.start);
  int made = 0;
  // Any number handed out so far, or a few beyond.
  auto const anySeq = [&] {
    return static_cast<U32>(c.start + rng() % (model.next64() - c.start + 3));
  };

  for (int step = 0; step < c.steps; ++step) {
    SCOPED_TRACE(testing::Message() << c.what << ", step " << step);
    U32 const op = rng() % 100;
    if (rng() % c.clearOneIn == 0) {
      q.clear();
      model.clear();
    } else if (op < c.enqBelow) {
      std::string const value = "value " + std::to_string(made++);
      ASSERT_EQ(q.enq(value), model.enq(value));
    } else if (op < c.deqBelow) {
      ASSERT_EQ(q.deq(), model.deq());
    } else if (op < c.delPresentBelow) {
      if (!model.entries().empty()) {
        auto const seq = static_cast<U32>(model.entries()[rng() % model.entries().size()].first);
        ASSERT_TRUE(q.del(seq)) << seq;
        ASSERT_TRUE(model.del(seq));
        ASSERT_EQ(q.find(seq), nullptr);
      }
    } else if (op < c.delAnyBelow) {
      U32 const seq = anySeq();
      ASSERT_EQ(q.del(seq), model.del(seq)) << seq;
    } else {
      U32 const seq = anySeq();
      auto const& entries = model.entries();
      bool const present = std::any_of(entries.begin(), entries.end(), [&](auto const& e) {
        return static_cast<U32>(e.first) == seq;
      });
      ASSERT_EQ(q.find(seq) != nullptr, present) << seq;
    }
    ASSERT_NO_FATAL_FAILURE(expectAgrees(q, model, step % 64 == 0 || step + 1 == c.steps));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Mixes, QueueAgainstModel,
    testing::Values(
        QueueCase{"mostly enq, long queue", 21, 6000, 60, 75, 85, 95, 2000},
        QueueCase{"balanced, often empty", 22, 20000, 40, 70, 85, 95, 500},
        QueueCase{"del-heavy, tail often removed", 23, 20000, 45, 50, 85, 95, 1000},
        QueueCase{"frequent clears", 24, 5000, 50, 65, 80, 90, 20},
        QueueCase{"numbers wrap, long queue", 25, 6000, 60, 75, 85, 95, 2000, 0xffffff00u},
        QueueCase{"numbers wrap, del-heavy", 26, 20000, 45, 50, 85, 95, 1000, 0xfffff000u}),
    [](testing::TestParamInfo<QueueCase> const& p) { return "Case" + std::to_string(p.index); });

// The window of numbers an entry may take after a wrap past 4294967295
// (find, del and order across the wrap are the model's cases).
TEST(Queue, NumbersWrapAfter4294967295) {
  Kel::Queue<std::string> q;
  ASSERT_TRUE(q.nextSeqIs(0xfffffffeu));
  for (char const* v : {"a", "b", "c", "d"}) q.enq(v);  // 0xfffffffe .. 1
  EXPECT_TRUE(q.del(0));
  EXPECT_FALSE(q.nextSeqIs(5)) << "only an empty queue takes a new start";

  std::pair<U32, bool> const at[] = {{1, false},          {0, false},          {0xffffffffu, false},
                                     {2, true},           {0x7ffffffdu, true}, {0x7ffffffeu, false},
                                     {0x80000005u, false}};
  for (auto const& [seq, accepted] : at) EXPECT_EQ(q.acceptsAt(seq), accepted) << seq;
  EXPECT_TRUE(q.enqAt(2, "e"));
  EXPECT_EQ(q.enq("f"), 3u);
  std::vector<U32> order;
  for (auto it = q.begin(); !it.done(); ++it) order.push_back(it.key());
  EXPECT_EQ(order, (std::vector<U32>{0xfffffffeu, 0xffffffffu, 1, 2, 3}));
}

// ---- Ptr

class Counted : public Kel::PtrInterface {
 public:
  explicit Counted(int* destroyed) : destroyed_(destroyed) {}
  ~Counted() override { ++*destroyed_; }

 private:
  int* destroyed_;
};

class Derived : public Counted {
 public:
  using Counted::Counted;
};

class Unrelated : public Kel::PtrInterface {};

struct Holders {
  Kel::Ptr<Derived> d;
  Kel::Ptr<Derived> d2;
  Kel::Ptr<Counted> b;
  Kel::Ptr<Derived const> c;
  Kel::Ptr<Counted const> bc;
  Kel::Ptr<Kel::PtrInterface> unrelated;
};

// Copies, moves, conversions, casts, swaps, resets and self-assignments all
// share one count, which the table follows step by step; the object goes
// exactly once, with its last holder.
TEST(Ptr, ConversionsAndCopiesShareOneCount) {
  // What each step does, and the references after it (0 once the object is gone).
  std::tuple<char const*, void (*)(Holders&), U32> const steps[] = {
      {"copy to base", [](Holders& h) { h.b = h.d; }, 2},
      {"copy to const", [](Holders& h) { h.c = h.d; }, 3},
      {"move to const base empties the source",
       [](Holders& h) {
         h.bc = std::move(h.d);
         EXPECT_FALSE(h.d);
       },
       3},
      {"static cast back to derived", [](Holders& h) { h.d2 = Kel::ptrStaticCast<Derived>(h.b); },
       4},
      {"dynamic cast to an unrelated type is null",
       [](Holders& h) {
         h.unrelated = Kel::ptrDynamicCast<Unrelated>(h.b);
         EXPECT_FALSE(h.unrelated);
       },
       4},
      {"const cast", [](Holders& h) { h.d = Kel::ptrConstCast(h.c); }, 5},
      {"swap of two holders", [](Holders& h) { h.d.swap(h.d2); }, 5},
      {"reset by nullptr", [](Holders& h) { h.c = nullptr; }, 4},
      {"move constructed then dropped",
       [](Holders& h) { Kel::Ptr<Counted const> const gone(std::move(h.bc)); }, 3},
      {"copy constructed then dropped", [](Holders& h) { Kel::Ptr<Counted const> const gone(h.b); },
       3},
      {"reset by move of a null", [](Holders& h) { h.d2 = Kel::Ptr<Derived>(); }, 2},
      {"moved to base then dropped",
       [](Holders& h) { Kel::Ptr<Counted> const gone(std::move(h.d)); }, 1},
      {"sole holder reassigned its own object", [](Holders& h) { h.b = h.b.get(); }, 1},
      {"sole holder copy-assigned itself",
       [](Holders& h) {
         Kel::Ptr<Counted>& alias = h.b;
         h.b = alias;
       },
       1},
      {"sole holder move-assigned itself",
       [](Holders& h) {
         Kel::Ptr<Counted>& alias = h.b;
         h.b = std::move(alias);
         EXPECT_TRUE(h.b);
       },
       1},
      {"last holder dropped", [](Holders& h) { h.b = nullptr; }, 0},
  };

  int destroyed = 0;
  Holders h;
  h.d = new Derived(&destroyed);
  Counted const* const object = h.d.get();
  ASSERT_EQ(object->references(), 1u);
  for (auto const& [what, act, references] : steps) {
    act(h);
    EXPECT_EQ(destroyed, references == 0 ? 1 : 0) << what;
    if (destroyed == 0) {
      EXPECT_EQ(object->references(), references) << what;
    }
  }
  h = Holders{};
  EXPECT_EQ(destroyed, 1) << "destroyed exactly once";
}

// ---- OrderedMap: its tree is made on the first insertion and freed by
// clear(), so an empty map and a copied or moved one must still behave as
// values.

TEST(OrderedMap, CopiesAreIndependentValuesWhetherEmptyOrNot) {
  auto keysOf = [](Kel::OrderedMap<U32, int> const& m) {
    std::vector<U32> keys;
    for (auto it = m.begin(); !it.done(); ++it) keys.push_back(it.key());
    return keys;
  };
  auto valueOf = [](Kel::OrderedMap<U32, int> const& m, U32 key) {
    int const* const v = m.find(key);
    return v ? *v : -1000;
  };
  Kel::OrderedMap<U32, int> empty;
  auto const emptyIt = empty.begin();
  EXPECT_TRUE(emptyIt.done());
  Kel::OrderedMap<U32, int> m;
  for (U32 k : {5u, 1u, 3u}) m.insert(k, int(k) * 10);
  EXPECT_TRUE(emptyIt.done()) << "another map's tree is not the empty map's";
  Kel::OrderedMap<U32, int> copy = m;
  m.erase(1);
  if (int* const v = m.find(3)) *v = -1;
  EXPECT_EQ(valueOf(m, 3), -1);
  EXPECT_EQ(keysOf(copy), (std::vector<U32>{1, 3, 5}));
  EXPECT_EQ(valueOf(copy, 3), 30);
  copy = empty;
  EXPECT_TRUE(copy.empty());
  EXPECT_EQ(copy.find(5), nullptr);
  copy = m;
  Kel::OrderedMap<U32, int> moved = std::move(m);
  EXPECT_EQ(keysOf(moved), (std::vector<U32>{3, 5}));
  EXPECT_EQ(keysOf(copy), keysOf(moved));
  moved.clear();
  EXPECT_EQ(moved.size(), 0u);
  EXPECT_FALSE(moved.erase(3));
  EXPECT_TRUE(moved.insert(2, 7).second) << "a cleared map takes keys again";
  EXPECT_EQ(keysOf(moved), (std::vector<U32>{2}));
}

}  // namespace
