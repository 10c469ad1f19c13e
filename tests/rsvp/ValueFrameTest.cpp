// The frame that every generated value type shares, exercised on the types
// that use the repr form: text, parsing step by step with its errors, range
// bounds, the null test, ordering and hashing. (Random values of every value
// type read back from text and log in ObjectsTest.)
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

namespace {

using namespace Rsvp;
using TestSupport::parseError;

// The repr form: type name, then each attribute in declaration order; an
// enumerator without a name as its number.
TEST(Repr, ExactText) {
  EXPECT_EQ(valueToStrep(RsvpError()),
            "Value('Rsvp::RsvpError', ** {'errorCode': rsvpErrorCodeUnknown, 'errorValue': 0})");
  EXPECT_EQ(valueToStrep(RsvpTunnelRequestId(4000000000u, 7)),
            "Value('Rsvp::RsvpTunnelRequestId', ** {'reqId': 4000000000, 'reqSubId': 7})");
  EXPECT_EQ(
      valueToStrep(RsvpTunnelConfigId(1, 2, frrReqType)),
      "Value('Rsvp::RsvpTunnelConfigId', ** {'reqId': 1, 'reqSubId': 2, 'reqType': frrReqType})");
  EXPECT_EQ(valueToStrep(RsvpMsgIdObj(true, 16777216, 9)),
            "Value('Rsvp::RsvpMsgIdObj', ** {'ackDesired': true, 'epoch': 16777216, 'msgId': 9})");
  std::ostringstream os;
  os << RsvpRefreshId(1, 5);
  EXPECT_EQ(os.str(), "Value('Rsvp::RsvpRefreshId', ** {'epoch': 1, 'msgId': 5})");
  // An enumerator without a name prints as its number and reads back.
  RsvpError const e(static_cast<RsvpErrorCode>(99), 3);
  EXPECT_EQ(valueToStrep(e), "Value('Rsvp::RsvpError', ** {'errorCode': 99, 'errorValue': 3})");
  EXPECT_EQ(strepToValue<RsvpError>(valueToStrep(e)), e);
}

// Bad repr text raises the exact error, with the attribute at fault.
TEST(Repr, RejectedText) {
  struct {
    std::string (*parse)(std::string_view);
    char const* text;
    char const* error;
  } const cases[] = {
      {parseError<RsvpError>,
       "Value('Rsvp::RsvpError', ** {'errorValue': 0, 'errorCode': rsvpNotify})",
       "Expected 'Value('Rsvp::RsvpError', ** {'errorCode': ' but found "
       "'Value('Rsvp::RsvpError',...'"},
      {parseError<RsvpError>, "Value('Rsvp::RsvpError', ** {'errorCode': bogus, 'errorValue': 0})",
       "Invalid enumerator 'bogus' for Rsvp::RsvpErrorCode (attribute 'errorCode')"},
      {parseError<RsvpError>,
       "Value('Rsvp::RsvpError', ** {'errorCode': rsvpNotify, 'errorValue': -1})",
       "Expected a number but found '-1})' (attribute 'errorValue')"},
      {parseError<RsvpError>,
       "Value('Rsvp::RsvpError', ** {'errorCode': rsvpNotify, 'errorValue': 1}",
       "Expected '})' but found '}'"},
      {parseError<RsvpError>,
       "Value('Rsvp::RsvpError', ** {'errorCode': rsvpNotify, 'errorValue': 1}) ",
       "Invalid RsvpError"},
      {parseError<RsvpMsgIdObj>,
       "Value('Rsvp::RsvpMsgIdObj', ** {'ackDesired': false, 'epoch': 16777217, 'msgId': 0})",
       "RsvpMsgIdObj::epoch < 0 or > RsvpMsgIdObj::invalidMsgIdEpochValue not allowed (attribute "
       "'epoch')"},
      {parseError<RsvpRefreshId>,
       "Value('Rsvp::RsvpRefreshId', ** {'epoch': 16777217, 'msgId': 0})",
       "RsvpRefreshId::epoch < 0 or > Rsvp::RsvpMsgIdObj::invalidMsgIdEpochValue not allowed "
       "(attribute 'epoch')"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.parse(c.text), c.error) << c.text;
}

// A value is null when every attribute holds its default; a range takes its
// upper bound, a constant of another type, and nothing beyond; order is
// lexicographic in declaration order; hashes as worked out by hand.
TEST(Frame, NullTestRangeBoundOrderAndHash) {
  EXPECT_TRUE(!RsvpError());
  EXPECT_FALSE(!RsvpError(rsvpErrorCodeUnknown, 1));
  EXPECT_NO_THROW(RsvpRefreshId(RsvpMsgIdObj::invalidMsgIdEpochValue(), 0));
  EXPECT_THROW(RsvpMsgIdObj(false, 16777217, 0), Kel::RangeException);
  EXPECT_TRUE(RsvpRefreshId(1, 5) < RsvpRefreshId(2, 0));
  EXPECT_TRUE(RsvpRefreshId(1, 5) < RsvpRefreshId(1, 6));
  EXPECT_FALSE(RsvpRefreshId(1, 6) < RsvpRefreshId(1, 5));
  // Hand-computed: one-at-a-time over 01 00 00 00 | 02 00 and 01 00 00 00 | 05 00 00 00.
  EXPECT_EQ(RsvpTunnelRequestId(1, 2).hash(), 0x3583837bu);
  EXPECT_EQ(RsvpRefreshId(1, 5).hash(), 0xe3463d3fu);
  // Declaration order decides: reqType is compared last.
  EXPECT_TRUE(RsvpTunnelConfigId(1, 2, frrReqType) < RsvpTunnelConfigId(1, 3, staticReqType));
  EXPECT_TRUE(RsvpTunnelConfigId(1, 2, staticReqType) < RsvpTunnelConfigId(1, 2, frrReqType));
}

}  // namespace
