// Refresh versus change: every object that a message class compares changes
// the answer, and every field it leaves out on purpose does not. Also the
// defaults of a new message, the overridable facts, and the opaque objects.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;

RsvpSessionObj session() { return RsvpSessionObj(IpGenAddr("10.0.0.2"), 7, IpGenAddr("10.0.0.1")); }

Kel::Ptr<RsvpPathMsg> fullPath() {
  auto m = rsvpPathMsgFactory();
  m->srcIpIs(IpGenAddr("10.1.0.1"));
  m->neighborIpIs(IpGenAddr("10.1.0.1"));
  m->sessionObjIs(session());
  m->hopObjIs(RsvpHopObj(IpGenAddr("10.1.0.1"), 4));
  m->timeValuesObjIs(RsvpTimeValuesObj(30000));
  m->senderTemplateObjIs(RsvpSenderTemplateObj(IpGenAddr("10.0.0.1"), 3));
  m->labelRequestObjIs(RsvpLabelRequestObj(0x0800));
  auto ero = rsvpExplicitRouteObjFactory();
  ero->hopIs(0, RsvpEroHopSubObj(false, Lumo::IpGenPrefix(IpGenAddr("10.1.0.2"), 32), 0));
  m->explicitRouteObjIs(ero);
  auto rro = rsvpRecordRouteObjFactory();
  rro->hopIs(0, RsvpRroHopSubObj(IpGenAddr("10.1.0.1"), 0, Lumo::MplsLabel(16), 0));
  m->recordRouteObjIs(rro);
  return m;
}

using Mutation = std::pair<char const*, std::function<void(RsvpPathMsg&)>>;

TEST(PathEqual, EachComparedObjectChangesTheAnswer) {
  std::vector<Mutation> const compared = {
      // Each attribute alone is covered by MsgClassesTest; these change what
      // the objects hold inside.
      {"unknownObj", [](RsvpPathMsg& m) { m.newUnknownObj(99, 1); }},
      {"adSpecObj present", [](RsvpPathMsg& m) { m.adSpecObjIs(rsvpAdSpecObjFactory()); }},
      {"explicitRouteObj absent", [](RsvpPathMsg& m) { m.explicitRouteObjIs(nullptr); }},
      {"explicitRouteObj hops",
       [](RsvpPathMsg& m) {
         auto ero = rsvpExplicitRouteObjFactory();
         ero->hopIs(0, RsvpEroHopSubObj(true, Lumo::IpGenPrefix(IpGenAddr("10.1.0.2"), 32), 0));
         m.explicitRouteObjIs(ero);
       }},
      {"recordRouteObj hop flags",
       [](RsvpPathMsg& m) {
         auto rro = rsvpRecordRouteObjFactory();
         rro->hopIs(0, RsvpRroHopSubObj(IpGenAddr("10.1.0.1"), 1, Lumo::MplsLabel(16), 0));
         m.recordRouteObjIs(rro);
       }},
      {"senderTspecObj rate",
       [](RsvpPathMsg& m) {
         RsvpSenderTspecObj t;
         t.peakDataRateIs(1.5f);
         m.senderTspecObjIs(t);
       }},
  };
  for (auto const& [what, change] : compared) {
    auto const a = fullPath();
    auto const b = fullPath();
    ASSERT_TRUE(a->equal(b)) << "two equal messages";
    change(*b);
    EXPECT_FALSE(a->equal(b)) << what;
    EXPECT_FALSE(b->equal(a)) << what;
  }
}

TEST(PathEqual, FieldsLeftOutOnPurposeDoNot) {
  std::vector<Mutation> const ignored = {
      {"ttl", [](RsvpPathMsg& m) { m.ttlIs(1); }},
      {"tos", [](RsvpPathMsg& m) { m.tosIs(0); }},
      {"refreshReductionCapable", [](RsvpPathMsg& m) { m.refreshReductionCapableIs(true); }},
      {"recvIntf", [](RsvpPathMsg& m) { m.recvIntfIs(Lumo::IntfId("Ethernet1")); }},
      {"recvTimestamp", [](RsvpPathMsg& m) { m.recvTimestampIs(12.5); }},
      {"integrityObj.seqNo",
       [](RsvpPathMsg& m) {
         RsvpIntegrityObj i;
         i.seqNoIs(77);
         m.integrityObjIs(i);
       }},
      {"routerAlertOverride", [](RsvpPathMsg& m) { m.routerAlertOverrideIs(true); }},
      {"msgIdObj", [](RsvpPathMsg& m) { m.msgIdObjIs(RsvpMsgIdObj(true, 4, 9)); }},
      {"msgIdAckObj", [](RsvpPathMsg& m) { m.newMsgIdAckObj(4u, 9u); }},
      {"msgIdNackObj", [](RsvpPathMsg& m) { m.newMsgIdNackObj(4u, 9u); }},
      {"ackReceived", [](RsvpPathMsg& m) { m.ackReceivedIs(true); }},
      {"incomingHopObj",
       [](RsvpPathMsg& m) { m.incomingHopObjIs(RsvpHopObj(IpGenAddr("1.1.1.1"), 1)); }},
  };
  for (auto const& [what, change] : ignored) {
    auto const a = fullPath();
    auto const b = fullPath();
    change(*b);
    EXPECT_TRUE(a->equal(b)) << what;
  }
}

TEST(MsgEqual, SelfEmptyAndUnknownObjects) {
  auto const a = fullPath();
  EXPECT_TRUE(a->equal(a));
  EXPECT_FALSE(a->equal(nullptr));
  EXPECT_EQ(a->rsvpMsgEqual(a), equalPass);
  EXPECT_EQ(a->rsvpMsgEqual(nullptr), equalFail);
  auto const b = fullPath();
  a->newUnknownObj(50, 1)->dataIs("abc");
  b->newUnknownObj(50, 1)->dataIs("abc");
  EXPECT_EQ(a->rsvpMsgEqual(b), equalContinue);
  EXPECT_TRUE(a->equal(b));
  b->unknownObjDeq();
  b->newUnknownObj(50, 2)->dataIs("abc");
  EXPECT_FALSE(a->equal(b)) << "same bytes, another c-type";
}

TEST(MsgEqual, BackupFlagComparedOnlyWhereItShouldBe) {
  auto tearA = rsvpPathTearMsgFactory();
  auto tearB = rsvpPathTearMsgFactory();
  tearB->isBackupMsgIs(true);
  EXPECT_TRUE(tearA->equal(tearB)) << "PathTear leaves isBackupMsg out";
  auto errA = rsvpPathErrMsgFactory();
  auto errB = rsvpPathErrMsgFactory();
  errB->isBackupMsgIs(true);
  EXPECT_TRUE(errA->equal(errB));
  auto confA = rsvpResvConfMsgFactory();
  auto confB = rsvpResvConfMsgFactory();
  confB->isBackupMsgIs(true);
  EXPECT_TRUE(confA->equal(confB));
  auto resvA = rsvpResvMsgFactory();
  auto resvB = rsvpResvMsgFactory();
  resvB->isBackupMsgIs(true);
  EXPECT_FALSE(resvA->equal(resvB));
  auto rteA = rsvpResvTearMsgFactory();
  auto rteB = rsvpResvTearMsgFactory();
  rteB->isBackupMsgIs(true);
  EXPECT_FALSE(rteA->equal(rteB));
  auto rerA = rsvpResvErrMsgFactory();
  auto rerB = rsvpResvErrMsgFactory();
  rerB->isBackupMsgIs(true);
  EXPECT_FALSE(rerA->equal(rerB));
}

TEST(MsgEqual, ResvIgnoresFlowDescriptors) {
  auto a = rsvpResvMsgFactory();
  auto b = rsvpResvMsgFactory();
  a->flowDescriptorIs(0);
  a->flowDescriptorIs(1);
  b->flowDescriptorIs(0);
  b->flowDescriptorIs(1)->labelObjIs(RsvpLabelObj(Lumo::MplsLabel(99)));
  b->componentIndexIs(3);
  EXPECT_TRUE(a->equal(b));
  b->styleObjIs(RsvpStyleObj(0, 0, 10));
  EXPECT_FALSE(a->equal(b));
}

TEST(Msg, DefaultsAndOverridableFacts) {
  auto const path = rsvpPathMsgFactory();
  EXPECT_EQ(path->msgType(), rsvpPathMsg);
  EXPECT_EQ(path->ttl(), 255);
  EXPECT_EQ(path->tos(), 192);
  EXPECT_EQ(path->mplsLabel().value(), 1048576u);
  EXPECT_EQ(path->labelRequestObj().l3pidRaw(), 65536u);
  EXPECT_EQ(path->sessionAttributeObj().setupPriority(), 256);
  EXPECT_EQ(path->msgIdObj().epoch(), 16777216u);
  EXPECT_EQ(path->txMsgIdObj(), path->msgIdObj());
  EXPECT_EQ(rsvpAckMsgFactory()->txMsgIdObj().epoch(), 16777216u);
  EXPECT_EQ(rsvpAckMsgFactory()->msgIdAckObjDeq().epoch(), 16777216u) << "empty queue: default";

  struct {
    Kel::Ptr<RsvpMsg> msg;
    bool alert;
  } const alerts[] = {{rsvpPathMsgFactory(), true},     {rsvpPathTearMsgFactory(), true},
                      {rsvpResvConfMsgFactory(), true}, {rsvpResvMsgFactory(), false},
                      {rsvpPathErrMsgFactory(), false}, {rsvpHelloMsgFactory(), false},
                      {rsvpSrefreshMsgFactory(), false}};
  for (auto const& c : alerts) EXPECT_EQ(c.msg->routerAlert(), c.alert) << c.msg->msgType();
  auto resv = rsvpResvMsgFactory();
  resv->routerAlertOverrideIs(true);
  EXPECT_TRUE(resv->routerAlert());

  auto const full = fullPath();
  EXPECT_EQ(full->hopIp(), IpGenAddr("10.1.0.1"));
  EXPECT_EQ(full->spId().stringValue(),
            "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>_<pathId=<lspId=3>>");
  full->senderTemplateObjIs(RsvpSenderTemplateObj());
  EXPECT_EQ(full->spId().pathId(), RsvpPathId()) << "a default sender template names no path";
  auto err = rsvpPathErrMsgFactory();
  err->srcIpIs(IpGenAddr("10.5.5.5"));
  EXPECT_EQ(err->hopIp(), IpGenAddr("10.5.5.5")) << "no hop object: the source address";
}

TEST(OpaqueObjects, LengthsAndEquality) {
  EXPECT_EQ(rsvpUnknownObjFactory(1, 2)->length(), 4u);
  EXPECT_EQ(rsvpRroUnknownSubObjFactory(1)->length(), 2u);
  auto frag = rsvpAdSpecUnknownFragFactory();
  frag->dataIs("12345");
  EXPECT_EQ(frag->length(), 5u);
  auto a = rsvpUnknownObjFactory(1, 2);
  auto b = rsvpUnknownObjFactory(1, 2);
  a->dataIs("xy");
  b->dataIs("xz");
  EXPECT_FALSE(a->equal(b)) << "different bytes, same header";
  b->dataIs("xy");
  EXPECT_TRUE(a->equal(b));

  auto r1 = rsvpRecordRouteObjFactory();
  auto r2 = rsvpRecordRouteObjFactory();
  EXPECT_TRUE(RsvpRecordRouteObj::recordRouteObjEqual(nullptr, nullptr));
  EXPECT_FALSE(RsvpRecordRouteObj::recordRouteObjEqual(r1, nullptr));
  EXPECT_TRUE(RsvpRecordRouteObj::recordRouteObjEqual(r1, r2));
  r2->newUnknownSubObj(7);
  EXPECT_FALSE(RsvpRecordRouteObj::recordRouteObjEqual(r1, r2));

  auto list = rsvpMsgIdListObjFactory();
  EXPECT_EQ(list->epoch(), 16777216u);
  for (Kel::U32 id : {5u, 3u, 9u}) list->msgIdEnq(id);
  EXPECT_EQ(list->msgIdDeq(), 5u);
  EXPECT_EQ(list->msgIdDeq(), 3u);
}

}  // namespace
