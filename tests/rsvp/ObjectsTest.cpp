// Protocol object values: the views that decode raw fields never fail and
// fall back to the named unknown value; every value type of the model, filled
// with random values, reads back equal from its string form and from the
// attribute-log encoding. Then the per-state-path object tables: every
// collection's find-or-create with upstream and downstream kept apart, and
// the label view. (Rows sharing entities through the log are AttrLogTest's
// random walk.)
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"
#include "SomeValue.h"

#include <functional>
#include <random>

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;

// The views that decode a raw field fall back to the unknown value (the
// protocol id to none for the unset 65536), and their setters write the raw
// field. Flag views read their bits, and the unused ones, at their places:
// those of the error object (ERROR_SPEC), a recorded hop and the session
// attribute.
TEST(ObjectViews, DecodedViewsFallBackToUnknownAndFlagsReadTheirBits) {
  std::pair<Kel::U8, RsvpResvStyle> const styles[] = {
      {0x11, resvStyleWf},      {0x0a, resvStyleFf},      {0x12, resvStyleSe},
      {0x00, resvStyleUnknown}, {0x20, resvStyleUnknown}, {0xff, resvStyleUnknown}};
  RsvpStyleObj s;
  for (auto const& [raw, style] : styles) {
    s.optionVectorStyleRawIs(raw);
    EXPECT_EQ(s.style(), style) << int(raw);
  }
  std::pair<Kel::U16, RsvpErrorCode> const codes[] = {
      {9, rsvpErrorCodeUnknown},    {10, rsvpErrorCodeUnknown}, {11, rsvpErrorCodeUnknown},
      {0, rsvpConfirmation},        {25, rsvpNotify},           {256, rsvpErrorCodeUnknown},
      {65535, rsvpErrorCodeUnknown}};
  RsvpErrorSpecObj e;
  for (auto const& [raw, code] : codes) {
    e.errorCodeRawIs(raw);
    EXPECT_EQ(e.errorCode(), code) << raw;
  }
  s.styleIs(resvStyleUnknown);
  EXPECT_EQ(s.optionVectorStyleRaw(), 32);
  s.styleIs(resvStyleFf);
  EXPECT_EQ(s.optionVectorStyleRaw(), 10);
  e.errorCodeIs(rsvpRoutingProblem);
  EXPECT_EQ(e.errorCodeRaw(), 24);
  e.flagsRawIs(0x03);
  EXPECT_TRUE(e.inPlace() && e.notGuilty());
  RsvpLabelRequestObj r;
  r.l3pidRawIs(0x0800);
  EXPECT_EQ(r.l3pid(), Lumo::EthType(Lumo::EthType::ipv4()));
  r.l3pidRawIs(65536);
  EXPECT_EQ(r.l3pid(), Lumo::EthType());
  r.l3pidIs(Lumo::EthType(Lumo::EthType::mpls()));
  EXPECT_EQ(r.l3pidRaw(), 0x8847u);

  RsvpRroHopSubObj hop;
  hop.ipFlagsRawIs(0x2b);
  EXPECT_TRUE(hop.localProtectionAvail());
  EXPECT_TRUE(hop.localProtectionUsed());
  EXPECT_FALSE(hop.bandwidthProtection());
  EXPECT_TRUE(hop.nodeProtection());
  EXPECT_TRUE(hop.nodeId());
  hop.labelFlagsRawIs(0x01);
  EXPECT_TRUE(hop.globalLabel());

  RsvpSessionAttributeFlags const all(Lumo::NetU8(0xff));
  EXPECT_EQ(all.unused(), 7);
  EXPECT_TRUE(all.nodeProtectionDesired());
  RsvpRroIpFlags const ip(Lumo::NetU8(0xd0));
  EXPECT_TRUE(ip.unused1());
  EXPECT_EQ(ip.unused2(), 3);
  EXPECT_FALSE(ip.nodeId());
  RsvpSessionAttributeObj attr;
  attr.flagsRawIs(RsvpSessionAttributeFlags(Lumo::NetU8(0x04)));
  EXPECT_TRUE(attr.seStyleDesired());
  EXPECT_FALSE(attr.localProtectionDesired());
}

// Random values of every value type read back from text and from the log;
// a value read from the log is range-checked with the setter's text, and the
// target kept.
TEST(Objects, EveryValueTypeRoundTripsThroughTextAndLog) {
  std::mt19937 rng(21);
  int types = 0;
  for (Kel::TypeDesc const* t : allTypes()) {
    if (t->kind() != Kel::TypeKind::value) continue;
    ++types;
    for (int i = 0; i < 50; ++i) {
      Kel::GenericValue v(*t);
      SomeValue::make(*t, v.get(), &rng);
      // Text (the invalid path id, alone or within, never reads back from
      // text, deliberately).
      if (v.strep().find("<lspId=65536>") == Kel::String::npos) {
        Kel::GenericValue back(*t);
        back.strepIs(v.strep());
        ASSERT_TRUE(t->ops()->equal(v.get(), back.get())) << t->name() << " " << v.strep();
      }
      // The attribute-log encoding.
      Kel::GenericValue read(*t);
      TestSupport::logCopy(*t, v.get(), read.get());
      ASSERT_TRUE(t->ops()->equal(v.get(), read.get())) << t->name() << " " << v.strep();
    }
  }
  EXPECT_GE(types, 40);

  Kel::String bytes;
  Kel::LogOut out(bytes);
  out.u8(0);
  out.u32(16777217);  // epoch one past the sentinel
  out.u32(0);
  Kel::LogIn in(bytes);
  RsvpMsgIdObj obj(true, 5, 6);
  EXPECT_EQ(TestSupport::errorOf<Kel::RangeException>([&] { kelLogRead(in, &obj); }),
            "RsvpMsgIdObj::epoch < 0 or > RsvpMsgIdObj::invalidMsgIdEpochValue not allowed");
  EXPECT_EQ(obj, RsvpMsgIdObj(true, 5, 6));
}

RsvpSpId const kSp = TestSupport::spId(3);

struct Table {
  char const* type;
  char const* attr;
  char const* sibling;  // the other direction's table in the same collection, if any
  std::function<Kel::Ptr<Kel::Entity>(Kel::Entity&, RsvpSpId const&)> rowIs;
};

#define ROW(Coll, attr, sibling)                                            \
  Table {                                                                   \
    "Rsvp::" #Coll, #attr, sibling, [](Kel::Entity& c, RsvpSpId const& k) { \
      return Kel::Ptr<Kel::Entity>(static_cast<Coll&>(c).attr##Is(k));      \
    }                                                                       \
  }

// Find-or-create answers the existing row, named after its key; upstream
// and downstream tables of one collection stay apart.
TEST(ObjectTables, RowIsAnswersTheExistingRowAndDirectionsStayApart) {
  Table const tables[] = {
      ROW(RsvpEroConfigColl, eroConfig, nullptr),
      ROW(RsvpEroStatusColl, eroStatus, nullptr),
      ROW(RsvpRroConfigColl, rroUsConfig, "rroDsConfig"),
      ROW(RsvpRroConfigColl, rroDsConfig, "rroUsConfig"),
      ROW(RsvpRroStatusColl, rroUsStatus, "rroDsStatus"),
      ROW(RsvpRroStatusColl, rroDsStatus, "rroUsStatus"),
      ROW(RsvpHopObjConfigColl, hopObjUsConfig, "hopObjDsConfig"),
      ROW(RsvpHopObjConfigColl, hopObjDsConfig, "hopObjUsConfig"),
      ROW(RsvpHopObjStatusColl, hopObjUsStatus, "hopObjDsStatus"),
      ROW(RsvpHopObjStatusColl, hopObjDsStatus, "hopObjUsStatus"),
      ROW(RsvpLabelObjConfigColl, labelObjConfig, nullptr),
      ROW(RsvpLabelObjStatusColl, labelObjStatus, nullptr),
  };
  for (Table const& t : tables) {
    SCOPED_TRACE(std::string(t.type) + "::" + t.attr);
    Kel::TypeDesc const* type = typeByName(t.type);
    ASSERT_TRUE(type && type->create());
    Kel::Ptr<Kel::Entity> const coll = type->create()("c");
    auto const row = t.rowIs(*coll, kSp);
    ASSERT_TRUE(row);
    EXPECT_EQ(t.rowIs(*coll, kSp), row) << "a second insertion answers the same row";
    EXPECT_EQ(row->name(), valueToStrep(kSp)) << "named after its key";
    std::size_t size = 0;
    TestSupport::attrOp(*coll, t.attr, Kel::attrOpSize, &size);
    EXPECT_EQ(size, 1u);
    if (!t.sibling) continue;
    TestSupport::attrOp(*coll, t.sibling, Kel::attrOpSize, &size);
    EXPECT_EQ(size, 0u) << "a row in one direction makes none in the other";
    ASSERT_EQ(TestSupport::attrOp(*coll, t.sibling, Kel::attrOpMemberWrite, nullptr, &kSp),
              Kel::attrDone);
    bool deleted = false;
    TestSupport::attrOp(*coll, t.attr, Kel::attrOpMemberDel, &deleted, &kSp);
    EXPECT_TRUE(deleted);
    Kel::Ptr<Kel::Entity const> other;
    EXPECT_EQ(TestSupport::attrOp(*coll, t.sibling, Kel::attrOpMemberRead, &other, &kSp),
              Kel::attrDone)
        << "deleting one direction's row leaves the other's";
    EXPECT_NE(other.get(), row.get());
  }
}

// The label view reads the outgoing label object, every label alike.
TEST(LabelObj, TheLabelView) {
  auto const status = rsvpLabelObjStatusCollFactory("s")->labelObjStatusIs(kSp);
  EXPECT_EQ(status->label(), Lumo::MplsLabel());
  for (Kel::U32 v : {16u, Lumo::MplsLabel::noLabel(), Lumo::MplsLabel::luWithdraw()}) {
    status->outLabelObjIs(RsvpLabelObj(Lumo::MplsLabel(v)));
    EXPECT_EQ(status->label(), Lumo::MplsLabel(v));
  }
}

}  // namespace
