// The enumeration frame: declaration order apart from numeric order, lookups
// by value and by name, the text of every enumerator and the rule for names
// and numbers that the table does not hold.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <string>
#include <vector>

namespace {

using namespace Rsvp;

// Enumerators keep their declaration order, apart from their numbers.
TEST(Enum, DeclarationOrderIsKept) {
  std::vector<std::pair<std::string_view, Kel::U32>> styles;
  for (auto const& e : RsvpResvStyleDesc().enumerators()) styles.emplace_back(e.name, e.value);
  EXPECT_EQ(styles, (std::vector<std::pair<std::string_view, Kel::U32>>{{"resvStyleUnknown", 32},
                                                                        {"resvStyleWf", 17},
                                                                        {"resvStyleFf", 10},
                                                                        {"resvStyleSe", 18}}));
}

// Lookups by value and by exact name, misses answering null; text both ways,
// also of plain enumerators in their namespaces; a number without a name
// prints as the number and reads back.
TEST(Enum, ParseAndPrint) {
  ASSERT_NE(Bandwidth::StateInstance(2u), nullptr);
  EXPECT_EQ(Bandwidth::StateInstance(2u)->name, "reserved");
  EXPECT_EQ(Bandwidth::StateInstance("pending")->value, 1u);
  EXPECT_EQ(Bandwidth::StateInstance("pending")->index, 1u);
  EXPECT_EQ(Bandwidth::StateInstance(4u), nullptr);
  EXPECT_EQ(Bandwidth::StateInstance("Pending"), nullptr);
  EXPECT_EQ(RsvpResvStyleInstance(10u)->index, 2u);
  static_assert(sizeof(RsvpMsgType) == 4);
  EXPECT_EQ(strepToValue<RsvpResvStyle>("resvStyleFf"), 10u);
  EXPECT_EQ(valueToStrep(resvStyleFf), "resvStyleFf");
  EXPECT_EQ(valueToStrep(Cli::md5), "md5");
  EXPECT_EQ(stringValue(Bandwidth::failed), "failed");
  EXPECT_EQ(Bandwidth::StateDesc().name(), "Rsvp::Bandwidth::State");
  std::ostringstream os;
  os << rsvpSrefreshMsg;
  EXPECT_EQ(os.str(), "rsvpSrefreshMsg");
  auto const odd = static_cast<RsvpResvStyle>(5);
  EXPECT_EQ(valueToStrep(odd), "5");
  EXPECT_EQ(strepToValue<RsvpResvStyle>("5"), odd);
}

// Bad text raises the exact error, quoting at most 24 characters.
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
  for (auto const& c : cases) EXPECT_EQ(TestSupport::parseError<RsvpResvStyle>(c.text), c.error);
}

// Every enumerator of every enumeration of the model prints as its name,
// parses back and is found by its value.
TEST(Enum, EveryEnumeratorRoundTrips) {
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
