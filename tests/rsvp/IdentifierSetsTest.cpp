// The three identifier sets of the model (session, state-path and neighbour
// ids) through one typed suite against a model: which changes notify, and
// how often.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <algorithm>
#include <random>
#include <set>
#include <string_view>
#include <vector>

namespace {

using namespace Rsvp;
using Kel::U32;
using Lumo::IpGenAddr;

// Each traits struct names one set: its factory, its accessors, keys to draw
// from (key(), defined below) and a notifiee that logs the ids reported.
#define SET_TRAITS(Traits, SetType, KeyType, factory, attr, Attr)                  \
  struct Traits {                                                                  \
    using Set = SetType;                                                           \
    using Key = KeyType;                                                           \
    static constexpr std::string_view kName = #SetType;                            \
    static Kel::Ptr<Set> make(Kel::Name name) { return factory(std::move(name)); } \
    static Key key(U32 i);                                                         \
    static void add(Set& s, Key const& k) { s.attr##Is(k); }                       \
    static bool del(Set& s, Key const& k) { return s.attr##Del(k); }               \
    static void delAll(Set& s) { s.attr##DelAll(); }                               \
    static bool has(Set const& s, Key const& k) { return s.attr(k); }              \
    static std::size_t size(Set const& s) { return s.attr##Size(); }               \
    struct Log : Set::NotifieeConst {                                              \
      using Set::NotifieeConst::NotifieeConst;                                     \
      using Set::NotifieeConst::on##Attr;                                          \
      void on##Attr(Key const& k) override { keys.push_back(k); }                  \
      std::vector<Key> keys;                                                       \
    };                                                                             \
  }

SET_TRAITS(SessionIdSetTraits, RsvpSessionIdSet, RsvpSessionId, rsvpSessionIdSetFactory, sessionId,
           SessionId);
SET_TRAITS(SpIdSetTraits, RsvpSpIdSet, RsvpSpId, rsvpSpIdSetFactory, spId, SpId);
SET_TRAITS(NeighborIdSetTraits, RsvpNeighborIdSet, RsvpNeighborId, rsvpNeighborIdSetFactory,
           neighborId, NeighborId);

RsvpSessionId SessionIdSetTraits::key(U32 i) {
  return Key(IpGenAddr::ipv4(0x0a000000u + i % 5), RsvpTunnelId(static_cast<Kel::U16>(i / 5)),
             IpGenAddr::ipv4(0x0a0000feu));
}

RsvpSpId SpIdSetTraits::key(U32 i) {
  return Key(SessionIdSetTraits::key(i / 3),
             RsvpPathId(i % 3 == 2 ? RsvpPathId::maxLspId() : i % 3));
}

// Even numbers are IPv4 addresses; the odd number after each is the IPv6
// address with the same sixteen bytes, so the two hash alike.
RsvpNeighborId NeighborIdSetTraits::key(U32 i) {
  U32 const m = i / 2;
  if (i % 2 == 0) return Key(IpGenAddr::ipv4(0x0a000000u + m));
  Lumo::Ip6Addr::Bytes b{0x0a, static_cast<Kel::U8>(m >> 16), static_cast<Kel::U8>(m >> 8),
                         static_cast<Kel::U8>(m)};
  return Key(IpGenAddr::ipv6(Lumo::Ip6Addr(b)));
}

template <class T>
class IdentifierSet : public testing::Test {};

using SetTraits = testing::Types<SessionIdSetTraits, SpIdSetTraits, NeighborIdSetTraits>;

TYPED_TEST_SUITE(IdentifierSet, SetTraits, TestSupport::NamedByKName);

// Random adds, deletes and delete-alls against std::set: membership, size and
// the exact sequence of notifications. Adding a present id and deleting an
// absent one notify nobody (the latter answers false); delete-all reports
// each member once, and an empty set nobody.
TYPED_TEST(IdentifierSet, AgreesWithAModel) {
  using T = TypeParam;
  std::set<typename T::Key> keys;
  for (U32 i = 0; i < 40; ++i) keys.insert(T::key(i));
  ASSERT_EQ(keys.size(), 40u) << "the keys drawn from are distinct";
  std::mt19937 rng(41);
  auto set = T::make("set");
  typename T::Log log(set.get());
  std::set<typename T::Key> model;
  for (int step = 0; step < 4000; ++step) {
    SCOPED_TRACE(testing::Message() << "step " << step);
    typename T::Key const k = T::key(rng() % 40);
    U32 const op = rng() % 100;
    std::size_t const before = log.keys.size();
    std::vector<typename T::Key> expected;
    if (op == 0) {
      expected.assign(model.begin(), model.end());  // ascending, like the sorted log below
      model.clear();
      T::delAll(*set);
      std::sort(log.keys.begin() + static_cast<std::ptrdiff_t>(before), log.keys.end());
    } else if (op < 55) {
      if (model.insert(k).second) expected.push_back(k);
      T::add(*set, k);
    } else {
      bool const present = model.erase(k) == 1;
      if (present) expected.push_back(k);
      ASSERT_EQ(T::del(*set, k), present);
    }
    ASSERT_EQ(std::vector<typename T::Key>(log.keys.begin() + static_cast<std::ptrdiff_t>(before),
                                           log.keys.end()),
              expected);
    ASSERT_EQ(T::size(*set), model.size());
    ASSERT_EQ(T::has(*set, k), model.count(k) == 1);
  }
  for (U32 i = 0; i < 40; ++i) EXPECT_EQ(T::has(*set, T::key(i)), model.count(T::key(i)) == 1);
}

}  // namespace
