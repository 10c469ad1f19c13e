// The identifiers: string forms and their parsing, exact error texts, the
// null test, ordering and hashes worked out by hand from the algorithm.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include <random>

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

TEST(IdentifierForms, PrintAndParseBack) {
  RsvpSpId const sp = spId("10.0.0.2", 7, "10.0.0.1", 3);
  std::string const spText =
      "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>_<pathId=<lspId=3>>";
  EXPECT_EQ(sp.stringValue(), spText);
  EXPECT_EQ(valueToStrep(sp), spText);
  EXPECT_EQ(strepToValue<RsvpSpId>(spText), sp);
  EXPECT_EQ(RsvpTunnelId(7).stringValue(), "7");
  EXPECT_EQ(RsvpPathId(3).stringValue(), "<lspId=3>");
  EXPECT_EQ(RsvpNeighborId(ip("10.0.0.2")).stringValue(), "10.0.0.2");
  EXPECT_EQ(RsvpNeighborId(ip("2001:db8::1")).stringValue(), "2001:db8::1");
  EXPECT_EQ(session("10.0.0.2", 7, "10.0.0.1").stringValue(),
            "<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>");
  // The unspecified address prints as nothing and reads back as itself.
  EXPECT_EQ(RsvpSpId().stringValue(),
            "<sessionId=<dstIp=>_<tunnelId=0>_<extTunnelId=>>_<pathId=<lspId=65536>>");
  std::ostringstream os;
  os << sp.pathId();
  EXPECT_EQ(os.str(), "<lspId=3>");
}

TEST(IdentifierForms, LspIdKeepsLowSixteenBits) {
  struct {
    char const* text;
    Kel::U32 lspId;
  } const cases[] = {{"<lspId=65536>", 0},  {"<lspId=-1>", 65535}, {"<lspId=65535>", 65535},
                     {"<lspId=131075>", 3}, {"<lspId=-65536>", 0}, {"<lspId=007>", 7}};
  for (auto const& c : cases) {
    RsvpPathId p;
    p.stringValueIs(c.text);
    EXPECT_EQ(p.lspId(), c.lspId) << c.text;
  }
}

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
}

TEST(IdentifierForms, FailedParseKeepsTheOldValue) {
  RsvpSpId sp = spId("10.0.0.2", 7, "10.0.0.1", 3);
  RsvpSpId const before = sp;
  EXPECT_THROW(sp.stringValueIs(before.stringValue() + "x"), Kel::RangeException);
  EXPECT_EQ(sp, before);
}

TEST(PathId, InvalidIsTheDefault) {
  RsvpPathId const invalid;
  EXPECT_EQ(invalid.lspId(), RsvpPathId::invalidLspId());
  EXPECT_TRUE(!invalid);
  EXPECT_TRUE(RsvpPathId(RsvpPathId::maxLspId()) < invalid);
  EXPECT_FALSE(!RsvpPathId(0));
  EXPECT_EQ(RsvpPathId::maxLspId(), 65535u);
}

TEST(PathId, RangeErrorLeavesValue) {
  RsvpPathId p(5);
  char const* const text = "RsvpPathId::lspId < 0 or > RsvpPathId::invalidLspId not allowed";
  try {
    p.lspIdIs(65537);
    FAIL();
  } catch (Kel::RangeException const& e) {
    EXPECT_STREQ(e.what(), text);
  }
  EXPECT_EQ(p.lspId(), 5u);
  EXPECT_THROW(RsvpPathId(65537), Kel::RangeException);
  p.lspIdIs(65536);  // the invalid id itself is allowed
  EXPECT_TRUE(!p);
}

TEST(SpId, NullTest) {
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

TEST(IdentifierHash, HandComputedValues) {
  EXPECT_EQ(RsvpTunnelId(7).hash(), 0x24f2c201u);
  EXPECT_EQ(RsvpPathId(3).hash(), 0x359a7badu);
  EXPECT_EQ(RsvpPathId().hash(), 0x20e9c0b3u);
  EXPECT_EQ(RsvpNeighborId(ip("10.0.0.2")).hash(), 0xb1eee5cau);
  EXPECT_EQ(session("10.0.0.2", 7, "10.0.0.1").hash(), 0x56096558u);
  EXPECT_EQ(spId("10.0.0.2", 7, "10.0.0.1", 3).hash(), 0xad695a2au);
  EXPECT_EQ(RsvpSpId().hash(), 0x59779954u);
}

TEST(IdentifierHash, FamilyNeverEntersTheHash) {
  // 10.0.0.2 sits in the first four of the sixteen address bytes.
  RsvpSessionId const v4 = session("10.0.0.2", 7, "10.0.0.1");
  RsvpSessionId const v6 = session("a00:2::", 7, "a00:1::");
  EXPECT_EQ(v4.hash(), v6.hash());
  EXPECT_FALSE(v4 == v6);
  EXPECT_TRUE(v4 < v6 || v6 < v4);
}

TEST(IdentifierOrder, Lexicographic) {
  // Each pair is in ascending order and differs in the attribute named.
  struct {
    char const* what;
    RsvpSpId lo, hi;
  } const cases[] = {
      {"dstIp first", spId("10.0.0.1", 9, "10.0.0.9", 9), spId("10.0.0.2", 1, "10.0.0.1", 1)},
      {"then tunnelId", spId("10.0.0.1", 1, "10.0.0.9", 9), spId("10.0.0.1", 2, "10.0.0.1", 1)},
      {"then extTunnelId", spId("10.0.0.1", 1, "10.0.0.1", 9), spId("10.0.0.1", 1, "10.0.0.2", 1)},
      {"then lspId", spId("10.0.0.1", 1, "10.0.0.1", 1), spId("10.0.0.1", 1, "10.0.0.1", 2)},
      {"tunnelId is numeric", spId("10.0.0.1", 9, "10.0.0.1", 1),
       spId("10.0.0.1", 10, "10.0.0.1", 1)},
      {"invalid path last", spId("10.0.0.1", 1, "10.0.0.1", 65535),
       RsvpSpId(session("10.0.0.1", 1, "10.0.0.1"), RsvpPathId())},
  };
  for (auto const& c : cases) {
    EXPECT_TRUE(c.lo < c.hi) << c.what;
    EXPECT_FALSE(c.hi < c.lo) << c.what;
    EXPECT_FALSE(c.lo < c.lo) << c.what;
  }
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

TEST(IdentifierProperties, RandomRoundTrips) {
  RandomIds ids(1);
  for (int i = 0; i < 3000; ++i) {
    RsvpSpId const sp = ids.spId();
    RsvpSpId back;
    back.stringValueIs(sp.stringValue());
    ASSERT_EQ(back, sp) << sp.stringValue();
    ASSERT_EQ(back.hash(), sp.hash());
    ASSERT_EQ(strepToValue<RsvpSessionId>(valueToStrep(sp.sessionId())), sp.sessionId());
    RsvpNeighborId const n(sp.sessionId().dstIp());
    ASSERT_EQ(strepToValue<RsvpNeighborId>(n.stringValue()), n);
  }
}

TEST(IdentifierProperties, OrderIsStrictAndAgreesWithEquality) {
  RandomIds ids(2);
  for (int i = 0; i < 5000; ++i) {
    RsvpSpId const a = ids.spId();
    RsvpSpId const b = ids.spId();
    RsvpSpId const c = ids.spId();
    int const relations = int(a < b) + int(b < a) + int(a == b);
    ASSERT_EQ(relations, 1) << a << " vs " << b;
    if (a == b) {
      ASSERT_EQ(a.hash(), b.hash());
    }
    if (a < b && b < c) {
      ASSERT_TRUE(a < c);
    }
  }
}

}  // namespace
