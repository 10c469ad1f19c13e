// Refresh versus change: for every message class, driven by reflection, each
// attribute that the class compares changes the answer of equal() when it
// changes, and each attribute it leaves out does not; inside the objects,
// what an object holds changes the answer where the class compares that
// object. Also the overridable facts of a message and the opaque objects.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "SomeValue.h"

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;

Kel::Ptr<RsvpPathMsg> fullPath() {
  auto m = rsvpPathMsgFactory();
  m->srcIpIs(IpGenAddr("10.1.0.1"));
  m->neighborIpIs(IpGenAddr("10.1.0.1"));
  m->sessionObjIs(RsvpSessionObj(IpGenAddr("10.0.0.2"), 7, IpGenAddr("10.0.0.1")));
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

// A change inside a compared object (hops, flags, a rate) makes a change,
// seen from either side.
TEST(PathEqual, EachComparedObjectChangesTheAnswer) {
  std::vector<Mutation> const compared = {
      // Each attribute alone is MsgClasses'; these change what the objects
      // hold inside (unknown objects are SelfEmptyUnknownAndOpaqueObjects').
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

// A message equals itself and never null; unknown objects compare by bytes
// and c-type. Opaque objects: lengths from their bytes, equality by bytes,
// the record route's null cases.
TEST(MsgEqual, SelfEmptyUnknownAndOpaqueObjects) {
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

  EXPECT_EQ(rsvpUnknownObjFactory(1, 2)->length(), 4u);
  EXPECT_EQ(rsvpRroUnknownSubObjFactory(1)->length(), 2u);
  auto frag = rsvpAdSpecUnknownFragFactory();
  frag->dataIs("12345");
  EXPECT_EQ(frag->length(), 5u);
  auto x = rsvpUnknownObjFactory(1, 2);
  auto y = rsvpUnknownObjFactory(1, 2);
  x->dataIs("xy");
  y->dataIs("xz");
  EXPECT_FALSE(x->equal(y)) << "different bytes, same header";
  y->dataIs("xy");
  EXPECT_TRUE(x->equal(y));

  auto r1 = rsvpRecordRouteObjFactory();
  auto r2 = rsvpRecordRouteObjFactory();
  EXPECT_TRUE(RsvpRecordRouteObj::recordRouteObjEqual(nullptr, nullptr));
  EXPECT_FALSE(RsvpRecordRouteObj::recordRouteObjEqual(r1, nullptr));
  EXPECT_TRUE(RsvpRecordRouteObj::recordRouteObjEqual(r1, r2));
  r2->newUnknownSubObj(7);
  EXPECT_FALSE(RsvpRecordRouteObj::recordRouteObjEqual(r1, r2));
}

// The message type, the transmitted id, the router alert by class and its
// override, the hop address and the state-path id a message names.
TEST(Msg, OverridableFacts) {
  auto const path = rsvpPathMsgFactory();
  EXPECT_EQ(path->msgType(), rsvpPathMsg);
  EXPECT_EQ(path->txMsgIdObj(), path->msgIdObj());
  EXPECT_EQ(rsvpAckMsgFactory()->txMsgIdObj().epoch(), 16777216u);

  std::pair<Kel::Ptr<RsvpMsg>, bool> const alerts[] = {
      {rsvpPathMsgFactory(), true},     {rsvpPathTearMsgFactory(), true},
      {rsvpResvConfMsgFactory(), true}, {rsvpResvMsgFactory(), false},
      {rsvpPathErrMsgFactory(), false}, {rsvpHelloMsgFactory(), false},
      {rsvpSrefreshMsgFactory(), false}};
  for (auto const& [msg, alert] : alerts) EXPECT_EQ(msg->routerAlert(), alert) << msg->msgType();
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

// Changes one attribute of `msg` (a plain value, a reference or a queue).
void change(Kel::Entity& msg, Kel::KelAttr const& a) {
  Kel::TypeDesc const& type = msg.fwkType();
  if (a.kind == Kel::AttrKind::plain) {
    Kel::GenericValue v(*a.type);
    type.attributeOp(v.get(), &msg, &a, Kel::attrOpRead);
    SomeValue::make(*a.type, v.get(), nullptr);
    ASSERT_EQ(type.attributeOp(nullptr, &msg, &a, Kel::attrOpWrite, v.get()), Kel::attrDone);
  } else if (a.kind == Kel::AttrKind::ref) {
    Kel::Ptr<Kel::Entity const> target = a.type->createWithArgs()(nullptr);
    ASSERT_EQ(type.attributeOp(nullptr, &msg, &a, Kel::attrOpWrite, &target), Kel::attrDone);
    Kel::Entity const* peeked = nullptr;
    ASSERT_EQ(type.attributeOp(&peeked, &msg, &a, Kel::attrOpPeek), Kel::attrDone);
    EXPECT_EQ(peeked, target.get());
  } else if (a.kind == Kel::AttrKind::queue && a.type->kind() != Kel::TypeKind::entity) {
    Kel::GenericValue v(*a.type);
    Kel::U32 seq = 0;
    ASSERT_EQ(type.attributeOp(&seq, &msg, &a, Kel::attrOpEnq, v.get()), Kel::attrDone);
  } else if (a.kind == Kel::AttrKind::orderedMap) {
    Kel::U32 const key = 0;
    ASSERT_EQ(type.attributeOp(nullptr, &msg, &a, Kel::attrOpMemberWrite, &key), Kel::attrDone);
  }
}

struct ClassCase {
  char const* name;
  std::function<Kel::Ptr<RsvpMsg>()> make;
  std::function<bool(RsvpMsg const&, Kel::Ptr<RsvpMsg const> const&)> equal;
  std::set<std::string> compared;  // besides the common part
};

template <class M>
ClassCase classCase(char const* name, Kel::Ptr<M> (*factory)(), std::set<std::string> compared) {
  return {name, [factory] { return Kel::Ptr<RsvpMsg>(factory()); },
          [](RsvpMsg const& a, Kel::Ptr<RsvpMsg const> const& b) {
            return static_cast<M const&>(a).equal(Kel::ptrStaticCast<M const>(b));
          },
          std::move(compared)};
}

// Names the case in test listings instead of dumping its bytes.
void PrintTo(ClassCase const& c, std::ostream* os) { *os << c.name; }

std::set<std::string> const kCommon = {"srcIp", "dstIp", "neighborIp", "mplsLabel"};

class MsgClasses : public testing::TestWithParam<ClassCase> {};

// Each attribute a class compares changes the answer of equal(), from either
// side, and each it leaves out does not; written back, the messages agree.
TEST_P(MsgClasses, ComparedAttributesDecideAndOthersDoNot) {
  ClassCase const& c = GetParam();
  Kel::TypeDesc const& type = c.make()->fwkType();
  int comparedSeen = 0;
  type.forEachAttr([&](Kel::KelAttr const& a) {
    if (a.kind == Kel::AttrKind::fixed || a.kind == Kel::AttrKind::derived ||
        a.kind == Kel::AttrKind::constant) {
      return;
    }
    if (a.kind == Kel::AttrKind::queue && a.type->kind() == Kel::TypeKind::entity) return;
    std::string const name(a.name);
    bool const compared = c.compared.count(name) || kCommon.count(name);
    comparedSeen += c.compared.count(name) ? 1 : 0;
    auto const first = c.make();
    auto const second = c.make();
    ASSERT_TRUE(c.equal(*first, second)) << c.name << ": two new messages";
    change(*second, a);
    EXPECT_EQ(c.equal(*first, second), !compared) << c.name << "::" << name;
    EXPECT_EQ(c.equal(*second, first), !compared) << c.name << "::" << name << " (reversed)";
    if (a.kind != Kel::AttrKind::plain) return;
    // Written back, the default reads as before: out-of-line objects empty
    // their box, and the two messages are alike again.
    Kel::GenericValue original(*a.type);
    Kel::GenericValue now(*a.type);
    type.attributeOp(original.get(), first.get(), &a, Kel::attrOpRead);
    type.attributeOp(now.get(), second.get(), &a, Kel::attrOpRead);
    EXPECT_FALSE(a.type->ops()->equal(original.get(), now.get())) << c.name << "::" << name;
    ASSERT_EQ(type.attributeOp(nullptr, second.get(), &a, Kel::attrOpWrite, original.get()),
              Kel::attrDone);
    type.attributeOp(now.get(), second.get(), &a, Kel::attrOpRead);
    EXPECT_TRUE(a.type->ops()->equal(original.get(), now.get())) << c.name << "::" << name;
    EXPECT_TRUE(c.equal(*first, second)) << c.name << "::" << name << " written back";
  });
  EXPECT_EQ(comparedSeen, static_cast<int>(c.compared.size())) << c.name << ": names in the table";
}

INSTANTIATE_TEST_SUITE_P(
    EveryClass, MsgClasses,
    testing::Values(
        classCase("Path", &rsvpPathMsgFactory,
                  {"sessionObj", "hopObj", "timeValuesObj", "senderTemplateObj", "senderTspecObj",
                   "labelRequestObj", "sessionAttributeObj", "fastRerouteObj", "isBackupMsg",
                   "adSpecObj", "explicitRouteObj", "recordRouteObj"}),
        classCase("Resv", &rsvpResvMsgFactory,
                  {"sessionObj", "hopObj", "timeValuesObj", "styleObj", "labelObj", "flowSpecObj",
                   "filterSpecObj", "resvConfirmObj", "isBackupMsg", "recordRouteObj"}),
        classCase("PathErr", &rsvpPathErrMsgFactory,
                  {"sessionObj", "errorSpecObj", "senderTemplateObj"}),
        classCase("ResvErr", &rsvpResvErrMsgFactory,
                  {"sessionObj", "hopObj", "errorSpecObj", "styleObj", "filterSpecObj",
                   "isBackupMsg"}),
        classCase("PathTear", &rsvpPathTearMsgFactory,
                  {"sessionObj", "hopObj", "senderTemplateObj"}),
        classCase("ResvTear", &rsvpResvTearMsgFactory,
                  {"sessionObj", "hopObj", "styleObj", "filterSpecObj", "isBackupMsg"}),
        classCase("ResvConf", &rsvpResvConfMsgFactory,
                  {"sessionObj", "errorSpecObj", "resvConfirmObj", "styleObj", "filterSpecObj"})),
    [](testing::TestParamInfo<ClassCase> const& p) { return std::string(p.param.name); });

}  // namespace
