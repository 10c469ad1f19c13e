// Threads: trees used by different threads share frozen entities. Run under
// ThreadSanitizer (preset tsan), where an unsynchronised access fails.
#include <Rsvp/FrameTestModel.h>
#include <Rsvp/Rsvp.h>

#include <Kel/AttrLog.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <vector>

namespace {

using namespace Rsvp;
using Sample::Leaf;
using Sample::Root;

// Two threads each publish their own tree with their own writer and
// replicate it, both trees referring to one frozen message (a leaf that
// refers to another). A writer tracks the shared entities it announces and
// holds pointers to them, so their counts go up and down in both threads.
// Writers that registered with the message raced on its notifiee list.
TEST(Threads, WritersOfTwoTreesRaceOnASharedEntity) {
  Kel::Ptr<Leaf> const message = Sample::leafFactory(1);
  message->weightIs(7);
  message->nextIs(Sample::leafFactory(2));
  message->frozenIs();
  Kel::Ptr<Leaf const> const shared = message;

  constexpr int rounds = 1000;
  auto publish = [&shared](std::vector<Kel::U32>* seen) {
    Kel::Ptr<Root> const source = Sample::rootFactory("root");
    Kel::Ptr<Root> const replica = Sample::rootFactory("root");
    Kel::LogWriter writer(*source);
    Kel::LogReader reader(*replica);
    for (int round = 0; round < rounds; ++round) {
      auto sink = std::make_unique<Kel::MemorySink>();
      Kel::MemorySink* const out = sink.get();
      reader.reset();
      writer.subscriberNew(std::move(sink));
      for (Kel::U32 i = 0; i < 5; ++i) {  // ends referring to it
        source->sharedIs(i % 2 ? nullptr : shared);
        source->countIs(i);
        writer.flush();
        reader.bytesIs(out->take());
      }
      Kel::Ptr<Leaf const> const copy = replica->shared();
      seen->push_back(copy ? copy->weight() + copy->next()->id() : 0);
      writer.subscriberDel(out);
    }
  };
  std::vector<Kel::U32> a;
  std::vector<Kel::U32> b;
  TestSupport::inThreads(2, [&](unsigned t) { publish(t == 0 ? &a : &b); });
  EXPECT_EQ(a, std::vector<Kel::U32>(rounds, 9));
  EXPECT_EQ(b, a);
  EXPECT_EQ(shared->references(), 2u) << "the writers dropped every pointer they took";
}

}  // namespace
