// The identifiers: string forms and their parsing, exact error texts, the
// null test, ordering and hashes worked out by hand from the algorithm. Then
// their deduplicated twins through one typed suite: handles shared and
// released against a model, the null handle, text and log round trips.
#include <Rsvp/Rsvp.h>

#include <Kel/Reflect.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <random>
#include <tuple>
#include <vector>

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;

IpGenAddr ip(char const* text) { return IpGenAddr(text); }

RsvpSessionId session(char const* dst, Kel::U16 tunnel, char const* ext) {
  return RsvpSessionId(ip(dst), RsvpTunnelId(tunnel), ip(ext));
}

RsvpSpId spId(char const* dst, Kel::U16 tunnel, char const* ext, Kel::U32 lsp) {
  return RsvpSpId(session(dst, tunnel, ext), RsvpPathId(lsp));
}

template <class T>
std::string parseError(std::string_view text) {
  T v;
  try {
    v.stringValueIs(text);
  } catch (Kel::RangeException const& e) {
    EXPECT_TRUE(v == T()) << "a failed parse changed the value";
    return e.what();
  }
  return "no error";
}

// The exact forms of every identifier, which read back.
TEST(IdentifierForms, PrintAndParseBack) {
  RsvpSpId const sp = spId("10.0.0.2", 7, "10.0.0.1", 3);
  std::string const spText =
      "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>_<pathId=<lspId=3>>";
  std::ostringstream os;
  os << sp.pathId();
  std::pair<std::string, std::string> const forms[] = {
      {sp.stringValue(), spText},
      {valueToStrep(sp), spText},
      {RsvpTunnelId(7).stringValue(), "7"},
      {os.str(), "<lspId=3>"},
      {RsvpNeighborId(ip("10.0.0.2")).stringValue(), "10.0.0.2"},
      {RsvpNeighborId(ip("2001:db8::1")).stringValue(), "2001:db8::1"},
      {session("10.0.0.2", 7, "10.0.0.1").stringValue(),
       "<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>"},
      // The unspecified address prints as nothing.
      {RsvpSpId().stringValue(),
       "<sessionId=<dstIp=>_<tunnelId=0>_<extTunnelId=>>_<pathId=<lspId=65536>>"}};
  for (auto const& [got, want] : forms) EXPECT_EQ(got, want);
  EXPECT_EQ(strepToValue<RsvpSpId>(spText), sp);
  // An LSP id's text keeps the low sixteen bits of the number, sign and all.
  std::pair<char const*, Kel::U32> const lspIds[] = {
      {"<lspId=65536>", 0},  {"<lspId=-1>", 65535}, {"<lspId=65535>", 65535},
      {"<lspId=131075>", 3}, {"<lspId=-65536>", 0}, {"<lspId=007>", 7}};
  for (auto const& [text, lspId] : lspIds) {
    RsvpPathId p;
    p.stringValueIs(text);
    EXPECT_EQ(p.lspId(), lspId) << text;
  }
}

// Bad text raises the exact error and leaves the value as it was, the
// default or another.
TEST(IdentifierForms, RejectedText) {
  struct {
    std::string (*parse)(std::string_view);
    char const* text;
    char const* error;
  } const cases[] = {
      {parseError<RsvpPathId>, "<lspId=3>x", "Invalid RsvpPathId"},
      {parseError<RsvpPathId>, "<lspId=3", "Expected '>' but found end of text"},
      {parseError<RsvpPathId>, "<lspid=3>", "Expected '<lspId=' but found '<lspid=3>'"},
      {parseError<RsvpPathId>, "<lspId=>", "Expected a number but found '>'"},
      {parseError<RsvpPathId>, "<lspId=99999999999999999999>",
       "Number 99999999999999999999 out of range for S64"},
      {parseError<RsvpTunnelId>, "7 ", "Invalid RsvpTunnelId"},
      {parseError<RsvpTunnelId>, "65536", "Number 65536 out of range for U16 (attribute 'value')"},
      {parseError<RsvpNeighborId>, "10.0.0.2>", "Invalid RsvpNeighborId"},
      {parseError<RsvpNeighborId>, "10.0.0.256", "Invalid IpGenAddr '10.0.0.256'"},
      {parseError<RsvpSessionId>, "<dstIp=10.0.0.2>_<tunnelId=70000>_<extTunnelId=10.0.0.1>",
       "Number 70000 out of range for U16 (attribute 'value')"},
      {parseError<RsvpSessionId>, "<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>",
       "Invalid RsvpSessionId"},
      {parseError<RsvpSpId>,
       "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>_<pathId=<lspId=3>>>",
       "Invalid RsvpSpId"},
      {parseError<RsvpSpId>, "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>>",
       "Expected '>_<extTunnelId=' but found '>>'"},
      {parseError<RsvpSpId>, "", "Expected '<sessionId=' but found end of text"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.parse(c.text), c.error) << c.text;
  RsvpSpId const before = spId("10.0.0.2", 7, "10.0.0.1", 3);
  RsvpSpId sp = before;
  EXPECT_THROW(sp.stringValueIs(before.stringValue() + "x"), Kel::RangeException);
  EXPECT_EQ(sp, before);
}

// The default path id is the invalid one, 65536: null, last in order, and
// the bound that the setter and the constructor take (the range text is
// ReflectTest's and the dedup tests'); a state-path id is null only when all
// of it is the default.
TEST(SpId, NullTest) {
  RsvpPathId p(5);
  EXPECT_EQ(RsvpPathId().lspId(), RsvpPathId::invalidLspId());
  EXPECT_TRUE(!RsvpPathId());
  EXPECT_FALSE(!RsvpPathId(0));
  EXPECT_TRUE(RsvpPathId(RsvpPathId::maxLspId()) < RsvpPathId());
  EXPECT_THROW(p.lspIdIs(65537), Kel::RangeException);
  EXPECT_THROW(RsvpPathId(65537), Kel::RangeException);
  EXPECT_EQ(p.lspId(), 5u);
  p.lspIdIs(65536);
  EXPECT_TRUE(!p);
  EXPECT_TRUE(!RsvpSpId());
  RsvpSpId sp;
  sp.pathIdIs(RsvpPathId(0));
  EXPECT_FALSE(!sp) << "LSP id 0 is a real path";
  RsvpSessionId s;
  s.tunnelIdIs(RsvpTunnelId(1));
  EXPECT_FALSE(!RsvpSpId(s, RsvpPathId()));
  EXPECT_FALSE(!RsvpSessionId(ip("0.0.0.0"), RsvpTunnelId(), IpGenAddr()))
      << "0.0.0.0 is not the unspecified address";
}

// Hashes worked out by hand from the one-at-a-time steps; addresses with the
// same bytes in either family hash alike, yet differ.
TEST(IdentifierHash, HandComputedValues) {
  EXPECT_EQ(RsvpTunnelId(7).hash(), 0x24f2c201u);
  EXPECT_EQ(RsvpPathId(3).hash(), 0x359a7badu);
  EXPECT_EQ(RsvpPathId().hash(), 0x20e9c0b3u);
  EXPECT_EQ(RsvpNeighborId(ip("10.0.0.2")).hash(), 0xb1eee5cau);
  EXPECT_EQ(session("10.0.0.2", 7, "10.0.0.1").hash(), 0x56096558u);
  EXPECT_EQ(spId("10.0.0.2", 7, "10.0.0.1", 3).hash(), 0xad695a2au);
  EXPECT_EQ(RsvpSpId().hash(), 0x59779954u);
  // The family never enters the hash: 10.0.0.2 sits in the first four of the
  // sixteen address bytes, so these hash alike, yet differ.
  RsvpSessionId const v4 = session("10.0.0.2", 7, "10.0.0.1");
  RsvpSessionId const v6 = session("a00:2::", 7, "a00:1::");
  EXPECT_EQ(v4.hash(), v6.hash());
  EXPECT_FALSE(v4 == v6);
  EXPECT_TRUE(v4 < v6 || v6 < v4);
}

// Random identifiers over few distinct parts, so that equal parts are common.
class RandomIds {
 public:
  explicit RandomIds(unsigned seed) : rng_(seed) {}

  IpGenAddr addr() {
    switch (rng_() % 4) {
      case 0: return IpGenAddr();
      case 1: return IpGenAddr::ipv4(rng_() % 3);
      case 2: return IpGenAddr::ipv4(static_cast<Kel::U32>(rng_()));
      default: {
        Lumo::Ip6Addr::Bytes a{};
        for (auto& b : a) b = static_cast<Kel::U8>(rng_() % 3 == 0 ? rng_() : 0);
        return IpGenAddr::ipv6(Lumo::Ip6Addr(a));
      }
    }
  }
  RsvpSpId spId() {
    RsvpSessionId const s(
        addr(), RsvpTunnelId(static_cast<Kel::U16>(rng_() % 4 ? rng_() % 3 : rng_())), addr());
    return RsvpSpId(s, RsvpPathId(rng_() % 4 ? rng_() % 3 : rng_() % 65536));
  }

 private:
  std::mt19937 rng_;
};

// Random ids read back from their text with their hash; equal ids hash
// alike; the order is the lexicographic order of the attributes, in
// declaration order (the addresses' own order is NetTypesTest's, the
// invalid path id's place the PathId test's).
TEST(IdentifierProperties, RandomRoundTripsAndStrictOrder) {
  RandomIds ids(1);
  for (int i = 0; i < 5000; ++i) {
    RsvpSpId const a = ids.spId();
    RsvpSpId const b = ids.spId();
    RsvpSpId back;
    back.stringValueIs(a.stringValue());
    ASSERT_EQ(back, a) << a.stringValue();
    ASSERT_EQ(back.hash(), a.hash());
    ASSERT_EQ(strepToValue<RsvpSessionId>(valueToStrep(a.sessionId())), a.sessionId());
    RsvpNeighborId const n(a.sessionId().dstIp());
    ASSERT_EQ(strepToValue<RsvpNeighborId>(n.stringValue()), n);
    auto const parts = [](RsvpSpId const& x) {
      return std::make_tuple(x.sessionId().dstIp(), x.sessionId().tunnelId().value(),
                             x.sessionId().extTunnelId(), x.pathId().lspId());
    };
    ASSERT_EQ(a < b, parts(a) < parts(b)) << a << " vs " << b;
    ASSERT_EQ(a == b, parts(a) == parts(b)) << a << " vs " << b;
    if (a == b) {
      ASSERT_EQ(a.hash(), b.hash());
    }
    // The id remembers the thread's last hash: asked in turns, each still
    // answers its own.
    auto const unremembered = [](RsvpSpId const& x) {
      Kel::OneAtATime h;
      h.addU32(x.sessionId().hash());
      h.addU32(x.pathId().hash());
      return h.finish();
    };
    ASSERT_EQ(b.hash(), unremembered(b));
    ASSERT_EQ(a.hash(), unremembered(a));
    ASSERT_EQ(a.hash(), unremembered(a));
    ASSERT_EQ(b.hash(), unremembered(b));
  }
}

// Each traits struct names one identifier's dedup machinery (DEDUP_TRAITS),
// draws distinct ids from a number, dedups from the attributes as a caller
// that has them apart would, and lists texts its deduped twin refuses.
#define DEDUP_TRAITS(Type, factory)                                                          \
  using Id = Type;                                                                           \
  using Deduped = Type##Deduped;                                                             \
  static constexpr char const* kName = #Type "Deduped";                                      \
  static Kel::TypeDesc const& desc() { return type##Type##Deduped; }                         \
  static Kel::Ptr<Type##DedupTableReal> table() { return factory##DedupTableRealFactory(); } \
  static Kel::Ptr<Type##Handle> handle(Id const& id) { return factory##HandleFactory(id); }

struct SessionIdDedup {
  DEDUP_TRAITS(RsvpSessionId, rsvpSessionId)
  static Id id(Kel::U32 i) {
    return Id(IpGenAddr::ipv4(0x0a000000u + i % 7), RsvpTunnelId(static_cast<Kel::U16>(i / 7)),
              IpGenAddr::ipv4(0x0a0000feu));
  }
  static auto fromAttrs(auto const& t, Id const& id) {
    return t.dedupFromAttrs(id.dstIp(), id.tunnelId(), id.extTunnelId());
  }
  static bool attrsAgree(Deduped const& d) {
    return d.dstIp() == d.value().dstIp() && d.tunnelId() == d.value().tunnelId() &&
           d.extTunnelId() == d.value().extTunnelId();
  }
  static constexpr char const* kBadTexts[] = {
      "<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>", "<dstIp=10.0.0.2>", "10.0.0.2", ""};
};

struct PathIdDedup {
  DEDUP_TRAITS(RsvpPathId, rsvpPathId)
  static Id id(Kel::U32 i) { return Id(i % 2 ? RsvpPathId::maxLspId() - i : i); }
  static auto fromAttrs(auto const& t, Id const& id) { return t.dedupFromAttrs(id.lspId()); }
  static bool attrsAgree(Deduped const& d) { return d.lspId() == d.value().lspId(); }
  static constexpr char const* kBadTexts[] = {"<lspId=3>x", "<lspId=3", "lspId=3", ""};
};

struct NeighborIdDedup {
  DEDUP_TRAITS(RsvpNeighborId, rsvpNeighborId)
  static Id id(Kel::U32 i) { return Id(IpGenAddr::ipv4(0x0a000001u + i)); }
  static auto fromAttrs(auto const& t, Id const& id) { return t.dedupFromAttrs(id.neighborIp()); }
  static bool attrsAgree(Deduped const& d) { return d.neighborIp() == d.value().neighborIp(); }
  static constexpr char const* kBadTexts[] = {"10.0.0.2>", "10.0.0.256", "<lspId=3>"};
};

template <class T>
class DedupedId : public testing::Test {};
using DedupTraits = testing::Types<SessionIdDedup, PathIdDedup, NeighborIdDedup>;
class DedupName {
 public:
  template <class T>
  static std::string GetName(int) {
    return T::kName;
  }
};
TYPED_TEST_SUITE(DedupedId, DedupTraits, DedupName);

// Equal ids dedup to one linked handle, by value or by attributes, and
// distinct ids (some hashing alike) to distinct handles, which leave the
// table with their last holder. (Sharing and release against a model are
// the base table's, in DedupTest.)
TYPED_TEST(DedupedId, OneHandlePerIdWhileHeld) {
  using T = TypeParam;
  auto const table = T::table();
  std::vector<typename T::Deduped> held;
  for (Kel::U32 i = 0; i < 30; ++i) {
    auto const got = table->dedupFromValue(T::id(i));
    ASSERT_EQ(got->value(), T::id(i));
    ASSERT_EQ(got->hash(), T::id(i).hash());
    ASSERT_EQ(got->dedupState(), Orv::DedupHandle::DedupState::linked);
    ASSERT_EQ(T::fromAttrs(*table, T::id(i)), got) << i;
    held.emplace_back(got);
  }
  EXPECT_EQ(table->dedupTable()->size(), 30u) << "distinct ids shared a handle";
  held.clear();
  EXPECT_EQ(table->dedupTable()->size(), 0u);
}

// The null handle stands for the default id: text, null test, equality,
// hash and order.
TYPED_TEST(DedupedId, NullHandleIsTheDefaultId) {
  using T = TypeParam;
  typename T::Deduped const null;
  typename T::Deduped const byDefault(T::handle(typename T::Id()));
  typename T::Deduped const real(T::handle(T::id(3)));
  EXPECT_EQ(null.handle(), nullptr);
  EXPECT_EQ(null.stringValue(), "NOHANDLE");
  EXPECT_EQ(valueToStrep(null), "NOHANDLE");
  EXPECT_EQ(byDefault.stringValue(), typename T::Id().stringValue());
  EXPECT_EQ(null.value(), typename T::Id());
  EXPECT_TRUE(!null);
  EXPECT_TRUE(!byDefault);
  EXPECT_FALSE(!real);
  EXPECT_TRUE(null == byDefault);
  EXPECT_EQ(null.hash(), byDefault.hash());
  EXPECT_EQ(null.hash(), typename T::Id().hash());
  EXPECT_FALSE(null == real);
  EXPECT_EQ(null < real, typename T::Id() < T::id(3));
  EXPECT_TRUE(T::attrsAgree(null));
  EXPECT_TRUE(T::attrsAgree(real));
}

// Text and the descriptor's text read back as the identifier itself reads
// its form (a default path id prints LSP id 65536 and reads back as 0); the
// attribute log gives back the very value. A parsed handle belongs to no table.
TYPED_TEST(DedupedId, RoundTrips) {
  using T = TypeParam;
  std::vector<typename T::Deduped> values{typename T::Deduped(),
                                          typename T::Deduped(T::handle(typename T::Id()))};
  for (Kel::U32 i = 0; i < 20; ++i) values.emplace_back(T::handle(T::id(i)));
  for (auto const& v : values) {
    typename T::Deduped const expected(
        v.handle() ? T::handle(strepToValue<typename T::Id>(v.stringValue())) : nullptr);
    typename T::Deduped back;
    back.stringValueIs(v.stringValue());
    EXPECT_EQ(back, expected);
    EXPECT_EQ(back.stringValue(), expected.stringValue());
    EXPECT_EQ(back.handle() == nullptr, v.handle() == nullptr);
    if (back.handle()) {
      EXPECT_EQ(back.handle()->dedupState(), Orv::DedupHandle::DedupState::detached);
    }
    Kel::GenericValue generic(T::desc());
    generic.strepIs(v.stringValue());
    EXPECT_EQ(generic.strep(), expected.stringValue());
    EXPECT_EQ(strepToValue<typename T::Deduped>(valueToStrep(v)), expected);
    std::string bytes;
    Kel::LogOut out(bytes);
    T::desc().ops()->logWrite(out, &v);
    Kel::LogIn in(bytes);
    typename T::Deduped logged;
    T::desc().ops()->logRead(in, &logged);
    EXPECT_TRUE(in.atEnd());
    EXPECT_EQ(logged, v);
    EXPECT_EQ(logged.stringValue(), v.stringValue());
  }
  Kel::LogIn bad(std::string_view("\x02"));
  typename T::Deduped kept(T::handle(T::id(1)));
  EXPECT_EQ(TestSupport::errorOf<Kel::RangeException>([&] { kelLogRead(bad, &kept); }),
            std::string("Invalid ") + T::kName + " in attribute log");
  EXPECT_EQ(kept.value(), T::id(1));
}

// Any bad text raises one error naming the type and leaves the value as it was.
TYPED_TEST(DedupedId, RejectedTextKeepsTheValue) {
  using T = TypeParam;
  std::vector<std::string> texts{"NOHANDLEx", "NOHANDLE ", " NOHANDLE", "nohandle",
                                 T::id(2).stringValue() + " "};
  texts.insert(texts.end(), std::begin(T::kBadTexts), std::end(T::kBadTexts));
  for (std::string const& text : texts) {
    typename T::Deduped v(T::handle(T::id(4)));
    auto const before = v.handle();
    EXPECT_EQ(TestSupport::errorOf<Kel::RangeException>([&] { v.stringValueIs(text); }),
              std::string("Invalid ") + T::kName)
        << text;
    EXPECT_EQ(v.handle(), before) << text;
  }
}

// Two tables pointed at one base table share handles; without a table each
// dedup makes its own handle, still equal by value.
TYPED_TEST(DedupedId, SharedTableAndNoTable) {
  using T = TypeParam;
  Orv::DedupHashTable shared;
  auto const a = T::table();
  auto const b = T::table();
  a->dedupTableIs(&shared);
  b->dedupTableIs(&shared);
  auto const h = a->dedupFromValue(T::id(5));
  EXPECT_EQ(b->dedupFromValue(T::id(5)), h);
  EXPECT_EQ(shared.size(), 1u);
  b->dedupTableIs(nullptr);
  EXPECT_EQ(b->dedupTable(), nullptr);
  auto const loose = b->dedupFromValue(T::id(5));
  EXPECT_NE(loose, h);
  EXPECT_EQ(loose->dedupState(), Orv::DedupHandle::DedupState::detached);
  EXPECT_TRUE(loose->frozen()) << "a handle that no table knows may still cross threads";
  EXPECT_EQ(typename T::Deduped(loose), typename T::Deduped(h));
  EXPECT_EQ(shared.size(), 1u);
}

// Casting a handle of another identifier type is fatal.
TEST(DedupedIdDeathTest, HandleOfAnotherTypeIsFatal) {
  Orv::DedupHashTable table;
  Kel::Ptr<Orv::DedupHandle> const path =
      table.dedup(Kel::Ptr<Orv::DedupHandle>(rsvpPathIdHandleFactory(RsvpPathId(3))));
  EXPECT_DEATH((void)RsvpSessionIdHandle::fromDedupHandle(path), "castHandle");
  EXPECT_EQ(RsvpPathIdHandle::fromDedupHandle(path)->value(), RsvpPathId(3));
  EXPECT_EQ(RsvpPathIdHandle::fromDedupHandle(nullptr), nullptr);
}

// Handles of several identifier types in one base table never meet: a path
// id and a session id that hash alike stay two handles. The abstract table
// is a plain entity; the operations are the real table's.
TEST(DedupedIds, TypesShareABaseTable) {
  auto const abstract = rsvpSessionIdDedupTableFactory();
  int attrs = 0;
  abstract->fwkType().forEachAttr([&](Kel::KelAttr const&) { ++attrs; });
  EXPECT_EQ(attrs, 0);
  EXPECT_EQ(dynamic_cast<RsvpSessionIdDedupTableReal*>(abstract.get()), nullptr);

  Orv::DedupHashTable shared;
  auto const sessions = rsvpSessionIdDedupTableRealFactory();
  auto const paths = rsvpPathIdDedupTableRealFactory();
  sessions->dedupTableIs(&shared);
  paths->dedupTableIs(&shared);
  auto const s = sessions->dedupFromValue(RsvpSessionId());
  auto const p = paths->dedupFromValue(RsvpPathId(0));
  EXPECT_EQ(shared.size(), 2u);
  EXPECT_EQ(paths->dedupFromValue(RsvpPathId(0)), p);
  EXPECT_EQ(sessions->dedupFromValue(RsvpSessionId()), s);
}

// Out-of-range attributes raise the setter's text and link nothing.
TEST(DedupedIds, OutOfRangeAttributesRaiseAndLinkNothing) {
  auto const paths = rsvpPathIdDedupTableRealFactory();
  EXPECT_EQ(TestSupport::errorOf<Kel::RangeException>([&] { (void)paths->dedupFromAttrs(65537u); }),
            "RsvpPathId::lspId < 0 or > RsvpPathId::invalidLspId not allowed");
  EXPECT_EQ(paths->dedupTable()->size(), 0u);
}

}  // namespace
