// The entity frame on a model with an attribute of every kind: exact
// notification counts, parents, find-or-create, the errors of the frame and
// the lifetime rules of entities and notifiees, and frozen entities.
#include <Rsvp/FrameTestModel.h>
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"
#include "SampleIds.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace Rsvp;
using Sample::Leaf;
using Sample::Root;

using SampleIds::spId;
using TestSupport::errorOf;

// Records every callback as "attribute" or "attribute(key)".
class Recorder : public Root::NotifieeConst {
 public:
  using Root::NotifieeConst::NotifieeConst;
  using Root::NotifieeConst::onEvents;
  using Root::NotifieeConst::onIds;
  using Root::NotifieeConst::onLeaf;
  using Root::NotifieeConst::onPath;
  using Root::NotifieeConst::onPoints;
  using Root::NotifieeConst::onWeights;

  void onCount() override { log.push_back("count"); }
  void onLabel() override { log.push_back("label"); }
  void onEpoch() override { log.push_back("epoch"); }
  void onIds(RsvpSpId const& k) override { log.push_back("ids(" + k.pathId().stringValue() + ")"); }
  void onWeights(RsvpSpId const& k) override {
    log.push_back("weights(" + k.pathId().stringValue() + ")");
  }
  void onLeaf(Kel::U32 k) override { log.push_back("leaf(" + std::to_string(k) + ")"); }
  void onPath(RsvpSpId const&) override { log.push_back("path"); }
  void onPoints(Kel::U32 seq) override { log.push_back("points(" + std::to_string(seq) + ")"); }
  void onEvents(Kel::U32 seq) override { log.push_back("events(" + std::to_string(seq) + ")"); }
  void onSlot() override { log.push_back("slot"); }
  void onShared() override { log.push_back("shared"); }

  std::vector<std::string> log;
};

using Log = std::vector<std::string>;

TEST(Notification, EqualValueNotifiesNobody) {
  auto root = Sample::rootFactory("root");
  Recorder r(root.get());
  root->countIs(0);
  root->labelIs("");
  root->epochIs(16777216);
  EXPECT_EQ(r.log, Log{});
  root->countIs(3);
  root->countIs(3);
  root->labelIs("x");
  EXPECT_EQ(r.log, (Log{"count", "label"}));
}

TEST(Notification, KeyedCollectionsNotifyOncePerChange) {
  auto root = Sample::rootFactory("root");
  Recorder r(root.get());
  root->idsIs(spId(1));
  root->idsIs(spId(1));
  EXPECT_FALSE(root->idsDel(spId(2)));
  EXPECT_TRUE(root->idsDel(spId(1)));
  root->weightsIs(spId(1), 5);
  root->weightsIs(spId(1), 5);
  root->weightsIs(spId(1), 6);
  Kel::Ptr<Leaf> const a = root->leafIs(4);
  EXPECT_EQ(root->leafIs(4), a);
  EXPECT_EQ(r.log, (Log{"ids(<lspId=1>)", "ids(<lspId=1>)", "weights(<lspId=1>)",
                        "weights(<lspId=1>)", "leaf(4)"}));
  EXPECT_EQ(root->weights(spId(1)), 6u);
  EXPECT_EQ(root->weights(spId(9)), 0u) << "absent key answers the default";
}

TEST(Notification, DelAllNotifiesOncePerMember) {
  auto root = Sample::rootFactory("root");
  for (Kel::U32 i = 0; i < 50; ++i) {
    root->idsIs(spId(i));
    root->leafIs(i);
    root->hopIs(i, Lumo::IpGenAddr::ipv4(i));
    root->newPoints(i, i);
  }
  Recorder r(root.get());
  root->idsDelAll();
  root->leafDelAll();
  root->pointsDelAll();
  EXPECT_EQ(r.log.size(), 150u);
  EXPECT_EQ(root->idsSize() + root->leafSize() + root->pointsSize(), 0u);
  root->idsDelAll();
  EXPECT_EQ(r.log.size(), 150u) << "an empty collection notifies nobody";
}

TEST(Notification, DerivedEntityNotifiesBaseAndOwnAttributes) {
  struct SpecialRecorder : Sample::Special::NotifieeConst {
    using Sample::Special::NotifieeConst::NotifieeConst;
    void onCount() override { log.push_back("count"); }
    void onExtra() override { log.push_back("extra"); }
    Log log;
  };
  auto special = Sample::specialFactory("special");
  SpecialRecorder derived(special.get());
  Recorder base(special.get());
  special->countIs(1);
  special->extraIs(true);
  EXPECT_EQ(derived.log, (Log{"count", "extra"}));
  EXPECT_EQ(base.log, Log{"count"}) << "a base notifiee never hears derived attributes";
  EXPECT_EQ(special->fwkType().name(), "Rsvp::Sample::Special");
  EXPECT_TRUE(special->fwkType().isA(Root::kelType));
}

TEST(Notification, InListOrder) {
  auto root = Sample::rootFactory("root");
  std::string order;
  struct Tagged : Root::NotifieeConst {
    Tagged(Root* r, std::string* out, char tag) : NotifieeConst(r), out_(out), tag_(tag) {}
    void onCount() override { *out_ += tag_; }
    std::string* out_;
    char tag_;
  };
  Tagged a(root.get(), &order, 'a'), b(root.get(), &order, 'b'), c(root.get(), &order, 'c');
  root->countIs(1);
  b.notifierIs(nullptr);
  b.notifierIs(root.get());
  root->countIs(2);
  EXPECT_EQ(order, "abcacb");
  EXPECT_EQ(root->notifieeList().size(), 3u);
}

TEST(Parents, SetOnInsertClearedOnRemoval) {
  auto root = Sample::rootFactory("root");
  Kel::Ptr<Leaf> leaf = root->leafIs(4);
  EXPECT_EQ(leaf->parent(), root.get());
  EXPECT_EQ(leaf->name(), "4");
  EXPECT_EQ(leaf->fullName(), "root/4");
  EXPECT_EQ(root->slotIs()->fullName(), "root/slot");
  // A name from a backup replaces the one spelled from the key or the slot.
  leaf->nameIsFromBackup("four");
  root->slotIs()->nameIsFromBackup("");
  EXPECT_EQ(leaf->fullName(), "root/four");
  EXPECT_EQ(root->slotIs()->name(), "");
  root->leafDel(4);
  EXPECT_EQ(leaf->parent(), nullptr) << "a removed child has no parent";
  EXPECT_EQ(leaf->id(), 4u) << "and lives on while held";

  Kel::Ptr<Leaf> kept = root->leafIs(5);
  Kel::Ptr<Sample::Slot> slot = root->slotIs();
  Kel::Ptr<Leaf> spare = root->newBranch(9);
  EXPECT_EQ(root->newSlot()->parent(), root.get());
  EXPECT_EQ(root->slot(), slot) << "newX leaves the slot alone";
  EXPECT_EQ(spare->parent(), root.get());
  EXPECT_FALSE(root->branchHas(9)) << "newX makes a child without storing it";
  root = nullptr;
  EXPECT_EQ(kept->parent(), nullptr) << "an owner's destruction clears its children's parents";
  EXPECT_EQ(slot->parent(), nullptr);
}

TEST(FindOrCreate, ReinstantiationWithOtherArgumentsIsRefused) {
  auto root = Sample::rootFactory("root");
  Kel::Ptr<Sample::Path> const p = root->pathIs(spId(3), true);
  EXPECT_EQ(root->pathIs(spId(3), true), p);
  EXPECT_EQ(errorOf<Kel::ReinstantiationException>([&] { root->pathIs(spId(3), false); }),
            "Reinstantiating the entity with fullName root/" + spId(3).stringValue() +
                " where constructor parameter attribute 'isBypass' has a different value of false");
  EXPECT_TRUE(root->path(spId(3))->isBypass());
}

TEST(Errors, NullPointerMutatorText) {
  auto root = Sample::rootFactory("root");
  EXPECT_EQ(errorOf<Kel::NullPointerException>([&] { root->eventsEnq(nullptr); }),
            "null _events parameter to mutator for Rsvp::Sample::Root::events not allowed\"");
  EXPECT_EQ(root->eventsSize(), 0u);
}

TEST(Errors, RangeCheckedSetterLeavesValueAndNotifiesNobody) {
  auto root = Sample::rootFactory("root");
  Recorder r(root.get());
  root->epochIs(5);
  EXPECT_EQ(errorOf<Kel::RangeException>([&] { root->epochIs(16777217); }),
            "Root::epoch < 0 or > Rsvp::RsvpMsgIdObj::invalidMsgIdEpochValue not allowed");
  EXPECT_EQ(root->epoch(), 5u);
  EXPECT_EQ(r.log, Log{"epoch"});
  EXPECT_EQ(root->slotIs()->level(), 1u);
  EXPECT_THROW(root->slot()->levelIs(8), Kel::RangeException);
  EXPECT_THROW(root->slot()->levelIs(0), Kel::RangeException);
}

TEST(Slots, ChildAndReference) {
  auto root = Sample::rootFactory("root");
  Recorder r(root.get());
  auto const slot = root->slotIs();
  EXPECT_EQ(root->slotIs(), slot);
  root->slotDel();
  root->slotDel();
  EXPECT_EQ(root->slot(), nullptr);
  Kel::Ptr<Leaf const> leaf = Sample::leafFactory(1);
  root->sharedIs(leaf);
  root->sharedIs(leaf);
  root->sharedIs(nullptr);
  EXPECT_EQ(r.log, (Log{"slot", "slot", "shared", "shared"}));
  EXPECT_EQ(leaf->parent(), nullptr) << "a reference does not adopt";
}

// The numbering of queues, checked against a model of the rules.
TEST(Queue, NumberingFollowsTheRules) {
  auto root = Sample::rootFactory("root");
  Recorder r(root.get());
  for (Kel::U32 i = 0; i < 3; ++i) EXPECT_EQ(root->newPoints(i, 0), i);
  for (Kel::U32 i = 0; i < 3; ++i) EXPECT_EQ(root->pointsDeq().x(), i);
  EXPECT_EQ(root->newPoints(7, 7), 3u) << "the stored next number survives emptying";
  EXPECT_EQ(root->pointsDeq(), Sample::Point(7, 7));
  EXPECT_EQ(root->pointsDeq(), Sample::Point()) << "an empty queue answers the default";
  EXPECT_EQ(root->newPoints(1, 1), 3u) << "removing the only entry leaves the next number";
  EXPECT_EQ(root->newPoints(2, 2), 4u);
  EXPECT_EQ(root->newPoints(3, 3), 5u);
  EXPECT_TRUE(root->pointsDel(5));
  EXPECT_EQ(root->newPoints(4, 4), 6u) << "numbers never repeat while entries remain";
  EXPECT_EQ(root->points(4), Sample::Point(2, 2));
  EXPECT_EQ(root->points(5), Sample::Point());
  EXPECT_EQ(root->pointsRemovals(), 5u) << "an empty dequeue removes nothing";
  EXPECT_EQ(r.log, (Log{"points(0)", "points(1)", "points(2)", "points(0)", "points(1)",
                        "points(2)", "points(3)", "points(3)", "points(3)", "points(4)",
                        "points(5)", "points(5)", "points(6)"}));
}

TEST(Queue, EntitiesAreShared) {
  auto root = Sample::rootFactory("root");
  auto const leaf = root->newEvents(8);
  EXPECT_EQ(root->events(0), leaf);
  EXPECT_EQ(leaf->parent(), nullptr);
  EXPECT_EQ(root->eventsDeq(), leaf);
  EXPECT_EQ(root->eventsDeq(), nullptr);
}

TEST(Iteration, HashedInReversedHashOrderOrderedAscending) {
  auto a = Sample::rootFactory("a");
  auto b = Sample::rootFactory("b");
  for (Kel::U32 i = 0; i < 300; ++i) a->idsIs(spId(i));
  for (Kel::U32 i = 300; i-- > 0;) b->idsIs(spId(i));
  std::vector<RsvpSpId> seenA, seenB;
  for (auto it = a->idsIter(); !it.done(); ++it) seenA.push_back(it.key());
  for (auto it = b->idsIter(); !it.done(); ++it) seenB.push_back(it.key());
  EXPECT_EQ(seenA, seenB) << "the order depends on the keys only";
  ASSERT_EQ(seenA.size(), 300u);
  for (std::size_t i = 1; i < seenA.size(); ++i) {
    EXPECT_LE(Kel::bitReverse32(seenA[i - 1].hash()), Kel::bitReverse32(seenA[i].hash()));
  }
  for (Kel::U32 k : {5u, 1u, 3u}) a->hopIs(k, Lumo::IpGenAddr::ipv4(k));
  std::vector<Kel::U32> hops;
  for (auto it = a->hopIter(); !it.done(); ++it) hops.push_back(it.key());
  EXPECT_EQ(hops, (std::vector<Kel::U32>{1, 3, 5}));
}

// Lifetime cases; the sanitizer build checks that none touches freed memory.
TEST(Lifetime, NotifieeLeavesDuringItsCallback) {
  auto root = Sample::rootFactory("root");
  struct Leaver : Root::NotifieeConst {
    using NotifieeConst::NotifieeConst;
    void onCount() override {
      ++calls;
      if (other) other->notifierIs(nullptr);
      notifierIs(nullptr);
    }
    int calls = 0;
    Root::NotifieeConst* other = nullptr;
  };
  Leaver first(root.get());
  Leaver second(root.get());
  first.other = &second;
  Recorder third(root.get());
  root->countIs(1);
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.calls, 0) << "unregistered before its turn";
  EXPECT_EQ(third.log, Log{"count"});
  root->countIs(2);
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(root->notifieeList().size(), 1u);
}

TEST(Lifetime, NotifieeDestroysItselfAndAnotherDuringCallback) {
  auto root = Sample::rootFactory("root");
  struct Doomed : Root::NotifieeConst {
    using NotifieeConst::NotifieeConst;
    void onCount() override {
      delete victim;
      delete this;
    }
    Root::NotifieeConst* victim = nullptr;
  };
  auto* d = new Doomed(root.get());
  d->victim = new Recorder(root.get());
  Recorder last(root.get());
  root->countIs(1);
  EXPECT_EQ(last.log, Log{"count"});
  EXPECT_EQ(root->notifieeList().size(), 1u);
}

TEST(Lifetime, CallbackDropsTheLastReferenceToTheEntity) {
  struct Dropper : Root::NotifieeConst {
    using NotifieeConst::NotifieeConst;
    void onCount() override { owner = nullptr; }
    Kel::Ptr<Root> owner;
  };
  Dropper d;
  Recorder after;
  {
    auto root = Sample::rootFactory("root");
    d.notifierIs(root.get());
    after.notifierIs(root.get());
    d.owner = root;
    root->countIs(1);  // `root` still holds a reference here
  }
  auto root = Sample::rootFactory("root");
  d.notifierIs(root.get());
  after.notifierIs(root.get());
  d.owner = std::move(root);
  Root* raw = d.owner.get();
  raw->countIs(1);  // the callback drops the last reference
  EXPECT_EQ(after.log, (Log{"count", "count"})) << "later notifiees still hear the change";
  EXPECT_EQ(d.notifier(), nullptr) << "the entity is gone and its notifiees detached";
  EXPECT_EQ(after.notifier(), nullptr);
}

TEST(Lifetime, EntityAndNotifieeDestroyedInEitherOrder) {
  Recorder r;
  {
    auto root = Sample::rootFactory("root");
    r.notifierIs(root.get());
  }
  EXPECT_EQ(r.notifier(), nullptr);
  auto root = Sample::rootFactory("root");
  {
    Recorder gone(root.get());
    auto* heap = new Recorder(root.get());
    delete heap;
  }
  EXPECT_FALSE(root->hasNotifiees());
  root->countIs(1);
}

TEST(Lifetime, NotifieeAddedDuringDispatchHearsTheNextChange) {
  auto root = Sample::rootFactory("root");
  Recorder late;
  struct Adder : Root::NotifieeConst {
    using NotifieeConst::NotifieeConst;
    void onCount() override { late->notifierIs(notifier()); }
    Recorder* late = nullptr;
  };
  Adder adder(root.get());
  adder.late = &late;
  root->countIs(1);
  EXPECT_EQ(late.log, Log{});
  root->countIs(2);
  EXPECT_EQ(late.log, Log{"count"});
}

// Freezing from within a callback: the entities held (a child's reference,
// a slot, a queue's entry) freeze too, and the notifiees still to be called
// are detached without the list going away under the dispatch.
TEST(Frozen, FreezeFromACallbackReachesHeldEntitiesAndDetachesNotifiees) {
  auto root = Sample::rootFactory("root");
  root->leafIs(3)->nextIs(Sample::leafFactory(4));
  root->slotIs();
  root->newEvents(5);
  struct Freezer : Root::Notifiee {
    using Notifiee::Notifiee;
    void onCount() override { notifier()->frozenIs(); }
  } freezer(root.get());
  Recorder later(root.get());
  root->countIs(1);
  EXPECT_EQ(later.log, Log{});
  EXPECT_EQ(later.notifier(), nullptr);
  EXPECT_TRUE(root->frozen());
  EXPECT_TRUE(root->leaf(3)->next()->frozen());
  EXPECT_TRUE(root->slot()->frozen());
  EXPECT_TRUE(root->events(0)->frozen());
  Recorder after(root.get());
  EXPECT_EQ(after.notifier(), nullptr) << "a frozen entity takes no notifiees";
  EXPECT_FALSE(root->hasNotifiees());
  EXPECT_FALSE(Sample::rootFactory("other")->frozen());
}

TEST(FrozenDeathTest, EveryMutatorStopsNamingTheEntity) {
  auto root = Sample::rootFactory("root");
  root->leafIs(3);
  root->frozenIs();
  char const* const text = "Assertion failed: Entity root is frozen and cannot change";
  EXPECT_DEATH(root->countIs(root->count()), text) << "even with the stored value";
  EXPECT_DEATH(root->epochIs(0), text);
  EXPECT_DEATH(root->idsIs(spId(1)), text);
  EXPECT_DEATH(root->leafDel(9), text) << "even when absent";
  EXPECT_DEATH(root->eventsDeq(), text);
  EXPECT_DEATH(root->pointsDelAll(), text);
  EXPECT_DEATH((void)root->newSlot(), text);
  EXPECT_DEATH(root->sharedIs(nullptr), text);
  EXPECT_DEATH(root->leaf(3)->weightIs(1),
               "Assertion failed: Entity root/3 is frozen and cannot change");
  Kel::U32 const one = 1;
  EXPECT_DEATH(root->fwkType().attributeOp(nullptr, static_cast<Kel::Entity*>(root.get()),
                                           Root::kelType.attr("count"), Kel::attrOpWrite, &one),
               text);
}

}  // namespace
