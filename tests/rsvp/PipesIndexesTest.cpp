// Message pipes (the hand-over, the full-slot fault, fresh pipes after a
// delete), the neighbor interface map's count and the interface tries.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <string>
#include <vector>

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;
using Lumo::IpGenPrefix;
using TestSupport::errorOf;

RsvpNeighborId neighborId(char const* ip) { return RsvpNeighborId(IpGenAddr(ip)); }

// The consumer's reactor: takes the message out when the counter moves.
struct Consumer : RsvpMsgPipe::NotifieeConst {
  RsvpMsgPipe* pipe;
  std::vector<Kel::Ptr<RsvpMsg const>> taken;
  explicit Consumer(RsvpMsgPipe* p) : NotifieeConst(p), pipe(p) {}
  void onReadableCount() override { taken.push_back(pipe->rxMsg()); }
};

// The reactor takes each message as the counter moves; reading does not
// count. (A counter's wrap and its silence when unchanged are the neighbor's
// counters', in IntegrityTest.) In every keyed collection a pipe deleted and
// inserted again is a new pipe with its counter at 0; the single neighbor
// transmit pipe likewise.
TEST(MsgPipe, HandOverAndFreshPipesAfterADelete) {
  auto const coll = rsvpSpTxMsgPipeCollFactory("tx");
  auto const pipe = coll->msgPipeIs(neighborId("10.0.0.2"));
  EXPECT_EQ(pipe->readableCount(), 0u);
  EXPECT_FALSE(pipe->rxMsg());
  Consumer consumer(pipe.get());
  Kel::Ptr<RsvpMsg const> const path = rsvpPathMsgFactory();
  Kel::Ptr<RsvpMsg const> const resv = rsvpResvMsgFactory();
  pipe->txMsgIs(path);
  pipe->txMsgIs(resv);  // the reactor emptied the slot
  ASSERT_EQ(consumer.taken.size(), 2u);
  EXPECT_EQ(consumer.taken[0], path);
  EXPECT_EQ(consumer.taken[1], resv);
  EXPECT_EQ(pipe->readableCount(), 2u);
  EXPECT_FALSE(pipe->rxMsg()) << "taken once";
  EXPECT_EQ(pipe->readableCount(), 2u) << "reading does not count";

  auto check = [](auto pipes, auto key) {
    auto const first = pipes->msgPipeIs(key);
    first->txMsgIs(rsvpHelloMsgFactory());
    EXPECT_EQ(pipes->msgPipeIs(key), first) << "insertion answers the existing pipe";
    pipes->msgPipeDel(key);
    auto const second = pipes->msgPipeIs(key);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->readableCount(), 0u);
    EXPECT_FALSE(second->msgHolder());
    EXPECT_EQ(first->readableCount(), 1u) << "the old pipe is left as it was";
  };
  check(rsvpNeighborRxMsgPipeCollFactory("a"), neighborId("10.0.0.2"));
  check(rsvpNeighborHelloRxMsgPipeCollFactory("b"), neighborId("10.0.0.2"));
  check(rsvpNeighborChallengeRxMsgPipeCollFactory("c"), neighborId("10.0.0.2"));
  check(rsvpSpRxMsgPipeCollFactory("d"), TestSupport::spId(2));
  check(rsvpSpTxMsgPipeCollFactory("e"), neighborId("10.0.0.2"));
  auto const single = rsvpNeighborTxMsgPipeCollFactory("f");
  single->msgPipeIs("tx")->txMsgIs(rsvpHelloMsgFactory());
  single->msgPipeDel();
  EXPECT_EQ(single->msgPipeIs("tx")->readableCount(), 0u);
}

// Writing into a slot still full is fatal.
TEST(MsgPipeDeathTest, WriteIntoAFullSlot) {
  auto const pipe = rsvpMsgPipeFactory("p");
  pipe->txMsgIs(rsvpPathMsgFactory());
  EXPECT_DEATH(pipe->txMsgIs(rsvpPathMsgFactory()), "msgHolder_ == __null");
}

// The map counts distinct interfaces.
TEST(NeighborIntfMap, CountsDistinctInterfaces) {
  auto const map = rsvpNeighborIntfMapFactory("nim");
  EXPECT_EQ(map->intfCount(), 0u);
  map->intfAndAddrIs(IpGenAddr("10.0.0.2"),
                     RsvpIntfAndAddr(Lumo::IntfId("eth0"), IpGenAddr("10.0.0.1"), true));
  map->intfAndAddrIs(IpGenAddr("10.0.0.3"),
                     RsvpIntfAndAddr(Lumo::IntfId("eth0"), IpGenAddr("10.0.0.1"), false));
  map->intfAndAddrIs(IpGenAddr("10.1.0.2"),
                     RsvpIntfAndAddr(Lumo::IntfId("eth1"), IpGenAddr("10.1.0.1"), true));
  EXPECT_EQ(map->intfCount(), 2u);
  map->intfAndAddrDel(IpGenAddr("10.1.0.2"));
  EXPECT_EQ(map->intfCount(), 1u);
}

// The interface tries: children of the local interface map that answer the
// longest match, notify per prefix and refuse keys they cannot hold without
// changing or notifying. (The trie itself is TrieTest's, against a model;
// their replication StatusTest's.)
TEST(LocalIntfMap, TriesAnswerTheLongestMatchAndNotify) {
  auto const map = rsvpLocalIntfMapFactory("lim");
  auto const v4 = map->ipTrieIs();
  auto const v6 = map->ip6TrieIs();
  TestSupport::Heard seen(v4.get());
  v4->intfIdIs(IpGenPrefix(IpGenAddr("10.0.0.0"), 8), Lumo::IntfId("eth1"));
  v4->intfIdIs(IpGenPrefix(IpGenAddr("10.1.0.0"), 16), Lumo::IntfId("eth2"));
  v4->intfIdIs(IpGenPrefix(IpGenAddr("10.1.0.0"), 16), Lumo::IntfId("eth2"));  // equal: silent
  v6->intfIdIs(IpGenPrefix(IpGenAddr("2001:db8::"), 32), Lumo::IntfId("eth3"));
  EXPECT_EQ(seen.log, (std::vector<std::string>{"intfId[10.0.0.0/8]", "intfId[10.1.0.0/16]"}));
  EXPECT_EQ(v4->longestMatch(IpGenAddr("10.1.2.3")).key().stringValue(), "10.1.0.0/16");
  EXPECT_TRUE(v4->longestMatch(IpGenAddr("2001:db8::1")).done());
  EXPECT_EQ(v6->longestMatch(IpGenAddr("2001:db8:1::7")).value(), Lumo::IntfId("eth3"));
  EXPECT_EQ(errorOf<Kel::RangeException>(
                [&] { v4->intfIdIs(IpGenPrefix(IpGenAddr("2001:db8::"), 32), Lumo::IntfId("x")); }),
            "IpTrie key 2001:db8::/32 is not an IPv4 prefix");
  EXPECT_EQ(v4->intfIdSize(), 2u);
  EXPECT_EQ(seen.log.size(), 2u) << "a refused key notified";
  v4->intfIdDel(IpGenPrefix(IpGenAddr("10.1.0.0"), 16));
  EXPECT_EQ(v4->longestMatch(IpGenAddr("10.1.9.9")).value(), Lumo::IntfId("eth1"));
}

}  // namespace
