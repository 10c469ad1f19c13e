// The attribute log: a replica follows its source through long random
// sequences of changes, reconnections and snapshots; changes are coalesced;
// deletions carry the negated identifier; the reader applies records through
// the setters; bad bytes are refused without touching the replica.
#include <Rsvp/FrameTestModel.h>
#include <Rsvp/Rsvp.h>

#include <Kel/AttrLog.h>
#include <Kel/ReadOnlyProxy.h>

#include <gtest/gtest.h>

#include "SampleIds.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <vector>

namespace {

using namespace Rsvp;
using Sample::Root;

using SampleIds::spId;

// The records of a stream of frames, as (entity reference, attribute id).
std::vector<std::pair<Kel::U32, Kel::S32>> records(std::string const& bytes) {
  std::vector<std::pair<Kel::U32, Kel::S32>> out;
  Kel::LogIn in(bytes);
  while (!in.atEnd()) {
    in.skip(16);
    Kel::U32 const length = in.u32();
    in.skip(4);
    Kel::LogIn payload(in.bytes(length), length);
    in.skip(4);
    while (!payload.atEnd()) {
      Kel::U32 const ref = payload.u32();
      auto const id = static_cast<Kel::S32>(payload.u32());
      payload.skip(payload.u32());
      out.emplace_back(ref, id);
    }
  }
  return out;
}

struct Link {
  Kel::Ptr<Root> source = Sample::rootFactory("root");
  Kel::Ptr<Root> replica = Sample::rootFactory("root");
  Kel::LogWriter writer{*source};
  Kel::LogReader reader{*replica};
  Kel::MemorySink* sink = nullptr;

  void connect() {
    auto s = std::make_unique<Kel::MemorySink>();
    sink = s.get();
    reader.reset();
    writer.subscriberNew(std::move(s));
    deliver();
  }
  void deliver() { reader.bytesIs(sink->take()); }
  void sync() {
    writer.flush();
    deliver();
  }
  [[nodiscard]] bool same() const { return Kel::browseText(*source) == Kel::browseText(*replica); }
};

TEST(AttrLog, SnapshotThenChanges) {
  Link link;
  link.source->countIs(5);
  link.source->leafIs(3)->weightIs(9);
  link.connect();
  EXPECT_TRUE(link.reader.inSync());
  EXPECT_TRUE(link.same()) << Kel::browseText(*link.replica);
  link.source->labelIs("x");
  link.source->branchIs(4)->nextIs(link.source->leafIs(3));
  link.source->hopIs(2, Lumo::IpGenAddr("10.1.1.1"));
  link.source->slotIs()->levelIs(5);
  link.source->newPoints(1, 2);
  link.source->sharedIs(link.source->branch(4));
  link.sync();
  EXPECT_TRUE(link.same()) << Kel::browseText(*link.replica);
  link.source->branch(4)->nextIs(nullptr);
  link.source->leaf(3)->nextIs(nullptr);
}

TEST(AttrLog, ChangesBetweenFlushesAreCoalesced) {
  Link link;
  link.connect();
  Kel::U64 const before = link.writer.records();
  for (Kel::U32 i = 1; i <= 1000000; ++i) link.source->countIs(i);
  link.sync();
  EXPECT_EQ(link.writer.records() - before, 1u);
  EXPECT_EQ(link.replica->count(), 1000000u);
}

TEST(AttrLog, DeletionCarriesTheNegatedIdentifier) {
  Link link;
  link.source->idsIs(spId(1));
  link.connect();
  Kel::S32 const ids = 400;  // declared in the schema
  ASSERT_EQ(Root::kelType.attr("ids")->logId, 400u);
  link.source->idsDel(spId(1));
  link.writer.flush();
  std::string const removal = link.sink->take();
  EXPECT_EQ(records(removal), (std::vector<std::pair<Kel::U32, Kel::S32>>{{1, -ids}}));
  link.reader.bytesIs(removal);
  link.source->idsIs(spId(1));
  link.writer.flush();
  std::string const addition = link.sink->take();
  EXPECT_EQ(records(addition), (std::vector<std::pair<Kel::U32, Kel::S32>>{{1, ids}}));
  link.reader.bytesIs(addition);
  EXPECT_TRUE(link.replica->ids(spId(1)));
}

TEST(AttrLog, UnloggedAttributesStayLocal) {
  Link link;
  link.connect();
  Kel::U64 const before = link.writer.records();
  link.source->localOnlyIs(5);
  link.sync();
  EXPECT_EQ(link.writer.records(), before);
  EXPECT_EQ(link.replica->localOnly(), 0u);
}

TEST(AttrLog, ReaderAppliesThroughTheSetters) {
  Link link;
  link.connect();
  struct Heard : Root::NotifieeConst {
    using NotifieeConst::NotifieeConst;
    void onCount() override { ++count; }
    int count = 0;
  } heard(link.replica.get());
  link.source->countIs(7);
  link.sync();
  link.sync();  // nothing changed: nothing sent, nobody told
  EXPECT_EQ(heard.count, 1);
}

TEST(AttrLog, BadBytesAreRefusedAndTheReplicaKept) {
  Link link;
  link.connect();
  link.source->countIs(1);
  link.source->labelIs("a");
  link.writer.flush();
  std::string const good = link.sink->take();
  std::string const before = Kel::browseText(*link.replica);
  // A frame cut short is only waited for.
  link.reader.bytesIs(good.substr(0, good.size() - 1));
  EXPECT_EQ(Kel::browseText(*link.replica), before);
  link.reader.reset();

  for (std::size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x20);
    Link fresh;
    fresh.connect();
    std::string const start = Kel::browseText(*fresh.replica);
    EXPECT_THROW(fresh.reader.bytesIs(bad), Kel::LogException) << "byte " << i;
    EXPECT_EQ(Kel::browseText(*fresh.replica), start) << "byte " << i;
    EXPECT_FALSE(fresh.reader.inSync());
  }
}

TEST(AttrLog, OverAPipe) {
  Link link;
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_NONBLOCK), 0);
  link.source->countIs(9);
  auto sink = std::make_unique<Kel::FdSink>(fds[1]);
  Kel::LogSink const* const sinkPtr = sink.get();
  link.writer.subscriberNew(std::move(sink));
  link.reader.fdIs(fds[0]);
  EXPECT_TRUE(link.reader.readAvailable());
  EXPECT_TRUE(link.reader.inSync());
  link.source->labelIs("piped");
  link.writer.flush();
  EXPECT_TRUE(link.reader.readAvailable());
  EXPECT_TRUE(link.same());
  link.writer.subscriberDel(sinkPtr);
  EXPECT_EQ(link.writer.subscribers(), 0u);
  ::close(fds[1]);
  EXPECT_FALSE(link.reader.readAvailable()) << "end of stream";
  ::close(fds[0]);
}

TEST(AttrLog, ClosedSocketDropsTheSubscriberWithoutSignal) {
  Link link;
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
  link.writer.subscriberNew(std::make_unique<Kel::FdSink>(fds[0]));
  ::close(fds[1]);  // the replica has gone
  link.source->countIs(1);
  link.writer.flush();  // would raise SIGPIPE with a plain write
  EXPECT_EQ(link.writer.subscribers(), 0u);
  ::close(fds[0]);
}

TEST(AttrLog, GapIsDetected) {
  Link link;
  link.connect();
  link.source->countIs(1);
  link.writer.flush();
  (void)link.sink->take();  // lost
  link.source->countIs(2);
  link.writer.flush();
  EXPECT_THROW(link.reader.bytesIs(link.sink->take()), Kel::LogException);
  EXPECT_THROW(link.reader.bytesIs(""), Kel::LogException) << "until it reconnects";
  link.connect();
  EXPECT_TRUE(link.same());
}

// Long random sequences of changes, with random flushes and reconnections;
// after every flush the replica equals the source attribute by attribute.
TEST(AttrLog, RandomChangesReplicaFollows) {
  std::mt19937 rng(12);
  for (int round = 0; round < 6; ++round) {
    Link link;
    link.connect();
    for (int step = 0; step < 3000; ++step) {
      Root& s = *link.source;
      Kel::U32 const k = rng() % 12;
      switch (rng() % 17) {
        case 0: s.countIs(rng() % 5); break;
        case 1: s.labelIs(std::string(rng() % 3, 'x')); break;
        case 2: s.idsIs(spId(k)); break;
        case 3: s.idsDel(spId(k)); break;
        case 4: s.weightsIs(spId(k), rng() % 4); break;
        case 5: s.weightsDel(spId(k)); break;
        case 6: s.leafIs(k)->weightIs(rng() % 3); break;
        case 7:
          // A reference is replicated while its target is in the tree.
          if (s.shared() && s.shared() == s.leaf(k)) s.sharedIs(nullptr);
          s.leafDel(k);
          break;
        case 8: s.hopIs(k, Lumo::IpGenAddr::ipv4(rng() % 3)); break;
        case 9: s.branchIs(k); break;
        case 10: s.branchDelAll(); break;
        case 11: s.newPoints(k, k); break;
        case 12: s.pointsDeq(); break;
        case 13: s.pointsDel(static_cast<Kel::U32>(rng() % 20)); break;
        case 14:
          if (rng() % 2) {
            s.slotIs()->levelIs(static_cast<Kel::U8>(1 + rng() % 7));
          } else {
            s.slotDel();
          }
          break;
        case 15:
          switch (rng() % 4) {
            case 0: s.pathIs(spId(k), k % 2 == 0)->noteIs(std::string(rng() % 3, 'n')); break;
            case 1: s.pathDel(spId(k)); break;
            case 2: s.newEvents(k)->weightIs(rng() % 5); break;
            default: (void)s.eventsDeq(); break;
          }
          break;
        default:
          // A shared entity outside the tree, or one in it.
          s.sharedIs(rng() % 2 ? Kel::Ptr<Sample::Leaf const>(Sample::leafFactory(k)) : s.leaf(k));
          break;
      }
      if (rng() % 7 == 0) {
        link.sync();
        ASSERT_TRUE(link.same()) << "round " << round << " step " << step << "\n"
                                 << Kel::browseText(*link.source) << "\n"
                                 << Kel::browseText(*link.replica);
      }
      if (rng() % 97 == 0) {
        link.writer.flush();
        (void)link.sink->take();  // the connection broke: what was in flight is lost
        link.connect();           // a new subscription starts with a snapshot
        ASSERT_TRUE(link.same()) << "after reconnecting, round " << round;
      }
    }
  }
}

}  // namespace

namespace {

TEST(ReadOnlyProxy, ReadsPassWritesRaise) {
  Link link;
  link.source->countIs(4);
  link.source->leafIs(1);
  link.connect();
  Kel::ReadOnlyProxy const proxy(*link.replica);
  Kel::KelAttr const* count = Root::kelType.attr("count");
  Kel::U32 value = 0;
  EXPECT_EQ(proxy.attributeOp(&value, count, Kel::attrOpRead), Kel::attrDone);
  EXPECT_EQ(value, 4u);
  try {
    proxy.attributeOp(nullptr, count, Kel::attrOpWrite, &value);
    FAIL();
  } catch (Kel::ReadOnlyProxyException const& e) {
    EXPECT_STREQ(e.what(), "Attribute Rsvp::Sample::Root::count is read-only through this proxy");
  }
  Kel::KelAttr const* leaf = Root::kelType.attr("leaf");
  EXPECT_THROW(proxy.attributeOp(nullptr, leaf, Kel::attrOpDelAll), Kel::ReadOnlyProxyException);
  std::unique_ptr<Kel::GenericIter> it;
  ASSERT_EQ(proxy.attributeOp(&it, leaf, Kel::attrOpIterate), Kel::attrDone);
  EXPECT_THROW(it->delCurrent(), Kel::ReadOnlyProxyException);
  EXPECT_EQ(link.replica->leafSize(), 1u) << "nothing was changed";
}

}  // namespace

namespace {

TEST(AttrLog, ChecksumIsCrc32) {
  struct {
    char const* text;
    Kel::U32 crc;
  } const cases[] = {{"", 0u},
                     {"a", 0xe8b7be43u},
                     {"123456789", 0xcbf43926u},
                     {"The quick brown fox jumps over the lazy dog", 0x414fa339u}};
  for (auto const& c : cases) EXPECT_EQ(Kel::crc32(c.text), c.crc) << c.text;
}

}  // namespace

namespace {

TEST(AttrLog, GeneratedStateAdapterDispatch) {
  ASSERT_NE(Root::kelType.logStateAdapter(), nullptr);
  auto const read = Root::kelType.logDeserialize();
  ASSERT_NE(read, nullptr);
  auto root = Sample::rootFactory("root");
  Kel::String bytes;
  Kel::LogOut out(bytes);
  Rsvp::kelLogWrite(out, spId(3));
  Kel::LogIn add(bytes);
  EXPECT_TRUE(read(*root, 400, add)) << "ids, declared as 400";
  EXPECT_TRUE(root->ids(spId(3)));
  Kel::LogIn del(bytes);
  EXPECT_TRUE(read(*root, -400, del));
  EXPECT_FALSE(root->ids(spId(3)));
  Kel::LogIn other(bytes);
  Kel::S32 const leaf = static_cast<Kel::S32>(Root::kelType.attr("leaf")->logId);
  EXPECT_FALSE(read(*root, leaf, other)) << "children are the writer's and reader's own";
  // Transaction ends: own attributes, a base's through the base, others unknown.
  auto special = Sample::specialFactory("special");
  auto const end = Sample::Special::kelType.logTransaction();
  Kel::S32 const extra = static_cast<Kel::S32>(Sample::Special::kelType.attr("extra")->logId);
  EXPECT_TRUE(end(*special, extra, Kel::logFrameChanges, 1));
  EXPECT_TRUE(end(*special, 400, Kel::logFrameChanges, 1)) << "the base's ids";
  EXPECT_FALSE(end(*special, 9999, Kel::logFrameChanges, 1));
  for (Kel::TypeDesc const* t : Rsvp::allTypes()) {
    if (t->kind() == Kel::TypeKind::entity) {
      EXPECT_NE(t->logStateAdapter(), nullptr) << t->name();
    }
  }
}

}  // namespace
