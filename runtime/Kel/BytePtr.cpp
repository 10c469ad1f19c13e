#include <Kel/BytePtr.h>
#include <Kel/RangeException.h>
#include <Kel/Reflect.h>

#include <cstdint>
#include <ostream>
#include <string>

namespace Kel {

void BytePtr::toNetwork(U8* out) const noexcept {
  U64 const a = address();
  for (int i = 0; i < 8; ++i) out[i] = static_cast<U8>(a >> (56 - 8 * i));
}

BytePtr BytePtr::fromNetwork(U8 const* in, std::size_t avail) {
  if (avail < wireSize) {
    throw RangeException("Truncated BytePtr: 8 bytes needed, " + std::to_string(avail) +
                         " available");
  }
  U64 a = 0;
  for (int i = 0; i < 8; ++i) a = (a << 8) | in[i];
  return BytePtr(reinterpret_cast<U8*>(static_cast<std::uintptr_t>(a)));
}

void appendStrep(String& out, BytePtr const& v) {
  static constexpr char kDigits[] = "0123456789abcdef";
  char buf[16];
  int n = 0;
  U64 a = v.address();
  do {
    buf[n++] = kDigits[a & 0xf];
    a >>= 4;
  } while (a != 0);
  out += "0x";
  while (n > 0) out += buf[--n];
}

void sequenceToValue(TextIt& it, TextIt end, BytePtr* out) {
  TextIt const start = it;
  if (!acceptLiteral(it, end, "0x")) throwExpected("a hexadecimal address", it, end);
  U64 a = 0;
  int digits = 0;
  for (; it != end; ++it, ++digits) {
    char const c = *it;
    int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (d < 0) break;
    if (digits == 16) {
      it = start;
      throwExpected("a hexadecimal address of at most 16 digits", it, end);
    }
    a = (a << 4) | static_cast<U64>(d);
  }
  if (digits == 0) {
    it = start;
    throwExpected("a hexadecimal address", it, end);
  }
  *out = BytePtr(reinterpret_cast<U8*>(static_cast<std::uintptr_t>(a)));
}

std::ostream& operator<<(std::ostream& os, BytePtr const& v) {
  String s;
  appendStrep(s, v);
  return os << s;
}

TypeDesc const typeBytePtr("Kel::BytePtr", nullptr, 0, basicTypeParts<BytePtr>());

}  // namespace Kel
