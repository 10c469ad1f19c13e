// Per-state-path object tables and label allocation: every collection's
// find-or-create with upstream and downstream kept apart, the label view,
// label requests (one entry per request, ordered as state-path ids).
// (Rows sharing entities through the log are AttrLogTest's random walk.)
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include <functional>
#include <random>

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;

RsvpSpId const kSp(RsvpSessionId(IpGenAddr("10.0.0.2"), RsvpTunnelId(7), IpGenAddr("10.0.0.1")),
                   RsvpPathId(3));

int op(Kel::Entity& e, char const* attr, Kel::U32 code, void* result, void const* arg = nullptr) {
  return e.fwkType().attributeOp(result, &e, e.fwkType().attr(attr), code, arg, nullptr);
}

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
    op(*coll, t.attr, Kel::attrOpSize, &size);
    EXPECT_EQ(size, 1u);
    if (!t.sibling) continue;
    op(*coll, t.sibling, Kel::attrOpSize, &size);
    EXPECT_EQ(size, 0u) << "a row in one direction makes none in the other";
    ASSERT_EQ(op(*coll, t.sibling, Kel::attrOpMemberWrite, nullptr, &kSp), Kel::attrDone);
    bool deleted = false;
    op(*coll, t.attr, Kel::attrOpMemberDel, &deleted, &kSp);
    EXPECT_TRUE(deleted);
    Kel::Ptr<Kel::Entity const> other;
    EXPECT_EQ(op(*coll, t.sibling, Kel::attrOpMemberRead, &other, &kSp), Kel::attrDone)
        << "deleting one direction's row leaves the other's";
    EXPECT_NE(other.get(), row.get());
  }
}

// The label view reads the outgoing label object, every label alike.
TEST(LabelObj, TheLabelView) {
  auto const status = rsvpLabelObjStatusCollFactory("s")->labelObjStatusIs(kSp);
  EXPECT_EQ(status->label(), Lumo::MplsLabel());
  for (Kel::U32 v :
       {16u, 0u, 1048575u, Lumo::MplsLabel::noLabel(), Lumo::MplsLabel::luWithdraw()}) {
    status->outLabelObjIs(RsvpLabelObj(Lumo::MplsLabel(v)));
    EXPECT_EQ(status->label(), Lumo::MplsLabel(v));
  }
}

// A request filed twice keeps one entry, with the latest type; an absent
// one answers unknown.
TEST(LabelRequest, FiledTwiceKeepsOneEntryWithTheLatestType) {
  RsvpLabelRequestId const id(kSp.sessionId(), kSp.pathId());
  auto const table = rsvpLabelRequestTableFactory("requests");
  table->labelRequestIs(id, localDelivery);
  table->labelRequestIs(id, remoteDelivery);
  EXPECT_EQ(table->labelRequestSize(), 1u);
  EXPECT_EQ(table->labelRequest(id), remoteDelivery);
  EXPECT_EQ(table->labelRequest(RsvpLabelRequestId()), unknownDelivery) << "absent";
}

// Small domains so that equal sessions with different paths come up often.
TEST(LabelRequest, OrdersAsTheStatePathId) {
  std::mt19937 rng(11);
  IpGenAddr const addrs[] = {IpGenAddr(), IpGenAddr("10.0.0.1"), IpGenAddr("10.0.0.2"),
                             IpGenAddr("::1")};
  auto const draw = [&] {
    return RsvpSpId(RsvpSessionId(addrs[rng() % 4], RsvpTunnelId(rng() % 2), addrs[rng() % 4]),
                    RsvpPathId(rng() % 2 ? 65536 : rng() % 3));
  };
  for (int i = 0; i < 2000; ++i) {
    RsvpSpId const a = draw();
    RsvpSpId const b = draw();
    RsvpLabelRequestId const ra(a.sessionId(), a.pathId());
    RsvpLabelRequestId const rb(b.sessionId(), b.pathId());
    ASSERT_EQ(ra < rb, a < b) << a << " " << b;
    ASSERT_EQ(ra == rb, a == b) << a << " " << b;
  }
}

}  // namespace
