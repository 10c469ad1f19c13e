// The configuration trees: a range, the operator's reset and default test,
// passwords through the secret codec (never read out through reflection),
// the tunnel tables, and both trees replicated through random operator
// changes.
#include <Rsvp/Rsvp.h>

#include <CipherkitLib/Codec.h>
#include <Kel/AttrLog.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace Rsvp;
using TestSupport::errorOf;

// A range whose lower bound is not 0 refuses both sides with its text and
// keeps the value.
TEST(Config, AuthSeqWindowSizeRange) {
  auto run = rsvpConfigFactory("config");
  for (Kel::U32 bad : {0u, 256u, 4000000000u}) {
    EXPECT_EQ(errorOf<Kel::RangeException>([&] { run->authSeqWindowSizeIs(bad); }),
              "RsvpConfig::authSeqWindowSize < 1 or > 255 not allowed");
    EXPECT_EQ(run->authSeqWindowSize(), 1u);
  }
  run->authSeqWindowSizeIs(255);
  run->authSeqWindowSizeIs(1);
  EXPECT_EQ(run->authSeqWindowSize(), 1u);
}

// One change of each kind the operator can make, each away from the default.
std::vector<std::pair<char const*, void (*)(RsvpCliConfig&)>> operatorChanges() {
  return {
      {"enabled", [](RsvpCliConfig& c) { c.enabledIs(true); }},
      {"refreshInterval", [](RsvpCliConfig& c) { c.refreshIntervalIs(45); }},
      {"refreshMethod", [](RsvpCliConfig& c) { c.refreshMethodIs(Cli::refreshExplicit); }},
      {"helloInterval", [](RsvpCliConfig& c) { c.helloIntervalIs(c.helloIntervalDisabled()); }},
      {"helloMultiplier", [](RsvpCliConfig& c) { c.helloMultiplierIs(7); }},
      {"authType", [](RsvpCliConfig& c) { c.authTypeIs(Cli::md5); }},
      {"authSeqWindowSize", [](RsvpCliConfig& c) { c.authSeqWindowSizeIs(1); }},
      {"encodedPassword", [](RsvpCliConfig& c) { c.encodedPasswordIs(1, "ck1:x"); }},
      {"activePasswordIndex", [](RsvpCliConfig& c) { c.activePasswordIndexIs(2); }},
      {"staticTunnelReq",
       [](RsvpCliConfig& c) {
         c.staticTunnelRequestCollIs("static")->staticTunnelReqIs({4, 1});
       }},
      {"frrMode", [](RsvpCliConfig& c) { c.frrModeIs(Cli::frrNodeProtection); }},
      {"reversionMode", [](RsvpCliConfig& c) { c.reversionModeIs(Cli::reversionLocal); }},
  };
}

// isDefault() sees each kind of change and reset() undoes each alone; all
// at once, reset() restores every default notifying in declaration order,
// and keeps the requests' collection, emptied.
TEST(CliConfig, ResetRestoresDefaultsInItsOrder) {
  for (auto const& [what, change] : operatorChanges()) {
    auto cli = rsvpCliConfigFactory("cli");
    ASSERT_TRUE(cli->isDefault());
    change(*cli);
    EXPECT_FALSE(cli->isDefault()) << what;
    cli->reset();
    EXPECT_TRUE(cli->isDefault()) << what << " after reset";
  }
  auto cli = rsvpCliConfigFactory("cli");
  cli->staticTunnelRequestCollIs("static");
  EXPECT_TRUE(cli->isDefault()) << "an empty collection of requests";
  for (auto const& [what, change] : operatorChanges()) change(*cli);
  cli->encodedPasswordIs(3, "ck1:y");
  auto const requests = cli->staticTunnelRequestColl();
  TestSupport::Heard heard(cli.get(), requests.get());
  cli->reset();
  EXPECT_EQ(heard.log, (std::vector<std::string>{
                           "enabled", "refreshInterval", "refreshMethod", "helloInterval",
                           "helloMultiplier", "authType", "authSeqWindowSize", "encodedPassword[1]",
                           "encodedPassword[3]", "activePasswordIndex",
                           "staticTunnelReq[" + valueToStrep(RsvpTunnelRequestId(4, 1)) + "]",
                           "frrMode", "reversionMode"}));
  EXPECT_TRUE(cli->isDefault());
  EXPECT_EQ(cli->staticTunnelRequestColl(), requests) << "the collection stays, emptied";
  heard.log.clear();
  cli->reset();
  EXPECT_TRUE(heard.log.empty()) << "a second reset changes nothing and tells nobody";
}

// The codec's state is the process's: each case provisions what it needs
// and the fixture takes the key away again.
class Passwords : public testing::Test {
 protected:
  void TearDown() override { CipherkitLib::keyDel(); }
  static Kel::String key(char fill) { return Kel::String(CipherkitLib::kKeyBytes, fill); }
};

// Every refusal takes the same road through the codec, whose texts the
// codec's own tests check; here they pass unchanged and change nothing.
TEST_F(Passwords, DecodedOnDemandNeverStoredAndCodecErrorsPassUnchanged) {
  CipherkitLib::keyIs(key('k'));
  auto cli = rsvpCliConfigFactory("cli");
  cli->encodedPasswordIs(1, CipherkitLib::doEncodeKey("s3cret"));
  cli->activePasswordIndexIs(1);
  EXPECT_EQ(cli->activePassword(), "s3cret");
  EXPECT_EQ(cli->clearPassword(1), "s3cret");
  std::string const before = Kel::browseText(*cli);
  EXPECT_EQ(before.find("s3cret"), std::string::npos) << "the browser never shows it";
  for (char const* secret : {"activePassword", "clearPassword"}) {
    Kel::GenericValue v(*RsvpCliConfig::kelType.attr(secret)->type);
    EXPECT_NE(TestSupport::attrOp(*cli, secret, Kel::attrOpRead, v.get()), Kel::attrDone)
        << secret << " read out through reflection";
  }
  auto const refusal = [&] {
    return errorOf<CipherkitLib::CodecException>([&] { (void)cli->activePassword(); });
  };
  CipherkitLib::keyIs(key('w'));
  EXPECT_EQ(refusal(), "Encoded secret does not verify (wrong key or altered text)");
  EXPECT_EQ(Kel::browseText(*cli), before);
  CipherkitLib::keyDel();
  EXPECT_EQ(refusal(), "Secret codec has no key");
  EXPECT_EQ(Kel::browseText(*cli), before);
  EXPECT_EQ(cli->clearPassword(9), "") << "an absent index never reaches the codec";
}

// The tunnel tables key requests by their own id without owning them, and
// keep origins apart. The request table's null-pointer text, stray quote
// and all, is checked here by name; the mechanism is EntityTest's.
TEST(TunnelTables, KeysAndOrigins) {
  auto table = rsvpTunnelRequestTableFactory(staticReqType);
  auto configs = rsvpTunnelConfigCollFactory("configs");
  EXPECT_EQ(errorOf<Kel::NullPointerException>([&] { table->tunnelReqIs(nullptr); }),
            "null _tunnelReq parameter to mutator for Rsvp::RsvpTunnelRequestTable::tunnelReq not "
            "allowed\"");
  Lumo::IpGenAddr const a("10.0.0.1");
  Lumo::IpGenAddr const b("10.0.0.9");
  auto const request = rsvpTunnelRequestFactory({7, 1}, a, b);
  table->tunnelReqIs(request);
  EXPECT_EQ(table->tunnelReq(RsvpTunnelRequestId(7, 1)), request) << "keyed by its own id";
  EXPECT_EQ(request->parent(), nullptr) << "not owned";

  RsvpSpId const sp = TestSupport::spId(3);
  RsvpTunnelConfigId const byStatic(7, 1, staticReqType);
  RsvpTunnelConfigId const byFrr(7, 1, frrReqType);
  configs->tunnelConfigIs(rsvpTunnelConfigFactory(byStatic, a, b, sp));
  configs->tunnelConfigIs(rsvpTunnelConfigFactory(byFrr, a, b, sp));
  EXPECT_EQ(configs->tunnelConfigSize(), 2u) << "origins keep equal numbers apart";
  configs->spIdMapIs(sp, configs->tunnelConfig(byFrr));
  EXPECT_EQ(configs->spIdMap(sp)->tunnelConfigId(), byFrr);

  auto statuses = rsvpTunnelStatusCollFactory("statuses");
  statuses->tunnelStatusIs(RsvpTunnelStatus(byStatic, b, Lumo::MplsLabel(8388608), a, sp));
  EXPECT_EQ(statuses->tunnelStatus(byStatic).nextHopLabel(), Lumo::MplsLabel(8388608));
  EXPECT_FALSE(statuses->tunnelStatusHas(byFrr));
}

// The agent's derivation of the running configuration, as simple as it gets.
void derive(RsvpCliConfig const& cli, RsvpConfig& run) {
  run.refreshPeriodIs(cli.refreshInterval());
  run.helloEnabledIs(cli.helloInterval() != cli.helloIntervalDisabled());
  run.helloIntervalIs(cli.helloInterval());
  run.authTypeIs(cli.authType() == Cli::md5 ? rsvpAuthMd5 : rsvpAuthNone);
  for (auto it = cli.encodedPasswordIter(); !it.done(); ++it) run.authKeyIs(it.key(), it.value());
  run.authSeqWindowSizeIs(std::min<Kel::U32>(std::max<Kel::U32>(cli.authSeqWindowSize(), 1), 255));
  run.frrEnabledIs(cli.frrMode() != Cli::frrNone);
  run.frrModeIs(cli.frrMode());
  run.staticTunnelRequestCollIs(cli.staticTunnelRequestColl());
  run.runningStateIs(cli.enabled() ? rsvpRunning : rsvpStopped);
  run.runningIs(cli.enabled());
}

// Both mounted trees, each with its writer and a replica, through random
// operator changes; the running configuration refers into the operator's
// tree. After every flush each replica equals its source and holds as many
// entities.
TEST(ConfigTrees, ReplicasFollowRandomOperatorChanges) {
  TestSupport::LogLink<RsvpCliConfig> cliLink(rsvpCliConfigFactory("cliConfig"),
                                              rsvpCliConfigFactory("cliConfig"));
  TestSupport::LogLink<RsvpConfig> runLink(rsvpConfigFactory("config"),
                                           rsvpConfigFactory("config"));
  cliLink.connect();
  runLink.connect();
  RsvpCliConfig& cli = *cliLink.source;
  std::mt19937 rng(31);
  auto const changes = operatorChanges();
  for (int step = 0; step < 2000; ++step) {
    RsvpTunnelRequestId const id(rng() % 6, static_cast<Kel::U16>(rng() % 2));
    switch (rng() % 6) {
      case 0: changes[rng() % changes.size()].second(cli); break;
      case 1: cli.reset(); break;
      case 2: {
        auto req = cli.staticTunnelRequestCollIs("static")->staticTunnelReqIs(id);
        req->dstIpIs(Lumo::IpGenAddr::ipv4(rng() % 4));
        req->hopIs(rng() % 3, Lumo::IpGenAddr::ipv4(rng()));
        req->bandwidthIs(static_cast<Kel::F32>(rng() % 100));
        break;
      }
      case 3:
        if (auto requests = cli.staticTunnelRequestColl()) requests->staticTunnelReqDel(id);
        break;
      case 4: cli.staticTunnelRequestCollDel(); break;
      default: derive(cli, *runLink.source); break;
    }
    if (rng() % 5 == 0) {
      cliLink.sync();
      runLink.sync();
      ASSERT_TRUE(cliLink.same()) << "step " << step;
      ASSERT_TRUE(runLink.same()) << "step " << step;
      ASSERT_EQ(cliLink.reader.namedEntities(), cliLink.writer.trackedEntities()) << step;
      ASSERT_EQ(runLink.reader.namedEntities(), runLink.writer.trackedEntities()) << step;
    }
  }
  EXPECT_GT(runLink.reader.records(), 0u);
}

}  // namespace
