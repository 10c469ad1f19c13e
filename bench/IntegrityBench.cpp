// The keyed digest against raw MD5 and the one-shot HMAC of the same bytes,
// the neighbor's wrapping counters, and the receive window per number.
#include <Rsvp/Rsvp.h>

#define OPENSSL_SUPPRESS_DEPRECATED
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/md5.h>

#include <chrono>
#include <random>
#include <vector>

namespace {

using namespace Rsvp;

std::vector<Kel::U8> randomBytes(std::size_t n) {
  std::mt19937 rng(1);
  std::vector<Kel::U8> out(n);
  for (Kel::U8& b : out) b = static_cast<Kel::U8>(rng());
  return out;
}

constexpr char kKey[] = "operator-configured-key";

void BM_DigestCalculate(benchmark::State& state) {
  auto const data = randomBytes(static_cast<std::size_t>(state.range(0)));
  Kel::U8 out[16];
  RsvpIntegrityMessageDigest const d(Cli::md5, out);
  for (auto _ : state) {
    benchmark::DoNotOptimize(d.calculate(data.data(), data.size(), kKey));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_DigestCalculate)->Arg(64)->Arg(256)->Arg(1500);

void BM_DigestRawMd5(benchmark::State& state) {
  auto const data = randomBytes(static_cast<std::size_t>(state.range(0)));
  unsigned char out[16];
  for (auto _ : state) {
    MD5(data.data(), data.size(), out);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_DigestRawMd5)->Arg(64)->Arg(256)->Arg(1500);

void BM_DigestOneShotHmac(benchmark::State& state) {
  auto const data = randomBytes(static_cast<std::size_t>(state.range(0)));
  unsigned char out[16];
  unsigned int len = 0;
  for (auto _ : state) {
    HMAC(EVP_md5(), kKey, sizeof kKey - 1, data.data(), data.size(), out, &len);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_DigestOneShotHmac)->Arg(64)->Arg(256)->Arg(1500);

// The three in one run, interleaved, so that the ratios share the
// machine's state: counters `vsMd5` and `vsOneShot` are our time over theirs.
void BM_DigestRatios(benchmark::State& state) {
  auto const data = randomBytes(static_cast<std::size_t>(state.range(0)));
  Kel::U8 out[16];
  RsvpIntegrityMessageDigest const d(Cli::md5, out);
  unsigned int len = 0;
  using Clock = std::chrono::steady_clock;
  Clock::duration ours{};
  Clock::duration md5{};
  Clock::duration oneShot{};
  constexpr int kRounds = 64;
  for (auto _ : state) {
    auto t0 = Clock::now();
    for (int i = 0; i < kRounds; ++i) d.calculate(data.data(), data.size(), kKey);
    auto t1 = Clock::now();
    for (int i = 0; i < kRounds; ++i) MD5(data.data(), data.size(), out);
    auto t2 = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
      HMAC(EVP_md5(), kKey, sizeof kKey - 1, data.data(), data.size(), out, &len);
    }
    auto t3 = Clock::now();
    ours += t1 - t0;
    md5 += t2 - t1;
    oneShot += t3 - t2;
    benchmark::ClobberMemory();
  }
  state.counters["vsMd5"] = static_cast<double>(ours.count()) / static_cast<double>(md5.count());
  state.counters["vsOneShot"] =
      static_cast<double>(ours.count()) / static_cast<double>(oneShot.count());
}
BENCHMARK(BM_DigestRatios)->Arg(64)->Arg(256)->Arg(1500);

void BM_NeighborTxMsgIdInc(benchmark::State& state) {
  auto const n = rsvpNeighborStateFactory(RsvpNeighborId(Lumo::IpGenAddr("10.0.0.2")));
  for (auto _ : state) benchmark::DoNotOptimize(n->txMsgIdInc(1));
}
BENCHMARK(BM_NeighborTxMsgIdInc);

void BM_NeighborTxSeqNoInc(benchmark::State& state) {
  auto const s = rsvpNeighborSharedStateFactory();
  for (auto _ : state) benchmark::DoNotOptimize(s->txSeqNoInc(1));
}
BENCHMARK(BM_NeighborTxSeqNoInc);

// Per received number, window 255: in order (each number slides the window
// and forgets the oldest), and shuffled within the window (out of order,
// with one in eight a replay).
void BM_ReceiveWindow(benchmark::State& state) {
  bool const shuffled = state.range(0) != 0;
  std::mt19937_64 rng(7);
  std::vector<Kel::U64> seqs(1 << 16);
  Kel::U64 next = 1;
  for (Kel::U64& s : seqs) {
    s = shuffled ? next + rng() % 200 : next;
    if (shuffled && rng() % 8 == 0) s = next - 1;
    ++next;
  }
  RsvpIntegrityKeyId keyId;
  keyId.handleInitialized(1);
  auto const sa = rsvpSecAssociationFactory(
      RsvpSecAssociationKey(Lumo::IpGenAddr("10.0.0.2"), Lumo::IpGenAddr("10.0.0.1"), keyId));
  Kel::U64 offset = 0;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(sa->acceptRxSeqNo(seqs[i] + offset, 255));
    if (++i == seqs.size()) {
      i = 0;
      offset += next + 1000;
    }
  }
}
BENCHMARK(BM_ReceiveWindow)->Arg(0)->Arg(1)->ArgNames({"shuffled"});

}  // namespace
