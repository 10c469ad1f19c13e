// The one-at-a-time accumulator against values worked out by hand from the
// algorithm, and the bucket choice of the hash tables.
#include <Kel/Hash.h>

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Kel::U32;
using Kel::U8;

U32 hashBytes(std::vector<U8> const& bytes) {
  Kel::OneAtATime h;
  for (U8 b : bytes) h.addByte(b);
  return h.finish();
}

// Worked out by hand from the algorithm's steps (more, fed by identifiers,
// in ValueFrameTest); words mix as their bytes, low byte first, and -0.0
// as 0.0.
TEST(OneAtATime, MatchesHandComputedValues) {
  std::tuple<char const*, std::vector<U8>, U32> const cases[] = {
      {"nothing mixed", {}, 0u},
      {"the letter a", {0x61}, 0xca2e9442u},
      {"U32 65536", {0, 0, 1, 0}, 0x20e9c0b3u},
      {"sixteen zero bytes", std::vector<U8>(16, 0), 0u}};
  for (auto const& [what, bytes, expected] : cases) EXPECT_EQ(hashBytes(bytes), expected) << what;

  Kel::OneAtATime words;
  words.addU16(0x0102);
  words.addU32(0x03040506);
  words.addU64(0x0708090a0b0c0d0eull);
  EXPECT_EQ(words.finish(), hashBytes({0x02, 0x01, 0x06, 0x05, 0x04, 0x03, 0x0e, 0x0d, 0x0c, 0x0b,
                                       0x0a, 0x09, 0x08, 0x07}));
  Kel::OneAtATime a, b;
  a.addF64(0.0);
  b.addF64(-0.0);
  EXPECT_EQ(a.finish(), b.finish());
}

// Bits reverse both ways; with 2^b buckets the bucket is the top b bits of
// the reversed hash.
TEST(BitReverse, TableAndBuckets) {
  std::pair<U32, U32> const cases[] = {{0u, 0u},
                                       {1u, 0x80000000u},
                                       {0x80000000u, 1u},
                                       {0xffffffffu, 0xffffffffu},
                                       {0x12345678u, 0x1e6a2c48u},
                                       {0x0000ffffu, 0xffff0000u}};
  for (auto const& [in, out] : cases) {
    EXPECT_EQ(Kel::bitReverse32(in), out) << std::hex << in;
    EXPECT_EQ(Kel::bitReverse32(out), in) << std::hex << out;
  }
  // Hash, bits and bucket: bit 0 becomes the bucket's top bit, 0110 reversed is 0110.
  std::tuple<U32, unsigned, U32> const buckets[] = {
      {0xdeadbeefu, 0, 0u}, {0x1u, 1, 1u}, {0x2u, 1, 0u},
      {0x1u, 4, 8u},        {0x6u, 4, 6u}, {0xfffffffeu, 32, 0x7fffffffu}};
  for (auto const& [hash, bits, bucket] : buckets) {
    EXPECT_EQ(Kel::bucketOf(hash, bits), bucket) << std::hex << hash << " " << bits;
  }
}

// A memo answers every key with its own hash, and computes only when the
// key's bytes differ from the last one's: repeats, alternations and keys
// that differ in one field.
TEST(HashMemo, ComputesOnlyForAKeyUnlikeTheLast) {
  struct Key {
    U32 a;
    Kel::U16 b;
    Kel::U16 c;  // no padding: a memo compares every byte
  };
  auto const reference = [](Key const& k) {
    Kel::OneAtATime h;
    h.addU32(k.a);
    h.addU16(k.b);
    h.addU16(k.c);
    return h.finish();
  };
  Key const pool[] = {{0, 0, 0}, {0, 1, 0}, {1, 0, 0}, {0xffffffffu, 0xffff, 0xffff}, {0, 0, 1}};
  Kel::HashMemo<Key> memo;
  std::mt19937 rng(7);
  int computed = 0, expected = 0;
  Key const* previous = nullptr;
  for (int i = 0; i < 2000; ++i) {
    Key const& k = pool[rng() % std::size(pool)];
    if (!previous || std::memcmp(previous, &k, sizeof k) != 0) ++expected;
    previous = &k;
    U32 const h = memo.hashOf(k, [&] {
      ++computed;
      return reference(k);
    });
    ASSERT_EQ(h, reference(k)) << i;
  }
  EXPECT_EQ(computed, expected);
}

}  // namespace
