// The enumeration frame: declaration order apart from numeric order, lookups
// by value and by name, the text of every enumerator and the rule for names
// and numbers that the table does not hold.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Rsvp;

TEST(Enum, DeclarationOrderIsKept) {
  std::vector<std::pair<std::string_view, Kel::U32>> styles;
  for (auto const& e : RsvpResvStyleDesc().enumerators()) styles.emplace_back(e.name, e.value);
  EXPECT_EQ(styles, (std::vector<std::pair<std::string_view, Kel::U32>>{{"resvStyleUnknown", 32},
                                                                        {"resvStyleWf", 17},
                                                                        {"resvStyleFf", 10},
                                                                        {"resvStyleSe", 18}}));
  auto const codes = RsvpErrorCodeDesc().enumerators();
  ASSERT_EQ(codes.size(), 19u);
  EXPECT_EQ(codes.front().name, "rsvpErrorCodeUnknown");
  EXPECT_EQ(codes.front().value, 256u);
  EXPECT_EQ(codes[1].value, 0u);
  EXPECT_EQ(codes.back().name, "rsvpNotify");
  EXPECT_EQ(RsvpErrorCodeDesc().name(), "Rsvp::RsvpErrorCode");
}

TEST(Enum, PlainEnumeratorsInTheirNamespaces) {
  static_assert(sizeof(RsvpMsgType) == 4);
  static_assert(Cli::md5 == 1 && Cli::frrNodeProtection == 2 && Bandwidth::reserved == 2);
  static_assert(rsvpIntegrityResponseMsg == 26 && resvStyleSe == 18 && spOperStateBoth == 3);
  EXPECT_EQ(valueToStrep(Cli::md5), "md5");
  EXPECT_EQ(stringValue(Bandwidth::failed), "failed");
  EXPECT_EQ(Bandwidth::StateDesc().name(), "Rsvp::Bandwidth::State");
}

TEST(Enum, InstanceLookups) {
  ASSERT_NE(Bandwidth::StateInstance(2u), nullptr);
  EXPECT_EQ(Bandwidth::StateInstance(2u)->name, "reserved");
  EXPECT_EQ(Bandwidth::StateInstance("pending")->value, 1u);
  EXPECT_EQ(Bandwidth::StateInstance("pending")->index, 1u);
  EXPECT_EQ(Bandwidth::StateInstance(4u), nullptr);
  EXPECT_EQ(Bandwidth::StateInstance("Pending"), nullptr);
  EXPECT_EQ(RsvpResvStyleInstance(10u)->index, 2u);
}

TEST(Enum, ParseAndPrint) {
  EXPECT_EQ(strepToValue<RsvpResvStyle>("resvStyleFf"), 10u);
  EXPECT_EQ(valueToStrep(resvStyleFf), "resvStyleFf");
  std::ostringstream os;
  os << rsvpSrefreshMsg;
  EXPECT_EQ(os.str(), "rsvpSrefreshMsg");
  // A number without a name prints as the number and reads back.
  auto const odd = static_cast<RsvpResvStyle>(5);
  EXPECT_EQ(valueToStrep(odd), "5");
  EXPECT_EQ(strepToValue<RsvpResvStyle>("5"), odd);
}

TEST(Enum, RejectedText) {
  struct {
    std::string text;
    std::string error;
  } const cases[] = {
      {"resvStyleXx", "Invalid enumerator 'resvStyleXx' for Rsvp::RsvpResvStyle"},
      {std::string(10'000'000, 'x'),
       "Invalid enumerator 'xxxxxxxxxxxxxxxxxxxxxxxx...' for Rsvp::RsvpResvStyle"},
      {"", "Expected an enumerator of Rsvp::RsvpResvStyle but found end of text"},
      {"-1", "Expected an enumerator of Rsvp::RsvpResvStyle but found '-1'"},
      {"resvStyleFf!", "Invalid RsvpResvStyle"},
      {"4294967296", "Number 4294967296 out of range for U32"},
  };
  for (auto const& c : cases) {
    try {
      (void)strepToValue<RsvpResvStyle>(c.text);
      ADD_FAILURE() << c.text.substr(0, 30);
    } catch (Kel::RangeException const& e) {
      EXPECT_EQ(e.what(), c.error);
    }
  }
}

// Every enumerator of every enumeration prints as its name and parses back.
TEST(Enum, EveryEnumeratorRoundTrips) {
  Kel::EnumDesc const* descs[] = {
      &Bandwidth::StateDesc(),
      &Cli::HmacMethodDesc(),
      &Cli::ReversionModeDesc(),
      &Cli::RefreshMethodDesc(),
      &Cli::FrrModeDesc(),
      &RsvpAuthTypeDesc(),
      &RsvpRunningStateDesc(),
      &RsvpHistoryEntryTypeDesc(),
      &RsvpDeliveryTypeDesc(),
      &RsvpMsgEqualStatusDesc(),
      &RsvpMsgTypeDesc(),
      &RsvpResvStyleDesc(),
      &RsvpAdmissionCtrlErrorValueDesc(),
      &RsvpErrorCodeDesc(),
      &RsvpSessionRoleDesc(),
      &RsvpSpSmTypeDesc(),
      &RsvpSpOperStateActionDesc(),
      &RsvpSpOperStateDesc(),
      &RsvpTunnelRequestTypeDesc(),
  };
  int count = 0;
  for (Kel::EnumDesc const* d : descs) {
    for (auto const& e : d->enumerators()) {
      Kel::String text;
      d->append(text, e.value);
      EXPECT_EQ(text, e.name);
      Kel::TextIt it = text.data();
      EXPECT_EQ(d->parse(it, text.data() + text.size()), e.value);
      EXPECT_EQ(d->byValue(e.value), &e);
      ++count;
    }
  }
  EXPECT_EQ(count, 92);
}

}  // namespace
