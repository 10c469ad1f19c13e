// The network types: text and wire round trips of random values, the
// canonical IPv6 form, exact error texts, order, hash values and decoding.
#include <Lumo/Lumo.h>
#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Kel::String;
using Kel::U8;
using Bytes = std::vector<U8>;
using AllTypes = testing::Types<Lumo::Ip6Addr, Lumo::IpGenAddr, Lumo::IpGenPrefix, Lumo::MplsLabel,
                                Lumo::EthType, Lumo::IntfId, Lumo::NetU8>;

String const kLabelRange =
    "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";

// The range error's text that `f` raises, or "accepted".
auto const errorOf = [](auto&& f) { return TestSupport::errorOf<Kel::RangeException>(f); };

template <class T>
std::size_t wireSizeOf(T const& v) {
  if constexpr (requires { v.wireSize(); }) {
    return v.wireSize();
  } else {
    return T::wireSize;
  }
}

template <class T>
Bytes encode(T const& v) {
  Bytes out(wireSizeOf(v) + 1, 0xa5);
  v.toNetwork(out.data());
  EXPECT_EQ(out.back(), 0xa5) << "wrote past its wire size";
  out.pop_back();
  return out;
}

// Random values, biased towards zero groups and the ends of each range.
struct Gen {
  std::mt19937 rng{20240601};
  Kel::U32 below(Kel::U32 n) { return static_cast<Kel::U32>(rng() % n); }

  Lumo::Ip6Addr ip6() {
    Lumo::Ip6Addr::Bytes b{};
    for (std::size_t i = 0; i < b.size(); i += 2) {
      if (below(2)) continue;  // zero groups half the time, so every run length occurs
      b[i] = below(2) ? static_cast<U8>(rng()) : 0;
      b[i + 1] = static_cast<U8>(rng());
    }
    return Lumo::Ip6Addr(b);
  }
  Lumo::IpGenAddr ipGen() {
    Kel::U32 const pick = below(4);
    if (pick == 0) return {};
    if (pick == 1) return Lumo::IpGenAddr::ipv4(below(2) ? rng() : 0xffffffffu);
    return Lumo::IpGenAddr::ipv6(ip6());
  }
  void make(Lumo::Ip6Addr* v) { *v = ip6(); }
  void make(Lumo::IpGenAddr* v) { *v = ipGen(); }
  void make(Lumo::IpGenPrefix* v) {
    Lumo::IpGenAddr const a = ipGen();
    *v = {a, static_cast<U8>(below(Lumo::IpGenPrefix::maxLen(a.family()) + 1u))};
  }
  void make(Lumo::MplsLabel* v) { *v = Lumo::MplsLabel(below(2) ? below(8388609) : below(20)); }
  void make(Lumo::EthType* v) { *v = Lumo::EthType(static_cast<Kel::U16>(rng())); }
  void make(Lumo::IntfId* v) {
    static constexpr char kChars[] = "abcXYZ0189/._:-";
    String name(below(2) ? below(12) : below(256), 'x');
    for (char& c : name) c = kChars[below(sizeof kChars - 1)];
    *v = Lumo::IntfId(name);
  }
  void make(Lumo::NetU8* v) { *v = Lumo::NetU8(static_cast<U8>(rng())); }
};

template <class T>
class ValueType : public testing::Test {};
TYPED_TEST_SUITE(ValueType, AllTypes);

// Random values: the text (strep, stringValue and <<, which agree) and the
// wire form read back, a wire form cut short is refused; exactly one of
// a < b, b < a, a == b, equal values hash alike, and the order is that of
// the wire bytes (of the name for an interface, whose wire form leads with
// its length).
TYPED_TEST(ValueType, RandomValuesRoundTripAndOrderLikeTheWire) {
  Gen gen;
  for (int i = 0; i < 1000; ++i) {
    TypeParam a, b;
    gen.make(&a);
    String const text = Kel::valueToStrep(a);
    ASSERT_TRUE(Kel::strepToValue<TypeParam>(text) == a) << text;
    ASSERT_EQ(a.stringValue(), text);
    std::ostringstream os;
    os << a;
    ASSERT_EQ(os.str(), text);

    Bytes wire = encode(a);
    wire.resize(wire.size() + 3, 0xff);  // more than needed is fine
    ASSERT_TRUE(TypeParam::fromNetwork(wire.data(), wire.size()) == a);
    for (std::size_t n = 0; i < 300 && n < wireSizeOf(a); ++n) {
      Bytes const cut(wire.begin(), wire.begin() + static_cast<std::ptrdiff_t>(n));
      String const error = errorOf([&] { (void)TypeParam::fromNetwork(cut.data(), n); });
      String const type(kelShortName(static_cast<TypeParam const*>(nullptr)));
      ASSERT_EQ(error.rfind("Truncated " + type + ": ", 0), 0u) << error;
    }

    if (gen.below(4) == 0) {
      b = a;
    } else {
      gen.make(&b);
    }
    ASSERT_EQ((a < b) + (b < a) + (a == b), 1);
    if (a == b) {
      ASSERT_EQ(a.hash(), b.hash());
    }
    if constexpr (std::is_same_v<TypeParam, Lumo::IntfId>) {
      ASSERT_EQ(a < b, a.name() < b.name()) << a << " " << b;
    } else {
      ASSERT_EQ(a < b, encode(a) < encode(b)) << a << " " << b;
    }
  }
}

// Parses the whole text as a T and prints it again.
template <class T>
String reprint(std::string_view text) {
  return Kel::valueToStrep(Kel::strepToValue<T>(text));
}

using TextFn = String (*)(std::string_view);

struct TextCase {
  TextFn fn;
  String text;
  String result;
};

// Names the case by its text in test output.
void PrintTo(TextCase const& c, std::ostream* os) { *os << '\'' << c.text << '\''; }

class Text : public testing::TestWithParam<TextCase> {};

// Accepted input prints in its canonical form, and a parse stops right
// behind its value; refused input raises the exact text, and neither the
// position nor the target moves.
TEST_P(Text, PrintsCanonicallyOrRaisesTheExactText) {
  EXPECT_EQ(GetParam().fn(GetParam().text), GetParam().result) << GetParam().text;
}

// The RFC 5952 cases and other IPv6 input, through both address types.
std::vector<TextCase> ip6Cases() {
  std::pair<char const*, char const*> const cases[] = {
      {"2001:db8:0:0:0:0:2:1", "2001:db8::2:1"},
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // a lone zero group stays
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},           // the longest run
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},     // the leftmost of equal runs
      {"0:0:1:0:0:0:1:0", "0:0:1::1:0"},
      {"0:0:0:0:0:0:0:0", "::"},
      {"0:0:0:0:0:0:0:1", "::1"},
      {"1:0:0:0:0:0:0:0", "1::"},
      {"1:2:3:4:5:6:0:0", "1:2:3:4:5:6::"},
      {"0:1:0:1:0:1:0:1", "0:1:0:1:0:1:0:1"},
      {"2001:0DB8:AAAA:BBBB:CCCC:DDDD:EEEE:FFFF", "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff"},
      {"00ab:000a:0:1:1:1:1:1", "ab:a:0:1:1:1:1:1"},
      {"::ffff:1.2.3.4", "::ffff:102:304"},  // no dotted quad on output
      {"1:2:3:4:5:6:255.255.0.0", "1:2:3:4:5:6:ffff:0"},
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},  // "::" may stand for one group
      {"::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
  };
  std::vector<TextCase> out;
  for (auto const& [text, strep] : cases) {
    out.push_back({reprint<Lumo::Ip6Addr>, text, strep});
    out.push_back({reprint<Lumo::IpGenAddr>, text, strep});
  }
  return out;
}

INSTANTIATE_TEST_SUITE_P(Ipv6, Text, testing::ValuesIn(ip6Cases()));

// Parses at the start of `text`; answers the value's strep and what is left.
template <class T>
String parseHead(std::string_view text) {
  T v;
  Kel::TextIt it = text.data();
  sequenceToValue(it, text.data() + text.size(), &v);
  return Kel::valueToStrep(v) + "|" + String(it, text.data() + text.size());
}

INSTANTIATE_TEST_SUITE_P(
    StopsBehindTheValue, Text,
    testing::Values(TextCase{parseHead<Lumo::IpGenAddr>, "10.0.0.2/8", "10.0.0.2|/8"},
                    TextCase{parseHead<Lumo::IpGenAddr>, "/8", "|/8"},
                    TextCase{parseHead<Lumo::Ip6Addr>, "fe80::1%eth0", "fe80::1|%eth0"},
                    TextCase{parseHead<Lumo::IpGenPrefix>, "10.0.0.0/8 up", "10.0.0.0/8| up"},
                    TextCase{parseHead<Lumo::MplsLabel>, "16 x", "16| x"},
                    TextCase{parseHead<Lumo::EthType>, "2048x", "0x0800|x"},
                    TextCase{parseHead<Lumo::IntfId>, "ge-0/0/1.100 up", "ge-0/0/1.100| up"},
                    TextCase{parseHead<Lumo::IntfId>, " up", "| up"},
                    TextCase{parseHead<Lumo::NetU8>, "7;", "7|;"}));

INSTANTIATE_TEST_SUITE_P(
    Other, Text,
    testing::Values(TextCase{reprint<Lumo::IpGenAddr>, "", ""},
                    TextCase{reprint<Lumo::IpGenAddr>, "255.255.255.255", "255.255.255.255"},
                    TextCase{reprint<Lumo::IpGenAddr>, "10.0.100.2", "10.0.100.2"},
                    TextCase{reprint<Lumo::IpGenPrefix>, "/0", "/0"},
                    TextCase{reprint<Lumo::IpGenPrefix>, "10.1.2.3/8", "10.1.2.3/8"},
                    TextCase{reprint<Lumo::IpGenPrefix>, "2001:DB8::/032", "2001:db8::/32"},
                    TextCase{reprint<Lumo::MplsLabel>, "0016", "16"},
                    TextCase{reprint<Lumo::EthType>, "0X86DD", "0x86dd"},
                    TextCase{reprint<Lumo::EthType>, "0x1", "0x0001"},
                    TextCase{reprint<Lumo::EthType>, "2048", "0x0800"},
                    TextCase{reprint<Lumo::IntfId>, "ge-0/0/1.100:A_b", "ge-0/0/1.100:A_b"},
                    TextCase{reprint<Lumo::NetU8>, "255", "255"}));

// Values unlike any a failing parse might leave behind.
std::tuple<Lumo::IpGenAddr, Lumo::Ip6Addr, Lumo::IpGenPrefix, Lumo::MplsLabel, Lumo::EthType,
           Lumo::IntfId, Lumo::NetU8> const kSentinels{
    Lumo::IpGenAddr("192.0.2.1"),
    Lumo::Ip6Addr("2001:db8::9"),
    Lumo::IpGenPrefix(Lumo::IpGenAddr("192.0.2.0"), 24),
    Lumo::MplsLabel(77),
    Lumo::EthType(0x1234),
    Lumo::IntfId("lo"),
    Lumo::NetU8(9)};

// Parses at the start of `text` into a sentinel; answers the error text
// after checking that neither the position nor the target moved.
template <class T>
String parseError(std::string_view text) {
  T const sentinel = std::get<T>(kSentinels);
  T out = sentinel;
  Kel::TextIt it = text.data();
  String const error = errorOf([&] { sequenceToValue(it, text.data() + text.size(), &out); });
  EXPECT_EQ(it, text.data());
  EXPECT_TRUE(out == sentinel);
  return error;
}

std::vector<TextCase> rejectedCases() {
  // Each is the whole run of address characters, so the error quotes it all.
  std::istringstream bad(
      "1.2.3 1.2.3.4.5 256.0.0.1 01.2.3.4 1.2.3.04 1..2.3 1.2.3.4a abc 1::2::3 ::: :1:: 1: "
      "1:2:3:4:5:6:7 1:2:3:4:5:6:7:8:9 1:2:3:4:5:6:7:8:: 12345:: 1:2:3:4:5:6:7:8: ::1: ::1.2.3 "
      "::01.2.3.4 ::1.2.3.4:5 1:2:3:4:5:6:7:1.2.3.4");
  std::vector<TextCase> out;
  for (String text; bad >> text;) {
    out.push_back({parseError<Lumo::IpGenAddr>, text, "Invalid IpGenAddr '" + text + "'"});
  }
  std::vector<TextCase> const more = {
      {parseError<Lumo::IpGenAddr>, "1.2.3/8", "Invalid IpGenAddr '1.2.3'"},
      {parseError<Lumo::Ip6Addr>, "x", "Invalid Ip6Addr ''"},
      {parseError<Lumo::Ip6Addr>, "1.2.3.4", "Invalid Ip6Addr '1.2.3.4'"},
      {parseError<Lumo::IpGenPrefix>, "10.0.0.0/33", "Invalid IpGenPrefix length 33"},
      {parseError<Lumo::IpGenPrefix>, "::/129", "Invalid IpGenPrefix length 129"},
      {parseError<Lumo::IpGenPrefix>, "/1", "Invalid IpGenPrefix length 1"},
      {parseError<Lumo::IpGenPrefix>, "::/4294967296", "Invalid IpGenPrefix length 4294967296"},
      {parseError<Lumo::IpGenPrefix>, "10.0.0.0", "Expected '/' but found end of text"},
      {parseError<Lumo::IpGenPrefix>, "::/x", "Expected a prefix length but found 'x'"},
      {parseError<Lumo::IpGenPrefix>, "10.0.0/8", "Invalid IpGenAddr '10.0.0'"},
      {parseError<Lumo::MplsLabel>, "8388609", kLabelRange},
      {parseError<Lumo::MplsLabel>, "4294967296", kLabelRange},  // 2^32 must not wrap to 0
      {parseError<Lumo::MplsLabel>, "-1", "Expected a number but found '-1'"},
      {parseError<Lumo::EthType>, "0x", "Invalid EthType '0x'"},
      {parseError<Lumo::EthType>, "0xg", "Invalid EthType '0x'"},
      {parseError<Lumo::EthType>, "0x12345", "Invalid EthType '0x12345'"},
      {parseError<Lumo::EthType>, "65536", "Invalid EthType '65536'"},
      {parseError<Lumo::EthType>, "", "Expected an EthType but found end of text"},
      {parseError<Lumo::IntfId>, String(256, 'a'), "Invalid IntfId"},
      {parseError<Lumo::NetU8>, "256", "Number 256 out of range for NetU8"},
      {parseError<Lumo::NetU8>, "", "Expected a number but found end of text"},
  };
  out.insert(out.end(), more.begin(), more.end());
  return out;
}

INSTANTIATE_TEST_SUITE_P(Rejected, Text, testing::ValuesIn(rejectedCases()));

// However long the input, an error quotes at most 24 of its characters.
TEST(TextErrors, TenMegabytesOfInputGiveAShortMessage) {
  String const ones(10'000'000, '1');
  String const cut = "111111111111111111111111...";
  std::pair<String, String> const cases[] = {
      {parseError<Lumo::IpGenAddr>(ones), "Invalid IpGenAddr '" + cut + "'"},
      {parseError<Lumo::Ip6Addr>(ones), "Invalid Ip6Addr '" + cut + "'"},
      {parseError<Lumo::IpGenPrefix>("/" + ones), "Invalid IpGenPrefix length " + cut},
      {parseError<Lumo::EthType>("0x" + String(10'000'000, 'f')),
       "Invalid EthType '0xffffffffffffffffffffff...'"},
      {parseError<Lumo::EthType>(ones), "Invalid EthType '" + cut + "'"},
      {parseError<Lumo::NetU8>(ones), "Number " + cut + " out of range for NetU8"},
      {parseError<Lumo::MplsLabel>(ones), kLabelRange},
      {errorOf([] { Lumo::IpGenAddr(String(10'000'000, 'x')); }),
       "Invalid IpGenAddr 'xxxxxxxxxxxxxxxxxxxxxxxx...'"},
  };
  for (auto const& [error, expected] : cases) EXPECT_EQ(error, expected);
}

// Constructors from whole texts or numbers, and setters, check as parsers do.
TEST(Construction, ChecksArguments) {
  using Lumo::IpGenAddr;
  std::pair<String, char const*> const cases[] = {
      {errorOf([] { IpGenAddr("10.0.0.1/8"); }), "Invalid IpGenAddr '10.0.0.1/8'"},
      {errorOf([] { Lumo::Ip6Addr(" ::1"); }), "Invalid Ip6Addr ' ::1'"},
      {errorOf([] { Lumo::IntfId("eth 0"); }), "Invalid IntfId"},
      {errorOf([] { Lumo::IntfId(String(256, 'a')); }), "Invalid IntfId"},
      {errorOf([] { Lumo::IntfId(String(255, 'a')); }), "accepted"},
      {errorOf([] { (void)Kel::strepToValue<Lumo::MplsLabel>("12a"); }), "Invalid MplsLabel"},
      {errorOf([] { Lumo::IpGenPrefix(IpGenAddr("10.0.0.0"), 33); }),
       "Invalid IpGenPrefix length 33"},
      {errorOf([] { Lumo::IpGenPrefix(IpGenAddr("::"), 129); }), "Invalid IpGenPrefix length 129"},
      {errorOf([] { Lumo::IpGenPrefix(IpGenAddr(), 1); }), "Invalid IpGenPrefix length 1"},
      {Lumo::IpGenPrefix(IpGenAddr("10.1.2.3"), 8).stringValue(), "10.1.2.3/8"},  // host bits kept
      {errorOf([] { Lumo::MplsLabel(Lumo::MplsLabel::luWithdraw() + 1); }), kLabelRange.c_str()},
  };
  for (auto const& [got, want] : cases) EXPECT_EQ(got, want);

  Lumo::MplsLabel label(Lumo::MplsLabel::luWithdraw());
  EXPECT_EQ(errorOf([&] { label.valueIs(8388609); }), kLabelRange);
  EXPECT_EQ(label.value(), 8388608u);
  EXPECT_EQ(IpGenAddr("192.0.2.7").ipv4HostOrder(), 0xc0000207u);
  EXPECT_TRUE(Lumo::MplsLabel(1048576).isNoLabel());
  EXPECT_FALSE(Lumo::MplsLabel(Lumo::MplsLabel::max()).isNoLabel());
}

// Worked out with the one-at-a-time steps apart from this code. NetU8 1: add
// 1 -> 1, +1<<10 -> 1025, ^1025>>6 -> 1041; finish: +<<3 -> 9369, ^>>11 ->
// 9373, +<<15 -> 307143837. Leading zero bytes leave the state 0, so "::1"
// hashes alike.
TEST(Hash, MatchesTheAlgorithm) {
  std::pair<Kel::U32, Kel::U32> const cases[] = {
      {Lumo::NetU8(1).hash(), 307143837u},
      {Lumo::NetU8(0).hash(), 0u},
      {Lumo::Ip6Addr("::1").hash(), 307143837u},
      {Lumo::IpGenAddr("::1").hash(), 307143837u},
      {Lumo::IpGenAddr("10.0.0.2").hash(), 1012448077u},
      {Lumo::IpGenPrefix(Lumo::IpGenAddr("10.0.0.0"), 8).hash(), 1421940471u},
      {Lumo::MplsLabel(3).hash(), 899316653u},
      {Lumo::MplsLabel(Lumo::MplsLabel::noLabel()).hash(), 244091665u},
      {Lumo::EthType(0x0800).hash(), 2457281772u},
      {Lumo::IntfId("eth0").hash(), 2716664134u},
      {Lumo::IpGenAddr().hash(), 0u},  // the family is not hashed (the order tells them apart)
      {Lumo::IpGenAddr::ipv4(0).hash(), 0u},
  };
  for (auto const& [got, want] : cases) EXPECT_EQ(got, want);
}

// A 20-byte address image: the family word, then bytes set at offsets.
Bytes image(Kel::U32 family, std::initializer_list<std::pair<int, U8>> set, int extra = 0) {
  Bytes b(20 + static_cast<std::size_t>(extra), 0);
  b[0] = static_cast<U8>(family >> 24);
  b[3] = static_cast<U8>(family);
  for (auto const& [at, v] : set) b[static_cast<std::size_t>(at)] = v;
  return b;
}

template <class T>
String decodeError(Bytes const& b) {
  return errorOf([&] { (void)T::fromNetwork(b.data(), b.size()); });
}

// Exact wire images, and the fields a decoder refuses, with their texts.
TEST(Wire, EncodesAndChecksFields) {
  std::pair<Bytes, Bytes> const encoded[] = {
      {encode(Lumo::IpGenAddr::ipv4(0x0a000002)), image(2, {{4, 10}, {7, 2}})},
      {encode(Lumo::IpGenAddr("::1")), image(10, {{19, 1}})},
      {encode(Lumo::IpGenPrefix(Lumo::IpGenAddr("::1"), 128)), image(10, {{19, 1}, {20, 128}}, 1)},
      {encode(Lumo::MplsLabel(0x12345)), {0x00, 0x01, 0x23, 0x45}},
      {encode(Lumo::EthType(Lumo::EthType::mpls())), {0x88, 0x47}},
      {encode(Lumo::IntfId("ab")), {2, 'a', 'b'}},
  };
  for (auto const& [got, want] : encoded) EXPECT_EQ(got, want);

  std::pair<String, String> const decoded[] = {
      {decodeError<Lumo::IpGenAddr>(image(3, {})), "Invalid IpGenAddr family 3"},
      {decodeError<Lumo::IpGenAddr>(image(0x01000002, {})), "Invalid IpGenAddr family 16777218"},
      {decodeError<Lumo::IpGenAddr>(image(2, {{19, 1}})), "Invalid IpGenAddr bytes"},
      {decodeError<Lumo::IpGenAddr>(image(2, {{8, 1}})), "Invalid IpGenAddr bytes"},
      {decodeError<Lumo::IpGenAddr>(image(0, {{4, 1}})), "Invalid IpGenAddr bytes"},
      {decodeError<Lumo::IpGenAddr>(image(0, {{12, 1}})), "Invalid IpGenAddr bytes"},
      {decodeError<Lumo::IpGenAddr>(image(10, {{4, 1}, {19, 2}})), "accepted"},
      {decodeError<Lumo::IpGenAddr>(image(2, {{4, 10}, {7, 2}})), "accepted"},
      {decodeError<Lumo::IpGenAddr>(Bytes(19)),
       "Truncated IpGenAddr: 20 bytes needed, 19 available"},
      {decodeError<Lumo::IpGenPrefix>(image(2, {{20, 33}}, 1)), "Invalid IpGenPrefix length 33"},
      {decodeError<Lumo::IpGenPrefix>(image(0, {{20, 1}}, 1)), "Invalid IpGenPrefix length 1"},
      {decodeError<Lumo::IpGenPrefix>(image(7, {}, 1)), "Invalid IpGenAddr family 7"},
      {decodeError<Lumo::MplsLabel>({0x00, 0x80, 0x00, 0x00}), "accepted"},
      {decodeError<Lumo::MplsLabel>({0x00, 0x80, 0x00, 0x01}), kLabelRange},
      {decodeError<Lumo::IntfId>({4, 'e', 't', 'h'}),
       "Truncated IntfId: 5 bytes needed, 4 available"},
      {decodeError<Lumo::IntfId>({3, 'a', ' ', 'b'}), "Invalid IntfId"},
      {decodeError<Lumo::IntfId>({1, 0x80}), "Invalid IntfId"},
  };
  for (auto const& [got, want] : decoded) EXPECT_EQ(got, want);
}

// Interface names are kept once per process: a name lives while a value
// holds it, also when threads copy and drop the same names at once.
TEST(IntfId, InternedNameLivesWithItsLastValue) {
  std::size_t const before = Lumo::IntfId::internedCount();
  {
    std::vector<Lumo::IntfId> held;
    for (int i = 0; i < 30; ++i) held.emplace_back("in-" + std::to_string(i % 3));
    EXPECT_EQ(Lumo::IntfId::internedCount(), before + 3);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([t, &held] {
        for (int i = 0; i < 2000; ++i) {
          Lumo::IntfId const fresh("in-" + std::to_string((i + t) % 5));
          Lumo::IntfId copy = held[static_cast<std::size_t>(i) % held.size()];
          copy = fresh;
          EXPECT_EQ(copy, fresh);
        }
      });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(Lumo::IntfId::internedCount(), before + 3);
    Lumo::IntfId kept = held.front();
    held.clear();
    EXPECT_EQ(kept.name(), "in-0");
    EXPECT_EQ(Lumo::IntfId::internedCount(), before + 1);
  }
  EXPECT_EQ(Lumo::IntfId::internedCount(), before);
}

}  // namespace
