// A pointer to bytes that a value refers to without owning them, such as the
// digest field inside a message buffer. Its text is the address in
// hexadecimal ("0x0" when null), so a value holding one prints and parses
// back within the process; across processes the address means nothing, and
// the attribute log carries it only as a number.
#ifndef KEL_BYTEPTR_H
#define KEL_BYTEPTR_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/TypeDesc.h>
#include <Kel/Types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string_view>

namespace Kel {

class BytePtr {
 public:
  // The address as a big-endian 64-bit word.
  static constexpr std::size_t wireSize = 8;

  constexpr BytePtr() noexcept = default;
  constexpr BytePtr(U8* p) noexcept : p_(p) {}  // NOLINT: implicit, like the pointer it holds

  [[nodiscard]] constexpr U8* get() const noexcept { return p_; }
  constexpr operator U8*() const noexcept { return p_; }  // NOLINT: implicit on purpose
  [[nodiscard]] U64 address() const noexcept { return reinterpret_cast<std::uintptr_t>(p_); }

  [[nodiscard]] U32 hash() const noexcept {
    OneAtATime h;
    h.addU64(address());
    return h.finish();
  }

  void toNetwork(U8* out) const noexcept;
  // Raises Kel::RangeException on truncation.
  [[nodiscard]] static BytePtr fromNetwork(U8 const* in, std::size_t avail);

  friend constexpr bool operator==(BytePtr a, BytePtr b) noexcept { return a.p_ == b.p_; }
  friend bool operator<(BytePtr a, BytePtr b) noexcept { return std::less<U8*>()(a.p_, b.p_); }

 private:
  U8* p_ = nullptr;
};

constexpr std::string_view kelShortName(BytePtr const*) { return "BytePtr"; }

void appendStrep(String& out, BytePtr const& v);
// Reads "0x" and up to 16 hexadecimal digits.
void sequenceToValue(TextIt& it, TextIt end, BytePtr* out);
std::ostream& operator<<(std::ostream& os, BytePtr const& v);

extern TypeDesc const typeBytePtr;

}  // namespace Kel

#endif  // KEL_BYTEPTR_H
