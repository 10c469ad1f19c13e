// String forms of the basic types: exact texts, rejected input with its
// error text, and randomized round trips.
#include <Kel/LogCodec.h>
#include <Kel/Text.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <cmath>
#include <limits>
#include <random>
#include <tuple>
#include <utility>

namespace {

using namespace Kel;

using TestSupport::errorOf;
using TestSupport::logRoundTrip;
using TestSupport::parseError;

// Scalars print and parse at their bounds; booleans as true and false.
TEST(Scalars, PrintAndParseBoundsAndBothWords) {
  EXPECT_EQ(valueToStrep(U8{255}), "255");
  EXPECT_EQ(valueToStrep(U64{18446744073709551615ull}), "18446744073709551615");
  EXPECT_EQ(valueToStrep(S64{std::numeric_limits<S64>::min()}), "-9223372036854775808");
  EXPECT_EQ(valueToStrep(S8{-128}), "-128");
  EXPECT_EQ(strepToValue<U16>("65535"), 65535);
  EXPECT_EQ(strepToValue<U16>("007"), 7);
  EXPECT_EQ(strepToValue<S32>("-2147483648"), std::numeric_limits<S32>::min());
  EXPECT_EQ(valueToStrep(true), "true");
  EXPECT_EQ(valueToStrep(false), "false");
  EXPECT_TRUE(strepToValue<bool>("true"));
  EXPECT_FALSE(strepToValue<bool>("false"));
}

// Bad text raises the exact error: numbers, words, every spelling of NaN
// (which never equals itself, so setters and comparisons could not treat it
// as a value), and however long the input, at most 24 of its characters
// (the excerpt of an expected literal is ValueText's, in ValueFrameTest).
TEST(ParseErrors, ExactTexts) {
  String const ones(10'000'000, '1');
  String const xs(10'000'000, 'x');
  String const cut = "111111111111111111111111...";
  std::tuple<String (*)(std::string_view), String, String> const cases[] = {
      // parse, text, error
      {parseError<U16>, "65536", "Number 65536 out of range for U16"},
      {parseError<U8>, "256", "Number 256 out of range for U8"},
      {parseError<U32>, "-1", "Expected a number but found '-1'"},
      {parseError<U32>, "", "Expected a number but found end of text"},
      {parseError<U32>, "+1", "Expected a number but found '+1'"},
      {parseError<U32>, "12x", "Invalid U32"},
      {parseError<S8>, "-129", "Number -129 out of range for S8"},
      {parseError<S64>, "-", "Expected a number but found '-'"},
      {parseError<U64>, "18446744073709551616", "Number 18446744073709551616 out of range for U64"},
      {parseError<bool>, "True", "Expected true or false but found 'True'"},
      {parseError<F64>, "x1", "Expected a number but found 'x1'"},
      {parseError<F32>, "1e40", "Number 1e40 out of range for F32"},
      {parseError<F64>, "nan", "Invalid F64 'nan'"},
      {parseError<F64>, "-nan", "Invalid F64 '-nan'"},
      {parseError<F64>, "nan(123)", "Invalid F64 'nan(123)'"},
      {parseError<F64>, "NAN", "Invalid F64 'NAN'"},
      {parseError<F64>, "NaN(", "Invalid F64 'NaN'"},
      {parseError<F64>, "nan(0123456789abcdefghijklmnopq)",
       "Invalid F64 'nan(0123456789abcdefghij...'"},
      {parseError<F32>, "nan", "Invalid F32 'nan'"},
      {parseError<F32>, "-NaN(7)", "Invalid F32 '-NaN(7)'"},
      {parseError<U32>, ones, "Number " + cut + " out of range for U32"},
      {parseError<S64>, "-" + ones, "Number -11111111111111111111111... out of range for S64"},
      {parseError<F64>, ones, "Number " + cut + " out of range for F64"},
      {parseError<F32>, "-" + ones, "Number -11111111111111111111111... out of range for F32"},
      {parseError<bool>, xs, "Expected true or false but found 'xxxxxxxxxxxxxxxxxxxxxxxx...'"},
      {parseError<String>, xs, "Expected a quoted string but found 'xxxxxxxxxxxxxxxxxxxxxxxx...'"},
      {parseError<F64>, "nan(" + xs + ")", "Invalid F64 'nan(xxxxxxxxxxxxxxxxxxxx...'"},
  };
  for (auto const& [parse, text, want] : cases) EXPECT_EQ(parse(text), want) << text.substr(0, 40);
  EXPECT_EQ(excerpt(String("a\1b\x7f\xff", 5)), "a?b??");
  EXPECT_EQ(excerpt(String(24, 'z')), String(24, 'z'));
}

// Floats print in the shortest form that reads back, for random bit patterns.
TEST(Floats, ShortestFormReadsBack) {
  EXPECT_EQ(valueToStrep(0.5), "0.5");
  EXPECT_EQ(valueToStrep(F32{0.1f}), "0.1");
  EXPECT_EQ(valueToStrep(1e20), "1e+20");
  EXPECT_EQ(valueToStrep(-std::numeric_limits<F64>::infinity()), "-inf");
  std::mt19937_64 rng(7);
  for (int i = 0; i < 2000; ++i) {
    F64 const d = std::bit_cast<F64>(rng());
    if (std::isnan(d)) continue;
    EXPECT_EQ(strepToValue<F64>(valueToStrep(d)), d);
    F32 const f = std::bit_cast<F32>(static_cast<U32>(rng()));
    if (std::isnan(f)) continue;
    EXPECT_EQ(strepToValue<F32>(valueToStrep(f)), f);
  }
}

// The infinities are kept in every spelling and pass through the attribute
// log; the log refuses a NaN bit pattern as the text does (NaN's refusals
// in text are ParseErrors').
TEST(Floats, InfinityIsKeptAndNanRefusedFromTheLog) {
  F64 const inf = std::numeric_limits<F64>::infinity();
  std::pair<char const*, F64> const kept[] = {
      {"inf", inf}, {"-inf", -inf}, {"INF", inf}, {"infinity", inf}, {"-Infinity", -inf}};
  for (auto const& [text, value] : kept) {
    EXPECT_EQ(strepToValue<F64>(text), value) << text;
    EXPECT_EQ(strepToValue<F32>(text), static_cast<F32>(value)) << text;
    EXPECT_EQ(strepToValue<F64>(valueToStrep(value)), value);
    EXPECT_EQ(logRoundTrip(value), value);
  }
  F64 const nan64 = std::numeric_limits<F64>::quiet_NaN();
  F32 const nan32 = std::numeric_limits<F32>::quiet_NaN();
  EXPECT_EQ(errorOf<RangeException>([&] { (void)logRoundTrip(nan64); }), "Invalid F64 'nan'");
  EXPECT_EQ(errorOf<RangeException>([&] { (void)logRoundTrip(-nan32); }), "Invalid F32 'nan'");
}

// Strings are quoted with escapes, and any bytes read back; bad quoting
// raises the exact error.
TEST(Strings, QuotingAndEscapes) {
  EXPECT_EQ(valueToStrep(String("Ethernet1")), "\"Ethernet1\"");
  EXPECT_EQ(valueToStrep(String("a\"b\\c\n\t\x01\xff", 9)), R"("a\"b\\c\n\t\x01\xff")");
  EXPECT_EQ(valueToStrep(String("\0", 1)), R"("\x00")");
  EXPECT_EQ(strepToValue<String>(R"("\x41\x7e")"), "A~");
  EXPECT_EQ(parseError<String>(R"("abc)"), "Unterminated string");
  EXPECT_EQ(parseError<String>(R"("abc\)"), "Unterminated string");
  EXPECT_EQ(parseError<String>(R"("\q")"), "Bad escape \\q in string");
  EXPECT_EQ(parseError<String>(R"("\x4")"), "Bad \\x escape in string");
  EXPECT_EQ(parseError<String>("abc"), "Expected a quoted string but found 'abc'");
  std::mt19937 rng(11);
  for (int i = 0; i < 500; ++i) {
    String bytes(rng() % 40, '\0');
    for (char& c : bytes) c = static_cast<char>(rng());
    EXPECT_EQ(strepToValue<String>(valueToStrep(bytes)), bytes);
  }
}

// A parse stops behind its value, or fails moving neither the position nor
// the target (a NaN's refusal too).
TEST(Parsers, StopBehindTheValueOrMoveNothing) {
  String const text = "123, 'next'";
  TextIt it = text.data();
  U32 n = 0;
  sequenceToValue(it, text.data() + text.size(), &n);
  EXPECT_EQ(n, 123u);
  EXPECT_EQ(String(it), ", 'next'");
  auto const refused = [](std::string_view bad, auto const kept) {
    auto v = kept;
    TextIt at = bad.data();
    EXPECT_THROW(sequenceToValue(at, bad.data() + bad.size(), &v), RangeException) << bad;
    EXPECT_EQ(v, kept) << bad;
    EXPECT_EQ(at, bad.data()) << bad;
  };
  refused("99999999999", U32{123});
  refused("\"unterminated", String("kept"));
  refused("nan, 1", F64{2.5});
}

// A rethrown range error names its attribute path, outermost first; the
// range text's form.
TEST(RangeException, NamesTheAttributePathOutermostFirst) {
  try {
    parseNamed("sessionId", [] { parseNamed("dstIp", [] { throw RangeException("bad"); }); });
    FAIL();
  } catch (RangeException const& e) {
    EXPECT_EQ(e.text(), "bad");
    EXPECT_EQ(e.attribute(), "sessionId.dstIp");
    EXPECT_STREQ(e.what(), "bad (attribute 'sessionId.dstIp')");
  }
  EXPECT_EQ(errorOf<RangeException>(
                [] { throwOutOfRange("RsvpPathId", "lspId", "0", "RsvpPathId::invalidLspId"); }),
            "RsvpPathId::lspId < 0 or > RsvpPathId::invalidLspId not allowed");
}

}  // namespace
