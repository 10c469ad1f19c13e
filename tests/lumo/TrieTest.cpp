// The prefix tries against an ordered map and a brute-force longest match:
// random insertions, replacements and erasures of nesting keys in both
// families, iteration order, value addresses that never move, copies, and
// the keys a trie refuses.
#include <Kel/RangeException.h>
#include <Kel/Text.h>
#include <Lumo/IpTrie.h>
#include <Lumo/NetSupport.h>
#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <random>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Kel::U32;
using Kel::U8;
using Lumo::IpGenAddr;
using Lumo::IpGenPrefix;
using Bytes = Lumo::Ip6Addr::Bytes;
using Model = std::map<IpGenPrefix, U32>;

IpGenPrefix prefix(std::string_view text) { return Kel::strepToValue<IpGenPrefix>(text); }

// `b` with the bits from `len` on cleared: written apart from the trie's own
// masking so that the two can disagree.
Bytes maskBytes(Bytes b, unsigned len) {
  for (unsigned i = 0; i < b.size(); ++i) {
    unsigned const keep = len >= 8 * (i + 1) ? 8 : len > 8 * i ? len - 8 * i : 0;
    b[i] = static_cast<U8>(b[i] & (0xff00u >> keep));
  }
  return b;
}

Bytes const kOnes = [] {
  Bytes b{};
  b.fill(0xff);
  return b;
}();

template <class Rng>
Bytes randomBytes(Rng& rng) {
  Bytes b{};
  for (U8& x : b) x = static_cast<U8>(rng());
  return b;
}

// The first `len` bits of `head`, then the rest of `tail`.
Bytes spliced(Bytes const& head, Bytes const& tail, unsigned len) {
  Bytes const keep = maskBytes(kOnes, len);
  Bytes out{};
  for (unsigned i = 0; i < out.size(); ++i)
    out[i] = static_cast<U8>((head[i] & keep[i]) | (tail[i] & ~keep[i]));
  return out;
}

template <class Trie>
struct Family {
  static constexpr bool v6 = std::is_same_v<Trie, Lumo::Ip6Trie<U32>>;
  static constexpr unsigned width = v6 ? 128 : 32;
  static IpGenAddr addr(Bytes const& b) {
    return v6 ? IpGenAddr::ipv6(Lumo::Ip6Addr(b))
              : IpGenAddr::ipv4(Lumo::detail::loadBe32(b.data()));
  }
};

// Random addresses near a few bases, so that keys nest and share long paths.
template <class Trie>
class Gen {
  using F = Family<Trie>;

 public:
  explicit Gen(unsigned seed) : rng_(seed) {
    for (Bytes& b : bases_) b = randomBytes(rng_);
  }
  IpGenAddr addr() {
    Bytes const base = bases_[rng_() % bases_.size()];
    Bytes const noise = randomBytes(rng_);
    return F::addr(spliced(base, noise, below(F::width + 1)));
  }
  // Short keys are rare, as in a routing table, but every length occurs.
  IpGenPrefix key() {
    unsigned const len =
        below(8) == 0 ? below(F::width + 1) : F::width / 4 + below(F::width * 3 / 4 + 1);
    return IpGenPrefix(F::addr(maskBytes(addr().addr().bytes(), len)), static_cast<U8>(len));
  }
  unsigned below(unsigned n) { return static_cast<unsigned>(rng_() % n); }

 private:
  std::mt19937 rng_;
  std::array<Bytes, 6> bases_{};
};

// The model's longest key covering `a`: every length from the longest down.
template <class Trie>
Model::const_iterator bruteMatch(Model const& model, IpGenAddr const& a) {
  for (int len = Family<Trie>::width; len >= 0; --len) {
    IpGenPrefix const k(Family<Trie>::addr(maskBytes(a.addr().bytes(), static_cast<unsigned>(len))),
                        static_cast<U8>(len));
    auto const it = model.find(k);
    if (it != model.end()) return it;
  }
  return model.end();
}

template <class Trie>
void expectSame(Trie const& trie, Model const& model,
                std::map<IpGenPrefix, U32*> const& addresses) {
  ASSERT_EQ(trie.size(), model.size());
  ASSERT_EQ(trie.empty(), model.empty());
  auto it = trie.begin();
  for (auto const& [k, v] : model) {
    ASSERT_FALSE(it.done()) << "ends before " << k;
    ASSERT_EQ(it.key(), k) << "out of order";
    ASSERT_EQ(it.value(), v) << k;
    ASSERT_EQ(&it.value(), addresses.at(k)) << "the value of " << k << " moved";
    ++it;
  }
  ASSERT_TRUE(it.done());
  ASSERT_TRUE(it == trie.end());
  ASSERT_LE(trie.nodeCount(), model.empty() ? 0 : 2 * model.size() - 1) << "a branch left over";
}

template <class Trie>
class TrieModel : public testing::Test {};
using Tries = testing::Types<Lumo::IpTrie<U32>, Lumo::Ip6Trie<U32>>;
TYPED_TEST_SUITE(TrieModel, Tries);

// Grows past the sizes where the lookup table appears and grows, then
// shrinks to nothing, checking everything along the way.
TYPED_TEST(TrieModel, AgreesWithAnOrderedMapAndBruteForce) {
  Gen<TypeParam> gen(Family<TypeParam>::v6 ? 6 : 4);
  TypeParam trie;
  Model model;
  std::map<IpGenPrefix, U32*> addresses;
  TypeParam copy;
  Model copied;
  constexpr int kOps = 12000;
  for (int op = 0; op < kOps; ++op) {
    bool const growing = op < kOps * 2 / 3;
    IpGenPrefix const k = gen.key();
    U32 const v = gen.below(1000);
    unsigned const what = gen.below(10);
    if (what < (growing ? 6u : 3u)) {
      auto const [p, added] = trie.insert(k, v);
      auto const [m, modelAdded] = model.try_emplace(k, v);
      ASSERT_EQ(added, modelAdded) << k;
      ASSERT_EQ(*p, m->second) << k << ": an insertion of a present key changed it";
      if (added) addresses[k] = p;
    } else if (what < (growing ? 7u : 4u)) {
      U32& stored = trie.insertOrAssign(k, v);
      model[k] = v;
      if (!addresses.contains(k)) addresses[k] = &stored;
      ASSERT_EQ(&stored, addresses[k]) << k;
    } else {
      // Erase a stored key most of the time, else a random (likely absent) one.
      IpGenPrefix victim = k;
      if (!model.empty() && gen.below(4) != 0) {
        auto it = model.begin();
        std::advance(it, gen.below(static_cast<unsigned>(model.size())));
        victim = it->first;
      }
      ASSERT_EQ(trie.erase(victim), model.erase(victim) == 1) << victim;
      addresses.erase(victim);
    }
    for (int probe = 0; probe < 4; ++probe) {
      IpGenAddr const a = gen.addr();
      auto const want = bruteMatch<TypeParam>(model, a);
      auto const got = trie.longestMatch(a);
      ASSERT_EQ(got.done(), want == model.end()) << a;
      if (!got.done()) {
        ASSERT_EQ(got.key(), want->first) << a;
        ASSERT_EQ(&got.value(), addresses.at(want->first)) << a;
      }
      IpGenPrefix const q = gen.key();
      U32 const* const found = trie.find(q);
      ASSERT_EQ(found ? *found : 1000u, model.contains(q) ? model.at(q) : 1000u) << q;
    }
    if (op % 101 == 0) expectSame(trie, model, addresses);
    if (op == kOps / 2) {
      copy = trie;
      copied = model;
    }
  }
  expectSame(trie, model, addresses);
  EXPECT_GT(trie.slotCount(), 0u) << "the test should reach the lookup table";

  std::vector<IpGenPrefix> left;
  for (auto const& [k, v] : model) left.push_back(k);
  std::shuffle(left.begin(), left.end(), std::mt19937(1));
  for (IpGenPrefix const& k : left) {
    ASSERT_TRUE(trie.erase(k)) << k;
    model.erase(k);
    addresses.erase(k);
    if (model.size() % 53 == 0) expectSame(trie, model, addresses);
  }
  EXPECT_EQ(trie.nodeCount(), 0u);
  EXPECT_EQ(trie.slotCount(), 0u) << "the table goes when the keys do";
  EXPECT_TRUE(trie.longestMatch(gen.addr()).done());

  // The copy taken halfway kept its own keys and values.
  std::map<IpGenPrefix, U32*> copyAddresses;
  for (auto it = copy.begin(); !it.done(); ++it) copyAddresses[it.key()] = &it.value();
  expectSame(copy, copied, copyAddresses);
}

// `b` plus `step` (1 or -1) as a big-endian number, wrapping.
Bytes stepBytes(Bytes b, unsigned width, int step) {
  for (int i = static_cast<int>(width / 8) - 1; i >= 0; --i) {
    auto const x = static_cast<U8>(b[i] + step);
    bool const carry = step > 0 ? x == 0 : b[i] == 0;
    b[i] = x;
    if (!carry) break;
  }
  return b;
}

// The addresses on both sides of each edge of `k`: its first, its last, and
// their neighbours outside it.
template <class Trie>
std::array<IpGenAddr, 4> edgesOf(IpGenPrefix const& k) {
  using F = Family<Trie>;
  Bytes const first = maskBytes(k.addr().addr().bytes(), k.len());
  Bytes const inside = maskBytes(kOnes, k.len());
  Bytes last = first;
  for (unsigned i = 0; i < last.size(); ++i) last[i] = static_cast<U8>(last[i] | ~inside[i]);
  return {F::addr(first), F::addr(last), F::addr(stepBytes(first, F::width, -1)),
          F::addr(stepBytes(last, F::width, 1))};
}

// Tables big enough for the full lookup table, sparse or with a crowded
// corner whose slots hold too many keys for their runs: the edges of keys
// answer what brute force does while the keys come and go.
TYPED_TEST(TrieModel, LongestMatchAtTheEdgesOfKeys) {
  using F = Family<TypeParam>;
  // The percentage of keys under one prefix of length width / 8 + 12.
  for (unsigned const crowdedPercent : {0u, 50u}) {
    SCOPED_TRACE(crowdedPercent);
    std::mt19937_64 rng(F::width + crowdedPercent);
    unsigned const crowdLen = F::width / 8 + 12;
    Bytes const crowd = maskBytes(randomBytes(rng), crowdLen);
    TypeParam trie;
    Model model;
    while (model.size() < 70000) {
      Bytes b = randomBytes(rng);
      unsigned len;
      if (rng() % 100 < crowdedPercent) {
        b = spliced(crowd, b, crowdLen);
        unsigned const longest = F::v6 ? 64 : 32;
        len = crowdLen + static_cast<unsigned>(rng() % (longest - crowdLen + 1));
      } else {
        // Mostly as in a routing table, some short enough to cover many slots.
        len = rng() % 50 == 0 ? static_cast<unsigned>(rng() % 17)
                              : F::width / 4 + static_cast<unsigned>(rng() % (F::width / 4 + 1));
      }
      IpGenPrefix const k(F::addr(maskBytes(b, len)), static_cast<U8>(len));
      U32 const v = static_cast<U32>(rng());
      trie.insert(k, v);
      model.try_emplace(k, v);
    }
    ASSERT_EQ(trie.slotCount(), std::size_t{1} << 16);
    std::vector<IpGenPrefix> keys;
    for (auto const& [k, v] : model) keys.push_back(k);
    std::shuffle(keys.begin(), keys.end(), rng);
    auto check = [&](IpGenPrefix const& k) {
      for (IpGenAddr const& a : edgesOf<TypeParam>(k)) {
        auto const want = bruteMatch<TypeParam>(model, a);
        auto const got = trie.longestMatch(a);
        ASSERT_EQ(got.done(), want == model.end()) << k << " " << a;
        if (!got.done()) {
          ASSERT_EQ(got.key(), want->first) << k << " " << a;
          ASSERT_EQ(got.value(), want->second) << k << " " << a;
        }
      }
    };
    for (std::size_t i = 0; i < keys.size(); i += 37) check(keys[i]);
    // Erase in another order, looking at the edges of the erased key and
    // of one still there.
    for (std::size_t i = 0; i < keys.size(); ++i) {
      ASSERT_TRUE(trie.erase(keys[i]));
      model.erase(keys[i]);
      if (i % 47 == 0) {
        check(keys[i]);
        if (i + 1 < keys.size()) check(keys[i + 1 + rng() % (keys.size() - i - 1)]);
      }
    }
    EXPECT_EQ(trie.slotCount(), 0u);
  }
}

// Keys a trie refuses: the text raised, and nothing changes; lookups of
// such keys and of addresses of the other family answer nothing.
TEST(Trie, RefusedKeysAndOtherFamilies) {
  std::pair<char const*, char const*> const v4Cases[] = {
      {"2001:db8::/32", "IpTrie key 2001:db8::/32 is not an IPv4 prefix"},
      {"/0", "IpTrie key /0 is not an IPv4 prefix"},
      {"10.0.0.1/8", "IpTrie key 10.0.0.1/8 has bits set beyond its length"},
      {"10.0.0.1/31", "IpTrie key 10.0.0.1/31 has bits set beyond its length"},
      {"128.0.0.0/0", "IpTrie key 128.0.0.0/0 has bits set beyond its length"},
  };
  std::pair<char const*, char const*> const v6Cases[] = {
      {"10.0.0.0/8", "Ip6Trie key 10.0.0.0/8 is not an IPv6 prefix"},
      {"/0", "Ip6Trie key /0 is not an IPv6 prefix"},
      {"2001:db8::1/127", "Ip6Trie key 2001:db8::1/127 has bits set beyond its length"},
      {"2001:db8:0:1::/63", "Ip6Trie key 2001:db8:0:1::/63 has bits set beyond its length"},
  };
  auto const contents = [](auto const& trie) {
    std::vector<std::pair<IpGenPrefix, U32>> out;
    for (auto it = trie.begin(); !it.done(); ++it) out.emplace_back(it.key(), it.value());
    return out;
  };
  auto check = [&](auto& trie, char const* key, std::string const& error) {
    auto const before = contents(trie);
    IpGenPrefix const k = prefix(key);
    EXPECT_EQ(TestSupport::errorOf<Kel::RangeException>([&] { trie.insert(k, 5u); }), error);
    EXPECT_EQ(TestSupport::errorOf<Kel::RangeException>([&] { trie.insertOrAssign(k, 5u); }),
              error);
    EXPECT_EQ(trie.find(k), nullptr) << key;
    EXPECT_FALSE(trie.erase(k)) << key;
    if (error.ends_with("prefix")) {  // of another family
      EXPECT_TRUE(trie.longestMatch(k.addr()).done()) << key;
    }
    EXPECT_EQ(contents(trie), before) << key << " changed the trie";
  };
  Lumo::IpTrie<U32> v4;
  v4.insert(prefix("0.0.0.0/0"), 1u);
  v4.insert(prefix("10.0.0.0/8"), 2u);
  Lumo::Ip6Trie<U32> v6;
  v6.insert(prefix("::/0"), 1u);
  v6.insert(prefix("2001:db8::/32"), 2u);
  for (auto const& [key, error] : v4Cases) check(v4, key, error);
  for (auto const& [key, error] : v6Cases) check(v6, key, error);
  EXPECT_EQ(Lumo::IpTrie<U32>::normalised(prefix("10.1.2.3/12")), prefix("10.0.0.0/12"));
  EXPECT_EQ(Lumo::Ip6Trie<U32>::normalised(prefix("2001:db8::1/0")), prefix("::/0"));
}

}  // namespace
