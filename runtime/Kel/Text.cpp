#include <Kel/Text.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <system_error>

namespace Kel {

namespace {

bool isWordChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

template <class T>
void appendInteger(String& out, T v) {
  char buf[24];
  auto const r = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, r.ptr);
}

template <class T>
void appendFloat(String& out, T v) {
  char buf[64];
  auto const r = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, r.ptr);
}

// Reads a decimal number of type T; unsigned types take no sign.
template <class T>
void parseInteger(TextIt& it, TextIt end, T* out) {
  TextIt p = it;
  if (std::numeric_limits<T>::is_signed && p != end && *p == '-') ++p;
  TextIt digits = p;
  while (p != end && *p >= '0' && *p <= '9') ++p;
  if (p == digits) throwExpected("a number", it, end);
  T v{};
  auto const r = std::from_chars(it, p, v);
  if (r.ec != std::errc() || r.ptr != p) throwOutOfRangeNumber(it, p, kelShortName(out));
  *out = v;
  it = p;
}

template <class T>
void parseFloat(TextIt& it, TextIt end, T* out) {
  T v{};
  auto const r = std::from_chars(it, end, v, std::chars_format::general);
  if (r.ec == std::errc::invalid_argument) throwExpected("a number", it, end);
  if (r.ec != std::errc()) throwOutOfRangeNumber(it, r.ptr, kelShortName(out));
  // NaN is never equal to itself, so it would break every comparison and the
  // setters' test for an unchanged value; text never produces it.
  if (v != v) {
    String text = "Invalid ";
    text += kelShortName(out);
    text += " '";
    appendExcerpt(text, it, r.ptr);
    text += '\'';
    throw RangeException(std::move(text));
  }
  *out = v;
  it = r.ptr;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

void appendStrep(String& out, U8 v) { appendInteger(out, v); }
void appendStrep(String& out, U16 v) { appendInteger(out, v); }
void appendStrep(String& out, U32 v) { appendInteger(out, v); }
void appendStrep(String& out, U64 v) { appendInteger(out, v); }
void appendStrep(String& out, S8 v) { appendInteger(out, v); }
void appendStrep(String& out, S16 v) { appendInteger(out, v); }
void appendStrep(String& out, S32 v) { appendInteger(out, v); }
void appendStrep(String& out, S64 v) { appendInteger(out, v); }
void appendStrep(String& out, bool v) { out += v ? "true" : "false"; }
void appendStrep(String& out, F32 v) { appendFloat(out, v); }
void appendStrep(String& out, F64 v) { appendFloat(out, v); }

void appendStrep(String& out, std::string_view v) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  for (char const c : v) {
    auto const b = static_cast<unsigned char>(c);
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (b < 0x20 || b >= 0x7f) {
          out += "\\x";
          out += kHex[b >> 4];
          out += kHex[b & 0xf];
        } else {
          out += c;
        }
    }
  }
  out += '"';
}

void sequenceToValue(TextIt& it, TextIt end, U8* out) { parseInteger(it, end, out); }
void sequenceToValue(TextIt& it, TextIt end, U16* out) { parseInteger(it, end, out); }
void sequenceToValue(TextIt& it, TextIt end, U32* out) { parseInteger(it, end, out); }
void sequenceToValue(TextIt& it, TextIt end, U64* out) { parseInteger(it, end, out); }
void sequenceToValue(TextIt& it, TextIt end, S8* out) { parseInteger(it, end, out); }
void sequenceToValue(TextIt& it, TextIt end, S16* out) { parseInteger(it, end, out); }
void sequenceToValue(TextIt& it, TextIt end, S32* out) { parseInteger(it, end, out); }
void sequenceToValue(TextIt& it, TextIt end, S64* out) { parseInteger(it, end, out); }
void sequenceToValue(TextIt& it, TextIt end, F32* out) { parseFloat(it, end, out); }
void sequenceToValue(TextIt& it, TextIt end, F64* out) { parseFloat(it, end, out); }

void sequenceToValue(TextIt& it, TextIt end, bool* out) {
  if (acceptLiteral(it, end, "true")) {
    *out = true;
  } else if (acceptLiteral(it, end, "false")) {
    *out = false;
  } else {
    throwExpected("true or false", it, end);
  }
}

void sequenceToValue(TextIt& it, TextIt end, String* out) {
  TextIt p = it;
  if (p == end || *p != '"') throwExpected("a quoted string", it, end);
  ++p;
  String v;
  for (;;) {
    if (p == end) throw RangeException("Unterminated string");
    char const c = *p++;
    if (c == '"') break;
    if (c != '\\') {
      v += c;
      continue;
    }
    if (p == end) throw RangeException("Unterminated string");
    char const e = *p++;
    switch (e) {
      case '\\': v += '\\'; break;
      case '"': v += '"'; break;
      case 'n': v += '\n'; break;
      case 'r': v += '\r'; break;
      case 't': v += '\t'; break;
      case 'x': {
        int const hi = p != end ? hexDigit(*p) : -1;
        int const lo = hi >= 0 && p + 1 != end ? hexDigit(p[1]) : -1;
        if (lo < 0) throw RangeException("Bad \\x escape in string");
        v += static_cast<char>(hi * 16 + lo);
        p += 2;
        break;
      }
      default: throw RangeException(String("Bad escape \\") + e + " in string");
    }
  }
  *out = std::move(v);
  it = p;
}

void expectLiteral(TextIt& it, TextIt end, std::string_view literal) {
  if (acceptLiteral(it, end, literal)) return;
  String what = "'";
  what.append(literal).append("'");
  throwExpected(what, it, end);
}

std::string_view readWord(TextIt& it, TextIt end) {
  TextIt const start = it;
  while (it != end && isWordChar(*it)) ++it;
  return {start, static_cast<std::size_t>(it - start)};
}

void appendExcerpt(String& out, TextIt begin, TextIt end) {
  auto const size = static_cast<std::size_t>(end - begin);
  auto const n = std::min(size, kExcerptLength);
  for (std::size_t i = 0; i < n; ++i) {
    auto const b = static_cast<unsigned char>(begin[i]);
    out += b < 0x20 || b >= 0x7f ? '?' : begin[i];
  }
  if (n < size) out += "...";
}

String excerpt(std::string_view text) {
  String out;
  appendExcerpt(out, text.data(), text.data() + text.size());
  return out;
}

void throwExpected(std::string_view what, TextIt it, TextIt end) {
  String text = "Expected ";
  text += what;
  text += " but found ";
  if (it == end) {
    text += "end of text";
  } else {
    text += '\'';
    appendExcerpt(text, it, end);
    text += '\'';
  }
  throw RangeException(std::move(text));
}

void throwOutOfRangeNumber(TextIt begin, TextIt end, std::string_view type) {
  String text = "Number ";
  appendExcerpt(text, begin, end);
  text += " out of range for ";
  text += type;
  throw RangeException(std::move(text));
}

S64 parseS64(TextIt& it, TextIt end) {
  S64 v = 0;
  parseInteger(it, end, &v);
  return v;
}

}  // namespace Kel
