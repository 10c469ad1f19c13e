// Raw byte buffers: the copy rules, the "ERROR: " trace lines and false
// results of misuse (in the order the checks are made), and equality.
#include <Rsvp/Rsvp.h>
#include <Rsvp/RsvpRawData.h>
#include <Rsvp/RsvpTrace.h>

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace {

using Rsvp::rsvpRawDataFactory;

struct Traced {
  std::vector<std::string> lines;
  explicit Traced(int level) {
    Rsvp::traceSinkIs([this](std::string_view, int, std::string_view l) { lines.emplace_back(l); });
    Rsvp::rawDataTrace().levelIs(level);
  }
  ~Traced() {
    Rsvp::traceSinkIs(nullptr);
    Rsvp::rawDataTrace().levelIs(Rsvp::TraceFacility::kDefaultLevel);
  }
};

Kel::U8 const kTen[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

TEST(RawData, CopyFromRules) {
  Traced t(0);
  auto raw = rsvpRawDataFactory();
  EXPECT_EQ(raw->data(), nullptr);
  EXPECT_TRUE(raw->copyFrom(kTen, 10));
  EXPECT_EQ(raw->size(), 10);
  EXPECT_FALSE(raw->copyFrom(nullptr, 5));
  EXPECT_EQ(raw->size(), 10) << "a refused copy keeps the content";
  EXPECT_EQ(t.lines, std::vector<std::string>{"ERROR: Cannot copy from null source"});
  EXPECT_TRUE(raw->copyFrom(raw->data() + 2, 3)) << "from its own bytes";
  EXPECT_EQ(raw->stringValue(), std::string("\x02\x03\x04", 3));
  EXPECT_TRUE(raw->copyFrom(kTen, 0));
  EXPECT_EQ(raw->size(), 0);
  EXPECT_EQ(raw->data(), nullptr);
}

TEST(RawData, CopyToChecksInOrder) {
  Traced t(0);
  auto raw = rsvpRawDataFactory();
  std::array<Kel::U8, 20> buf{};
  struct {
    Kel::U8* dst;
    Kel::U16 len;
    char const* error;
  } const refused[] = {{nullptr, 0, "ERROR: Cannot copy to null destination"},
                       {buf.data(), 0, "ERROR: Cannot copy 0 bytes"},
                       {buf.data(), 5, "ERROR: Cannot copy empty data"}};
  for (auto const& c : refused) {
    t.lines.clear();
    EXPECT_FALSE(raw->copyTo(c.dst, c.len));
    EXPECT_EQ(t.lines, std::vector<std::string>{c.error});
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

TEST(RawData, TracesArgumentsAndBytes) {
  Traced t(9);
  auto raw = rsvpRawDataFactory();
  raw->stringValueIs("\x01\xab");
  ASSERT_EQ(t.lines.size(), 2u);
  EXPECT_EQ(t.lines[0].rfind("copyFrom len=2 ptr=", 0), 0u) << t.lines[0];
  EXPECT_EQ(t.lines[1], "copyFrom data=01ab");
}

}  // namespace
