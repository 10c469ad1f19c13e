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

// The raw data facility's lines at `level`, without their "RsvpRawData[n] ".
struct Traced : TestSupport::TraceCapture {
  explicit Traced(int level) : TraceCapture("RsvpRawData", level) {}
  std::vector<std::string> bare() const {
    std::vector<std::string> out;
    for (std::string const& l : lines) out.push_back(l.substr(l.find("] ") + 2));
    return out;
  }
};

Kel::U8 const kTen[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

// A copy from null is refused (its line is the default levels' case),
// keeping the content; a copy from its own bytes works; an empty copy frees
// the buffer.
TEST(RawData, CopyFromRules) {
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
}

// copyTo() checks in order, each refusal with its line; a copy is cut to
// the shorter of destination and content.
TEST(RawData, CopyToChecksInOrder) {
  Traced t(0);
  auto raw = rsvpRawDataFactory();
  std::array<Kel::U8, 20> buf{};
  std::tuple<Kel::U8*, Kel::U16, char const*> const refused[] = {
      {nullptr, 0, "ERROR: Cannot copy to null destination"},
      {buf.data(), 0, "ERROR: Cannot copy 0 bytes"},
      {buf.data(), 5, "ERROR: Cannot copy empty data"}};
  for (auto const& [dst, len, error] : refused) {
    t.lines.clear();
    EXPECT_FALSE(raw->copyTo(dst, len));
    EXPECT_EQ(t.bare(), std::vector<std::string>{error});
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

// Equal when the bytes are; never equal to null.
TEST(RawData, Equality) {
  auto a = rsvpRawDataFactory();
  auto b = rsvpRawDataFactory();
  EXPECT_TRUE(a->equal(b)) << "two empty buffers";
  a->copyFrom(kTen, 4);
  b->copyFrom(kTen, 5);
  EXPECT_FALSE(a->equal(b));
  b->copyFrom(kTen, 4);
  EXPECT_TRUE(a->equal(b));
  b->stringValueIs(std::string("\0\1\2\4", 4));
  EXPECT_FALSE(a->equal(b));
  EXPECT_FALSE(a->equal(nullptr));
  a->deleteData();
  EXPECT_EQ(a->size(), 0);
}

// At level 9, the arguments and the bytes in hex.
TEST(RawData, TracesArgumentsAndBytes) {
  Traced t(9);
  auto raw = rsvpRawDataFactory();
  raw->stringValueIs("\x01\xab");
  ASSERT_EQ(t.lines.size(), 2u);
  EXPECT_EQ(t.bare()[0].rfind("copyFrom len=2 ptr=", 0), 0u) << t.lines[0];
  EXPECT_EQ(t.bare()[1], "copyFrom data=01ab");
}

}  // namespace
