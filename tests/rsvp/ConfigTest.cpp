// The configuration trees: attribute tables and defaults read back through
// reflection, the protocol constants, the operator's reset and default test,
// passwords through the secret codec, the tunnel tables, and both trees
// replicated through random operator changes.
#include <Rsvp/Rsvp.h>

#include <CipherkitLib/Codec.h>
#include <Kel/AttrLog.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using namespace Rsvp;

// The text of attribute `name` of `object` read through reflection.
std::string readText(Kel::TypeDesc const& type, void* object, char const* name) {
  Kel::KelAttr const* a = type.attr(name);
  if (!a) return "<no attribute>";
  Kel::GenericValue v(*a->type);
  if (type.attributeOp(v.get(), object, a, Kel::attrOpRead) != Kel::attrDone) return "<no value>";
  return v.strep();
}

// Attributes from index 259 on, in declaration order; constants and derived
// attributes keep their numbers but the log does not carry them.
struct Table {
  Kel::TypeDesc const* type;
  Kel::U32 first;
  std::vector<char const*> names;
};

TEST(Config, AttributeIdentifiersAndOrderReadThroughReflection) {
  Table const tables[] = {
      {&RsvpCliConfig::kelType,
       258,
       {"mountPath",
        "refreshInterval",
        "refreshIntervalDefault",
        "refreshMethod",
        "refreshMethodDefault",
        "helloInterval",
        "helloIntervalDefault",
        "helloIntervalDisabled",
        "helloMultiplier",
        "helloMultiplierDefault",
        "authType",
        "authTypeDefault",
        "authSeqWindowSize",
        "authSeqWindowSizeDefault",
        "encodedPassword",
        "activePasswordIndex",
        "activePassword",
        "clearPassword",
        "staticTunnelRequestColl",
        "frrModeDefault",
        "frrMode",
        "reversionModeDefault",
        "reversionMode",
        "enabled"}},
      {&RsvpCliTunnelRequest::kelType,
       258,
       {"tunnelReqId", "srcIp", "dstIp", "hop", "ethType", "localProtectionDesired",
        "nodeProtectionDesired", "sessionName", "bandwidth", "version"}},
      {&RsvpConfig::kelType,
       258,
       {"mountPath", "refreshPeriod", "refreshFastStartValue", "helloEnabled", "helloInterval",
        "helloTimeoutFactor", "rorEnabled", "rorInterval", "authType", "authKey", "authActiveKey",
        "authSeqWindowSize", "frrEnabled", "frrMode", "frrLocalReversion",
        "staticTunnelRequestColl", "runningState", "running"}},
  };
  for (Table const& t : tables) {
    Kel::U32 index = t.first;
    for (char const* name : t.names) {
      Kel::KelAttr const* a = t.type->attr(index);
      ASSERT_NE(a, nullptr) << t.type->name() << " " << index;
      EXPECT_EQ(a->name, name) << t.type->name() << " " << index;
      bool const carried = a->kind != Kel::AttrKind::constant && a->kind != Kel::AttrKind::derived;
      EXPECT_EQ(a->logId, carried ? index : 0u) << name;
      ++index;
    }
    EXPECT_EQ(t.type->attr(index), nullptr) << t.type->name() << " has more attributes";
  }
}

TEST(Config, DefaultsOfEveryAttribute) {
  auto cli = rsvpCliConfigFactory("cli");
  auto run = rsvpConfigFactory("config");
  struct {
    Kel::TypeDesc const* type;
    Kel::Entity* object;
    char const* name;
    char const* text;
  } const cases[] = {
      {&RsvpCliConfig::kelType, cli.get(), "mountPath", "\"mpls/rsvp/cliConfig\""},
      {&RsvpCliConfig::kelType, cli.get(), "refreshInterval", "30"},
      {&RsvpCliConfig::kelType, cli.get(), "refreshIntervalDefault", "30"},
      {&RsvpCliConfig::kelType, cli.get(), "refreshMethod", "refreshBundled"},
      {&RsvpCliConfig::kelType, cli.get(), "refreshMethodDefault", "refreshBundled"},
      {&RsvpCliConfig::kelType, cli.get(), "helloInterval", "10"},
      {&RsvpCliConfig::kelType, cli.get(), "helloIntervalDefault", "10"},
      {&RsvpCliConfig::kelType, cli.get(), "helloIntervalDisabled", "0"},
      {&RsvpCliConfig::kelType, cli.get(), "helloMultiplier", "4"},
      {&RsvpCliConfig::kelType, cli.get(), "helloMultiplierDefault", "4"},
      {&RsvpCliConfig::kelType, cli.get(), "authType", "none"},
      {&RsvpCliConfig::kelType, cli.get(), "authTypeDefault", "none"},
      {&RsvpCliConfig::kelType, cli.get(), "authSeqWindowSize", "5"},
      {&RsvpCliConfig::kelType, cli.get(), "authSeqWindowSizeDefault", "5"},
      {&RsvpCliConfig::kelType, cli.get(), "activePasswordIndex", "0"},
      {&RsvpCliConfig::kelType, cli.get(), "activePassword", "<no value>"},  // a secret
      {&RsvpCliConfig::kelType, cli.get(), "clearPassword", "<no value>"},
      {&RsvpCliConfig::kelType, cli.get(), "frrModeDefault", "frrNone"},
      {&RsvpCliConfig::kelType, cli.get(), "frrMode", "frrNone"},
      {&RsvpCliConfig::kelType, cli.get(), "reversionModeDefault", "reversionGlobal"},
      {&RsvpCliConfig::kelType, cli.get(), "reversionMode", "reversionGlobal"},
      {&RsvpCliConfig::kelType, cli.get(), "enabled", "false"},
      {&RsvpConfig::kelType, run.get(), "mountPath", "\"mpls/rsvp/config\""},
      {&RsvpConfig::kelType, run.get(), "refreshPeriod", "30"},
      {&RsvpConfig::kelType, run.get(), "refreshFastStartValue", "2"},
      {&RsvpConfig::kelType, run.get(), "helloEnabled", "false"},
      {&RsvpConfig::kelType, run.get(), "helloInterval", "1"},
      {&RsvpConfig::kelType, run.get(), "helloTimeoutFactor", "3.5"},
      {&RsvpConfig::kelType, run.get(), "rorEnabled", "false"},
      {&RsvpConfig::kelType, run.get(), "rorInterval", "1"},
      {&RsvpConfig::kelType, run.get(), "authType", "rsvpAuthNone"},
      {&RsvpConfig::kelType, run.get(), "authActiveKey", "0"},
      {&RsvpConfig::kelType, run.get(), "authSeqWindowSize", "1"},
      {&RsvpConfig::kelType, run.get(), "frrEnabled", "false"},
      {&RsvpConfig::kelType, run.get(), "frrMode", "frrNone"},
      {&RsvpConfig::kelType, run.get(), "frrLocalReversion", "false"},
      {&RsvpConfig::kelType, run.get(), "runningState", "rsvpStopped"},
      {&RsvpConfig::kelType, run.get(), "running", "false"},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(readText(*c.type, c.object, c.name), c.text) << c.type->name() << "::" << c.name;
  }
  EXPECT_FALSE(run->staticTunnelRequestColl());
  EXPECT_FALSE(cli->staticTunnelRequestColl());
  EXPECT_EQ(cli->encodedPasswordSize(), 0u);
  EXPECT_EQ(run->authKeySize(), 0u);
}

// Reflection answers each constant at its index, and nothing outside 2 to 30.
TEST(Config, ConstantsAtTheirIndices) {
  std::pair<char const*, char const*> const constants[] = {
      {"protocolVersion", "1"},
      {"defaultFlags", "0"},
      {"defaultSendTtl", "255"},
      {"defaultSendTos", "192"},
      {"defaultRefreshFastStartValue", "2"},
      {"defaultRefreshPeriod", "30"},
      {"sentStateTimeout", "4"},
      {"lfibCleanupDelay", "15"},
      {"defaultHelloInterval", "1"},
      {"defaultHelloTimeoutFactor", "3.5"},
      {"defaultRorInterval", "1"},
      {"defaultAckMsgInterval", "0.3"},
      {"maxSrefreshMsgSize", "1200"},
      {"maxAckMsgSize", "1200"},
      {"defaultAuthSeqWindowSize", "1"},
      {"neighborDestroyDelay", "30"},
      {"cliIdHoldTime", "86400"},
      {"tunnelIdHoldTime", "86400"},
      {"secAssocCleanupPeriod", "3600"},
      {"secAssocCleanupDelay", "604800"},
      {"shutdownWaitTime", "5"},
      {"shutdownWaitTimerPerSp", "0.015"},
      {"rsvpTunnelTableGarbageCollectionDelay", "15"},
      {"deferrableErrorDelay", "1"},
      {"updateHwProgrammedDelay", "0.02"},
      {"pathTearMsgReadinessDelay", "20"},
      {"resvTearMsgReadinessDelay", "1"},
      {"maxHistoryQueueSize", "10"},
      {"labelHoldTime", "1"},
  };
  Kel::TypeDesc const& type = RsvpConstants::kelType;
  RsvpConstants value;
  Kel::U32 index = 2;
  for (auto const& [name, text] : constants) {
    Kel::KelAttr const* a = type.attr(index);
    ASSERT_NE(a, nullptr) << index;
    EXPECT_EQ(a->name, name);
    EXPECT_EQ(readText(type, &value, name), text) << name;
    ++index;
  }
  EXPECT_EQ(index, 31u);
  for (Kel::U32 outside : {0u, 1u, 31u, 258u}) EXPECT_EQ(type.attr(outside), nullptr) << outside;
  static_assert(RsvpConstants::maxHistoryQueueSize() == 10);
  EXPECT_TRUE(RsvpConstants() == RsvpConstants()) << "no state: always equal";
}

TEST(Config, AuthSeqWindowSizeRange) {
  auto run = rsvpConfigFactory("config");
  for (Kel::U32 bad : {0u, 256u, 4000000000u}) {
    try {
      run->authSeqWindowSizeIs(bad);
      FAIL() << bad;
    } catch (Kel::RangeException const& e) {
      EXPECT_STREQ(e.what(), "RsvpConfig::authSeqWindowSize < 1 or > 255 not allowed");
    }
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

TEST_F(Passwords, DecodedOnDemandAndNeverStored) {
  CipherkitLib::keyIs(key('k'));
  auto cli = rsvpCliConfigFactory("cli");
  Kel::String const stored = CipherkitLib::doEncodeKey("s3cret");
  cli->encodedPasswordIs(1, stored);
  cli->activePasswordIndexIs(1);
  EXPECT_EQ(cli->activePassword(), "s3cret");
  EXPECT_EQ(cli->clearPassword(1), "s3cret");
  EXPECT_EQ(Kel::browseText(*cli).find("s3cret"), std::string::npos)
      << "the browser never shows it";
  CipherkitLib::keyDel();
  EXPECT_EQ(cli->clearPassword(9), "") << "an absent index never reaches the codec";
}

TEST_F(Passwords, CodecErrorsPassUnchangedAndChangeNothing) {
  CipherkitLib::keyIs(key('k'));
  Kel::String const stored = CipherkitLib::doEncodeKey("s3cret");
  Kel::String tampered = stored;
  tampered[10] = tampered[10] == 'A' ? 'B' : 'A';
  struct {
    char const* what;
    Kel::String text;
    char keyFill;  // 0: no key
    char const* error;
  } const cases[] = {
      {"tampered", tampered, 'k', "Encoded secret does not verify (wrong key or altered text)"},
      {"wrong key", stored, 'w', "Encoded secret does not verify (wrong key or altered text)"},
      {"no key", stored, 0, "Secret codec has no key"},
      {"not encoded", "s3cret", 'k', "Encoded secret has an unknown version prefix"},
  };
  for (auto const& c : cases) {
    if (c.keyFill) {
      CipherkitLib::keyIs(key(c.keyFill));
    } else {
      CipherkitLib::keyDel();
    }
    auto cli = rsvpCliConfigFactory("cli");
    cli->encodedPasswordIs(0, c.text);
    std::string const before = Kel::browseText(*cli);
    try {
      (void)cli->activePassword();
      FAIL() << c.what;
    } catch (CipherkitLib::CodecException const& e) {
      EXPECT_STREQ(e.what(), c.error) << c.what;
    }
    EXPECT_EQ(Kel::browseText(*cli), before) << c.what;
  }
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
    try {
      n.call(*table, *configs);
      FAIL() << n.text;
    } catch (Kel::NullPointerException const& e) {
      EXPECT_STREQ(e.what(), n.text);
    }
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
  auto source = rsvpTunnelStatusCollFactory("statuses");
  auto replica = rsvpTunnelStatusCollFactory("statuses");
  Kel::LogWriter writer(*source);
  auto owned = std::make_unique<Kel::MemorySink>();
  Kel::MemorySink* sink = owned.get();
  writer.subscriberNew(std::move(owned));
  Kel::LogReader reader(*replica);
  reader.bytesIs(sink->take());

  RsvpTunnelConfigId const id(1, 2, staticReqType);
  RsvpTunnelStatus const status(id, Lumo::IpGenAddr("10.0.0.2"), Lumo::MplsLabel(8388608),
                                Lumo::IpGenAddr("10.0.0.3"), RsvpSpId());
  source->tunnelStatusIs(status);
  writer.flush();
  std::string frame = sink->take();
  reader.bytesIs(frame);
  EXPECT_EQ(replica->tunnelStatus(id), status) << "8388608 itself is accepted";

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
  source->tunnelStatusDel(id);  // the replica must not follow any of it
  try {
    reader.bytesIs(bad);
    FAIL();
  } catch (Kel::LogException const& e) {
    EXPECT_STREQ(e.what(),
                 "Bad value in the attribute log: MplsLabel::value < MplsLabel::min or > "
                 "MplsLabel::luWithdraw not allowed");
  }
  EXPECT_EQ(replica->tunnelStatus(id), status);
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
  auto cli = rsvpCliConfigFactory("cliConfig");
  auto run = rsvpConfigFactory("config");
  auto cliReplica = rsvpCliConfigFactory("cliConfig");
  auto runReplica = rsvpConfigFactory("config");
  Kel::LogWriter cliWriter(*cli);
  Kel::LogWriter runWriter(*run);
  auto connect = [](Kel::LogWriter& w, Kel::LogReader& r) {
    auto owned = std::make_unique<Kel::MemorySink>();
    Kel::MemorySink* sink = owned.get();
    w.subscriberNew(std::move(owned));
    r.bytesIs(sink->take());
    return sink;
  };
  Kel::LogReader cliReader(*cliReplica);
  Kel::LogReader runReader(*runReplica);
  Kel::MemorySink* cliSink = connect(cliWriter, cliReader);
  Kel::MemorySink* runSink = connect(runWriter, runReader);
  std::mt19937 rng(31);
  auto const changes = operatorChanges();
  for (int step = 0; step < 2000; ++step) {
    RsvpTunnelRequestId const id(rng() % 6, static_cast<Kel::U16>(rng() % 2));
    switch (rng() % 6) {
      case 0: changes[rng() % changes.size()].second(*cli); break;
      case 1: cli->reset(); break;
      case 2: {
        auto req = cli->staticTunnelRequestCollIs("static")->staticTunnelReqIs(id);
        req->dstIpIs(Lumo::IpGenAddr::ipv4(rng() % 4));
        req->hopIs(rng() % 3, Lumo::IpGenAddr::ipv4(rng()));
        req->bandwidthIs(static_cast<Kel::F32>(rng() % 100));
        break;
      }
      case 3:
        if (auto requests = cli->staticTunnelRequestColl()) requests->staticTunnelReqDel(id);
        break;
      case 4: cli->staticTunnelRequestCollDel(); break;
      default: derive(*cli, *run); break;
    }
    if (rng() % 5 == 0) {
      cliWriter.flush();
      runWriter.flush();
      cliReader.bytesIs(cliSink->take());
      runReader.bytesIs(runSink->take());
      ASSERT_EQ(Kel::browseText(*cliReplica), Kel::browseText(*cli)) << "step " << step;
      ASSERT_EQ(Kel::browseText(*runReplica), Kel::browseText(*run)) << "step " << step;
      ASSERT_EQ(cliReader.namedEntities(), cliWriter.trackedEntities()) << "step " << step;
      ASSERT_EQ(runReader.namedEntities(), runWriter.trackedEntities()) << "step " << step;
    }
  }
  EXPECT_GT(runReader.records(), 0u);
}

}  // namespace
