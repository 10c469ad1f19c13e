#include <Kel/RangeException.h>
#include <Lumo/NetSupport.h>

#include <utility>

namespace Lumo::detail {

namespace {

// Sizes beyond 32 bits are clamped; no network value comes near that.
Kel::U32 clampU32(std::size_t n) {
  return n > 0xffffffffu ? 0xffffffffu : static_cast<Kel::U32>(n);
}

}  // namespace

void throwTruncated(std::string_view type, std::size_t need, std::size_t avail) {
  char buf[kU32TextMax];
  Kel::String text = "Truncated ";
  text += type;
  text += ": ";
  text.append(buf, formatU32(buf, clampU32(need)));
  text += " bytes needed, ";
  text.append(buf, formatU32(buf, clampU32(avail)));
  text += " available";
  throw Kel::RangeException(std::move(text));
}

void throwInvalidText(std::string_view type, Kel::TextIt begin, Kel::TextIt end) {
  Kel::String text = "Invalid ";
  text += type;
  text += " '";
  Kel::appendExcerpt(text, begin, end);
  text += '\'';
  throw Kel::RangeException(std::move(text));
}

char* formatU32(char* p, Kel::U32 v) noexcept {
  // Digits come out lowest first; write them backwards into a scratch buffer.
  char tmp[kU32TextMax];
  char* t = tmp + kU32TextMax;
  do {
    *--t = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  while (t != tmp + kU32TextMax) *p++ = *t++;
  return p;
}

}  // namespace Lumo::detail
