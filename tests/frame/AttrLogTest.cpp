// The attribute log: a replica follows its source through long random
// sequences of changes, reconnections and snapshots; changes are coalesced;
// deletions carry the negated identifier; the reader applies records through
// the setters; bad bytes are refused without touching the replica.
#include <Rsvp/FrameTestModel.h>
#include <Rsvp/Rsvp.h>

#include <Kel/AttrLog.h>
#include <Kel/LogSocket.h>
#include <Kel/ReadOnlyProxy.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using namespace Rsvp;
using Sample::Root;

using TestSupport::errorOf;
using TestSupport::spId;

struct Link : TestSupport::LogLink<Root> {
  Link() : LogLink(Sample::rootFactory("root"), Sample::rootFactory("root")) {}
};

// Records and frames made by hand, as a faulty or hostile writer would.
struct Hand {
  std::string payload;
  Kel::LogOut out{payload};

  Hand& record(Kel::U32 ref, Kel::S32 id, std::string const& value) {
    out.u32(ref);
    out.u32(static_cast<Kel::U32>(id));
    out.u32(static_cast<Kel::U32>(value.size()));
    out.bytes(value.data(), value.size());
    return *this;
  }
  [[nodiscard]] std::string frame(Kel::U64 seq, Kel::U8 kind = Kel::logFrameChanges) const {
    std::string bytes;
    Kel::logFrame(bytes, kind, seq, payload);
    return bytes;
  }
};

// The encoding of values, for hand-made records.
template <class... V>
std::string enc(V const&... v) {
  std::string s;
  Kel::LogOut out(s);
  using Kel::kelLogWrite;  // the model's own types by their namespace
  (kelLogWrite(out, v), ...);
  return s;
}

Kel::S32 logId(char const* attr, Kel::TypeDesc const& type = Root::kelType) {
  return static_cast<Kel::S32>(type.attr(attr)->logId);
}

// Each frame's payload, in order.
std::vector<std::string_view> payloads(std::string const& frames) {
  std::vector<std::string_view> out;
  Kel::LogIn in(frames);
  while (!in.atEnd()) {
    in.skip(16);
    Kel::U32 const length = in.u32();
    in.skip(4);
    out.emplace_back(reinterpret_cast<char const*>(in.bytes(length)), length);
    in.skip(4);
  }
  return out;
}

// The payloads' records, each whole (header and value), in order.
std::vector<std::string> splitRecords(std::string const& frames) {
  std::vector<std::string> out;
  for (std::string_view const payload : payloads(frames)) {
    Kel::LogIn records(payload);
    while (!records.atEnd()) {
      auto const* at = reinterpret_cast<char const*>(records.position());
      records.skip(8);
      records.skip(records.u32());
      out.emplace_back(at, reinterpret_cast<char const*>(records.position()));
    }
  }
  return out;
}

using Records = std::vector<std::pair<Kel::U32, Kel::S32>>;

// A flush sends one record for an attribute however often it changed, none
// for an unlogged one and nothing when nothing changed; a member's removal
// goes under the negated log identifier, its addition under the identifier
// itself. The reader applies through the setters, so the replica's
// notifiees hear each change once.
TEST(AttrLog, FlushSendsEachLoggedChangeOnce) {
  Link link;
  link.source->idsIs(spId(1));
  link.connect();
  TestSupport::Heard heard(link.replica.get());
  auto const sent = [&] {  // a flush's (entity reference, attribute id), read by the replica
    link.writer.flush();
    std::string const frames = link.sink->take();
    link.reader.bytesIs(frames);
    Records out;
    for (std::string const& r : splitRecords(frames)) {
      Kel::LogIn in(r);
      Kel::U32 const ref = in.u32();
      out.emplace_back(ref, static_cast<Kel::S32>(in.u32()));
    }
    return out;
  };
  for (Kel::U32 i = 1; i <= 1000000; ++i) link.source->countIs(i);
  link.source->localOnlyIs(5);
  EXPECT_EQ(sent(), (Records{{1, logId("count")}}));
  EXPECT_EQ(sent(), Records{});
  EXPECT_EQ(link.replica->count(), 1000000u);
  EXPECT_EQ(link.replica->localOnly(), 0u);
  EXPECT_EQ(heard.log, std::vector<std::string>{"count"});
  Kel::S32 const ids = 400;  // declared in the schema
  ASSERT_EQ(logId("ids"), ids);
  link.source->idsDel(spId(1));
  EXPECT_EQ(sent(), (Records{{1, -ids}}));
  link.source->idsIs(spId(1));
  EXPECT_EQ(sent(), (Records{{1, ids}}));
  EXPECT_TRUE(link.replica->ids(spId(1)));
}

// A frame cut short is waited for; any flipped byte of a good frame is
// refused, the replica unchanged and out of step. A lost frame is detected,
// and the reader refuses everything until it reconnects; a frame over the
// reader's limit is refused from its header alone.
TEST(AttrLog, BadBytesAreRefusedAndTheReplicaKept) {
  Link link;
  link.connect();
  link.source->countIs(1);
  link.source->labelIs("a");
  link.writer.flush();
  std::string const good = link.sink->take();
  std::string const before = Kel::browseText(*link.replica);
  link.reader.bytesIs(good.substr(0, good.size() - 1));
  EXPECT_EQ(Kel::browseText(*link.replica), before);
  for (std::size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x20);
    Link fresh;
    fresh.connect();
    EXPECT_THROW(fresh.reader.bytesIs(bad), Kel::LogException) << "byte " << i;
    EXPECT_EQ(Kel::browseText(*fresh.replica), before) << "byte " << i;
    EXPECT_FALSE(fresh.reader.inSync());
  }

  link.connect();
  link.source->countIs(2);
  link.writer.flush();
  (void)link.sink->take();  // lost
  link.source->countIs(3);
  EXPECT_THROW(link.sync(), Kel::LogException);
  EXPECT_EQ(errorOf<Kel::LogException>([&] { link.reader.bytesIs(""); }),
            "The attribute log reader needs a new connection");
  link.connect();
  EXPECT_TRUE(link.same());

  link.reader.maxFrameBytesIs(1000);
  Hand h;
  h.record(1, logId("label"), enc(Kel::String(2000, 'x')));
  EXPECT_EQ(errorOf<Kel::LogException>(
                [&] { link.reader.bytesIs(h.frame(link.reader.frames() + 1).substr(0, 24)); }),
            "Attribute log frame of 2016 bytes is over the limit of 1000 bytes");
  EXPECT_EQ(link.replica->label(), "a");
}

// The reader's reference table against a map: references from a counter as a
// writer hands them out, from the middle of its count, small and huge ones as
// a hostile stream might, names replaced and released; the array never
// outgrows its bound on the peak of names.
TEST(AttrLog, ReferenceTableFollowsAModel) {
  std::vector<Kel::Ptr<Kel::Entity>> entities;
  for (char c = 'a'; c < 'i'; ++c) entities.push_back(Sample::rootFactory(std::string(1, c)));
  using Table = Kel::LogRefTable<Kel::Ptr<Kel::Entity>>;
  Table table;
  std::map<Kel::U32, Kel::Entity*> model;
  std::mt19937 rng(9);
  Kel::U32 counter = 300000;  // as in a frame in the middle of a snapshot
  std::size_t peak = 0;
  for (int step = 0; step < 200000; ++step) {
    Kel::U32 const dice = rng() % 100;
    Kel::U32 const ref = dice < 60   ? counter++
                         : dice < 80 ? rng() % (counter + 1)
                         : dice < 90 ? rng() % 20000
                                     : rng();
    if (step % 50000 > 40000 || rng() % 3 == 0) {  // phases that release more than they name
      Kel::Ptr<Kel::Entity> const taken = table.take(ref);
      auto const it = model.find(ref);
      ASSERT_EQ(taken.get(), it == model.end() ? nullptr : it->second) << ref;
      if (it != model.end()) model.erase(it);
    } else {
      Kel::Entity* const e = entities[rng() % entities.size()].get();
      table.set(ref, Kel::Ptr<Kel::Entity>(e));
      model[ref] = e;
    }
    peak = std::max(peak, model.size());
    ASSERT_EQ(table.size(), model.size());
    ASSERT_EQ(table.find(ref), model.count(ref) ? model[ref] : nullptr) << ref;
    ASSERT_LE(table.denseSize(), Table::kDenseFactor * (peak + 1) + Table::kDenseFloor);
  }
  std::map<Kel::U32, Kel::Entity*> seen;
  table.forEach([&](Kel::U32 ref, Kel::Ptr<Kel::Entity>& e) { seen[ref] = e.get(); });
  EXPECT_EQ(seen, model);
  for (auto const& [ref, e] : model) ASSERT_EQ(table.find(ref), e);
  table.clear();
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(table.find(1), nullptr);

  // The root, then references in another order than their numbers (a
  // snapshot from a writer that followed its tree as it grew): names move
  // from the hash table into the growing array, by reference or by a walk.
  std::vector<Kel::U32> refs(100000);
  std::iota(refs.begin(), refs.end(), 2u);
  std::shuffle(refs.begin(), refs.end(), rng);
  auto const named = [&](Kel::U32 ref) { return entities[ref % entities.size()].get(); };
  table.set(1, Kel::Ptr<Kel::Entity>(named(1)));
  for (std::size_t k = 0; k < refs.size(); ++k) {
    table.set(refs[k], Kel::Ptr<Kel::Entity>(named(refs[k])));
    if (k % 9973 == 0) {
      ASSERT_LE(table.denseSize(), Table::kDenseFactor * (k + 2) + Table::kDenseFloor);
      for (std::size_t j = 0; j <= k; j += 97) ASSERT_EQ(table.find(refs[j]), named(refs[j]));
    }
  }
  EXPECT_EQ(table.size(), refs.size() + 1);
  for (Kel::U32 const ref : refs) ASSERT_EQ(table.find(ref), named(ref)) << ref;

  // A table that follows another's array (a frame's announcements beside
  // the names): scattered references land in the array it was asked for,
  // which stays when they are taken out again; an array from another base
  // is left alone.
  using Types = Kel::LogRefTable<int const*>;
  Types announced;
  announced.arrayAtLeast(table.denseBase(), table.denseSize());
  std::size_t const places = announced.denseSize();
  ASSERT_GE(places, refs.size() + 1);
  int const type = 0;
  for (std::size_t k = 0; k < refs.size(); k += 7) announced.set(refs[k], &type);
  EXPECT_EQ(announced.denseSize(), places) << "no growth: every reference had its place";
  for (std::size_t k = 0; k < refs.size(); k += 7) ASSERT_EQ(announced.take(refs[k]), &type);
  EXPECT_EQ(announced.size(), 0u);
  EXPECT_EQ(announced.denseSize(), places);
  announced.arrayAtLeast(table.denseBase() + 1, 2 * places);
  EXPECT_EQ(announced.denseSize(), places);
}

// Through a non-blocking pipe: the reader reads what is there, and sees the
// end of the stream. A subscriber whose socket closed is dropped at the next
// flush, without SIGPIPE.
TEST(AttrLog, OverAPipeAndAClosedSocket) {
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

  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
  link.writer.subscriberNew(std::make_unique<Kel::FdSink>(fds[0]));
  ::close(fds[1]);  // the replica has gone
  link.source->countIs(1);
  link.writer.flush();  // would raise SIGPIPE with a plain write
  EXPECT_EQ(link.writer.subscribers(), 0u);
  ::close(fds[0]);
}

// Records a replica must refuse, each whole, with the error it raises; one
// is slipped into a good frame at a random place and nothing of that frame
// may be applied.
struct BadRecord {
  char const* what;
  std::string record;
  std::string error;
};

std::vector<BadRecord> badRecords() {
  Kel::S32 const points = logId("points");
  return {
      {"an unknown entity", Hand().record(999999, logId("count"), enc(Kel::U32{1})).payload,
       "Unknown entity 999999 in the attribute log"},
      {"an unknown attribute", Hand().record(1, 9999, enc(Kel::U32{1})).payload,
       "Unknown attribute 9999 of Rsvp::Sample::Root"},
      {"an epoch out of range", Hand().record(1, logId("epoch"), enc(Kel::U32{16777217})).payload,
       "Bad value in the attribute log: Root::epoch < 0 or > "
       "Rsvp::RsvpMsgIdObj::invalidMsgIdEpochValue not allowed"},
      {"a queue entry before the tail",
       Hand()
           .record(1, points, enc(Kel::U32{0x10000000u}, Kel::U32{1}, Kel::U32{1}))
           .record(1, points, enc(Kel::U32{0x0fffffffu}, Kel::U32{1}, Kel::U32{1}))
           .payload,
       "Attribute log record for points refused"},
      {"a value longer than its record says",
       Hand().record(1, logId("count"), enc(Kel::U32{1}, Kel::U8{0})).payload,
       "Bad record length in the attribute log"},
      {"a member's key cut short", Hand().record(1, logId("weights"), enc(Kel::U32{1})).payload,
       "Bad value in the attribute log: Truncated IpGenAddr: 20 bytes needed, 4 available"},
      {"a member with bytes after its value",
       Hand().record(1, logId("weights"), enc(spId(1), Kel::U32{2}, Kel::U8{0})).payload,
       "Bad record length in the attribute log"},
      {"a null entry in a queue of entities",
       Hand().record(1, logId("events"), enc(Kel::U32{0}, Kel::U32{0}, Kel::U8{0})).payload,
       "Bad reference in the attribute log"},
      {"a reference to an unknown entity",
       Hand().record(1, logId("shared"), enc(Kel::U32{999999}, Kel::U8{0})).payload,
       "Bad reference in the attribute log"},
      {"the root announced again",
       Hand().record(1, logId("slot"), enc(Kel::U32{1}, Kel::String("slot"))).payload,
       "Bad reference in the attribute log"},
      {"the root released", Hand().record(1, 0, "").payload,
       "The root of the attribute log cannot be released"},
  };
}

// Long random sequences of changes, with random flushes and reconnections;
// after every flush the replica equals the source attribute by attribute and
// holds as many entities. References keep pointing at entities that left
// the tree (and follow them, and are forgotten with them); shared members
// name entities announced in the same frame; a snapshot after lost changes
// puts back queues emptied meanwhile and the defaults the replica missed, on
// the root and on the children it kept; some frames carry a bad record,
// which refuses all of them.
TEST(AttrLog, RandomChangesReplicaFollows) {
  std::mt19937 rng(12);
  auto const bad = badRecords();
  for (int round = 0; round < 6; ++round) {
    Link link;
    link.connect();
    std::vector<Kel::Ptr<Sample::Leaf>> held;  // leaves kept by the user, in the tree or not
    for (int step = 0; step < 3000; ++step) {
      Root& s = *link.source;
      Kel::U32 const k = rng() % 12;
      switch (rng() % 21) {
        case 0:
          s.countIs(rng() % 5);
          if (rng() % 2) s.epochIs(rng() % 2 ? 16777216 : k);  // back to a declared default
          break;
        case 1: s.labelIs(std::string(rng() % 3, 'x')); break;
        case 2: s.idsIs(spId(k)); break;
        case 3: s.idsDel(spId(k)); break;
        case 4: s.weightsIs(spId(k), rng() % 4); break;
        case 5: s.weightsDel(spId(k)); break;
        case 6: s.leafIs(k)->weightIs(rng() % 3); break;
        case 7: s.leafDel(k); break;  // references to it may remain
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
        case 16:
          // Leaves point at branches only, so that no cycle keeps them alive.
          if (auto leaf = s.leaf(k)) leaf->nextIs(rng() % 3 ? s.branch(rng() % 12) : nullptr);
          if (auto slot = s.slot()) {
            slot->backIs(s.leaf(rng() % 12));
            // A shared member often names a leaf announced in the same frame.
            if (auto leaf = s.leaf(rng() % 12)) slot->pinsIs(leaf);
          }
          break;
        case 18:
          // Shared maps: entities of the tree or outside it, not owned.
          switch (rng() % 5) {
            case 0:
              if (auto leaf = s.leaf(k)) s.pinnedIs(leaf);
              break;
            case 1: s.pinnedIs(Sample::leafFactory(k)); break;
            case 2: s.pinnedDel(k); break;
            case 3: s.byPathIs(spId(k), rng() % 2 ? Sample::leafFactory(k) : s.branchIs(k)); break;
            default: s.byPathDel(spId(k)); break;
          }
          break;
        case 19:
          if (rng() % 3) {
            s.albumIs("album " + std::to_string(k))->titleIs(std::string(rng() % 3, 't'));
          } else {
            s.albumDel();
          }
          break;
        case 17:
          // The user keeps some leaves and changes them, in the tree or gone.
          if (rng() % 3 == 0 && !held.empty()) {
            held.erase(held.begin() + static_cast<std::ptrdiff_t>(rng() % held.size()));
          } else if (rng() % 2 && !held.empty()) {
            held[rng() % held.size()]->weightIs(rng() % 7);
          } else if (auto leaf = s.leaf(k)) {
            held.push_back(leaf);
          }
          break;
        case 20:
        default:
          // A shared entity outside the tree, or one in it.
          s.sharedIs(rng() % 2 ? Kel::Ptr<Sample::Leaf const>(Sample::leafFactory(k)) : s.leaf(k));
          break;
      }
      if (rng() % 7 == 0) {
        link.writer.flush();
        std::string const frames = link.sink->take();
        if (!frames.empty() && rng() % 5 == 0) {
          // The same frame with a bad record slipped in: refused whole.
          auto records = splitRecords(frames);
          BadRecord const& b = bad[rng() % bad.size()];
          records.insert(
              records.begin() + static_cast<std::ptrdiff_t>(rng() % (records.size() + 1)),
              b.record);
          Hand h;
          for (auto const& r : records) h.payload += r;
          std::string const before = Kel::browseText(*link.replica);
          Kel::U64 const seq = Kel::LogIn(std::string_view(frames).substr(8, 8)).u64();
          EXPECT_EQ(errorOf<Kel::LogException>([&] { link.reader.bytesIs(h.frame(seq)); }), b.error)
              << b.what;
          ASSERT_EQ(Kel::browseText(*link.replica), before)
              << b.what << ", round " << round << " step " << step;
          link.connect();  // the reader wants a new connection
        } else {
          link.reader.bytesIs(frames);
        }
        ASSERT_TRUE(link.same()) << "round " << round << " step " << step << "\n"
                                 << Kel::browseText(*link.source) << "\n"
                                 << Kel::browseText(*link.replica);
        // The queues' bookkeeping, which the browse does not show.
        ASSERT_EQ(link.replica->pointsMetadata(), link.source->pointsMetadata()) << step;
        ASSERT_EQ(link.replica->eventsMetadata(), link.source->eventsMetadata()) << step;
        ASSERT_TRUE(link.sameSize())
            << "round " << round << " step " << step << ": " << link.reader.namedEntities()
            << " named, " << link.reader.heldEntities() << " held, "
            << link.writer.trackedEntities() << " tracked";
      }
      if (rng() % 97 == 0) {
        link.writer.flush();
        (void)link.sink->take();  // the connection broke: what was in flight is lost
        link.connect();           // a new subscription starts with a snapshot
        ASSERT_TRUE(link.same()) << "after reconnecting, round " << round;
        ASSERT_TRUE(link.sameSize()) << "after reconnecting, round " << round;
      }
    }
  }
}

// A writer finds its record of an entity through the entity's notifiees,
// among those of other writers. A leaf frozen while followed loses its
// notifiees: each writer still finds its record, for a new subscriber's
// snapshot and when the leaf leaves the tree.
TEST(AttrLog, TwoWritersFollowALeafFrozenOnTheWay) {
  Link link;
  link.connect();
  Kel::Ptr<Root> const otherReplica = Sample::rootFactory("root");
  Kel::LogReader otherReader(*otherReplica);
  Kel::LogWriter other(*link.source);
  auto otherSink = std::make_unique<Kel::MemorySink>();
  Kel::MemorySink& otherBytes = *otherSink;
  other.subscriberNew(std::move(otherSink));
  auto const bothAgree = [&](std::size_t followed) {
    link.sync();
    other.flush();
    otherReader.bytesIs(otherBytes.take());
    EXPECT_EQ(link.writer.trackedEntities(), followed);
    EXPECT_EQ(other.trackedEntities(), followed);
    EXPECT_TRUE(link.same());
    EXPECT_TRUE(link.sameSize());
    EXPECT_EQ(Kel::browseText(*otherReplica), Kel::browseText(*link.source));
  };
  link.source->leafIs(3)->weightIs(2);
  link.sync();
  std::size_t const followed = link.writer.trackedEntities();
  bothAgree(followed);
  link.source->leaf(3)->frozenIs();
  link.connect();
  bothAgree(followed);
  link.source->leafDel(3);
  bothAgree(followed - 1);
}

// Through the read-only proxy reads pass and every write raises, the exact
// text for a plain attribute, changing nothing.
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
  bool isDefault = true;
  EXPECT_EQ(proxy.attributeOp(&isDefault, count, Kel::attrOpIsDefault), Kel::attrDone);
  EXPECT_FALSE(isDefault);
  EXPECT_EQ(errorOf<Kel::ReadOnlyProxyException>(
                [&] { proxy.attributeOp(nullptr, count, Kel::attrOpWrite, &value); }),
            "Attribute Rsvp::Sample::Root::count is read-only through this proxy");
  Kel::KelAttr const* leaf = Root::kelType.attr("leaf");
  EXPECT_THROW(proxy.attributeOp(nullptr, leaf, Kel::attrOpDelAll), Kel::ReadOnlyProxyException);
  std::unique_ptr<Kel::GenericIter> it;
  ASSERT_EQ(proxy.attributeOp(&it, leaf, Kel::attrOpIterate), Kel::attrDone);
  EXPECT_THROW(it->delCurrent(), Kel::ReadOnlyProxyException);
  EXPECT_EQ(link.replica->leafSize(), 1u) << "nothing was changed";
}

// The checksum is CRC-32: its check value, and every length and alignment
// against the bit-by-bit definition (which the check value pins).
TEST(AttrLog, ChecksumIsCrc32) {
  EXPECT_EQ(Kel::crc32("123456789"), 0xcbf43926u);
  auto bitwise = [](std::string_view bytes) {
    Kel::U32 c = 0xffffffffu;
    for (unsigned char b : bytes) {
      c ^= b;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xedb88320u ^ (c >> 1) : c >> 1;
    }
    return c ^ 0xffffffffu;
  };
  std::mt19937 rng(5);
  std::string buffer(300, '\0');  // the folding by 64 and 16 bytes, and the tails
  for (char& ch : buffer) ch = static_cast<char>(rng());
  for (std::size_t from = 0; from < 8; ++from) {
    for (std::size_t length = 0; from + length <= buffer.size(); ++length) {
      std::string_view const part = std::string_view(buffer).substr(from, length);
      ASSERT_EQ(Kel::crc32(part), bitwise(part)) << from << "+" << length;
    }
  }
}

// A queue whose numbers have wrapped past 4294967295 replicates, by snapshot
// and by changes.
TEST(AttrLog, QueueNumbersThatWrappedStillReplicate) {
  Link link;
  Kel::U32 const start = 0xfffffffeu;
  Sample::Point const first(7, 7);
  ASSERT_EQ(TestSupport::attrOp(*link.source, "points", Kel::attrOpEnqAt, nullptr, &start, &first),
            Kel::attrDone);
  EXPECT_EQ(link.source->newPoints(1, 1), 0xffffffffu);
  EXPECT_EQ(link.source->newPoints(2, 2), 0u);
  link.connect();
  EXPECT_TRUE(link.reader.inSync());
  EXPECT_TRUE(link.same()) << Kel::browseText(*link.replica);
  link.source->pointsDeq();
  link.source->newPoints(3, 3);
  EXPECT_TRUE(link.source->pointsDel(0));
  link.sync();
  EXPECT_TRUE(link.same()) << Kel::browseText(*link.replica);
  EXPECT_TRUE(link.replica->pointsHas(1));
  // A queue of entities whose last entry was removed: a snapshot carries on
  // its numbering, which its entries no longer tell.
  for (Kel::U32 k = 0; k < 3; ++k) link.source->newEvents(k);
  EXPECT_TRUE(link.source->eventsDel(link.source->eventsMetadata().next() - 1));
  link.connect();
  EXPECT_EQ(link.replica->eventsMetadata(), link.source->eventsMetadata());
  link.source->newEvents(9);
  link.sync();
  EXPECT_EQ(link.replica->eventsMetadata(), link.source->eventsMetadata());
}

// A stream that makes an entity refer to itself cannot keep it alive, held
// in the tree as a shared entity or as an owned member: the reader breaks
// the cycle once nothing else holds it, whether the stream releases it, a
// new snapshot leaves it out, or replica and reader let go.
TEST(AttrLog, EntityCycleFromTheStreamIsFreed) {
  struct Holder {
    char const* what;
    std::string announce;  // the record that puts leaf 50 in the tree
    std::string drop;      // the record that takes it out
    Kel::Ptr<Sample::Leaf const> (*leaf)(Root const&);
  };
  Holder const holders[] = {
      {"shared",
       Hand().record(1, logId("shared"), enc(Kel::U32{50}, Kel::U8{1}, Kel::U32{6})).payload,
       Hand().record(1, logId("shared"), enc(Kel::U32{0}, Kel::U8{0})).payload,
       [](Root const& r) { return r.shared(); }},
      {"owned", Hand().record(1, logId("leaf"), enc(Kel::U32{6}, Kel::U32{50})).payload,
       Hand().record(1, -logId("leaf"), enc(Kel::U32{6})).payload,
       [](Root const& r) { return Kel::Ptr<Sample::Leaf const>(r.leaf(6)); }},
  };
  std::pair<char const*, void (*)(std::unique_ptr<Link>&, Holder const&)> const endings[] = {
      {"released by the stream",
       [](std::unique_ptr<Link>& l, Holder const& holder) {
         Hand h;
         h.payload = holder.drop;
         h.record(50, 0, "");
         l->reader.bytesIs(h.frame(4));
         l->reader.reset();
       }},
      {"left out of a new snapshot",
       [](std::unique_ptr<Link>& l, Holder const&) {
         l->source->countIs(1);
         l->connect();
       }},
      {"the replica and the reader let go",
       [](std::unique_ptr<Link>& l, Holder const&) {
         l->replica = nullptr;
         l.reset();
       }},
  };
  for (auto const& holder : holders) {
    for (auto const& [ending, end] : endings) {
      auto link = std::make_unique<Link>();
      link->connect();
      Hand h;
      h.payload = holder.announce;
      h.record(50, logId("next", Sample::Leaf::kelType), enc(Kel::U32{50}, Kel::U8{0}));
      link->reader.bytesIs(h.frame(3));
      Kel::Ptr<Sample::Leaf const> leaf = holder.leaf(*link->replica);
      ASSERT_TRUE(leaf) << holder.what;
      ASSERT_EQ(leaf.get(), leaf->next().get()) << holder.what << ": the leaf refers to itself";
      Sample::Leaf::NotifieeConst watch(leaf.get());
      leaf = nullptr;
      end(link, holder);
      EXPECT_EQ(watch.notifierBase(), nullptr)
          << holder.what << ", " << ending << ": the leaf was not freed";
    }
  }
}

// Mounting by the entity's own member: numbered streams share one writer, a
// number used again starts afresh with a snapshot, removing the last stream
// unmounts, and a mask it cannot honour changes nothing.
TEST(AttrLog, MountedByItsOwnMember) {
  struct Follower {  // a replica fed by the sink it hands out
    Kel::Ptr<Root> replica = Sample::rootFactory("root");
    Kel::LogReader reader{*replica};
    Kel::MemorySink* sink = nullptr;
    std::unique_ptr<Kel::LogSink> newSink() {
      auto s = std::make_unique<Kel::MemorySink>();
      sink = s.get();
      return s;
    }
    void deliver() { reader.bytesIs(sink->take()); }
  } a, b, c;
  auto const source = Sample::rootFactory("root");
  EXPECT_EQ(source->kelNboAttrLogSa(), nullptr);
  EXPECT_EQ(errorOf<Kel::RangeException>(
                [&] { source->kelNboAttrLogSaIs(0x10, 1, std::make_unique<Kel::MemorySink>()); }),
            "Unsupported attribute-log observer mask 0x10");
  EXPECT_EQ(errorOf<Kel::RangeException>(
                [&] { source->kelNboAttrLogSaIs(Kel::logObserveAll, 1, nullptr); }),
            "Null attribute-log stream");
  EXPECT_EQ(source->kelNboAttrLogSa(), nullptr) << "a refused call mounted";

  source->countIs(5);
  Kel::LogWriter* const writer = source->kelNboAttrLogSaIs(Kel::logObserveAll, 1, a.newSink());
  ASSERT_NE(writer, nullptr);
  EXPECT_EQ(source->kelNboAttrLogSaIs(Kel::logObserveAll, 2, b.newSink()), writer);
  EXPECT_EQ(writer->subscribers(), 2u);
  source->countIs(6);
  writer->flush();
  a.deliver();
  b.deliver();
  EXPECT_EQ(a.replica->count(), 6u);
  EXPECT_EQ(b.replica->count(), 6u);

  // Stream 1 again: the old sink goes, the new one starts with a snapshot.
  EXPECT_EQ(source->kelNboAttrLogSaIs(Kel::logObserveAll, 1, c.newSink()), writer);
  EXPECT_EQ(writer->subscribers(), 2u);
  c.deliver();
  EXPECT_TRUE(c.reader.inSync());
  EXPECT_EQ(c.replica->count(), 6u);

  EXPECT_EQ(source->kelNboAttrLogSaIs(Kel::logObserveNone, 2, nullptr), writer);
  EXPECT_EQ(source->kelNboAttrLogSaIs(Kel::logObserveNone, 7, nullptr), writer) << "unknown number";
  EXPECT_EQ(source->kelNboAttrLogSaIs(Kel::logObserveNone, 1, nullptr), nullptr);
  EXPECT_EQ(source->kelNboAttrLogSa(), nullptr);
}

// A dedup table held as a child made without a name has no logged
// attributes: the replica makes an empty table of its own. Deduplicated
// values, as attributes and as keys, travel as their identifiers, a null
// handle as itself.
TEST(AttrLog, DedupTablesAndDedupedValuesReplicate) {
  TestSupport::LogLink<Sample::DedupHolder> link(Sample::dedupHolderFactory("holder"),
                                                 Sample::dedupHolderFactory("holder"));
  link.connect();
  auto const table = link.source->sessionIdDedupTableIs();
  RsvpSessionIdDeduped const session(table->dedupFromValue(spId(1).sessionId()));
  RsvpNeighborIdDeduped const neighbor(
      rsvpNeighborIdHandleFactory(RsvpNeighborId(Lumo::IpGenAddr("10.0.0.9"))));
  link.source->pathIdIs(RsvpPathIdDeduped(rsvpPathIdHandleFactory(RsvpPathId(3))));
  link.source->neighborIs(neighbor, session);
  link.source->neighborIs(RsvpNeighborIdDeduped(), RsvpSessionIdDeduped());
  link.sync();
  EXPECT_TRUE(link.same()) << Kel::browseText(*link.replica);
  ASSERT_NE(link.replica->sessionIdDedupTable(), nullptr);
  EXPECT_NE(link.replica->sessionIdDedupTable()->dedupTable(), table->dedupTable());
  EXPECT_EQ(link.replica->sessionIdDedupTable()->dedupTable()->size(), 0u);
  EXPECT_EQ(link.replica->pathId().stringValue(), "<lspId=3>");
  EXPECT_EQ(link.replica->neighbor(neighbor), session);
  EXPECT_EQ(link.replica->neighbor(RsvpNeighborIdDeduped()).stringValue(), "NOHANDLE");
}

// A snapshot or a flush larger than a frame's part goes as several frames,
// cut at record boundaries; the replica ends the same either way. A large
// snapshot feeds a backlogged sink as it goes.
TEST(AttrLog, LargePayloadsGoAsSeveralFrames) {
  Link link;
  link.writer.framePartBytesIs(512);
  for (Kel::U32 i = 0; i < 200; ++i) link.source->weightsIs(spId(i + 1), i);
  // Children whose records fall in later parts than their announcement.
  for (Kel::U32 i = 0; i < 40; ++i) link.source->leafIs(i)->weightIs(i);
  link.connect();
  EXPECT_GT(link.reader.frames(), 3u) << "the snapshot went whole";
  EXPECT_TRUE(link.reader.inSync());
  EXPECT_TRUE(link.same());
  for (Kel::U32 i = 0; i < 200; ++i) link.source->weightsIs(spId(i + 1), i + 7);
  link.source->leafIs(3)->weightIs(9);
  Kel::U64 const before = link.reader.frames();
  link.sync();
  EXPECT_GT(link.reader.frames(), before + 2);
  EXPECT_TRUE(link.same());

  // A part of a snapshot that comes without its start is refused.
  Kel::String bytes;
  Kel::logFrame(bytes, Kel::logFrameSnapshotMore, link.reader.frames() + 1, {});
  EXPECT_EQ(errorOf<Kel::LogException>([&] { link.reader.bytesIs(bytes); }),
            "Snapshot part without its start in the attribute log");

  // Unless told otherwise, a snapshot goes in parts of at most
  // logSnapshotPartBytes, and a flush of the same size in one frame.
  auto const source = Sample::rootFactory("root");
  for (Kel::U32 i = 0; i < 80000; ++i) source->leafIs(i)->weightIs(i);
  Kel::LogWriter writer(*source);
  auto owned = std::make_unique<Kel::MemorySink>();
  Kel::MemorySink& sink = *owned;
  writer.subscriberNew(std::move(owned));
  std::string const snapshot = sink.take();
  std::vector<std::string_view> const parts = payloads(snapshot);
  std::size_t total = 0;
  for (std::string_view const part : parts) {
    EXPECT_LE(part.size(), Kel::logSnapshotPartBytes);
    total += part.size();
  }
  EXPECT_LE(parts.size(), 2 * total / Kel::logSnapshotPartBytes + 2)
      << "parts are half full or more";
  ASSERT_GT(total, 2 * Kel::logSnapshotPartBytes);
  for (Kel::U32 i = 0; i < 80000; ++i) source->leafIs(i)->weightIs(i + 1);
  writer.flush();
  std::string const flushed = sink.take();
  ASSERT_EQ(payloads(flushed).size(), 1u);
  EXPECT_GT(payloads(flushed).front().size(), Kel::logSnapshotPartBytes);

  // While it writes a large snapshot, the writer asks a sink holding bytes
  // its descriptor did not take to pass them on every 64 KiB, not only at the
  // end, so that a replica busy with one part is fed the next as soon as it
  // reads. (The writer looks at its sink between two entities' records.)
  struct Backlogged : Kel::LogSink {
    std::size_t held = 0;
    int retries = 0;
    bool write(std::string_view bytes) override {
      held += bytes.size();
      return true;
    }
    bool flush() override {
      ++retries;
      return true;
    }
    [[nodiscard]] bool pending() const override { return held > 0; }
  };
  writer.framePartBytesIs(512u << 10);
  auto backlogged = std::make_unique<Backlogged>();
  Backlogged const& seen = *backlogged;
  writer.subscriberNew(std::move(backlogged));
  ASSERT_GT(seen.held, std::size_t{2} << 20);
  // About one retry for each 64 KiB written after the first part went out
  // (none before: nothing waits); a retry per part would give an eighth.
  EXPECT_GE(seen.retries, static_cast<int>((seen.held - (512u << 10)) / (64u << 10) * 3 / 4));
}

// A descriptor that takes little at a time: whatever mix of small writes,
// queued bytes and parts of a megabyte or more, the reader gets exactly
// the bytes written, in order, and the sink's backlog says what waits.
TEST(AttrLog, FdSinkBacklogKeepsEveryByteInOrder) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
  std::mt19937 rng(7);
  Kel::FdSink sink(fds[0]);
  std::string sent, received;
  auto drain = [&](std::size_t most) {
    char buf[65536];
    while (most != 0) {
      ssize_t const n = ::read(fds[1], buf, std::min(most, sizeof buf));
      if (n <= 0) break;
      received.append(buf, static_cast<std::size_t>(n));
      most -= static_cast<std::size_t>(n);
    }
  };
  for (int step = 0; step < 200; ++step) {
    std::size_t const size = rng() % 8 == 0 ? (1u << 20) + rng() % (1u << 20) : rng() % 3000;
    std::string bytes(size, '\0');
    // Each byte tells its place: a part sent twice, early or not at all
    // shows.
    for (std::size_t i = 0; i < size; ++i)
      bytes[i] = static_cast<char>(static_cast<Kel::U32>((sent.size() + i) * 2654435761u) >> 24);
    sent += bytes;
    if (rng() % 4 == 0) {
      sink.append(bytes);
    } else {
      ASSERT_TRUE(sink.write(bytes));
    }
    if (rng() % 3 == 0) drain(rng() % (2u << 20));
    if (rng() % 5 == 0) {
      ASSERT_TRUE(sink.flush());
    }
    // The rest of what was sent sits in the socket's buffer.
    ASSERT_LE(received.size() + sink.backlog(), sent.size());
    ASSERT_EQ(sink.pending(), sink.backlog() != 0);
  }
  while (sink.pending()) {
    drain(~std::size_t{0});
    ASSERT_TRUE(sink.flush());
  }
  drain(~std::size_t{0});
  EXPECT_EQ(received.size(), sent.size());
  EXPECT_TRUE(received == sent) << "the bytes arrived out of order";
  ::close(fds[0]);
  ::close(fds[1]);
}

// A paced sink keeps its backlog under the bound while a slow reader
// takes the bytes, and all arrive in order; a reader that stops reading
// holds the writer up once for the patience, and again only after the
// backlog emptied.
TEST(AttrLog, FdSinkPacesItsWriterUntilPatienceRunsOut) {
  using namespace std::chrono;
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
  Kel::FdSink sink(fds[0]);
  constexpr std::size_t kBound = 256u << 10;
  sink.paceIs(kBound, seconds(30));
  std::string sent, received;
  std::atomic<std::size_t> total{~std::size_t{0}};  // known once all is written
  std::thread reader([&] {
    char buf[16384];
    while (received.size() < total) {
      ssize_t const n = ::read(fds[1], buf, sizeof buf);
      if (n > 0) received.append(buf, static_cast<std::size_t>(n));
      std::this_thread::sleep_for(microseconds(50));
    }
  });
  for (int i = 0; i < 64; ++i) {
    std::string bytes(100000 + i, static_cast<char>(i));
    sent += bytes;
    // (EXPECT: the reader thread must be joined.)
    EXPECT_TRUE(sink.write(bytes));
    EXPECT_LE(sink.backlog(), kBound);
  }
  while (sink.pending() && sink.flush()) {
  }
  total = sent.size();
  reader.join();
  EXPECT_TRUE(received == sent) << "the bytes arrived out of order";

  // Nobody reads now.
  sink.paceIs(64u << 10, milliseconds(50));
  auto const timed = [&](std::size_t size) {
    auto const start = steady_clock::now();
    EXPECT_TRUE(sink.write(std::string(size, 'x')));
    return steady_clock::now() - start;
  };
  EXPECT_GE(timed(4u << 20), milliseconds(50));
  EXPECT_GT(sink.backlog(), std::size_t{64} << 10);
  EXPECT_LT(timed(1u << 20), milliseconds(40)) << "waited again before catching up";
  char buf[65536];
  while (sink.pending()) {
    while (::read(fds[1], buf, sizeof buf) > 0) {
    }
    ASSERT_TRUE(sink.flush());
  }
  EXPECT_GE(timed(4u << 20), milliseconds(50)) << "caught up, the patience is whole again";
  ::close(fds[0]);
  ::close(fds[1]);
}

// A socket path of this test process, removed before and after.
struct SocketPath {
  explicit SocketPath(char const* name)
      : path("/tmp/kel-" + std::to_string(::getpid()) + "-" + name + ".sock") {
    ::unlink(path.c_str());
  }
  ~SocketPath() { ::unlink(path.c_str()); }
  std::string path;
};

// Serves until `replica` has read everything, then answers whether it equals
// `source`.
std::string followed(Kel::LogPublisher& publisher, Kel::LogReplica& replica, Root const& source,
                     Root const& copy) {
  publisher.serve();
  while (replica.readAvailable() || publisher.pending()) publisher.serve();
  return Kel::replicaDifference(source, copy);
}

// Two replicas attach at different times and follow; one leaves, the other
// keeps following; the publisher going away ends the last one with one line,
// and so is every other error.
TEST(LogSocket, ReplicasAttachFollowAndLeave) {
  SocketPath const at("follow");
  auto const source = Sample::rootFactory("root");
  auto const other = Sample::rootFactory("other");
  source->countIs(3);
  auto publisher = std::make_unique<Kel::LogPublisher>(at.path);
  publisher->treeIs(1, *source);
  publisher->treeIs(2, *other);

  auto const copyA = Sample::rootFactory("root");
  auto replicaA = std::make_unique<Kel::LogReplica>(at.path);
  replicaA->treeIs(1, *copyA);
  publisher->serve();
  replicaA->inSyncAwait(5000);
  EXPECT_EQ(Kel::replicaDifference(*source, *copyA), "");
  source->labelIs("after A");
  source->leafIs(4)->weightIs(40);
  EXPECT_EQ(followed(*publisher, *replicaA, *source, *copyA), "");

  auto const copyB = Sample::rootFactory("root");
  Kel::LogReplica replicaB(at.path);
  replicaB.treeIs(1, *copyB);
  publisher->serve();
  replicaB.inSyncAwait(5000);
  EXPECT_EQ(publisher->replicas(), 2u);
  source->countIs(4);
  EXPECT_EQ(followed(*publisher, *replicaA, *source, *copyA), "");
  EXPECT_EQ(followed(*publisher, replicaB, *source, *copyB), "");

  replicaA.reset();
  source->labelIs("after A left");
  source->leafDel(4);
  publisher->serve();
  EXPECT_EQ(publisher->replicas(), 1u) << "the departed replica is dropped";
  EXPECT_EQ(followed(*publisher, replicaB, *source, *copyB), "");
  EXPECT_EQ(copyB->label(), "after A left");

  publisher.reset();
  EXPECT_EQ(errorOf<Kel::Exception>([&] { replicaB.readAvailable(); }),
            "Publisher at '" + at.path + "' went away");
  EXPECT_EQ(source->kelNboAttrLogSa(), nullptr) << "the publisher unmounted the tree";

  // Errors are one clear line.
  EXPECT_EQ(errorOf<Kel::Exception>([&] { Kel::LogReplica r(at.path); }),
            "No publisher at '" + at.path + "'");
  std::string const longPath(200, 'x');
  EXPECT_EQ(errorOf<Kel::Exception>([&] { Kel::LogPublisher p(longPath); }),
            "Publisher socket path '" + longPath + "' is too long (at most 107 bytes)");
  {
    // A socket file whose process died is replaced.
    int const fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strcpy(a.sun_path, at.path.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ::close(fd);
  }
  publisher = std::make_unique<Kel::LogPublisher>(at.path);
  publisher->treeIs(1, *source);
  EXPECT_EQ(errorOf<Kel::Exception>([&] { Kel::LogPublisher p(at.path); }),
            "Publisher socket path '" + at.path + "' is in use by a live publisher");
  EXPECT_EQ(errorOf<Kel::Exception>([&] { publisher->treeIs(1, *source); }),
            "Tree 1 is already published");
  auto const status = Rsvp::rsvpStatusFactory("status");
  std::tuple<Kel::U32, Kel::Entity*, std::string> const cases[] = {
      {2, copyB.get(), "Publisher at '" + at.path + "' serves no tree 2"},
      {1, status.get(),
       "Publisher at '" + at.path + "': tree 1 is a Rsvp::Sample::Root, not a Rsvp::RsvpStatus"}};
  for (auto const& [tree, follows, error] : cases) {
    Kel::LogReplica replica(at.path);  // goes before the roots it follows
    replica.treeIs(tree, *follows);
    publisher->serve();
    EXPECT_EQ(errorOf<Kel::Exception>([&] { replica.inSyncAwait(5000); }), error);
  }
}

}  // namespace
