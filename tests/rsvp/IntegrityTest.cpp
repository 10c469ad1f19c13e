// Neighbors and integrity: the wrapping counters, the
// key identifier, the keyed digest (against the one-shot HMAC),
// the security association's queue and its receive window.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "../TestSupport.h"

#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;

RsvpSecAssociationKey saKey(Kel::U64 keyId) {
  RsvpIntegrityKeyId id;
  id.handleInitialized(keyId);
  return RsvpSecAssociationKey(IpGenAddr("10.0.0.2"), IpGenAddr("10.0.0.1"), id);
}

// The message id and sequence counters wrap, answer the new value and
// notify only when an increment changes them.
TEST(Neighbor, CountersWrapAndNotifyOnlyOnChange) {
  auto const table = rsvpNeighborStateCollFactory("neighbors");
  auto const n = table->neighborStateIs(RsvpNeighborId(IpGenAddr("10.0.0.2")));
  auto const shared = table->sharedStateIs();
  n->sharedStateIs(shared);
  TestSupport::Heard heard(n.get(), shared.get());
  EXPECT_EQ(n->txMsgIdInc(0), 0u);
  EXPECT_EQ(n->txMsgIdInc(1), 1u);
  n->txMsgIdIs(4294967295u);
  EXPECT_EQ(n->txMsgIdInc(1), 0u);
  EXPECT_EQ(shared->txSeqNoInc(0), 0u);
  shared->txSeqNoIs(~Kel::U64{0});
  EXPECT_EQ(shared->txSeqNoInc(2), 1u);
  EXPECT_EQ(heard.log,
            (std::vector<std::string>{"txMsgId", "txMsgId", "txMsgId", "txSeqNo", "txSeqNo"}))
      << "an increment by 0 tells nobody";
}

// The 48-bit key id reads back and lies in its three words in wire order.
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

// A key id over 48 bits and a digest of no method are fatal, with their texts.
TEST(IntegrityDeathTest, FatalMisuse) {
  RsvpIntegrityKeyId id;
  EXPECT_DEATH(id.handleInitialized(Kel::U64{1} << 48), "Rsvp key ID must be 48 bits long");
  Kel::U8 buf[16];
  EXPECT_DEATH(RsvpIntegrityMessageDigest(Cli::none, buf), "Unexpected HMAC type");
}

// The digest's operations touch its 16 bytes and nothing beside them. Random
// keys (empty, short, a block, longer) and lengths, in an order that switches
// keys often: the bytes are the one-shot HMAC's (which makes the RFC 2202
// vectors' case too).
TEST(Digest, TouchesExactly16BytesAndMatchesTheOneShotHmac) {
  Kel::U8 buf[18];
  std::memset(buf, 0xAA, sizeof buf);
  RsvpIntegrityMessageDigest const d(Cli::md5, buf + 1);
  d.setToZero();
  EXPECT_EQ(buf[0], 0xAA);
  EXPECT_EQ(buf[17], 0xAA);
  for (int i = 1; i <= 16; ++i) EXPECT_EQ(buf[i], 0) << i;
  Kel::U8 in[16], out[16];
  for (int i = 0; i < 16; ++i) in[i] = static_cast<Kel::U8>(i * 7);
  d.copyFrom(in);
  d.copyTo(out);
  EXPECT_EQ(std::memcmp(in, out, 16), 0);
  EXPECT_EQ(buf[17], 0xAA);
  // The digest's text is its address, which parses back within the process.
  EXPECT_EQ(strepToValue<RsvpIntegrityMessageDigest>(valueToStrep(d)), d);

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
    ASSERT_EQ(std::vector<Kel::U8>(ours, ours + 16), std::vector<Kel::U8>(theirs, theirs + len))
        << key.size() << " " << data.size();
  }
  Kel::U8 a[16], b[16];
  RsvpIntegrityMessageDigest(Cli::md5, a).calculate(a, 0, nullptr);
  RsvpIntegrityMessageDigest(Cli::md5, b).calculate(b, 0, "");
  EXPECT_EQ(std::memcmp(a, b, 16), 0) << "a null key is the empty key";
}

// The receive queue's record (head, next, size), also read through
// reflection and its text. (The numbering itself is the queue's, against a
// model in ContainersTest.) The receive window against a plain model: the
// largest number seen and the set of every number accepted; a number is new
// when above the largest, or within the window below it and not accepted
// before.
TEST(SecAssociation, QueueRecordAndReceiveWindow) {
  auto const sa = rsvpSecAssociationFactory(saKey(5));
  using Md = Kel::QueueMetadata;
  EXPECT_EQ(sa->rxQueuedSeqNoMetadata(), Md(0, 0, 0));
  for (Kel::U64 v : {100u, 101u, 102u}) sa->rxQueuedSeqNoEnq(v);
  EXPECT_EQ(sa->rxQueuedSeqNoMetadata(), Md(0, 2, 3));
  EXPECT_EQ(sa->rxQueuedSeqNoDeq(), 100u);
  EXPECT_EQ(sa->rxQueuedSeqNoMetadata(), Md(1, 3, 2)) << "next raised past the tail";
  while (sa->rxQueuedSeqNoSize() > 0) sa->rxQueuedSeqNoDeq();
  EXPECT_EQ(sa->rxQueuedSeqNoMetadata(), Md(3, 3, 0)) << "empty: the head is the next";
  EXPECT_TRUE(sa->rxQueuedSeqNoIs(10, 9)) << "appended under its number";
  EXPECT_EQ(sa->rxQueuedSeqNoEnq(1), 11u);
  // The record is reflected read-only under its own attribute.
  Kel::QueueMetadata seen;
  EXPECT_EQ(TestSupport::attrOp(*sa, "rxQueuedSeqNoMetadata", Kel::attrOpRead, &seen),
            Kel::attrDone);
  EXPECT_EQ(seen, Md(10, 11, 2));
  EXPECT_EQ(strepToValue<Kel::QueueMetadata>(valueToStrep(seen)), seen);

  std::mt19937_64 rng(5);
  for (Kel::U32 window : {1u, 2u, 7u, 64u, 255u}) {
    auto const windowed = rsvpSecAssociationFactory(saKey(window));
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
      ASSERT_EQ(windowed->acceptRxSeqNo(seq, window), want) << window << " " << seq << " " << top;
      if (want == seqNoAccepted) {
        accepted.insert(seq);
        top = any ? std::max(top, seq) : seq;
        any = true;
      }
      // What is stored is exactly the accepted numbers within the window.
      Kel::U64 const min = top >= window - 1 ? top - (window - 1) : 0;
      ASSERT_EQ(windowed->rxSeqNoMin(), min);
      std::set<Kel::U64> inWindow(accepted.lower_bound(min), accepted.end());
      ASSERT_EQ(windowed->rxSeqNoSize(), inWindow.size());
      ASSERT_EQ(windowed->rxQueuedSeqNoSize(), inWindow.size());
      for (auto it = windowed->rxQueuedSeqNoIter(); !it.done(); ++it) {
        ASSERT_TRUE(inWindow.count(it.value()) && windowed->rxSeqNo(it.value()));
      }
    }
  }
}

}  // namespace
