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

#include <functional>
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

// Every refused text raises its exact error and leaves the target as it was.
TEST(PlatformSeams, RefusedTextChangesNothing) {
  PathKey const key(IpGenAddr::ipv4(0x0a000001), IpGenAddr::ipv4(0x0a000002), 7);
  BwPriority const prio(3, 2);
  struct {
    std::function<void()> parse;
    std::string what;
  } const cases[] = {
      {[&] {
         PathKey v = key;
         try {
           v.stringValueIs("<src=10.0.0.1>_<dst=10.0.0.2>_<tunnelId=65536>");
         } catch (...) {
           EXPECT_EQ(v, key);
           throw;
         }
       },
       "Number 65536 out of range for U16 (attribute 'tunnelId')"},
      {[&] {
         PathKey v = key;
         try {
           v.stringValueIs("<src=10.0.0.300>_<dst=>_<tunnelId=1>");
         } catch (...) {
           EXPECT_EQ(v, key);
           throw;
         }
       },
       "Invalid IpGenAddr '10.0.0.300' (attribute 'src')"},
      {[&] { (void)Kel::strepToValue<PathKey>("<src=>_<dst=>_<tunnelId=1>x"); }, "Invalid PathKey"},
      {[&] {
         BwPriority v = prio;
         try {
           v.stringValueIs("<setup=8>_<hold=0>");
         } catch (...) {
           EXPECT_EQ(v, prio);
           throw;
         }
       },
       "BwPriority::setup < BwPriority::min or > BwPriority::max not allowed (attribute 'setup')"},
      {[&] {
         BwPriority v = prio;
         try {
           v.stringValueIs("<setup=0>_<hold=255>");
         } catch (...) {
           EXPECT_EQ(v, prio);
           throw;
         }
       },
       "BwPriority::hold < BwPriority::min or > BwPriority::max not allowed (attribute 'hold')"},
      {[&] { (void)Kel::strepToValue<BwPriority>("<setup=0>_<hold=256>"); },
       "Number 256 out of range for U8 (attribute 'hold')"},
      {[&] { (void)Kel::strepToValue<LfibViaSetKey>("18446744073709551616"); },
       "Number 18446744073709551616 out of range for U64"},
      {[&] { (void)Kel::strepToValue<TunnelId>("4294967296"); },
       "Number 4294967296 out of range for U32"},
      {[&] { (void)Kel::strepToValue<TunnelId>("-1"); }, "Expected a number but found '-1'"},
  };
  for (auto const& c : cases) {
    try {
      c.parse();
      ADD_FAILURE() << "accepted: " << c.what;
    } catch (Kel::RangeException const& e) {
      EXPECT_EQ(std::string(e.what()), c.what);
    }
  }
}

TEST(PlatformSeams, PriorityRangeAtEveryEntrance) {
  std::string const setupText =
      "BwPriority::setup < BwPriority::min or > BwPriority::max not allowed";
  std::string const holdText =
      "BwPriority::hold < BwPriority::min or > BwPriority::max not allowed";
  for (Kel::U8 v : {Kel::U8{8}, Kel::U8{255}}) {
    BwPriority p(7, 7);
    EXPECT_THROW(BwPriority(v, 0), Kel::RangeException);
    try {
      p.setupIs(v);
      ADD_FAILURE();
    } catch (Kel::RangeException const& e) {
      EXPECT_EQ(e.what(), setupText);
    }
    try {
      p.holdIs(v);
      ADD_FAILURE();
    } catch (Kel::RangeException const& e) {
      EXPECT_EQ(e.what(), holdText);
    }
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
    Kel::LogIn in(bytes);
    PathKey back;
    Kel::kelLogRead(in, &back);
    EXPECT_EQ(back, a);
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
    Kel::String bytes;
    Kel::LogOut out(bytes);
    Kel::kelLogWrite(out, LfibViaSetKey(id));
    Kel::kelLogWrite(out, TunnelId(static_cast<Kel::U32>(id)));
    Kel::LogIn in(bytes);
    LfibViaSetKey via;
    TunnelId tunnel;
    Kel::kelLogRead(in, &via);
    Kel::kelLogRead(in, &tunnel);
    EXPECT_TRUE(in.atEnd());
    EXPECT_EQ(via.id(), id);
    EXPECT_EQ(tunnel.index(), static_cast<Kel::U32>(id));
  }
}

}  // namespace
