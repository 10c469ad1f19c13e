// The frame every generated value and enumeration type shares, on the
// identifiers, the values that print in the repr form and the enumerations:
// exact printed forms that read back, refused text with its exact error, the
// null test, order and hashes worked out by hand from the algorithm, and
// enumerators in declaration order, found by value and by name. (Random
// values of every value type read back from text and log in ObjectsTest.)
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;
using TestSupport::parseError;

// The printed form of `v`, which must read back as `v`.
template <class T>
std::string form(T const& v) {
  std::string const text = valueToStrep(v);
  EXPECT_EQ(strepToValue<T>(text), v) << text;
  return text;
}

// The exact forms: identifiers in their own form, other values in the repr
// form (type name, then each attribute in declaration order), enumerators
// by name and one without a name as its number. Bad text raises the exact
// error, with the attribute at fault, quoting at most 24 characters; a
// refused text leaves the value as it was.
TEST(ValueText, FormsReadBackAndBadTextRaisesTheExactError) {
  RsvpSpId const sp = TestSupport::spId(3);
  std::ostringstream os;
  os << RsvpRefreshId(1, 5);
  std::pair<std::string, std::string> const forms[] = {
      {form(sp),
       "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>_<pathId=<lspId=3>>"},
      {sp.stringValue(), form(sp)},
      {form(RsvpTunnelId(7)), "7"},
      {form(RsvpNeighborId(IpGenAddr("2001:db8::1"))), "2001:db8::1"},
      // The unspecified address prints as nothing; the invalid LSP id never
      // reads back as itself.
      {valueToStrep(RsvpSpId()),
       "<sessionId=<dstIp=>_<tunnelId=0>_<extTunnelId=>>_<pathId=<lspId=65536>>"},
      {form(RsvpError()),
       "Value('Rsvp::RsvpError', ** {'errorCode': rsvpErrorCodeUnknown, 'errorValue': 0})"},
      {form(RsvpTunnelConfigId(4000000000u, 2, frrReqType)),
       "Value('Rsvp::RsvpTunnelConfigId', ** {'reqId': 4000000000, 'reqSubId': 2, 'reqType': "
       "frrReqType})"},
      {form(RsvpMsgIdObj(true, 16777216, 9)),
       "Value('Rsvp::RsvpMsgIdObj', ** {'ackDesired': true, 'epoch': 16777216, 'msgId': 9})"},
      {os.str(), "Value('Rsvp::RsvpRefreshId', ** {'epoch': 1, 'msgId': 5})"},
      {form(RsvpError(static_cast<RsvpErrorCode>(99), 3)),
       "Value('Rsvp::RsvpError', ** {'errorCode': 99, 'errorValue': 3})"},
      {form(resvStyleFf), "resvStyleFf"},
      {form(Cli::md5), "md5"},
      {form(static_cast<RsvpResvStyle>(5)), "5"},
  };
  for (auto const& [got, want] : forms) EXPECT_EQ(got, want);
  // An LSP id's text keeps the low sixteen bits of the number, sign and all.
  std::pair<char const*, Kel::U32> const lspIds[] = {
      {"<lspId=65536>", 0},  {"<lspId=-1>", 65535}, {"<lspId=65535>", 65535},
      {"<lspId=131075>", 3}, {"<lspId=-65536>", 0}, {"<lspId=007>", 7}};
  for (auto const& [text, lspId] : lspIds) {
    EXPECT_EQ(strepToValue<RsvpPathId>(text).lspId(), lspId) << text;
  }

  std::string const session = "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>";
  std::string const error = "Value('Rsvp::RsvpError', ** {'errorCode': ";
  std::tuple<std::string (*)(std::string_view), std::string, std::string> const cases[] = {
      // parse, text, error
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
      {parseError<RsvpSessionId>, session.substr(11), "Invalid RsvpSessionId"},
      {parseError<RsvpSpId>, session + "_<pathId=<lspId=3>>>", "Invalid RsvpSpId"},
      {parseError<RsvpSpId>, "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>>",
       "Expected '>_<extTunnelId=' but found '>>'"},
      {parseError<RsvpSpId>, "", "Expected '<sessionId=' but found end of text"},
      {parseError<RsvpError>, "Value('Rsvp::RsvpError', ** {'errorValue': 0, 'errorCode': 1})",
       "Expected '" + error + "' but found 'Value('Rsvp::RsvpError',...'"},
      {parseError<RsvpError>, error + "bogus, 'errorValue': 0})",
       "Invalid enumerator 'bogus' for Rsvp::RsvpErrorCode (attribute 'errorCode')"},
      {parseError<RsvpError>, error + "rsvpNotify, 'errorValue': -1})",
       "Expected a number but found '-1})' (attribute 'errorValue')"},
      {parseError<RsvpError>, error + "rsvpNotify, 'errorValue': 1}",
       "Expected '})' but found '}'"},
      {parseError<RsvpError>, error + "rsvpNotify, 'errorValue': 1}) ", "Invalid RsvpError"},
      {parseError<RsvpMsgIdObj>,
       "Value('Rsvp::RsvpMsgIdObj', ** {'ackDesired': false, 'epoch': 16777217, 'msgId': 0})",
       "RsvpMsgIdObj::epoch < 0 or > RsvpMsgIdObj::invalidMsgIdEpochValue not allowed (attribute "
       "'epoch')"},
      {parseError<RsvpRefreshId>,
       "Value('Rsvp::RsvpRefreshId', ** {'epoch': 16777217, 'msgId': 0})",
       "RsvpRefreshId::epoch < 0 or > Rsvp::RsvpMsgIdObj::invalidMsgIdEpochValue not allowed "
       "(attribute 'epoch')"},
      {parseError<RsvpResvStyle>, "resvStyleXx",
       "Invalid enumerator 'resvStyleXx' for Rsvp::RsvpResvStyle"},
      {parseError<RsvpResvStyle>, std::string(10'000'000, 'x'),
       "Invalid enumerator 'xxxxxxxxxxxxxxxxxxxxxxxx...' for Rsvp::RsvpResvStyle"},
      {parseError<RsvpResvStyle>, "",
       "Expected an enumerator of Rsvp::RsvpResvStyle but found end of text"},
      {parseError<RsvpResvStyle>, "-1",
       "Expected an enumerator of Rsvp::RsvpResvStyle but found '-1'"},
      {parseError<RsvpResvStyle>, "resvStyleFf!", "Invalid RsvpResvStyle"},
      {parseError<RsvpResvStyle>, "4294967296", "Number 4294967296 out of range for U32"},
  };
  for (auto const& [parse, text, want] : cases) EXPECT_EQ(parse(text), want) << text.substr(0, 40);
  EXPECT_EQ(TestSupport::refusedText(sp, sp.stringValue() + "x"), "Invalid RsvpSpId");
}

// A value is null when every attribute holds its default (the default path
// id is the invalid one, 65536, the bound its range takes); order is
// lexicographic in declaration order; hashes worked out by hand from the
// one-at-a-time steps.
TEST(ValueFrame, NullTestRangeOrderAndHash) {
  EXPECT_TRUE(!RsvpError());
  EXPECT_FALSE(!RsvpError(rsvpErrorCodeUnknown, 1));
  EXPECT_TRUE(!RsvpPathId(65536));
  EXPECT_FALSE(!RsvpPathId(0)) << "LSP id 0 is a real path";
  EXPECT_TRUE(!RsvpSpId());
  EXPECT_FALSE(!RsvpSpId(RsvpSessionId(), RsvpPathId(0)));
  EXPECT_FALSE(!RsvpSessionId(IpGenAddr("0.0.0.0"), RsvpTunnelId(), IpGenAddr()))
      << "0.0.0.0 is not the unspecified address";
  EXPECT_THROW(RsvpPathId(65537), Kel::RangeException);
  EXPECT_NO_THROW(RsvpRefreshId(RsvpMsgIdObj::invalidMsgIdEpochValue(), 0));
  EXPECT_THROW(RsvpMsgIdObj(false, 16777217, 0), Kel::RangeException);

  EXPECT_TRUE(RsvpPathId(RsvpPathId::maxLspId()) < RsvpPathId());
  EXPECT_TRUE(RsvpRefreshId(1, 5) < RsvpRefreshId(2, 0));
  EXPECT_TRUE(RsvpRefreshId(1, 5) < RsvpRefreshId(1, 6));
  EXPECT_FALSE(RsvpRefreshId(1, 6) < RsvpRefreshId(1, 5));
  EXPECT_TRUE(RsvpTunnelConfigId(1, 2, frrReqType) < RsvpTunnelConfigId(1, 3, staticReqType));
  EXPECT_TRUE(RsvpTunnelConfigId(1, 2, staticReqType) < RsvpTunnelConfigId(1, 2, frrReqType));

  std::pair<Kel::U32, Kel::U32> const hashes[] = {
      {RsvpTunnelId(7).hash(), 0x24f2c201u},
      {RsvpPathId(3).hash(), 0x359a7badu},
      {RsvpPathId().hash(), 0x20e9c0b3u},
      {RsvpNeighborId(IpGenAddr("10.0.0.2")).hash(), 0xb1eee5cau},
      {TestSupport::spId(3).sessionId().hash(), 0x56096558u},
      {TestSupport::spId(3).hash(), 0xad695a2au},
      {RsvpSpId().hash(), 0x59779954u},
      {RsvpTunnelRequestId(1, 2).hash(), 0x3583837bu},  // 01 00 00 00 | 02 00
      {RsvpRefreshId(1, 5).hash(), 0xe3463d3fu},        // 01 00 00 00 | 05 00 00 00
  };
  for (auto const& [got, want] : hashes) EXPECT_EQ(got, want);
  // The family never enters the hash: 10.0.0.2 sits in the first four of the
  // sixteen address bytes, so these hash alike, yet differ.
  RsvpSessionId const v4 = TestSupport::spId(3).sessionId();
  RsvpSessionId const v6(IpGenAddr("a00:2::"), RsvpTunnelId(7), IpGenAddr("a00:1::"));
  EXPECT_EQ(v4.hash(), v6.hash());
  EXPECT_FALSE(v4 == v6);
  EXPECT_TRUE(v4 < v6 || v6 < v4);
}

// Enumerators keep their declaration order, apart from their numbers;
// lookups by value and by exact name, misses answering null; every
// enumerator reads back from its name.
TEST(Enum, DeclarationOrderLookupsAndRoundTrips) {
  std::vector<std::pair<std::string_view, Kel::U32>> styles;
  for (auto const& e : RsvpResvStyleDesc().enumerators()) styles.emplace_back(e.name, e.value);
  EXPECT_EQ(styles, (std::vector<std::pair<std::string_view, Kel::U32>>{{"resvStyleUnknown", 32},
                                                                        {"resvStyleWf", 17},
                                                                        {"resvStyleFf", 10},
                                                                        {"resvStyleSe", 18}}));
  ASSERT_NE(Bandwidth::StateInstance(2u), nullptr);
  EXPECT_EQ(Bandwidth::StateInstance(2u)->name, "reserved");
  EXPECT_EQ(Bandwidth::StateInstance("pending")->index, 1u);
  EXPECT_EQ(Bandwidth::StateInstance(4u), nullptr);
  EXPECT_EQ(Bandwidth::StateInstance("Pending"), nullptr);
  EXPECT_EQ(RsvpResvStyleInstance(10u)->index, 2u);

  // Every enumerator of every enumeration of the model prints as its name,
  // parses back and is found by its value.
  int enumerations = 0;
  for (Kel::TypeDesc const* t : allTypes()) {
    if (t->kind() != Kel::TypeKind::enumeration) continue;
    ++enumerations;
    Kel::EnumDesc const& d = *t->enumDesc();
    for (auto const& e : d.enumerators()) {
      Kel::String text;
      d.append(text, e.value);
      EXPECT_EQ(text, e.name);
      Kel::TextIt it = text.data();
      EXPECT_EQ(d.parse(it, text.data() + text.size()), e.value);
      EXPECT_EQ(d.byValue(e.value), &e);
    }
  }
  EXPECT_GE(enumerations, 19);
}

}  // namespace
