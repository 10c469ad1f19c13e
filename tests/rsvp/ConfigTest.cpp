// The configuration trees: attribute tables and defaults read back through
// reflection, the protocol constants, the operator's reset and default test,
// passwords through the secret codec, the tunnel tables, and both trees
// replicated through random operator changes.
#include <Rsvp/Rsvp.h>

#include <CipherkitLib/Codec.h>
#include <Kel/AttrLog.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace Rsvp;
using TestSupport::errorOf;

// The text of attribute `name` of `object` read through reflection.
std::string readText(Kel::TypeDesc const& type, void* object, char const* name) {
  Kel::KelAttr const* a = type.attr(name);
  if (!a) return "<no attribute>";
  Kel::GenericValue v(*a->type);
  if (type.attributeOp(v.get(), object, a, Kel::attrOpRead) != Kel::attrDone) return "<no value>";
  return v.strep();
}

// Each type's attributes in declaration order from its first index, as
// "name=default" where reflection reads the default ("<no value>" for a
// secret) or as a bare name; constants and derived attributes keep their
// numbers but the log does not carry them.
TEST(Config, AttributesInOrderWithTheirDefaultsReadThroughReflection) {
  auto cli = rsvpCliConfigFactory("cli");
  auto run = rsvpConfigFactory("config");
  RsvpConstants constants;
  struct {
    Kel::TypeDesc const* type;
    void* object;
    Kel::U32 first;
    std::string_view attrs;  // '|'-separated
  } const tables[] = {
      {&RsvpCliConfig::kelType, cli.get(), 258,
       "mountPath=\"mpls/rsvp/cliConfig\"|refreshInterval=30|refreshIntervalDefault=30|"
       "refreshMethod=refreshBundled|refreshMethodDefault=refreshBundled|helloInterval=10|"
       "helloIntervalDefault=10|helloIntervalDisabled=0|helloMultiplier=4|"
       "helloMultiplierDefault=4|authType=none|authTypeDefault=none|authSeqWindowSize=5|"
       "authSeqWindowSizeDefault=5|encodedPassword|activePasswordIndex=0|"
       "activePassword=<no value>|clearPassword=<no value>|staticTunnelRequestColl|"
       "frrModeDefault=frrNone|frrMode=frrNone|reversionModeDefault=reversionGlobal|"
       "reversionMode=reversionGlobal|enabled=false"},
      {&RsvpCliTunnelRequest::kelType, nullptr, 258,
       "tunnelReqId|srcIp|dstIp|hop|ethType|localProtectionDesired|nodeProtectionDesired|"
       "sessionName|bandwidth|version"},
      {&RsvpConfig::kelType, run.get(), 258,
       "mountPath=\"mpls/rsvp/config\"|refreshPeriod=30|refreshFastStartValue=2|"
       "helloEnabled=false|helloInterval=1|helloTimeoutFactor=3.5|rorEnabled=false|rorInterval=1|"
       "authType=rsvpAuthNone|authKey|authActiveKey=0|authSeqWindowSize=1|frrEnabled=false|"
       "frrMode=frrNone|frrLocalReversion=false|staticTunnelRequestColl|runningState=rsvpStopped|"
       "running=false"},
      {&RsvpConstants::kelType, &constants, 2,
       "protocolVersion=1|defaultFlags=0|defaultSendTtl=255|defaultSendTos=192|"
       "defaultRefreshFastStartValue=2|defaultRefreshPeriod=30|sentStateTimeout=4|"
       "lfibCleanupDelay=15|defaultHelloInterval=1|defaultHelloTimeoutFactor=3.5|"
       "defaultRorInterval=1|defaultAckMsgInterval=0.3|maxSrefreshMsgSize=1200|"
       "maxAckMsgSize=1200|defaultAuthSeqWindowSize=1|neighborDestroyDelay=30|"
       "cliIdHoldTime=86400|tunnelIdHoldTime=86400|secAssocCleanupPeriod=3600|"
       "secAssocCleanupDelay=604800|shutdownWaitTime=5|shutdownWaitTimerPerSp=0.015|"
       "rsvpTunnelTableGarbageCollectionDelay=15|deferrableErrorDelay=1|"
       "updateHwProgrammedDelay=0.02|pathTearMsgReadinessDelay=20|resvTearMsgReadinessDelay=1|"
       "maxHistoryQueueSize=10|labelHoldTime=1"},
  };
  for (auto const& t : tables) {
    Kel::U32 index = t.first;
    for (std::string_view rest = t.attrs; !rest.empty(); ++index) {
      std::string const attr(rest.substr(0, rest.find('|')));
      rest.remove_prefix(std::min(rest.size(), attr.size() + 1));
      std::string const name = attr.substr(0, attr.find('='));
      SCOPED_TRACE(std::string(t.type->name()) + "::" + name);
      Kel::KelAttr const* a = t.type->attr(index);
      ASSERT_NE(a, nullptr) << index;
      EXPECT_EQ(a->name, name) << index;
      bool const carried = a->kind != Kel::AttrKind::constant && a->kind != Kel::AttrKind::derived;
      EXPECT_EQ(a->logId, carried ? index : 0u);
      if (name != attr) {
        EXPECT_EQ(readText(*t.type, t.object, name.c_str()), attr.substr(name.size() + 1));
      }
    }
    EXPECT_EQ(t.type->attr(index), nullptr) << t.type->name() << " has more attributes";
  }
  for (Kel::U32 outside : {0u, 1u, 258u}) EXPECT_EQ(RsvpConstants::kelType.attr(outside), nullptr);
  EXPECT_FALSE(run->staticTunnelRequestColl() || cli->staticTunnelRequestColl());
  EXPECT_EQ(cli->encodedPasswordSize() + run->authKeySize(), 0u);
  static_assert(RsvpConstants::maxHistoryQueueSize() == 10);
  EXPECT_TRUE(RsvpConstants() == RsvpConstants()) << "no state: always equal";
}

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

// Every notification of the operator's tree and of its static requests, in
// the order heard.
struct Heard : RsvpCliConfig::NotifieeConst, RsvpCliTunnelRequestColl::NotifieeConst {
  explicit Heard(RsvpCliConfig const* cli)
      : RsvpCliConfig::NotifieeConst(cli),
        RsvpCliTunnelRequestColl::NotifieeConst(cli->staticTunnelRequestColl().get()) {}
  void onRefreshInterval() override { names.push_back("refreshInterval"); }
  void onRefreshMethod() override { names.push_back("refreshMethod"); }
  void onHelloInterval() override { names.push_back("helloInterval"); }
  void onHelloMultiplier() override { names.push_back("helloMultiplier"); }
  void onAuthType() override { names.push_back("authType"); }
  void onAuthSeqWindowSize() override { names.push_back("authSeqWindowSize"); }
  void onEncodedPassword(Kel::U32 i) override {
    names.push_back("encodedPassword" + std::to_string(i));
  }
  void onActivePasswordIndex() override { names.push_back("activePasswordIndex"); }
  void onStaticTunnelRequestColl() override { names.push_back("staticTunnelRequestColl"); }
  void onFrrMode() override { names.push_back("frrMode"); }
  void onReversionMode() override { names.push_back("reversionMode"); }
  void onEnabled() override { names.push_back("enabled"); }
  void onStaticTunnelReq(RsvpTunnelRequestId const& id) override {
    names.push_back("staticTunnelReq" + std::to_string(id.reqId()));
  }
  std::vector<std::string> names;
};

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

TEST(CliConfig, ResetRestoresDefaultsInItsOrder) {
  auto cli = rsvpCliConfigFactory("cli");
  for (auto const& [what, change] : operatorChanges()) change(*cli);
  cli->encodedPasswordIs(3, "ck1:y");
  ASSERT_FALSE(cli->isDefault());
  auto const requests = cli->staticTunnelRequestColl();
  Heard heard(cli.get());
  cli->reset();
  EXPECT_EQ(heard.names,
            (std::vector<std::string>{
                "enabled", "refreshInterval", "refreshMethod", "helloInterval", "helloMultiplier",
                "authType", "authSeqWindowSize", "encodedPassword1", "encodedPassword3",
                "activePasswordIndex", "staticTunnelReq4", "frrMode", "reversionMode"}));
  EXPECT_TRUE(cli->isDefault());
  EXPECT_EQ(cli->staticTunnelRequestColl(), requests) << "the collection stays, emptied";
  heard.names.clear();
  cli->reset();
  EXPECT_TRUE(heard.names.empty()) << "a second reset changes nothing and tells nobody";
}

TEST(CliConfig, IsDefaultAfterEachKindOfChange) {
  EXPECT_TRUE(rsvpCliConfigFactory("cli")->isDefault());
  for (auto const& [what, change] : operatorChanges()) {
    auto cli = rsvpCliConfigFactory("cli");
    change(*cli);
    EXPECT_FALSE(cli->isDefault()) << what;
    cli->reset();
    EXPECT_TRUE(cli->isDefault()) << what << " after reset";
  }
  auto cli = rsvpCliConfigFactory("cli");
  cli->staticTunnelRequestCollIs("static");
  EXPECT_TRUE(cli->isDefault()) << "an empty collection of requests";
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
  std::pair<char, char const*> const refusals[] = {
      {'w', "Encoded secret does not verify (wrong key or altered text)"},
      {0, "Secret codec has no key"}};
  for (auto const& [keyFill, error] : refusals) {
    if (keyFill) {
      CipherkitLib::keyIs(key(keyFill));
    } else {
      CipherkitLib::keyDel();
    }
    EXPECT_EQ(errorOf<CipherkitLib::CodecException>([&] { (void)cli->activePassword(); }), error);
    EXPECT_EQ(Kel::browseText(*cli), before);
  }
  EXPECT_EQ(cli->clearPassword(9), "") << "an absent index never reaches the codec";
}

TEST(TunnelTables, NullPointersKeysAndOrigins) {
  auto table = rsvpTunnelRequestTableFactory(staticReqType);
  auto configs = rsvpTunnelConfigCollFactory("configs");
  struct {
    void (*call)(RsvpTunnelRequestTable&, RsvpTunnelConfigColl&);
    char const* text;
  } const nulls[] = {
      {[](RsvpTunnelRequestTable& t, RsvpTunnelConfigColl&) { t.tunnelReqIs(nullptr); },
       "null _tunnelReq parameter to mutator for Rsvp::RsvpTunnelRequestTable::tunnelReq not "
       "allowed\""},
      {[](RsvpTunnelRequestTable&, RsvpTunnelConfigColl& c) { c.tunnelConfigIs(nullptr); },
       "null _tunnelConfig parameter to mutator for Rsvp::RsvpTunnelConfigColl::tunnelConfig not "
       "allowed\""},
  };
  for (auto const& n : nulls) {
    EXPECT_EQ(errorOf<Kel::NullPointerException>([&] { n.call(*table, *configs); }), n.text);
  }
  Lumo::IpGenAddr const a("10.0.0.1");
  Lumo::IpGenAddr const b("10.0.0.9");
  auto const request = rsvpTunnelRequestFactory({7, 1}, a, b);
  table->tunnelReqIs(request);
  EXPECT_EQ(table->tunnelReq(RsvpTunnelRequestId(7, 1)), request) << "keyed by its own id";
  EXPECT_EQ(request->parent(), nullptr) << "not owned";

  RsvpSpId sp;
  sp.pathIdIs(RsvpPathId(3));
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

// A label above 8388608 read from a log is refused with the label's text,
// and the replica is left as it was.
TEST(TunnelTables, LabelAboveTheBoundIsRefusedFromTheLog) {
  TestSupport::LogLink<RsvpTunnelStatusColl> link(rsvpTunnelStatusCollFactory("statuses"),
                                                  rsvpTunnelStatusCollFactory("statuses"));
  link.connect();
  RsvpTunnelConfigId const id(1, 2, staticReqType);
  RsvpTunnelStatus const status(id, Lumo::IpGenAddr("10.0.0.2"), Lumo::MplsLabel(8388608),
                                Lumo::IpGenAddr("10.0.0.3"), RsvpSpId());
  link.source->tunnelStatusIs(status);
  link.writer.flush();
  std::string frame = link.sink->take();
  link.reader.bytesIs(frame);
  EXPECT_EQ(link.replica->tunnelStatus(id), status) << "8388608 itself is accepted";

  // The same record one frame later, with the label raised by one: the
  // label's four bytes follow the key and the next hop in the value.
  std::string const label = [] {
    std::string s;
    Kel::LogOut out(s);
    out.u32(8388608);
    return s;
  }();
  std::size_t const at = frame.find(label, 24);
  ASSERT_NE(at, std::string::npos);
  std::string payload = frame.substr(24, frame.size() - 28);
  payload[at - 24 + 3] = static_cast<char>(payload[at - 24 + 3] + 1);
  std::string bad;
  Kel::logFrame(bad, Kel::logFrameChanges, 4, payload);
  link.source->tunnelStatusDel(id);  // the replica must not follow any of it
  EXPECT_EQ(errorOf<Kel::LogException>([&] { link.reader.bytesIs(bad); }),
            "Bad value in the attribute log: MplsLabel::value < MplsLabel::min or > "
            "MplsLabel::luWithdraw not allowed");
  EXPECT_EQ(link.replica->tunnelStatus(id), status);
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
