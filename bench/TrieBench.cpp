// The prefix tries over 100k random prefixes per family: longest-prefix
// lookups of random addresses and of addresses under a stored prefix
// (`lookupsPerSecond`, on one core, the goal being 10M for IPv4), with
// the same lookups done on an ordered map (one find per length, longest
// first) in the same run for a ratio; heap bytes per prefix against the
// ordered map; insertion and erasure of every prefix.
//
// Random prefixes: IPv4 lengths uniform in 8..32, IPv6 in 16..64, random
// bits, masked to the length; duplicates dropped.
#include <Kel/OrderedMap.h>
#include <Lumo/IpTrie.h>
#include <Lumo/NetSupport.h>

#include <benchmark/benchmark.h>

#include "HeapCount.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>
#include <random>
#include <set>
#include <type_traits>
#include <vector>

namespace {

using Kel::U32;
using Kel::U8;
using Lumo::IpGenAddr;
using Lumo::IpGenPrefix;

constexpr std::size_t kPrefixes = 100000;
constexpr std::size_t kAddrs = std::size_t{1} << 20;

template <class Trie>
constexpr bool isV6 = std::is_same_v<Trie, Lumo::Ip6Trie<U32>>;

template <class Trie>
IpGenAddr randomAddr(std::mt19937_64& rng) {
  if constexpr (isV6<Trie>) {
    Lumo::Ip6Addr::Bytes b{};
    for (U8& x : b) x = static_cast<U8>(rng());
    return IpGenAddr::ipv6(Lumo::Ip6Addr(b));
  } else {
    return IpGenAddr::ipv4(static_cast<U32>(rng()));
  }
}

template <class Trie>
struct Data {
  std::vector<IpGenPrefix> prefixes;
  std::vector<IpGenAddr> randomAddrs;
  std::vector<IpGenAddr> hittingAddrs;  // under a stored prefix, host bits random

  Data() {
    std::mt19937_64 rng(isV6<Trie> ? 6 : 4);
    unsigned const minLen = isV6<Trie> ? 16 : 8;
    unsigned const maxLen = isV6<Trie> ? 64 : 32;
    std::set<IpGenPrefix> seen;
    while (prefixes.size() < kPrefixes) {
      auto const len = static_cast<U8>(minLen + rng() % (maxLen - minLen + 1));
      IpGenPrefix const p = Trie::normalised(IpGenPrefix(randomAddr<Trie>(rng), len));
      if (seen.insert(p).second) prefixes.push_back(p);
    }
    for (std::size_t i = 0; i < kAddrs; ++i) {
      randomAddrs.push_back(randomAddr<Trie>(rng));
      IpGenPrefix const& p = prefixes[rng() % prefixes.size()];
      // p's bits, then the random address's bits beyond p's length.
      IpGenAddr const noise = randomAddr<Trie>(rng);
      auto bytes = noise.addr().bytes();
      auto const& keep = p.addr().addr().bytes();
      for (unsigned bit = 0; bit < p.len(); ++bit) {
        U8 const m = static_cast<U8>(0x80u >> (bit % 8));
        bytes[bit / 8] = static_cast<U8>((bytes[bit / 8] & ~m) | (keep[bit / 8] & m));
      }
      hittingAddrs.push_back(isV6<Trie> ? IpGenAddr::ipv6(Lumo::Ip6Addr(bytes))
                                        : IpGenAddr::ipv4(Lumo::detail::loadBe32(bytes.data())));
    }
  }
};

template <class Trie>
Data<Trie> const& data() {
  static Data<Trie> const d;
  return d;
}

template <class Trie>
Trie const& fullTrie() {
  static Trie const t = [] {
    Trie out;
    U32 v = 0;
    for (IpGenPrefix const& p : data<Trie>().prefixes) out.insert(p, v++);
    return out;
  }();
  return t;
}

// The peer: the same keys in the ordered map a map attribute uses by
// default; a longest match asks for every length, longest first.
template <class Trie>
Kel::OrderedMap<IpGenPrefix, U32> const& fullMap() {
  static Kel::OrderedMap<IpGenPrefix, U32> const m = [] {
    Kel::OrderedMap<IpGenPrefix, U32> out;
    U32 v = 0;
    for (IpGenPrefix const& p : data<Trie>().prefixes) out.insert(p, v++);
    return out;
  }();
  return m;
}

template <class Trie>
U32 const* mapMatch(Kel::OrderedMap<IpGenPrefix, U32> const& m, IpGenAddr const& a) {
  for (int len = isV6<Trie> ? 128 : 32; len >= 0; --len) {
    auto const l = static_cast<U8>(len);
    if (U32 const* v = m.find(Trie::normalised(IpGenPrefix(a, l)))) return v;
  }
  return nullptr;
}

std::vector<IpGenAddr> const& addrsOf(auto const& d, benchmark::State const& state) {
  return state.range(0) ? d.hittingAddrs : d.randomAddrs;
}

// state.range(0): 0 random addresses, 1 addresses under a stored prefix.
template <class Trie>
void BM_TrieLongestMatch(benchmark::State& state) {
  Trie const& trie = fullTrie<Trie>();
  std::vector<IpGenAddr> const& addrs = addrsOf(data<Trie>(), state);
  std::size_t i = 0;
  std::size_t hits = 0;
  for (auto _ : state) {
    auto const it = trie.longestMatch(addrs[i]);
    hits += it.done() ? 0 : 1;
    benchmark::DoNotOptimize(it);
    i = (i + 1) & (kAddrs - 1);
  }
  state.SetLabel(state.range(0) ? "addresses under a stored prefix" : "random addresses");
  state.counters["lookupsPerSecond"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["hitRate"] = double(hits) / double(state.iterations());
}

// Trie and ordered map interleaved over the same addresses: `vsMap` is the
// trie's time over the map's. The trie's rate here is below
// BM_TrieLongestMatch's: the map's lookups evict its table from the caches.
template <class Trie>
void BM_TrieLongestMatchVsMap(benchmark::State& state) {
  Trie const& trie = fullTrie<Trie>();
  auto const& map = fullMap<Trie>();
  std::vector<IpGenAddr> const& addrs = addrsOf(data<Trie>(), state);
  using Clock = std::chrono::steady_clock;
  Clock::duration ours{};
  Clock::duration theirs{};
  constexpr std::size_t kRound = 256;
  std::size_t base = 0;
  for (auto _ : state) {
    auto const t0 = Clock::now();
    for (std::size_t j = 0; j < kRound; ++j) {
      auto const it = trie.longestMatch(addrs[base + j]);
      benchmark::DoNotOptimize(it.done() ? nullptr : &it.value());
    }
    auto const t1 = Clock::now();
    for (std::size_t j = 0; j < kRound; ++j) {
      benchmark::DoNotOptimize(mapMatch<Trie>(map, addrs[base + j]));
    }
    auto const t2 = Clock::now();
    ours += t1 - t0;
    theirs += t2 - t1;
    base = (base + kRound) & (kAddrs - 1);
  }
  state.counters["vsMap"] = double(ours.count()) / double(theirs.count());
  state.counters["trieLookupsPerSecondBesideMap"] =
      double(state.iterations() * kRound) / std::chrono::duration<double>(ours).count();
}

// bytesPerPrefix is what malloc reserved for the blocks (the lookup table
// included); heapBytesPerPrefix adds glibc's 8-byte header per block.
template <class Trie>
void BM_TrieBytesPerPrefix(benchmark::State& state) {
  auto const& prefixes = data<Trie>().prefixes;
  double const n = double(prefixes.size());
  for (auto _ : state) {
    heap::start();
    std::optional<Trie> trie(std::in_place);
    U32 v = 0;
    for (IpGenPrefix const& p : prefixes) trie->insert(p, v++);
    std::ptrdiff_t const trieBytes = heap::liveBytes;
    std::ptrdiff_t const trieBlocks = heap::liveBlocks;
    std::size_t const nodes = trie->nodeCount();
    std::size_t const slots = trie->slotCount();
    trie.reset();
    heap::start();
    std::optional<Kel::OrderedMap<IpGenPrefix, U32>> map(std::in_place);
    v = 0;
    for (IpGenPrefix const& p : prefixes) map->insert(p, v++);
    std::ptrdiff_t const mapBytes = heap::liveBytes;
    map.reset();
    heap::counting = false;
    state.counters["bytesPerPrefix"] = double(trieBytes) / n;
    state.counters["heapBytesPerPrefix"] = double(trieBytes + 8 * trieBlocks) / n;
    state.counters["nodesPerPrefix"] = double(nodes) / n;
    state.counters["slots"] = double(slots);
    state.counters["mapBytesPerPrefix"] = double(mapBytes) / n;
    state.counters["vsMap"] = double(trieBytes) / double(mapBytes);
  }
}

// Every prefix inserted in random order, then erased in another.
template <class Trie>
void BM_TrieInsertEraseAll(benchmark::State& state) {
  std::vector<IpGenPrefix> order = data<Trie>().prefixes;
  std::vector<IpGenPrefix> eraseOrder = order;
  std::shuffle(eraseOrder.begin(), eraseOrder.end(), std::mt19937(9));
  for (auto _ : state) {
    Trie trie;
    U32 v = 0;
    for (IpGenPrefix const& p : order) trie.insert(p, v++);
    for (IpGenPrefix const& p : eraseOrder) trie.erase(p);
    benchmark::DoNotOptimize(trie.size());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 2 * order.size()));
}

using V4 = Lumo::IpTrie<U32>;
using V6 = Lumo::Ip6Trie<U32>;

BENCHMARK_TEMPLATE(BM_TrieLongestMatch, V4)->Arg(0)->Arg(1)->ArgNames({"hitting"});
BENCHMARK_TEMPLATE(BM_TrieLongestMatch, V6)->Arg(0)->Arg(1)->ArgNames({"hitting"});
BENCHMARK_TEMPLATE(BM_TrieLongestMatchVsMap, V4)->Arg(0)->Arg(1)->ArgNames({"hitting"});
BENCHMARK_TEMPLATE(BM_TrieLongestMatchVsMap, V6)->Arg(0)->Arg(1)->ArgNames({"hitting"});
BENCHMARK_TEMPLATE(BM_TrieBytesPerPrefix, V4)->Iterations(1);
BENCHMARK_TEMPLATE(BM_TrieBytesPerPrefix, V6)->Iterations(1);
BENCHMARK_TEMPLATE(BM_TrieInsertEraseAll, V4)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_TrieInsertEraseAll, V6)->Unit(benchmark::kMillisecond);

}  // namespace
