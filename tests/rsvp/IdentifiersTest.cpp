// The identifiers against a model of their parts: text, order, equality and
// the remembered hash (their exact forms, errors and hand-worked hashes are
// ValueFrameTest's). Then their deduplicated twins through one typed suite:
// handles shared and released, the null handle, text and log round trips.
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

// Random ids over few distinct parts, so that equal parts are common, read
// back from their text with their hash; the order is the lexicographic order
// of the attributes in declaration order, which a label request's id keeps;
// equal ids hash alike, and an id remembers the thread's last hash without
// answering another's (the addresses' own order is NetTypesTest's).
TEST(IdentifierProperties, RandomRoundTripsAndStrictOrder) {
  std::mt19937 rng(1);
  auto const addr = [&]() -> IpGenAddr {
    Lumo::Ip6Addr::Bytes v6{0x20, 0x01};
    v6[15] = static_cast<Kel::U8>(rng() % 3);
    switch (rng() % 4) {
      case 0: return IpGenAddr();
      case 1: return IpGenAddr::ipv4(rng() % 3);
      case 2: return IpGenAddr::ipv4(static_cast<Kel::U32>(rng()));
      default: return IpGenAddr::ipv6(Lumo::Ip6Addr(v6));
    }
  };
  auto const draw = [&] {
    auto const tunnel = static_cast<Kel::U16>(rng() % 4 ? rng() % 3 : rng());
    RsvpSessionId const s(addr(), RsvpTunnelId(tunnel), addr());
    return RsvpSpId(s, RsvpPathId(rng() % 4 ? rng() % 3 : rng() % 65537));
  };
  auto const parts = [](RsvpSpId const& x) {
    return std::make_tuple(x.sessionId().dstIp(), x.sessionId().tunnelId().value(),
                           x.sessionId().extTunnelId(), x.pathId().lspId());
  };
  auto const unremembered = [](RsvpSpId const& x) {
    Kel::OneAtATime h;
    h.addU32(x.sessionId().hash());
    h.addU32(x.pathId().hash());
    return h.finish();
  };
  for (int i = 0; i < 5000; ++i) {
    RsvpSpId const a = draw();
    RsvpSpId const b = draw();
    if (a.pathId().lspId() != RsvpPathId::invalidLspId()) {  // which never reads back
      ASSERT_EQ(strepToValue<RsvpSpId>(a.stringValue()), a) << a;
    }
    ASSERT_EQ(a < b, parts(a) < parts(b)) << a << " vs " << b;
    ASSERT_EQ(a == b, parts(a) == parts(b)) << a << " vs " << b;
    RsvpLabelRequestId const ra(a.sessionId(), a.pathId());
    RsvpLabelRequestId const rb(b.sessionId(), b.pathId());
    ASSERT_EQ(ra < rb, a < b) << a << " " << b;
    ASSERT_EQ(ra == rb, a == b) << a << " " << b;
    // Asked in turns, each still answers its own.
    ASSERT_EQ(b.hash(), unremembered(b));
    ASSERT_EQ(a.hash(), unremembered(a));
    ASSERT_EQ(a.hash(), unremembered(a));
    ASSERT_EQ(b.hash(), unremembered(b));
    if (a == b) {
      ASSERT_EQ(a.hash(), b.hash());
    }
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
TYPED_TEST_SUITE(DedupedId, DedupTraits, TestSupport::NamedByKName);

// Equal ids dedup to one linked handle, by value or by attributes, and
// distinct ids (some hashing alike) to distinct handles, which leave the
// table with their last holder. (Sharing and release against a model are
// the base table's, in DedupTest.) The null handle stands for the default
// id: text, null test, equality, hash and order.
TYPED_TEST(DedupedId, OneHandlePerIdWhileHeldAndNullForTheDefault) {
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

  typename T::Deduped const null;
  typename T::Deduped const byDefault(T::handle(typename T::Id()));
  typename T::Deduped const real(T::handle(T::id(3)));
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

// Text reads back as the identifier itself reads its form (a default path
// id prints LSP id 65536 and reads back as 0); the attribute log gives back
// the very value. A parsed handle belongs to no table. Any bad text raises
// one error naming the type and leaves the value as it was.
TYPED_TEST(DedupedId, RoundTripsAndRejectedTextKeepsTheValue) {
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
    EXPECT_EQ(back.handle() == nullptr, v.handle() == nullptr);
    if (back.handle()) {
      EXPECT_EQ(back.handle()->dedupState(), Orv::DedupHandle::DedupState::detached);
    }
    typename T::Deduped logged;
    TestSupport::logCopy(T::desc(), &v, &logged);
    EXPECT_EQ(logged, v);
    EXPECT_EQ(logged.stringValue(), v.stringValue());
  }
  Kel::LogIn bad(std::string_view("\x02"));
  typename T::Deduped kept(T::handle(T::id(1)));
  EXPECT_EQ(TestSupport::errorOf<Kel::RangeException>([&] { kelLogRead(bad, &kept); }),
            std::string("Invalid ") + T::kName + " in attribute log");
  EXPECT_EQ(kept.value(), T::id(1));

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
// id and a session id that hash alike stay two handles. Out-of-range
// attributes raise the setter's text and link nothing.
TEST(DedupedIds, TypesShareABaseTable) {
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
  EXPECT_EQ(TestSupport::errorOf<Kel::RangeException>([&] { (void)paths->dedupFromAttrs(65537u); }),
            "RsvpPathId::lspId < 0 or > RsvpPathId::invalidLspId not allowed");
  EXPECT_EQ(shared.size(), 2u);
}

}  // namespace
