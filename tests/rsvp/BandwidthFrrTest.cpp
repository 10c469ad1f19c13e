// Bandwidth policy and fast-reroute data: the metric's unchecked arithmetic
// and checked text, and the FRR table, keyed by a field of its values.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using namespace Rsvp;
using TestSupport::errorOf;
using TestSupport::refusedText;

std::string const kMetricRange = "BwMetric::value < BwMetric::min or > BwMetric::max not allowed";

BwMetric metric(Kel::U8 v) { return BwMetric(v); }

// Metric arithmetic wraps modulo 256 without a range check, binary and
// compound alike; the metric's text is range-checked, with exact texts,
// keeping the value.
TEST(BwMetric, ArithmeticWrapsAndTextIsRangeChecked) {
  std::tuple<Kel::U8, char, Kel::U8, Kel::U8> const cases[] = {// left, op, right, result
                                                               {7, '+', 1, 8},
                                                               {0, '-', 1, 255},
                                                               {7, '+', 7, 14},
                                                               {3, '-', 5, 254},
                                                               {5, '-', 5, 0}};
  for (auto const& [left, op, right, result] : cases) {
    BwMetric const a = metric(left);
    BwMetric const b = metric(right);
    BwMetric const viaBinary = op == '+' ? a + b : a - b;
    BwMetric compound = a;
    if (op == '+') {
      compound += b;
    } else {
      compound -= b;
    }
    EXPECT_EQ(viaBinary.value(), result) << int(left) << op << int(right);
    EXPECT_EQ(compound, viaBinary);
    EXPECT_EQ(a, metric(left)) << "the binary operators leave their operands alone";
  }
  EXPECT_EQ(metric(0) - metric(1) + metric(1), metric(0)) << "255 + 1 wraps to 0";

  for (std::string const text : {"0", "7"}) {
    BwMetric m = metric(3);
    m.stringValueIs(text);
    EXPECT_EQ(m.stringValue(), text);
  }
  std::pair<std::string, std::string> const refused[] = {
      {"8", kMetricRange},        {"-1", kMetricRange},
      {"255", kMetricRange},      {"4294967296", kMetricRange},
      {"3x", "Invalid BwMetric"}, {"", "Expected a number but found end of text"}};
  for (auto const& [text, what] : refused) EXPECT_EQ(refusedText(metric(3), text), what) << text;
  EXPECT_EQ(errorOf<Kel::RangeException>([] { (void)BwMetric(8); }), kMetricRange);
}

// The status built from the traffic-engineering statuses holds both; the
// factory alone holds neither. Deleting the setup status or the policy sets
// the reference to null with one notification, and a second delete none.
TEST(BwResvStatus, BuiltFromTheTeStatusesAndDeletesNotifyOnce) {
  auto const client = TrafficEngineering::bandwidthClientStatusFactory("client");
  auto const hold = TrafficEngineering::bandwidthHoldStatusFactory("hold");
  auto const bare = bwResvStatusFactory("bare");
  EXPECT_EQ(bare->clientStatus(), nullptr);
  EXPECT_EQ(bare->holdStatus(), nullptr);
  auto const status = BwResvStatus::fromTeStatus("bw", client, hold);
  EXPECT_EQ(status->name(), "bw");
  EXPECT_EQ(status->clientStatus(), client);
  EXPECT_EQ(status->holdStatus(), hold);
  status->setupStatusIs(hold);
  status->policyIs(bwReclaimPolicyFactory("policy"));
  TestSupport::Heard heard(status.get());
  for (int twice = 0; twice < 2; ++twice) {
    status->setupStatusDel();
    status->policyDel();
  }
  EXPECT_EQ(status->setupStatus(), nullptr);
  EXPECT_EQ(status->policy(), nullptr);
  EXPECT_EQ(heard.log, (std::vector<std::string>{"setupStatus", "policy"}));
}

// The FRR map answers a null entry when absent and notifies once per change.
TEST(RsvpFrr, SharedDataAnswersDefaultsAndNotifiesOncePerChange) {
  auto const data = rsvpFrrSharedDataFactory("frr");
  TestSupport::Heard heard(data.get());
  Cspf::PathKey const key(Lumo::IpGenAddr::ipv4(0x0a000001), Lumo::IpGenAddr::ipv4(0x0a000009), 4);
  std::string const changed = "pathKeyToNeighbor[" + Kel::valueToStrep(key) + "]";
  EXPECT_TRUE(!data->pathKeyToNeighbor(key));
  PathKeyToNeighborAndFrrInfo info(key, RsvpNeighborId(Lumo::IpGenAddr::ipv4(0x0a000002)), false);
  data->pathKeyToNeighborIs(info);
  info.neighborIdIs(RsvpNeighborId(Lumo::IpGenAddr::ipv4(0x0a000003)));
  info.nodeProtectionReqIs(true);
  data->pathKeyToNeighborIs(info);
  data->pathKeyToNeighborIs(info);  // the same entry again: no change
  EXPECT_EQ(heard.log, (std::vector<std::string>{changed, changed}));
  EXPECT_EQ(data->pathKeyToNeighborSize(), 1u);
  EXPECT_EQ(data->pathKeyToNeighbor(key), info);
  EXPECT_FALSE(!data->pathKeyToNeighbor(key));
  EXPECT_TRUE(data->pathKeyToNeighborDel(key));
  EXPECT_TRUE(!data->pathKeyToNeighbor(key));
  EXPECT_EQ(heard.log.size(), 3u);
}

}  // namespace
