// Tracing: levels per facility, the replaceable sink, formatting only when
// enabled, and the errors of the setup.
#include <Rsvp/Rsvp.h>
#include <Rsvp/RsvpRawData.h>
#include <Rsvp/RsvpTrace.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <string>
#include <vector>

namespace {

using Captured = TestSupport::TraceCapture;

// Each facility writes up to its own level; a line above it is never
// formatted.
TEST(Trace, LevelsPerFacility) {
  Captured c;
  Rsvp::traceLevelIs("RsvpRawData", 8);
  int formatted = 0;
  auto count = [&] {
    ++formatted;
    return "x";
  };
  RSVP_TRACE(Rsvp::rawDataTrace(), 8, "entry " << count());
  RSVP_TRACE(Rsvp::rawDataTrace(), 9, "decision " << count());
  RSVP_TRACE(Rsvp::msgTrace(), 8, "other facility " << count());
  EXPECT_EQ(c.lines, std::vector<std::string>{"RsvpRawData[8] entry x"});
  EXPECT_EQ(formatted, 1) << "a disabled line is never formatted";
  Rsvp::traceLevelIs("RsvpRawData", 9);
  RSVP_TRACE(Rsvp::rawDataTrace(), 9, "len=" << 3);
  EXPECT_EQ(c.lines.back(), "RsvpRawData[9] len=3");
}

// With no level set, error lines reach the sink and entry lines do not.
TEST(Trace, DefaultLevelsWriteErrorLinesOnly) {
  for (Rsvp::TraceFacility* f : Rsvp::traceFacilities()) {
    EXPECT_EQ(f->level(), 0) << f->name();
  }
  Captured c;
  auto raw = Rsvp::rsvpRawDataFactory();
  EXPECT_FALSE(raw->copyFrom(nullptr, 5));
  EXPECT_EQ(c.lines, std::vector<std::string>{"RsvpRawData[0] ERROR: Cannot copy from null source"})
      << "the level-8 entry line stays off";
  RSVP_TRACE(Rsvp::errorTrace(), 8, "entry");
  RSVP_TRACE(Rsvp::sessionTrace(), 9, "decision");
  EXPECT_EQ(c.lines.size(), 1u);
  Rsvp::traceLevelIs("RsvpRawData", -1);
  EXPECT_FALSE(raw->copyFrom(nullptr, 5));
  EXPECT_EQ(c.lines.size(), 1u) << "-1 silences errors too";
}

// An unknown facility and a level out of range are refused with their texts,
// changing nothing; every facility is found by its name.
TEST(Trace, SetupErrors) {
  using TestSupport::errorOf;
  EXPECT_EQ(errorOf<Kel::RangeException>([] { Rsvp::traceLevelIs("Nope", 1); }),
            "Unknown trace facility 'Nope'");
  EXPECT_EQ(errorOf<Kel::RangeException>([] { Rsvp::rawDataTrace().levelIs(10); }),
            "TraceFacility::level < -1 or > 9 not allowed");
  EXPECT_EQ(Rsvp::rawDataTrace().level(), 0) << "a refused level changes nothing";
  for (Rsvp::TraceFacility* f : Rsvp::traceFacilities()) {
    EXPECT_EQ(Rsvp::traceFacility(f->name()), f);
  }
}

}  // namespace
