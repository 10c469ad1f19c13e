// The status root: the children doInit() makes, in order and by name, and
// reset(), which empties every collection of the tree in place, both
// observed generically through reflection so that every child is covered.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace Rsvp;

bool isCollection(Kel::KelAttr const& a) {
  switch (a.kind) {
    case Kel::AttrKind::hashedMap:
    case Kel::AttrKind::hashedSet:
    case Kel::AttrKind::orderedMap:
    case Kel::AttrKind::queue: return true;
    default: return false;
  }
}

Kel::Ptr<Kel::Entity const> childOf(Kel::Entity const& e, Kel::KelAttr const& a) {
  Kel::Ptr<Kel::Entity const> out;
  e.fwkType().attributeOp(&out, const_cast<Kel::Entity*>(&e), &a, Kel::attrOpRead);
  // A peek answers the same child and takes no reference to it.
  Kel::Entity const* peeked = nullptr;
  auto const references = out ? out->references() : 0;
  EXPECT_EQ(e.fwkType().attributeOp(&peeked, const_cast<Kel::Entity*>(&e), &a, Kel::attrOpPeek),
            Kel::attrDone);
  EXPECT_EQ(peeked, out.get()) << a.name;
  if (out) {
    EXPECT_EQ(out->references(), references) << a.name;
  }
  return out;
}

// The children of `root`, in declaration order.
std::vector<Kel::Ptr<Kel::Entity const>> childrenOf(Kel::Entity const& root) {
  std::vector<Kel::Ptr<Kel::Entity const>> out;
  root.fwkType().forEachAttr([&](Kel::KelAttr const& a) {
    if (a.kind == Kel::AttrKind::child) out.push_back(childOf(root, a));
  });
  return out;
}

// Visits `e` and every entity it owns (slots and members of maps of
// entities), depth first.
void forEachOwned(Kel::Entity const& e, std::function<void(Kel::Entity const&)> const& f) {
  f(e);
  e.fwkType().forEachAttr([&](Kel::KelAttr const& a) {
    if (Kel::holdsShared(a) || !a.type || a.type->kind() != Kel::TypeKind::entity) return;
    if (a.kind == Kel::AttrKind::child) {
      if (auto const c = childOf(e, a)) forEachOwned(*c, f);
    } else if (isCollection(a)) {
      std::unique_ptr<Kel::GenericIter> it;
      e.fwkType().attributeOp(&it, const_cast<Kel::Entity*>(&e), &a, Kel::attrOpIterate);
      for (; it && !it->done(); it->next()) forEachOwned(*it->entity(), f);
    }
  });
}

// The collections of the tree that hold members, as "entity.attr".
std::vector<std::string> nonEmptyCollections(Kel::Entity const& root) {
  std::vector<std::string> out;
  forEachOwned(root, [&](Kel::Entity const& e) {
    e.fwkType().forEachAttr([&](Kel::KelAttr const& a) {
      if (!isCollection(a)) return;
      std::size_t n = 0;
      e.fwkType().attributeOp(&n, const_cast<Kel::Entity*>(&e), &a, Kel::attrOpSize);
      if (n) out.push_back(e.fullName() + "." + std::string(a.name));
    });
  });
  return out;
}

// Puts a member with the default key (and element) into every collection of
// the root's children that takes one; answers how many.
int fillEveryCollection(RsvpStatus& root) {
  int filled = 0;
  for (Kel::Ptr<Kel::Entity const> const& c : childrenOf(root)) {
    auto* const child = const_cast<Kel::Entity*>(c.get());
    child->fwkType().forEachAttr([&](Kel::KelAttr const& a) {
      if (!isCollection(a) || Kel::holdsShared(a) || a.kind == Kel::AttrKind::queue) return;
      Kel::GenericValue key(*a.keyType);
      std::unique_ptr<Kel::GenericValue> element;
      if (a.type->kind() != Kel::TypeKind::entity && a.kind != Kel::AttrKind::hashedSet) {
        element = std::make_unique<Kel::GenericValue>(*a.type);
      }
      if (child->fwkType().attributeOp(nullptr, child, &a, Kel::attrOpMemberWrite, key.get(),
                                       element ? element->get() : nullptr) == Kel::attrDone) {
        ++filled;
      }
    });
  }
  return filled;
}

// Every element notification (a callback with a key) of the tree's owned
// entities, by "entity.attr".
struct ElementNotices : Kel::GenericNotifiee {
  std::vector<std::unique_ptr<Kel::NotifieeBase>> notifiees;
  std::vector<std::string> heard;
  explicit ElementNotices(Kel::Entity const& root) {
    forEachOwned(root, [&](Kel::Entity const& e) {
      notifiees.push_back(e.fwkType().genericNotifiee(&e, this));
    });
  }
  void onAttribute(Kel::Entity const& e, Kel::KelAttr const& a, void const* key) override {
    if (key) heard.push_back(e.fullName() + "." + std::string(a.name));
  }
};

// doInit() makes every child, in declaration order, owned by the root;
// again, it keeps the children it finds.
TEST(Status, InitMakesEveryChildInOrder) {
  auto const root = rsvpStatusFactory("status");
  TestSupport::Heard order(root.get());
  root->doInit();

  std::vector<std::string> want;
  RsvpStatus::kelType.forEachAttr([&](Kel::KelAttr const& a) {
    if (a.kind != Kel::AttrKind::child) return;
    want.emplace_back(a.name);
    auto const child = childOf(*root, a);
    ASSERT_TRUE(child) << a.name;
    EXPECT_EQ(child->parent(), root.get()) << a.name;
  });
  EXPECT_EQ(order.log, want);
  EXPECT_GE(want.size(), 39u);
  EXPECT_EQ(root->frrSharedData()->name(), "sacls") << "not the attribute's initials";
  ASSERT_TRUE(root->neighborStateColl()->sharedState());

  // doInit() again keeps the children it finds.
  auto const spsc = root->spStateColl();
  root->doInit();
  EXPECT_EQ(root->spStateColl(), spsc);
  EXPECT_EQ(order.log.size(), want.size());
}

// reset() empties every collection of the tree in place, telling each
// collection's notifiees, keeps every child and dedup table, and the replica
// follows.
TEST(Status, ResetEmptiesEveryCollectionAndKeepsTheShape) {
  TestSupport::LogLink<RsvpStatus> link(rsvpStatusFactory("status"), rsvpStatusFactory("status"));
  RsvpStatus& root = *link.source;
  root.doInit();
  link.connect();

  {
    ElementNotices fresh(root);
    root.reset();
    EXPECT_EQ(fresh.heard, std::vector<std::string>{}) << "a fresh tree notified";
  }

  EXPECT_GE(fillEveryCollection(root), 30);
  root.localIntfMap()->ipTrieIs()->intfIdIs(Lumo::IpGenPrefix(Lumo::IpGenAddr("10.0.0.0"), 8),
                                            Lumo::IntfId("eth0"));
  root.neighborStateColl()->sharedState()->txSeqNoInc(41);
  root.neighborTxMsgPipeColl()->msgPipeIs("tx")->txMsgIs(rsvpPathMsgFactory());
  root.ipSocketErrorState()->errorDetectedTimeIs(3);
  RsvpNeighborId const neighbor(Lumo::IpGenAddr("10.0.0.2"));
  auto const handle = root.neighborIdDedupTable()->dedupFromValue(neighbor);
  link.sync();
  ASSERT_TRUE(link.same());
  EXPECT_EQ(link.replica->neighborStateColl()->name(), "nsc")
      << "a replica's child kept its slot's name";
  std::vector<std::string> const filled = nonEmptyCollections(root);

  auto const before = childrenOf(root);
  ElementNotices notices(root);
  root.reset();

  EXPECT_EQ(nonEmptyCollections(root), std::vector<std::string>{});
  // Each collection that held a member told its notifiees of the removal.
  for (std::string const& c : filled) {
    EXPECT_NE(std::find(notices.heard.begin(), notices.heard.end(), c), notices.heard.end()) << c;
  }
  EXPECT_EQ(childrenOf(root), before) << "reset kept every child";
  EXPECT_EQ(root.neighborStateColl()->sharedState()->txSeqNo(), 0u);
  EXPECT_FALSE(root.neighborTxMsgPipeColl()->msgPipe());
  EXPECT_EQ(root.ipSocketErrorState()->errorDetectedTime(), 0);
  EXPECT_EQ(root.neighborIdDedupTable()->dedupFromValue(neighbor), handle)
      << "reset touched a dedup table";

  link.sync();
  EXPECT_TRUE(link.same());
  EXPECT_EQ(nonEmptyCollections(*link.replica), std::vector<std::string>{});
  EXPECT_TRUE(link.sameSize());
}

}  // namespace
