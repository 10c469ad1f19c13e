// Neighbors and integrity: the attribute table, the wrapping counters, the
// key identifier, the keyed digest (against RFC 2202 and the one-shot HMAC),
// the security association's queue and its receive window.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstring>
#include <deque>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;

RsvpNeighborId neighborId(char const* ip) { return RsvpNeighborId(IpGenAddr(ip)); }

RsvpSecAssociationKey saKey(Kel::U64 keyId) {
  RsvpIntegrityKeyId id;
  id.handleInitialized(keyId);
  return RsvpSecAssociationKey(IpGenAddr("10.0.0.2"), IpGenAddr("10.0.0.1"), id);
}

struct Count : RsvpNeighborState::NotifieeConst, RsvpNeighborSharedState::NotifieeConst {
  int msgId = 0;
  int seqNo = 0;
  Count(RsvpNeighborState const* n, RsvpNeighborSharedState const* s)
      : RsvpNeighborState::NotifieeConst(n), RsvpNeighborSharedState::NotifieeConst(s) {}
  void onTxMsgId() override { ++msgId; }
  void onTxSeqNo() override { ++seqNo; }
};

TEST(Neighbor, FreshDefaultsAndAttributeNumbers) {
  auto const n = rsvpNeighborStateFactory(neighborId("10.0.0.2"));
  EXPECT_EQ(n->txEpoch(), 16777216u);
  EXPECT_EQ(n->txMsgId(), 0u);
  EXPECT_EQ(n->authSeqWindowSize(), 1u);
  EXPECT_EQ(n->authType(), RsvpAuthType());
  EXPECT_FALSE(n->sharedState());
  EXPECT_FALSE(n->hasBackupSupport());
  struct {
    Kel::TypeDesc const& type;
    char const* attr;
    Kel::U32 index;
    Kel::U32 logId;
  } const table[] = {
      {RsvpNeighborState::kelType, "neighborId", 258, 258},
      {RsvpNeighborState::kelType, "sharedState", 259, 259},
      {RsvpNeighborState::kelType, "rorEnabled", 281, 281},
      {RsvpNeighborState::kelType, "txEpoch", 289, 289},
      {RsvpNeighborState::kelType, "rxSecAssoc", 298, 0},
      {RsvpNeighborState::kelType, "destroy", 299, 299},
      {RsvpNeighborState::kelType, "lfibTunnelIdForSpId", 311, 311},
      {RsvpNeighborSharedState::kelType, "txSeqNo", 258, 258},
      {RsvpNeighborStateColl::kelType, "sharedState", 259, 259},
      {RsvpSecAssociation::kelType, "key", 258, 258},
      {RsvpSecAssociation::kelType, "rxQueuedSeqNoMetadata", 263, 0},
      {RsvpSecAssociation::kelType, "rxQueuedSeqNo", 264, 264},
      {RsvpSecAssociation::kelType, "lastChange", 265, 265},
      {RsvpSpIdForTunnelId::kelType, "spId", 258, 258},
  };
  for (auto const& row : table) {
    Kel::KelAttr const* a = row.type.attr(row.attr);
    ASSERT_NE(a, nullptr) << row.attr;
    EXPECT_EQ(a->index, row.index) << row.attr;
    EXPECT_EQ(a->logId, row.logId) << row.attr;
  }
  EXPECT_EQ(RsvpNeighborState::kelType.attr(312), nullptr);
}

TEST(Neighbor, CountersWrapAndNotifyOnlyOnChange) {
  auto const table = rsvpNeighborStateCollFactory("neighbors");
  auto const n = table->neighborStateIs(neighborId("10.0.0.2"));
  auto const shared = table->sharedStateIs();
  n->sharedStateIs(shared);
  Count count(n.get(), shared.get());
  EXPECT_EQ(n->txMsgIdInc(0), 0u);
  EXPECT_EQ(count.msgId, 0);
  EXPECT_EQ(n->txMsgIdInc(1), 1u);
  n->txMsgIdIs(4294967295u);
  count.msgId = 0;
  EXPECT_EQ(n->txMsgIdInc(1), 0u);
  EXPECT_EQ(count.msgId, 1);
  EXPECT_EQ(shared->txSeqNoInc(0), 0u);
  EXPECT_EQ(count.seqNo, 0);
  shared->txSeqNoIs(~Kel::U64{0});
  count.seqNo = 0;
  EXPECT_EQ(shared->txSeqNoInc(2), 1u);
  EXPECT_EQ(count.seqNo, 1);
  n->txEpochIs(7);
  EXPECT_EQ(n->txEpoch(), 7u);
  EXPECT_EQ(n->sharedState(), shared);
}

TEST(KeyId, RoundTripAndWireOrder) {
  RsvpIntegrityKeyId id;
  id.handleInitialized(0x123456789ABCull);
  EXPECT_EQ(id.value(), 0x123456789ABCull);
  Kel::U16 const words[] = {id.w0(), id.w1(), id.w2()};
  unsigned char bytes[6];
  std::memcpy(bytes, words, 6);
  unsigned char const expected[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC};
  EXPECT_EQ(std::memcmp(bytes, expected, 6), 0);
  for (Kel::U64 v : {Kel::U64{0}, Kel::U64{1}, Kel::U64{0xFFFFFFFFFFFFull}}) {
    id.handleInitialized(v);
    EXPECT_EQ(id.value(), v);
  }
}

TEST(IntegrityDeathTest, FatalMisuse) {
  RsvpIntegrityKeyId id;
  EXPECT_DEATH(id.handleInitialized(Kel::U64{1} << 48), "Rsvp key ID must be 48 bits long");
  Kel::U8 buf[16];
  EXPECT_DEATH(RsvpIntegrityMessageDigest(Cli::none, buf), "Unexpected HMAC type");
}

TEST(Digest, SizeAndSetToZeroTouchExactly16Bytes) {
  Kel::U8 buf[18];
  std::memset(buf, 0xAA, sizeof buf);
  RsvpIntegrityMessageDigest const d(Cli::md5, buf + 1);
  EXPECT_EQ(d.size(), 16u);
  EXPECT_EQ(d.digest().get(), buf + 1);
  d.setToZero();
  EXPECT_EQ(buf[0], 0xAA);
  EXPECT_EQ(buf[17], 0xAA);
  for (int i = 1; i <= 16; ++i) EXPECT_EQ(buf[i], 0) << i;
  Kel::U8 in[16];
  Kel::U8 out[16];
  for (int i = 0; i < 16; ++i) in[i] = static_cast<Kel::U8>(i * 7);
  d.copyFrom(in);
  d.copyTo(out);
  EXPECT_EQ(std::memcmp(in, out, 16), 0);
  EXPECT_EQ(buf[17], 0xAA);
  // The digest's text is its address, which parses back within the process.
  EXPECT_EQ(strepToValue<RsvpIntegrityMessageDigest>(valueToStrep(d)), d);
}

std::string hex(Kel::U8 const* p, std::size_t n) {
  static char const digits[] = "0123456789abcdef";
  std::string s;
  for (std::size_t i = 0; i < n; ++i) {
    s += digits[p[i] >> 4];
    s += digits[p[i] & 15];
  }
  return s;
}

std::string digestOf(std::string const& key, std::string const& data) {
  Kel::U8 out[16];
  RsvpIntegrityMessageDigest const d(Cli::md5, out);
  EXPECT_TRUE(d.calculate(reinterpret_cast<Kel::U8 const*>(data.data()), data.size(), key.c_str()));
  return hex(out, 16);
}

TEST(Digest, Rfc2202Vectors) {
  struct {
    std::string key;
    std::string data;
    char const* digest;
  } const cases[] = {
      {std::string(16, '\x0b'), "Hi There", "9294727a3638bb1c13f48ef8158bfc9d"},
      {"Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738"},
      {std::string(16, '\xaa'), std::string(50, '\xdd'), "56be34521d144c88dbb8c733f0e8b3f6"},
      {"\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11\x12\x13\x14\x15\x16"
       "\x17\x18\x19",
       std::string(50, '\xcd'), "697eaf0aca3a3aea3a75164746ffaa79"},
      {std::string(16, '\x0c'), "Test With Truncation", "56461ef2342edc00f9bab995690efd4c"},
      {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
       "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
      {std::string(80, '\xaa'),
       "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
       "6f630fad67cda0ee1fb1f562db3aa53e"},
  };
  for (auto const& c : cases) EXPECT_EQ(digestOf(c.key, c.data), c.digest) << c.data;
}

// Random keys (empty, short, a block, longer) and lengths, in an order that
// switches keys often: the bytes are the one-shot HMAC's.
TEST(Digest, SameBytesAsTheOneShotHmac) {
  std::mt19937 rng(11);
  std::vector<std::string> keys = {"", "k", std::string(64, 'x'), std::string(65, 'y')};
  for (int i = 0; i < 6; ++i)
    keys.push_back(std::string(1 + rng() % 100, static_cast<char>('a' + i)));
  for (int i = 0; i < 600; ++i) {
    std::string const& key = keys[rng() % keys.size()];
    std::vector<Kel::U8> data(rng() % 1600);
    for (Kel::U8& b : data) b = static_cast<Kel::U8>(rng());
    Kel::U8 ours[16];
    ASSERT_TRUE(RsvpIntegrityMessageDigest(Cli::md5, ours)
                    .calculate(data.data(), data.size(), key.c_str()));
    unsigned char theirs[16];
    unsigned int len = 0;
    HMAC(EVP_md5(), key.data(), static_cast<int>(key.size()), data.data(), data.size(), theirs,
         &len);
    ASSERT_EQ(hex(ours, 16), hex(theirs, len)) << key.size() << " " << data.size();
  }
  Kel::U8 a[16];
  Kel::U8 b[16];
  RsvpIntegrityMessageDigest(Cli::md5, a).calculate(a, 0, nullptr);
  RsvpIntegrityMessageDigest(Cli::md5, b).calculate(b, 0, "");
  EXPECT_EQ(hex(a, 16), hex(b, 16)) << "a null key is the empty key";
}

TEST(SecAssociation, QueuePositionsAndRecord) {
  auto const sa = rsvpSecAssociationFactory(saKey(5));
  using Md = Kel::QueueMetadata;
  EXPECT_EQ(sa->rxQueuedSeqNoDeq(), 0u) << "empty";
  EXPECT_EQ(sa->rxQueuedSeqNoMetadata(), Md(0, 0, 0));
  EXPECT_EQ(sa->rxQueuedSeqNoEnq(100), 0u);
  EXPECT_EQ(sa->rxQueuedSeqNoEnq(101), 1u);
  EXPECT_EQ(sa->rxQueuedSeqNoEnq(102), 2u);
  EXPECT_EQ(sa->rxQueuedSeqNoMetadata(), Md(0, 2, 3));
  EXPECT_EQ(sa->rxQueuedSeqNoDeq(), 100u);
  EXPECT_EQ(sa->rxQueuedSeqNoMetadata(), Md(1, 3, 2)) << "next raised past the tail";
  EXPECT_EQ(sa->rxQueuedSeqNoDeq(), 101u);
  EXPECT_EQ(sa->rxQueuedSeqNoDeq(), 102u);
  EXPECT_EQ(sa->rxQueuedSeqNoMetadata(), Md(3, 3, 0));
  EXPECT_EQ(sa->rxQueuedSeqNoEnq(7), 3u) << "after emptying: the position of the last removed";
  EXPECT_FALSE(sa->rxQueuedSeqNoIs(2, 9)) << "before the tail and absent";
  EXPECT_TRUE(sa->rxQueuedSeqNoIs(3, 8));
  EXPECT_TRUE(sa->rxQueuedSeqNoIs(10, 9)) << "appended under its number";
  EXPECT_EQ(sa->rxQueuedSeqNoMetadata(), Md(3, 10, 2));
  EXPECT_EQ(sa->rxQueuedSeqNo(3), 8u);
  EXPECT_EQ(sa->rxQueuedSeqNoEnq(1), 11u);
  // The record is reflected read-only under its own attribute.
  Kel::QueueMetadata seen;
  Kel::KelAttr const* a = RsvpSecAssociation::kelType.attr("rxQueuedSeqNoMetadata");
  EXPECT_EQ(RsvpSecAssociation::kelType.attributeOp(&seen, sa.get(), a, Kel::attrOpRead, nullptr,
                                                    nullptr),
            Kel::attrDone);
  EXPECT_EQ(seen, Md(3, 11, 3));
  EXPECT_EQ(strepToValue<Kel::QueueMetadata>(valueToStrep(seen)), seen);
}

// The receive window against a plain model: the largest number seen and the
// set of every number accepted; a number is new when above the largest, or
// within the window below it and not accepted before.
TEST(SecAssociation, ReceiveWindowAgainstAModel) {
  std::mt19937_64 rng(5);
  for (Kel::U32 window : {1u, 2u, 7u, 64u, 255u}) {
    auto const sa = rsvpSecAssociationFactory(saKey(window));
    std::set<Kel::U64> accepted;
    Kel::U64 top = 0;
    bool any = false;
    Kel::U64 base = window == 7 ? ~Kel::U64{0} - 5000 : rng() % 1000;
    for (int i = 0; i < 4000; ++i) {
      Kel::U64 const seq = base + rng() % 3000;
      base += rng() % 3;
      Kel::U64 const low = !any ? 0 : top >= window - 1 ? top - (window - 1) : 0;
      RsvpSeqNoVerdict want = seqNoAccepted;
      if (any && seq < low) {
        want = seqNoTooOld;
      } else if (accepted.count(seq)) {
        want = seqNoDuplicate;
      }
      ASSERT_EQ(sa->acceptRxSeqNo(seq, window), want) << window << " " << seq << " " << top;
      if (want == seqNoAccepted) {
        accepted.insert(seq);
        top = any ? std::max(top, seq) : seq;
        any = true;
      }
      // What is stored is exactly the accepted numbers within the window.
      Kel::U64 const min = top >= window - 1 ? top - (window - 1) : 0;
      ASSERT_EQ(sa->rxSeqNoMin(), min);
      std::set<Kel::U64> inWindow(accepted.lower_bound(min), accepted.end());
      ASSERT_EQ(sa->rxSeqNoSize(), inWindow.size());
      ASSERT_EQ(sa->rxQueuedSeqNoSize(), inWindow.size());
      for (auto it = sa->rxQueuedSeqNoIter(); !it.done(); ++it) {
        ASSERT_TRUE(inWindow.count(it.value()) && sa->rxSeqNo(it.value()));
      }
    }
  }
}

}  // namespace
