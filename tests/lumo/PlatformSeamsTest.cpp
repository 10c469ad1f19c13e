// The stand-ins for the platform's CSPF, MPLS, traffic-engineering and tunnel
// types: the errors of bad text and of out-of-range priorities (the value
// unchanged), the log decoder's checks, and order and hash against a tuple
// model. Text and log round trips are the shared value suites'.
#include <Cspf/PathKey.h>
#include <Kel/LogCodec.h>
#include <Mpls/LfibViaSetKey.h>
#include <TrafficEngineering/BwPriority.h>
#include <Tunnel/TunnelId.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Cspf::PathKey;
using Lumo::IpGenAddr;
using Mpls::LfibViaSetKey;
using TrafficEngineering::BwPriority;
using Tunnel::TunnelTable::TunnelId;

using TestSupport::errorOf;
using TestSupport::parseError;
using TestSupport::refusedText;

// Every refused text raises its exact error and leaves the target as it was;
// so does every other entrance of a priority.
TEST(PlatformSeams, RefusedTextAndPrioritiesChangeNothing) {
  PathKey const key(IpGenAddr::ipv4(0x0a000001), IpGenAddr::ipv4(0x0a000002), 7);
  BwPriority const prio(3, 2);
  std::pair<std::string, char const*> const cases[] = {
      {refusedText(key, "<src=10.0.0.1>_<dst=10.0.0.2>_<tunnelId=65536>"),
       "Number 65536 out of range for U16 (attribute 'tunnelId')"},
      {refusedText(key, "<src=10.0.0.300>_<dst=>_<tunnelId=1>"),
       "Invalid IpGenAddr '10.0.0.300' (attribute 'src')"},
      {parseError<PathKey>("<src=>_<dst=>_<tunnelId=1>x"), "Invalid PathKey"},
      {refusedText(prio, "<setup=8>_<hold=0>"),
       "BwPriority::setup < BwPriority::min or > BwPriority::max not allowed (attribute 'setup')"},
      {refusedText(prio, "<setup=0>_<hold=255>"),
       "BwPriority::hold < BwPriority::min or > BwPriority::max not allowed (attribute 'hold')"},
      {parseError<BwPriority>("<setup=0>_<hold=256>"),
       "Number 256 out of range for U8 (attribute 'hold')"},
      {parseError<LfibViaSetKey>("18446744073709551616"),
       "Number 18446744073709551616 out of range for U64"},
      {parseError<TunnelId>("4294967296"), "Number 4294967296 out of range for U32"},
      {parseError<TunnelId>("-1"), "Expected a number but found '-1'"},
  };
  for (auto const& [got, want] : cases) EXPECT_EQ(got, want);

  // A priority above 7 is refused by the constructor, both setters (with
  // their texts, the value kept) and the wire decoder, which also refuses a
  // short read.
  for (Kel::U8 v : {Kel::U8{8}, Kel::U8{255}}) {
    BwPriority p(7, 7);
    EXPECT_THROW(BwPriority(v, 0), Kel::RangeException);
    EXPECT_EQ(errorOf<Kel::RangeException>([&] { p.setupIs(v); }),
              "BwPriority::setup < BwPriority::min or > BwPriority::max not allowed");
    EXPECT_EQ(errorOf<Kel::RangeException>([&] { p.holdIs(v); }),
              "BwPriority::hold < BwPriority::min or > BwPriority::max not allowed");
    EXPECT_EQ(p, BwPriority(7, 7));
    Kel::U8 const bytes[] = {0, v};
    EXPECT_THROW((void)BwPriority::fromNetwork(bytes, 2), Kel::RangeException);
  }
  Kel::U8 const one[] = {1};
  EXPECT_THROW((void)BwPriority::fromNetwork(one, 1), Kel::RangeException);
}

// Random values against a tuple model: the order is the tuple's, equal values
// hash alike, and the log encoding reads back whole.
TEST(PlatformSeams, OrderHashAndLogFollowATupleModel) {
  std::mt19937 rng(5);
  std::vector<PathKey> keys;
  std::vector<BwPriority> prios;
  for (int i = 0; i < 300; ++i) {
    IpGenAddr const a = rng() % 4 ? IpGenAddr::ipv4(rng() % 4) : IpGenAddr("2001:db8::1");
    keys.emplace_back(a, IpGenAddr::ipv4(rng() % 3), static_cast<Kel::U16>(rng() % 3));
    prios.emplace_back(static_cast<Kel::U8>(rng() % 8), static_cast<Kel::U8>(rng() % 8));
  }
  auto const keyTuple = [](PathKey const& k) {
    return std::make_tuple(k.src().family(), k.src().stringValue(), k.dst().stringValue(),
                           k.tunnelId());
  };
  for (PathKey const& a : keys) {
    for (PathKey const& b : {keys[rng() % keys.size()], a}) {
      bool const modelEqual = keyTuple(a) == keyTuple(b);
      EXPECT_EQ(a == b, modelEqual);
      if (modelEqual) {
        EXPECT_EQ(a.hash(), b.hash());
      }
      EXPECT_FALSE(a < b && b < a);
      EXPECT_EQ(!(a < b) && !(b < a), modelEqual);
    }
    Kel::String bytes;
    Kel::LogOut out(bytes);
    Kel::kelLogWrite(out, a);
    EXPECT_EQ(bytes.size(), PathKey::wireSize);
    EXPECT_EQ(TestSupport::logRoundTrip(a), a);
  }
  for (BwPriority const& a : prios) {
    BwPriority const b = prios[rng() % prios.size()];
    EXPECT_EQ(a < b, std::make_pair(a.setup(), a.hold()) < std::make_pair(b.setup(), b.hold()));
    EXPECT_EQ(a == b, a.setup() == b.setup() && a.hold() == b.hold());
    if (a == b) {
      EXPECT_EQ(a.hash(), b.hash());
    }
  }
  for (Kel::U64 id : {Kel::U64{0}, Kel::U64{1} << 40 | 9, ~Kel::U64{0}}) {
    EXPECT_EQ(TestSupport::logRoundTrip(LfibViaSetKey(id)).id(), id);
    EXPECT_EQ(TestSupport::logRoundTrip(TunnelId(static_cast<Kel::U32>(id))).index(),
              static_cast<Kel::U32>(id));
  }
}

}  // namespace
