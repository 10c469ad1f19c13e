// Tracing: levels per facility, the replaceable sink, formatting only when
// enabled, and the errors of the setup. Then raw byte buffers, which report
// misuse through it: the copy rules, the "ERROR: " trace lines and false
// results of misuse (in the order the checks are made), and equality.
#include <Rsvp/Rsvp.h>
#include <Rsvp/RsvpRawData.h>
#include <Rsvp/RsvpTrace.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <array>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Captured = TestSupport::TraceCapture;
using Rsvp::rsvpRawDataFactory;

// With no level set, error lines reach the sink and entry lines do not; each
// facility writes up to its own level, -1 silencing errors too; a line above
// it is never formatted. An unknown facility and a level out of range are
// refused with their texts, changing nothing; every facility is found by its
// name.
TEST(Trace, LevelsPerFacility) {
  Captured c;
  auto raw = rsvpRawDataFactory();
  EXPECT_FALSE(raw->copyFrom(nullptr, 5));
  EXPECT_EQ(c.lines, std::vector<std::string>{"RsvpRawData[0] ERROR: Cannot copy from null source"})
      << "the level-8 entry line stays off";
  RSVP_TRACE(Rsvp::errorTrace(), 8, "entry");
  RSVP_TRACE(Rsvp::sessionTrace(), 9, "decision");
  EXPECT_EQ(c.lines.size(), 1u);
  Rsvp::traceLevelIs("RsvpRawData", -1);
  EXPECT_FALSE(raw->copyFrom(nullptr, 5));
  EXPECT_EQ(c.lines.size(), 1u) << "-1 silences errors too";

  c.lines.clear();
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

  EXPECT_EQ(TestSupport::errorOf<Kel::RangeException>([] { Rsvp::traceLevelIs("Nope", 1); }),
            "Unknown trace facility 'Nope'");
  EXPECT_EQ(TestSupport::errorOf<Kel::RangeException>([] { Rsvp::rawDataTrace().levelIs(10); }),
            "TraceFacility::level < -1 or > 9 not allowed");
  EXPECT_EQ(Rsvp::rawDataTrace().level(), 9) << "a refused level changes nothing";
  for (Rsvp::TraceFacility* f : Rsvp::traceFacilities()) {
    EXPECT_EQ(Rsvp::traceFacility(f->name()), f);
  }
}

Kel::U8 const kTen[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

// A copy from null is refused (its line is the levels' case), keeping the
// content; a copy from its own bytes works; an empty copy frees the buffer.
// Buffers are equal when their bytes are, never equal to null.
TEST(RawData, CopyFromRulesAndEquality) {
  auto raw = rsvpRawDataFactory();
  EXPECT_EQ(raw->data(), nullptr);
  EXPECT_TRUE(raw->copyFrom(kTen, 10));
  EXPECT_EQ(raw->size(), 10);
  EXPECT_FALSE(raw->copyFrom(nullptr, 5));
  EXPECT_EQ(raw->size(), 10) << "a refused copy keeps the content";
  EXPECT_TRUE(raw->copyFrom(raw->data() + 2, 3)) << "from its own bytes";
  EXPECT_EQ(raw->stringValue(), std::string("\x02\x03\x04", 3));
  EXPECT_TRUE(raw->copyFrom(kTen, 0));
  EXPECT_EQ(raw->size(), 0);
  EXPECT_EQ(raw->data(), nullptr);

  auto b = rsvpRawDataFactory();
  EXPECT_TRUE(raw->equal(b)) << "two empty buffers";
  raw->copyFrom(kTen, 4);
  b->copyFrom(kTen, 5);
  EXPECT_FALSE(raw->equal(b));
  b->copyFrom(kTen, 4);
  EXPECT_TRUE(raw->equal(b));
  b->stringValueIs(std::string("\0\1\2\4", 4));
  EXPECT_FALSE(raw->equal(b));
  EXPECT_FALSE(raw->equal(nullptr));
  raw->deleteData();
  EXPECT_EQ(raw->size(), 0);
}

// copyTo() checks in order, each refusal with its line; a copy is cut to
// the shorter of destination and content.
TEST(RawData, CopyToChecksInOrder) {
  Captured t("RsvpRawData", 0);
  auto raw = rsvpRawDataFactory();
  std::array<Kel::U8, 20> buf{};
  std::tuple<Kel::U8*, Kel::U16, char const*> const refused[] = {
      {nullptr, 0, "RsvpRawData[0] ERROR: Cannot copy to null destination"},
      {buf.data(), 0, "RsvpRawData[0] ERROR: Cannot copy 0 bytes"},
      {buf.data(), 5, "RsvpRawData[0] ERROR: Cannot copy empty data"}};
  for (auto const& [dst, len, error] : refused) {
    t.lines.clear();
    EXPECT_FALSE(raw->copyTo(dst, len));
    EXPECT_EQ(t.lines, std::vector<std::string>{error});
  }
  raw->copyFrom(kTen, 10);
  buf.fill(0xee);
  EXPECT_TRUE(raw->copyTo(buf.data(), 3));
  EXPECT_EQ(buf[2], 2);
  EXPECT_EQ(buf[3], 0xee) << "a short destination gets a cut copy";
  EXPECT_TRUE(raw->copyTo(buf.data(), 20));
  EXPECT_EQ(buf[9], 9);
  EXPECT_EQ(buf[10], 0xee) << "at most the content";
}

// At level 9, the arguments (at 8) and the bytes in hex.
TEST(RawData, TracesArgumentsAndBytes) {
  Captured t("RsvpRawData", 9);
  auto raw = rsvpRawDataFactory();
  raw->stringValueIs("\x01\xab");
  ASSERT_EQ(t.lines.size(), 2u);
  EXPECT_EQ(t.lines[0].rfind("RsvpRawData[8] copyFrom len=2 ptr=", 0), 0u) << t.lines[0];
  EXPECT_EQ(t.lines[1], "RsvpRawData[9] copyFrom data=01ab");
}

}  // namespace
