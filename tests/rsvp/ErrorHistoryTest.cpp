// Errors and history: the error record's reset (order, notifications, entry
// trace), history entries' factories and their fixed historyEntryType.
#include <Rsvp/Rsvp.h>
#include <Rsvp/RsvpTrace.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace Rsvp;
using TestSupport::errorOf;

// Which attributes differ from their defaults before reset() -> the
// notifications reset() gives, always in declaration order; a fresh state
// already holds the defaults (no error known: code 256, not 0). reset()
// traces its entry at level 8 (the levels' gate is TraceTest's).
TEST(ErrorState, ResetNotifiesEachChangedAttributeInOrder) {
  Kel::Ptr<RsvpMsg const> const msg = rsvpPathMsgFactory();
  // The changes before reset(), and the notifications it gives.
  std::tuple<char const*, std::function<void(RsvpErrorState&)>, std::vector<std::string>> const
      cases[] = {
          {"everything",
           [&](RsvpErrorState& s) {
             s.offendingMsgIs(msg);
             s.errorProcessedTimeIs(2.5);
             s.errorDetectedTimeIs(1.5);
             s.errorIs(RsvpError(rsvpConfirmation, 3));
           },
           {"error", "errorDetectedTime", "errorProcessedTime", "offendingMsg"}},
          {"code 0 only",
           [](RsvpErrorState& s) { s.errorIs(RsvpError(rsvpConfirmation, 0)); },
           {"error"}},
          {"value only",
           [](RsvpErrorState& s) { s.errorIs(RsvpError(rsvpErrorCodeUnknown, 1)); },
           {"error"}},
          {"times",
           [](RsvpErrorState& s) {
             s.errorProcessedTimeIs(-1);
             s.errorDetectedTimeIs(7);
           },
           {"errorDetectedTime", "errorProcessedTime"}},
          {"message only", [&](RsvpErrorState& s) { s.offendingMsgIs(msg); }, {"offendingMsg"}},
          {"nothing", [](RsvpErrorState&) {}, {}},
      };
  for (auto const& [name, set, expected] : cases) {
    SCOPED_TRACE(name);
    auto state = rsvpErrorStateFactory();
    set(*state);
    TestSupport::Heard heard(state.get());
    TestSupport::TraceCapture trace("RsvpError", 8);
    state->reset();
    EXPECT_EQ(heard.log, expected);
    EXPECT_EQ(trace.lines, std::vector<std::string>{"RsvpError[8] reset fullName=RsvpErrorState"});
    EXPECT_EQ(Kel::browseText(*state), Kel::browseText(*rsvpErrorStateFactory()));
    heard.log.clear();
    state->reset();
    EXPECT_TRUE(heard.log.empty()) << "a second reset changes nothing";
  }
}

// Leaves of the history entry (with no arguments but the timestamp, with an
// address of either family): the factory and the historyEntryType.
struct Leaf {
  char const* name;
  std::function<Kel::Ptr<RsvpHistoryEntry>(Kel::Seconds)> make;
  RsvpHistoryEntryType type;
};

// Each leaf is made with its timestamp, fixes its type, and refuses a
// generic write to either with the exact text.
TEST(HistoryEntry, EachLeafFixesItsTypeAndRefusesAWriteToIt) {
  Leaf const leaves[] = {
      {"RsvpSessionCreationHistoryEntry",
       [](Kel::Seconds t) { return rsvpSessionCreationHistoryEntryFactory(t); },
       rsvpSessionCreationHistoryEntry},
      {"RsvpSpFrrAvailableHistoryEntry",
       [](Kel::Seconds t) {
         return rsvpSpFrrAvailableHistoryEntryFactory(t, true, Lumo::IpGenAddr("10.0.0.9"), true);
       },
       rsvpSpFrrAvailableHistoryEntry},
      {"RsvpSpDsFrrInUseHistoryEntry",
       [](Kel::Seconds t) {
         return rsvpSpDsFrrInUseHistoryEntryFactory(t, true, Lumo::IpGenAddr("2001:db8::1"), false);
       },
       rsvpSpDsFrrInUseHistoryEntry},
  };
  for (Leaf const& leaf : leaves) {
    SCOPED_TRACE(leaf.name);
    auto entry = leaf.make(12.25);
    EXPECT_EQ(entry->fwkType().name(), std::string("Rsvp::") + leaf.name);
    EXPECT_EQ(entry->name(), leaf.name) << "named after its type";
    EXPECT_EQ(entry->timestamp(), 12.25);
    EXPECT_EQ(entry->historyEntryType(), leaf.type);
    RsvpHistoryEntryType const other = rsvpUnknownEntry;
    for (Kel::U32 op : {Kel::attrOpWrite, Kel::attrOpCheck}) {
      EXPECT_EQ(errorOf<Kel::ImmutableAttributeException>(
                    [&] { TestSupport::attrOp(*entry, "historyEntryType", op, nullptr, &other); }),
                std::string("Attribute Rsvp::") + leaf.name + "::historyEntryType is immutable")
          << "op " << op;
    }
    EXPECT_EQ(entry->historyEntryType(), leaf.type) << "unchanged";
    Kel::Seconds const later = 99;
    EXPECT_THROW(TestSupport::attrOp(*entry, "timestamp", Kel::attrOpWrite, nullptr, &later),
                 Kel::ImmutableAttributeException);
    EXPECT_EQ(entry->timestamp(), 12.25);
  }
}

}  // namespace
