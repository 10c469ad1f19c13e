// String forms of the basic types and the building blocks of every parser.
//
// Each type T has a writer `appendStrep(String&, T)` (the strep, appended to a
// string) and a stream parser `sequenceToValue(TextIt& it, TextIt end, T*)`
// that reads T's text at `it` and leaves `it` just behind it. The generic
// `valueToStrep(v)` and `strepToValue<T>(text)` are built on those two;
// `strepToValue` also requires that the whole text was consumed.
//
// Every parse failure raises `Kel::RangeException`; the target is written
// only when the parse succeeded.
//
//   Kel::U16 port = Kel::strepToValue<Kel::U16>("8080");
//   Kel::String text = Kel::valueToStrep(port);   // "8080"
#ifndef KEL_TEXT_H
#define KEL_TEXT_H

#include <Kel/RangeException.h>
#include <Kel/Types.h>

#include <string_view>

namespace Kel {

// A position in text being parsed.
using TextIt = char const*;

// Short names of the basic types, used in error texts.
constexpr std::string_view kelShortName(U8 const*) { return "U8"; }
constexpr std::string_view kelShortName(U16 const*) { return "U16"; }
constexpr std::string_view kelShortName(U32 const*) { return "U32"; }
constexpr std::string_view kelShortName(U64 const*) { return "U64"; }
constexpr std::string_view kelShortName(S8 const*) { return "S8"; }
constexpr std::string_view kelShortName(S16 const*) { return "S16"; }
constexpr std::string_view kelShortName(S32 const*) { return "S32"; }
constexpr std::string_view kelShortName(S64 const*) { return "S64"; }
constexpr std::string_view kelShortName(bool const*) { return "bool"; }
constexpr std::string_view kelShortName(F32 const*) { return "F32"; }
constexpr std::string_view kelShortName(F64 const*) { return "F64"; }
constexpr std::string_view kelShortName(String const*) { return "String"; }

// Integers: decimal; negative numbers only for the signed types.
void appendStrep(String& out, U8 v);
void appendStrep(String& out, U16 v);
void appendStrep(String& out, U32 v);
void appendStrep(String& out, U64 v);
void appendStrep(String& out, S8 v);
void appendStrep(String& out, S16 v);
void appendStrep(String& out, S32 v);
void appendStrep(String& out, S64 v);
// "true" or "false".
void appendStrep(String& out, bool v);
// The shortest text that reads back as the same number ("0.5", "1e+20",
// "inf", "-inf"). A NaN made by arithmetic prints as "nan", but no parser
// reads it back: NaN is never equal to itself.
void appendStrep(String& out, F32 v);
void appendStrep(String& out, F64 v);
// A double-quoted string: backslash escapes \\ and \", \n, \r, \t, and \xHH
// for every other byte below 0x20 or from 0x7f up.
void appendStrep(String& out, std::string_view v);
inline void appendStrep(String& out, String const& v) { appendStrep(out, std::string_view(v)); }
// Without this overload a string literal would be taken for a bool.
inline void appendStrep(String& out, char const* v) { appendStrep(out, std::string_view(v)); }

void sequenceToValue(TextIt& it, TextIt end, U8* out);
void sequenceToValue(TextIt& it, TextIt end, U16* out);
void sequenceToValue(TextIt& it, TextIt end, U32* out);
void sequenceToValue(TextIt& it, TextIt end, U64* out);
void sequenceToValue(TextIt& it, TextIt end, S8* out);
void sequenceToValue(TextIt& it, TextIt end, S16* out);
void sequenceToValue(TextIt& it, TextIt end, S32* out);
void sequenceToValue(TextIt& it, TextIt end, S64* out);
void sequenceToValue(TextIt& it, TextIt end, bool* out);
// Decimal or exponent notation, "inf", "infinity" (either case, with an
// optional '-'). NaN in any spelling ("nan", "-nan", "nan(123)") raises
// "Invalid F64 '<text>'" (or F32).
void sequenceToValue(TextIt& it, TextIt end, F32* out);
void sequenceToValue(TextIt& it, TextIt end, F64* out);
void sequenceToValue(TextIt& it, TextIt end, String* out);

// Consumes `literal` at `it`, or raises
// "Expected '<literal>' but found '<what is there>'".
void expectLiteral(TextIt& it, TextIt end, std::string_view literal);

// Consumes `literal` if it stands at `it`; answers whether it did.
[[nodiscard]] inline bool acceptLiteral(TextIt& it, TextIt end, std::string_view literal) {
  if (static_cast<std::size_t>(end - it) < literal.size() ||
      std::string_view(it, literal.size()) != literal) {
    return false;
  }
  it += literal.size();
  return true;
}

// Consumes the longest run of letters, digits and underscores at `it`.
[[nodiscard]] std::string_view readWord(TextIt& it, TextIt end);

// How many characters of the input an error text quotes at most.
inline constexpr std::size_t kExcerptLength = 24;

// Appends the input [begin, end) as every error text quotes it, so that no
// input makes a long message: its first kExcerptLength characters, each
// byte below 0x20 or from 0x7f up as '?', then "..." when it was cut.
void appendExcerpt(String& out, TextIt begin, TextIt end);
[[nodiscard]] String excerpt(std::string_view text);

// The text of a parse error: "Expected <what> but found '<excerpt>'", or
// "... but found end of text".
[[noreturn]] void throwExpected(std::string_view what, TextIt it, TextIt end);

// "Number <excerpt of [begin, end)> out of range for <type>".
[[noreturn]] void throwOutOfRangeNumber(TextIt begin, TextIt end, std::string_view type);

// Reads a signed 64-bit decimal number (an optional minus sign and digits).
[[nodiscard]] S64 parseS64(TextIt& it, TextIt end);

template <class T>
[[nodiscard]] String valueToStrep(T const& v) {
  String out;
  appendStrep(out, v);
  return out;
}

// Parses the whole of `text` as a T. Text left over raises "Invalid <T>".
template <class T>
[[nodiscard]] T strepToValue(std::string_view text) {
  TextIt it = text.data();
  TextIt const end = it + text.size();
  T v{};
  sequenceToValue(it, end, &v);
  if (it != end) {
    throw RangeException("Invalid " + String(kelShortName(static_cast<T const*>(nullptr))));
  }
  return v;
}

}  // namespace Kel

#endif  // KEL_TEXT_H
