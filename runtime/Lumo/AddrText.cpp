#include <Lumo/AddrText.h>
#include <Lumo/NetSupport.h>

#include <cstring>

namespace Lumo::detail {

namespace {

constexpr int kGroups = 8;

char* formatByte(char* p, unsigned v) noexcept {
  if (v >= 100) {
    *p++ = static_cast<char>('0' + v / 100);
    v %= 100;
    *p++ = static_cast<char>('0' + v / 10);
  } else if (v >= 10) {
    *p++ = static_cast<char>('0' + v / 10);
  }
  *p++ = static_cast<char>('0' + v % 10);
  return p;
}

char* formatGroup(char* p, unsigned v) noexcept {
  if (v >= 0x1000) *p++ = kHexDigits[v >> 12];
  if (v >= 0x100) *p++ = kHexDigits[(v >> 8) & 0xf];
  if (v >= 0x10) *p++ = kHexDigits[(v >> 4) & 0xf];
  *p++ = kHexDigits[v & 0xf];
  return p;
}

constexpr bool isAddrChar(char c) noexcept { return hexValue(c) >= 0 || c == '.' || c == ':'; }

}  // namespace

char* formatIpv4(char* p, Kel::U8 const* bytes) noexcept {
  p = formatByte(p, bytes[0]);
  for (int i = 1; i < 4; ++i) {
    *p++ = '.';
    p = formatByte(p, bytes[i]);
  }
  return p;
}

char* formatIp6(char* p, Kel::U8 const* bytes) noexcept {
  unsigned g[kGroups];
  for (int i = 0; i < kGroups; ++i) g[i] = loadBe16(bytes + 2 * i);

  // The run to compress: strictly longer wins, so the leftmost of equal runs
  // stays; a lone zero group is never compressed.
  int gapStart = -1;
  int gapLen = 1;
  for (int i = 0; i < kGroups;) {
    if (g[i] != 0) {
      ++i;
      continue;
    }
    int j = i + 1;
    while (j < kGroups && g[j] == 0) ++j;
    if (j - i > gapLen) {
      gapStart = i;
      gapLen = j - i;
    }
    i = j;
  }
  int const gapEnd = gapStart + gapLen;

  for (int i = 0; i < kGroups;) {
    if (i == gapStart) {
      *p++ = ':';
      *p++ = ':';
      i = gapEnd;
      continue;
    }
    // The gap's "::" already separates the group after it.
    if (i != 0 && i != gapEnd) *p++ = ':';
    p = formatGroup(p, g[i]);
    ++i;
  }
  return p;
}

bool parseIpv4(char const* p, char const* end, Kel::U8* out) noexcept {
  Kel::U8 b[4];
  for (int i = 0; i < 4; ++i) {
    if (i != 0) {
      if (p == end || *p != '.') return false;
      ++p;
    }
    if (p == end || !isDigit(*p)) return false;
    unsigned v = static_cast<unsigned>(*p++ - '0');
    int digits = 1;
    for (; p != end && isDigit(*p); ++p) {
      if (v == 0 || ++digits > 3) return false;  // a leading zero or too long
      v = v * 10 + static_cast<unsigned>(*p - '0');
    }
    if (v > 255) return false;
    b[i] = static_cast<Kel::U8>(v);
  }
  if (p != end) return false;
  std::memcpy(out, b, sizeof b);
  return true;
}

bool parseIp6(char const* p, char const* end, Kel::U8* out) noexcept {
  unsigned g[kGroups];
  int n = 0;       // groups read
  int gapAt = -1;  // groups read before the "::", when there is one
  if (p == end) return false;
  if (*p == ':') {
    // Only a "::" may start the text.
    if (end - p < 2 || p[1] != ':') return false;
    gapAt = 0;
    p += 2;
  }
  while (p != end) {
    char const* const start = p;
    unsigned v = 0;
    int digits = 0;
    for (; p != end && hexValue(*p) >= 0; ++p) {
      if (++digits <= 4) v = (v << 4) | static_cast<unsigned>(hexValue(*p));
    }
    if (p != end && *p == '.') {
      // A dotted quad ends the address and stands for two groups.
      Kel::U8 q[4];
      if (n > kGroups - 2 || !parseIpv4(start, end, q)) return false;
      g[n++] = (unsigned{q[0]} << 8) | q[1];
      g[n++] = (unsigned{q[2]} << 8) | q[3];
      p = end;
      break;
    }
    if (digits == 0 || digits > 4 || n == kGroups) return false;
    g[n++] = v;
    if (p == end) break;
    if (*p != ':') return false;
    ++p;
    if (p == end) return false;  // a single trailing colon
    if (*p == ':') {
      if (gapAt >= 0) return false;  // a second "::"
      gapAt = n;
      ++p;
    }
  }
  // Without "::" all eight groups are written; with it, it stands for one or more.
  if (gapAt < 0 ? n != kGroups : n >= kGroups) return false;

  int const zeros = kGroups - n;
  int const split = gapAt < 0 ? n : gapAt;
  int o = 0;
  for (int i = 0; i < split; ++i) storeBe16(out + 2 * o++, static_cast<Kel::U16>(g[i]));
  for (int i = 0; i < zeros; ++i) storeBe16(out + 2 * o++, 0);
  for (int i = split; i < n; ++i) storeBe16(out + 2 * o++, static_cast<Kel::U16>(g[i]));
  return true;
}

char const* addrRunEnd(char const* p, char const* end) noexcept {
  while (p != end && isAddrChar(*p)) ++p;
  return p;
}

}  // namespace Lumo::detail
