// The entity frame on a model with an attribute of every kind: exact
// notification counts, parents, find-or-create, the errors of the frame and
// the lifetime rules of entities and notifiees, and frozen entities.
#include <Rsvp/FrameTestModel.h>
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace Rsvp;
using Sample::Leaf;
using Sample::Root;

using TestSupport::errorOf;
using TestSupport::spId;

// Records each change of the count, as "count".
struct Recorder : Root::NotifieeConst {
  using NotifieeConst::NotifieeConst;
  void onCount() override { log.push_back("count"); }
  std::vector<std::string> log;
};

using Log = std::vector<std::string>;

// Each kind of attribute notifies once per change, with its key or number;
// a change to the value held, an insertion of a present key, a deletion of
// an absent one, an empty delete-all or dequeue notify nobody. (Hashed sets
// against a model are IdentifierSetsTest's; the queue's numbering against a
// model is ContainersTest's.)
TEST(Notification, OncePerChangeAndNeverForNoChange) {
  std::tuple<char const*, void (*)(Root&), Log> const cases[] = {
      // what, act, heard
      {"plain attributes",
       [](Root& r) {
         r.countIs(0);
         r.labelIs("");
         r.epochIs(16777216);
         r.countIs(3);
         r.countIs(3);
         r.labelIs("x");
       },
       {"count", "label"}},
      {"a hashed map",
       [](Root& r) {
         r.weightsIs(spId(1), 5);
         r.weightsIs(spId(1), 5);
         r.weightsIs(spId(1), 6);
         EXPECT_EQ(r.weights(spId(1)), 6u);
         EXPECT_EQ(r.weights(spId(9)), 0u) << "absent key answers the default";
       },
       {"weights[" + spId(1).stringValue() + "]", "weights[" + spId(1).stringValue() + "]"}},
      {"a map of children",
       [](Root& r) {
         Kel::Ptr<Leaf> const a = r.leafIs(4);
         EXPECT_EQ(r.leafIs(4), a) << "find or create";
         r.leafDelAll();
         r.leafDelAll();
         EXPECT_EQ(r.leafSize(), 0u);
       },
       {"leaf[4]", "leaf[4]"}},
      {"a slot and a reference",
       [](Root& r) {
         auto const slot = r.slotIs();
         EXPECT_EQ(r.slotIs(), slot);
         r.slotDel();
         r.slotDel();
         EXPECT_EQ(r.slot(), nullptr);
         Kel::Ptr<Leaf const> const leaf = Sample::leafFactory(1);
         r.sharedIs(leaf);
         r.sharedIs(leaf);
         r.sharedIs(nullptr);
         EXPECT_EQ(leaf->parent(), nullptr) << "a reference does not adopt";
       },
       {"slot", "slot", "shared", "shared"}},
      {"a shared map keyed by its members",
       [](Root& r) {
         auto const leaf = Sample::leafFactory(7);
         r.pinnedIs(leaf);
         r.pinnedIs(leaf);
         EXPECT_EQ(r.pinned(7), leaf);
         EXPECT_EQ(leaf->parent(), nullptr) << "not owned";
         EXPECT_TRUE(r.pinnedDel(7));
       },
       {"pinned[7]", "pinned[7]"}},
      {"a queue of values",
       [](Root& r) {
         EXPECT_EQ(r.newPoints(1, 1), 0u);
         EXPECT_EQ(r.newPoints(2, 2), 1u);
         EXPECT_EQ(r.newPoints(3, 3), 2u);
         EXPECT_EQ(r.pointsDeq(), Sample::Point(1, 1));
         EXPECT_TRUE(r.pointsDel(2));
         EXPECT_FALSE(r.pointsDel(2));
         EXPECT_EQ(r.points(1), Sample::Point(2, 2));
         r.pointsDelAll();
         EXPECT_EQ(r.pointsDeq(), Sample::Point()) << "an empty queue answers the default";
         EXPECT_EQ(r.pointsRemovals(), 3u) << "an empty dequeue removes nothing";
       },
       {"points[0]", "points[1]", "points[2]", "points[0]", "points[2]", "points[1]"}},
      {"a queue of entities, which it shares",
       [](Root& r) {
         auto const leaf = r.newEvents(8);
         EXPECT_EQ(r.events(0), leaf);
         EXPECT_EQ(leaf->parent(), nullptr);
         EXPECT_EQ(r.eventsDeq(), leaf);
         EXPECT_EQ(r.eventsDeq(), nullptr);
       },
       {"events[0]", "events[0]"}},
  };
  for (auto const& [what, act, log] : cases) {
    auto root = Sample::rootFactory("root");
    TestSupport::Heard heard(root.get());
    act(*root);
    EXPECT_EQ(heard.log, log) << what;
  }
}

// A derived entity's notifiee hears the base's attributes and its own, as
// does the generic notifiee until its adapter goes; a base notifiee only the
// base's.
TEST(Notification, DerivedEntityNotifiesBaseAndOwnAttributes) {
  auto special = Sample::specialFactory("special");
  TestSupport::Heard derived(special.get());
  Recorder base(special.get());
  special->countIs(1);
  special->extraIs(true);
  EXPECT_EQ(derived.log, (Log{"count", "extra"}));
  EXPECT_EQ(base.log, Log{"count"}) << "a base notifiee never hears derived attributes";
  derived.adapters.clear();
  special->countIs(3);
  EXPECT_EQ(derived.log.size(), 2u);
  EXPECT_TRUE(special->fwkType().isA(Root::kelType));
}

// Notifiees hear in the order they joined; one that rejoins goes last; one
// added during a dispatch hears the next change, not this one.
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

  Recorder late;
  struct Adder : Root::NotifieeConst {
    Adder(Root* r, Recorder* l) : NotifieeConst(r), late(l) {}
    void onCount() override { late->notifierIs(notifier()); }
    Recorder* late;
  } adder(root.get(), &late);
  root->countIs(3);
  EXPECT_EQ(late.log, Log{}) << "a notifiee added during a dispatch hears the next change";
  root->countIs(4);
  EXPECT_EQ(late.log, Log{"count"});
}

// Children know their parent and full name while in the tree; removal and
// the owner's end clear it; a backup's name replaces the spelled one.
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

// A null entity for a queue or a map keyed by its members is refused with
// the fixed text, changing nothing; a refused set keeps the value and tells
// nobody, and both bounds are checked. Find-or-create answers the entity
// made before, and refuses other constructor arguments with the exact text.
TEST(Errors, RefusedMutatorsChangeNothing) {
  auto root = Sample::rootFactory("root");
  TestSupport::Heard heard(root.get());
  EXPECT_EQ(errorOf<Kel::NullPointerException>([&] { root->eventsEnq(nullptr); }),
            "null _events parameter to mutator for Rsvp::Sample::Root::events not allowed\"");
  EXPECT_EQ(errorOf<Kel::NullPointerException>([&] { root->pinnedIs(nullptr); }),
            "null _pinned parameter to mutator for Rsvp::Sample::Root::pinned not allowed\"");
  EXPECT_EQ(root->eventsSize() + root->pinnedSize(), 0u);
  root->epochIs(5);
  EXPECT_EQ(errorOf<Kel::RangeException>([&] { root->epochIs(16777217); }),
            "Root::epoch < 0 or > Rsvp::RsvpMsgIdObj::invalidMsgIdEpochValue not allowed");
  EXPECT_EQ(root->epoch(), 5u);
  EXPECT_EQ(heard.log, Log{"epoch"});
  EXPECT_EQ(root->slotIs()->level(), 1u);
  EXPECT_THROW(root->slot()->levelIs(8), Kel::RangeException);
  EXPECT_THROW(root->slot()->levelIs(0), Kel::RangeException);
  Kel::Ptr<Sample::Path> const p = root->pathIs(spId(3), true);
  EXPECT_EQ(root->pathIs(spId(3), true), p);
  EXPECT_EQ(errorOf<Kel::ReinstantiationException>([&] { root->pathIs(spId(3), false); }),
            "Reinstantiating the entity with fullName root/" + spId(3).stringValue() +
                " where constructor parameter attribute 'isBypass' has a different value of false");
  EXPECT_TRUE(root->path(spId(3))->isBypass());
  EXPECT_EQ(root->albumIs("first")->name(), "first");
  EXPECT_EQ(root->albumIs("other")->name(), "first") << "a slot's child is made once";
}

// Lifetime cases; the sanitizer build checks that none touches freed memory.
// A notifiee that leaves, or deletes itself, in its callback and takes a
// later one with it: that one is not called, the last still hears.
TEST(Lifetime, NotifieeLeavesOrDiesDuringItsCallback) {
  struct Going : Root::NotifieeConst {
    Going(Root* r, bool d, int* c, Root::NotifieeConst* o)
        : NotifieeConst(r), dies(d), calls(c), other(o) {}
    void onCount() override {
      ++*calls;
      if (dies) {
        delete other;
        delete this;
      } else {
        if (other) other->notifierIs(nullptr);
        notifierIs(nullptr);
      }
    }
    bool dies;
    int* calls;
    Root::NotifieeConst* other;
  };
  for (bool const dies : {false, true}) {
    auto root = Sample::rootFactory("root");
    int calls = 0, otherCalls = 0;
    auto* going = new Going(root.get(), dies, &calls, nullptr);
    going->other = new Going(root.get(), dies, &otherCalls, nullptr);  // joins after it
    Recorder last(root.get());
    root->countIs(1);
    root->countIs(2);
    EXPECT_EQ(calls, 1) << dies;
    EXPECT_EQ(otherCalls, 0) << "unregistered before its turn";
    EXPECT_EQ(last.log, (Log{"count", "count"}));
    EXPECT_EQ(root->notifieeList().size(), 1u);
    if (!dies) {
      delete going->other;
      delete going;
    }
  }
}

// A callback that drops the entity's last reference, with a later notifiee
// or alone (held without a list), and alone leaving meanwhile: the later one
// still hears, then all are detached. Held elsewhere too, the entity stays;
// a lone notifiee that leaves in its callback hears no more.
TEST(Lifetime, CallbackDropsTheLastReferenceToTheEntity) {
  struct Dropper : Root::NotifieeConst {
    using NotifieeConst::NotifieeConst;
    void onCount() override {
      ++calls;
      if (leave) notifierIs(nullptr);
      owner = nullptr;
    }
    Kel::Ptr<Root> owner;
    bool leave = false;
    int calls = 0;
  };
  for (int const lone : {0, 1, 2}) {  // 1: alone, 2: alone and leaving
    Dropper d;
    d.leave = lone == 2;
    Recorder after;
    auto root = Sample::rootFactory("root");
    d.notifierIs(root.get());
    if (!lone) after.notifierIs(root.get());
    ASSERT_EQ(root->notifieeList().size(), lone ? 1u : 2u);
    d.owner = std::move(root);
    Root* raw = d.owner.get();
    raw->countIs(1);  // the callback drops the last reference
    EXPECT_EQ(d.calls, 1) << lone;
    EXPECT_EQ(after.log, lone ? Log{} : Log{"count"}) << "later notifiees still hear the change";
    EXPECT_EQ(d.notifier(), nullptr) << "the entity is gone and its notifiees detached";
    EXPECT_EQ(after.notifier(), nullptr);
  }
  auto root = Sample::rootFactory("root");
  Dropper d(root.get());
  d.owner = root;
  root->countIs(1);  // `root` still holds a reference here
  EXPECT_EQ(d.notifier(), root.get());
  d.leave = true;
  root->countIs(2);
  root->countIs(3);
  EXPECT_EQ(d.calls, 2) << "left in its second callback";
  EXPECT_FALSE(root->hasNotifiees());
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

// Every mutator of a frozen entity stops with a text naming the entity.
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
