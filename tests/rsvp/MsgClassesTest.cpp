// Refresh versus change for every message class, driven by reflection: each
// attribute that a class compares changes the answer of equal() when it
// changes, and each attribute it leaves out does not.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "SomeValue.h"

#include <functional>
#include <set>
#include <string>

namespace {

using namespace Rsvp;

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
