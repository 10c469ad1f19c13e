// The secret codec: round trips, texts formed apart from this code (Python's
// cryptography package, same key, nonce and layout), every way a stored text
// or a key is refused, and a platform's codec in place of the default.
#include <CipherkitLib/Codec.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <atomic>
#include <thread>
#include <vector>

namespace {

using namespace std::string_literals;
using Kel::String;
namespace Ck = CipherkitLib;

String keyFrom(char first) {
  String key(32, first);
  for (int i = 0; i < 32; ++i) key[i] = static_cast<char>(key[i] + i);
  return key;
}

// Under keyFrom(0), nonce a0 a1 ... ab: "s3cret\0pw!" (38 bytes, one '=') and
// the empty secret (28 bytes, "=="); a 29-byte secret below gives 57, no '='.
String const kVector = "ck1:oKGio6SlpqeoqaqrlSsfXyC/As8VRKTGbn13R8w26R4cWyn+9w4=";
String const kEmptyVector = "ck1:oKGio6SlpqeoqaqrxbEhEqGml2HnsMHmutJLJg==";
String const kClear = "s3cret\0pw!"s;

using TestSupport::errorOf;

// The codec's refusal of a stored text, or "accepted".
std::string refusal(String const& text) {
  return errorOf<Ck::CodecException>([&] { (void)Ck::doDecodeKey(text); });
}

// A platform's codec: the text reversed behind "rev:".
struct ReverseCodec final : Ck::Codec {
  String encode(String const& c) const override { return "rev:" + String(c.rbegin(), c.rend()); }
  String decode(String const& text) const override {
    if (!text.starts_with("rev:")) throw Ck::CodecException("not mine");
    return String(text.rbegin(), text.rend() - 4);
  }
};

class SecretCodec : public testing::Test {
 protected:
  void SetUp() override { Ck::keyIs(keyFrom(0)); }
  void TearDown() override {
    Ck::codecIs(nullptr);
    Ck::keyDel();
  }
};

TEST_F(SecretCodec, RoundTripsAnyBytesUnderAFreshNonce) {
  String big;
  for (int i = 0; i < 100000; ++i) big += static_cast<char>(i * 7919 >> 3);  // every byte value
  for (String const& clear : {""s, "a"s, kClear, big}) {
    String const text = Ck::doEncodeKey(clear);
    EXPECT_EQ(text.size(), 4 + (28 + clear.size() + 2) / 3 * 4) << clear.size();
    EXPECT_EQ(Ck::doDecodeKey(text), clear) << clear.size();
    EXPECT_NE(text.substr(0, 20), Ck::doEncodeKey(clear).substr(0, 20)) << "nonce drawn twice";
  }
  EXPECT_EQ(Ck::doDecodeKey(kVector), kClear);
  EXPECT_EQ(Ck::doDecodeKey(kEmptyVector), "");
}

TEST_F(SecretCodec, EverySingleByteChangeIsRefused) {
  int accepted = 0;
  for (String const& text :
       {kVector, kEmptyVector, Ck::doEncodeKey("a longer secret of 29 bytes..")}) {
    for (std::size_t pos = 0; pos < text.size() && accepted < 5; ++pos) {
      for (int b = 0; b < 256; ++b) {
        String changed = text;
        changed[pos] = static_cast<char>(b);
        if (changed != text && refusal(changed) == "accepted") {
          ADD_FAILURE() << "accepted " << changed;
          ++accepted;
        }
      }
    }
  }
}

char const* const kVersion = "Encoded secret has an unknown version prefix";
char const* const kBase64 = "Encoded secret is not valid base64";
char const* const kVerify = "Encoded secret does not verify (wrong key or altered text)";
char const* const kNoKey = "Secret codec has no key";

TEST_F(SecretCodec, BadTextsAndKeysAreRefusedWithTheirText) {
  String const body = kVector.substr(4);
  std::pair<String, char const*> const cases[] = {
      {body, kVersion},
      {"ck2:" + body, kVersion},
      {kVector.substr(0, 9) + kVector.substr(10), kBase64},  // a character dropped
      {"ck1:" + body.substr(0, 4) + "\n" + body.substr(4), kBase64},
      {"ck1:oKGio6SlpqeoqaqrxbEhEqGml2HnsMHmutJLJh==", kBase64},  // unused bits set
      {"ck1:oKGio6SlpqeoqaqrlSsfXyC/As8VRKTGbn13R8w26R4cWyn+9w5=", kBase64},
      {"ck1:oKGi=6SlpqeoqaqrxbEhEqGml2HnsMHmutJLJg==", kBase64},
      {"ck1:", "Encoded secret is too short"},
      {"ck1:" + body.substr(0, 36), "Encoded secret is too short"},  // 27 bytes
      {kVector.substr(0, kVector.size() - 4), kVerify},
  };
  for (auto const& [text, expected] : cases) EXPECT_EQ(refusal(text), expected) << text;

  // The key decides; a bad key changes nothing.
  for (std::size_t size : {0, 1, 31, 33, 64}) {
    EXPECT_EQ(errorOf<Ck::CodecException>([&] { Ck::keyIs(String(size, 'k')); }),
              "Secret codec key must be exactly 32 bytes");
  }
  EXPECT_EQ(Ck::doDecodeKey(kVector), kClear);  // the key before them is kept
  Ck::keyIs(keyFrom(1));
  EXPECT_EQ(refusal(kVector), kVerify);
  Ck::keyDel();
  EXPECT_EQ(errorOf<Ck::CodecException>([] { (void)Ck::doEncodeKey("x"); }), kNoKey);
  EXPECT_EQ(refusal(kVector), kNoKey);
  EXPECT_EQ(refusal("ck2:"), kVersion);  // the form is checked before the key
}

TEST_F(SecretCodec, PlatformCodecReplacesTheDefaultUntilRemovedEvenAcrossThreads) {
  auto const platform = std::make_shared<ReverseCodec const>();
  Ck::codecIs(platform);
  EXPECT_EQ(Ck::codec(), platform);
  EXPECT_EQ(Ck::doEncodeKey("abc"), "rev:cba");
  EXPECT_EQ(Ck::doDecodeKey("rev:cba"), "abc");
  EXPECT_EQ(refusal(kVector), "not mine");
  Ck::codecIs(nullptr);
  EXPECT_EQ(Ck::doDecodeKey(kVector), kClear);

  // Threads round trip while the codec and the key are replaced.
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) {
        if (t == 0) {  // one thread replaces, the others encode and decode meanwhile
          Ck::codecIs(i % 2 ? platform : nullptr);
          Ck::keyIs(keyFrom(0));
        }
        String const clear = "secret " + std::to_string(t * 1000 + i);
        auto const codec = Ck::codec();
        if (codec->decode(codec->encode(clear)) != clear) ++wrong;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
