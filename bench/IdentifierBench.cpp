// The hot operations on state-path identifiers, and how evenly their hashes
// spread over the buckets of a hash table.
#include <Rsvp/Rsvp.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace {

using namespace Rsvp;

RsvpSpId sampleSpId(Kel::U32 i) {
  RsvpSessionId const s(Lumo::IpGenAddr::ipv4(0x0a000000u + (i % 4096)),
                        RsvpTunnelId(static_cast<Kel::U16>(i / 4096 + 1)),
                        Lumo::IpGenAddr::ipv4(0x0a0000feu));
  return RsvpSpId(s, RsvpPathId(i % 7 + 1));
}

std::vector<RsvpSpId> sampleSpIds(std::size_t n) {
  std::vector<RsvpSpId> ids;
  ids.reserve(n);
  for (std::size_t i = 0; i < n; ++i) ids.push_back(sampleSpId(static_cast<Kel::U32>(i * 7919)));
  return ids;
}

void BM_SpIdPrint(benchmark::State& state) {
  auto const ids = sampleSpIds(1024);
  std::size_t i = 0;
  for (auto _ : state) {
    Kel::String s = ids[i++ & 1023].stringValue();
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_SpIdPrint);

void BM_SpIdPrintAppend(benchmark::State& state) {
  auto const ids = sampleSpIds(1024);
  Kel::String out;
  out.reserve(256);
  std::size_t i = 0;
  for (auto _ : state) {
    out.clear();
    appendStrep(out, ids[i++ & 1023]);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_SpIdPrintAppend);

void BM_SpIdParse(benchmark::State& state) {
  std::vector<Kel::String> texts;
  for (auto const& id : sampleSpIds(1024)) texts.push_back(id.stringValue());
  std::size_t i = 0;
  RsvpSpId id;
  for (auto _ : state) {
    id.stringValueIs(texts[i++ & 1023]);
    benchmark::DoNotOptimize(id);
  }
}
BENCHMARK(BM_SpIdParse);

void BM_SpIdHash(benchmark::State& state) {
  auto const ids = sampleSpIds(1024);
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(ids[i++ & 1023].hash());
}
BENCHMARK(BM_SpIdHash);

void BM_SpIdEqual(benchmark::State& state) {
  auto const ids = sampleSpIds(1024);
  auto const copies = ids;
  std::size_t i = 0;
  for (auto _ : state) {
    std::size_t const k = i++ & 1023;
    benchmark::DoNotOptimize(ids[k] == copies[k]);  // equal: every attribute compared
  }
}
BENCHMARK(BM_SpIdEqual);

void BM_SpIdLess(benchmark::State& state) {
  auto const ids = sampleSpIds(1024);
  std::size_t i = 0;
  for (auto _ : state) {
    std::size_t const k = i++ & 1023;
    benchmark::DoNotOptimize(ids[k] < ids[(k + 1) & 1023]);
  }
}
BENCHMARK(BM_SpIdLess);

// Spreads 1M distinct keys over 2^16 buckets chosen from the top bits of the
// bit-reversed hash, as the hash tables do, and reports the chain lengths.
template <class MakeKey>
void spread(benchmark::State& state, MakeKey makeKey) {
  constexpr unsigned kBits = 16;
  constexpr std::size_t kKeys = 1u << 20;
  std::vector<Kel::U32> chain(std::size_t{1} << kBits);
  for (auto _ : state) {
    std::fill(chain.begin(), chain.end(), 0u);
    for (std::size_t i = 0; i < kKeys; ++i) ++chain[Kel::bucketOf(makeKey(i).hash(), kBits)];
  }
  double const mean = double(kKeys) / double(chain.size());
  double var = 0;
  for (Kel::U32 c : chain) var += (c - mean) * (c - mean);
  var /= double(chain.size());
  state.counters["longestChain"] = *std::max_element(chain.begin(), chain.end());
  state.counters["emptyBuckets"] = double(std::count(chain.begin(), chain.end(), 0u));
  state.counters["meanChain"] = mean;
  // 1.0 for an ideal (Poisson) spread; larger is worse.
  state.counters["varianceToMean"] = var / mean;
  state.SetItemsProcessed(state.iterations() * kKeys);
}

void BM_SpIdSpread_ManySessions(benchmark::State& state) {
  spread(state, [](std::size_t i) { return sampleSpId(static_cast<Kel::U32>(i)); });
}
BENCHMARK(BM_SpIdSpread_ManySessions)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_SpIdSpread_OneSessionManyLsps(benchmark::State& state) {
  spread(state, [](std::size_t i) {
    RsvpSessionId const s(Lumo::IpGenAddr::ipv4(0x0a000001u + Kel::U32(i >> 16)), RsvpTunnelId(1),
                          Lumo::IpGenAddr::ipv4(0x0a0000feu));
    return RsvpSpId(s, RsvpPathId(Kel::U32(i & 0xffff)));
  });
}
BENCHMARK(BM_SpIdSpread_OneSessionManyLsps)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_SpIdSpread_Random(benchmark::State& state) {
  std::vector<RsvpSpId> ids;
  std::mt19937 rng(5);
  for (std::size_t i = 0; i < (1u << 20); ++i) {
    RsvpSessionId const s(Lumo::IpGenAddr::ipv4(rng()), RsvpTunnelId(Kel::U16(rng())),
                          Lumo::IpGenAddr::ipv4(rng()));
    ids.emplace_back(s, RsvpPathId(rng() % 65536));
  }
  spread(state, [&](std::size_t i) { return ids[i]; });
}
BENCHMARK(BM_SpIdSpread_Random)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
