// Binary encoding of values in the attribute log: every number big-endian,
// fields in declaration order, enumerations as 32-bit words, strings as a
// 32-bit length and their bytes, network types in their own encoding.
//
// `LogOut` appends to a byte string; `LogIn` reads from a bounded span and
// raises Kel::RangeException on truncation or on an out-of-range value, so a
// hostile record can never make the reader step outside its buffer.
#ifndef KEL_LOGCODEC_H
#define KEL_LOGCODEC_H

#include <Kel/RangeException.h>
#include <Kel/Types.h>

#include <bit>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace Kel {

class LogOut {
 public:
  explicit LogOut(String& out) : out_(&out) {}

  void u8(U8 v) { out_->push_back(static_cast<char>(v)); }
  void u16(U16 v) { big(v); }
  void u32(U32 v) { big(v); }
  void u64(U64 v) { big(v); }
  void bytes(void const* p, std::size_t n) { out_->append(static_cast<char const*>(p), n); }
  // Room for `n` bytes, to be filled in place (network types write there).
  U8* reserve(std::size_t n) {
    std::size_t const at = out_->size();
    out_->resize(at + n);
    return reinterpret_cast<U8*>(out_->data() + at);
  }
  [[nodiscard]] std::size_t size() const noexcept { return out_->size(); }
  [[nodiscard]] String& buffer() noexcept { return *out_; }

 private:
  template <class T>
  void big(T v) {
    if constexpr (std::endian::native == std::endian::little) v = byteswap(v);
    bytes(&v, sizeof v);
  }
  template <class T>
  static T byteswap(T v) noexcept {
    if constexpr (sizeof(T) == 2) return __builtin_bswap16(v);
    if constexpr (sizeof(T) == 4) return __builtin_bswap32(v);
    if constexpr (sizeof(T) == 8) return __builtin_bswap64(v);
  }

  String* out_;
};

class LogIn {
 public:
  LogIn(U8 const* data, std::size_t size) : p_(data), end_(data + size) {}
  explicit LogIn(std::string_view s) : LogIn(reinterpret_cast<U8 const*>(s.data()), s.size()) {}

  [[nodiscard]] std::size_t remaining() const noexcept {
    return static_cast<std::size_t>(end_ - p_);
  }
  [[nodiscard]] bool atEnd() const noexcept { return p_ == end_; }
  [[nodiscard]] U8 const* position() const noexcept { return p_; }

  U8 u8() { return take<U8>(); }
  U16 u16() { return take<U16>(); }
  U32 u32() { return take<U32>(); }
  U64 u64() { return take<U64>(); }
  // The next `n` bytes; the caller reads them before the next call.
  U8 const* bytes(std::size_t n) {
    need(n);
    U8 const* at = p_;
    p_ += n;
    return at;
  }
  void skip(std::size_t n) { (void)bytes(n); }
  // Raises the truncation error unless `n` bytes remain. The raising is out
  // of line, so that every read stays a compare and a load.
  void need(std::size_t n) const {
    if (remaining() < n) [[unlikely]]
      truncated();
  }
  [[noreturn, gnu::cold, gnu::noinline]] static void truncated() {
    throw RangeException("Truncated attribute log record");
  }

 private:
  template <class T>
  T take() {
    need(sizeof(T));
    T v;
    std::memcpy(&v, p_, sizeof v);
    p_ += sizeof v;
    if constexpr (sizeof(T) > 1 && std::endian::native == std::endian::little) {
      if constexpr (sizeof(T) == 2) v = __builtin_bswap16(v);
      if constexpr (sizeof(T) == 4) v = __builtin_bswap32(v);
      if constexpr (sizeof(T) == 8) v = __builtin_bswap64(v);
    }
    return v;
  }

  U8 const* p_;
  U8 const* end_;
};

// The basic types. Floating-point values travel as their IEEE bit patterns.
inline void kelLogWrite(LogOut& o, U8 v) { o.u8(v); }
inline void kelLogWrite(LogOut& o, U16 v) { o.u16(v); }
inline void kelLogWrite(LogOut& o, U32 v) { o.u32(v); }
inline void kelLogWrite(LogOut& o, U64 v) { o.u64(v); }
inline void kelLogWrite(LogOut& o, S8 v) { o.u8(static_cast<U8>(v)); }
inline void kelLogWrite(LogOut& o, S16 v) { o.u16(static_cast<U16>(v)); }
inline void kelLogWrite(LogOut& o, S32 v) { o.u32(static_cast<U32>(v)); }
inline void kelLogWrite(LogOut& o, S64 v) { o.u64(static_cast<U64>(v)); }
inline void kelLogWrite(LogOut& o, bool v) { o.u8(v ? 1 : 0); }
inline void kelLogWrite(LogOut& o, F32 v) { o.u32(std::bit_cast<U32>(v)); }
inline void kelLogWrite(LogOut& o, F64 v) { o.u64(std::bit_cast<U64>(v)); }
inline void kelLogWrite(LogOut& o, String const& v) {
  o.u32(static_cast<U32>(v.size()));
  o.bytes(v.data(), v.size());
}

inline void kelLogRead(LogIn& i, U8* v) { *v = i.u8(); }
inline void kelLogRead(LogIn& i, U16* v) { *v = i.u16(); }
inline void kelLogRead(LogIn& i, U32* v) { *v = i.u32(); }
inline void kelLogRead(LogIn& i, U64* v) { *v = i.u64(); }
inline void kelLogRead(LogIn& i, S8* v) { *v = static_cast<S8>(i.u8()); }
inline void kelLogRead(LogIn& i, S16* v) { *v = static_cast<S16>(i.u16()); }
inline void kelLogRead(LogIn& i, S32* v) { *v = static_cast<S32>(i.u32()); }
inline void kelLogRead(LogIn& i, S64* v) { *v = static_cast<S64>(i.u64()); }
inline void kelLogRead(LogIn& i, bool* v) {
  U8 const b = i.u8();
  if (b > 1) throw RangeException("Invalid bool in attribute log");
  *v = b == 1;
}
// A NaN is refused as its text is: it never equals itself, so no setter or
// comparison could hold it as a value.
inline void kelLogRead(LogIn& i, F32* v) {
  F32 const read = std::bit_cast<F32>(i.u32());
  if (read != read) throw RangeException("Invalid F32 'nan'");
  *v = read;
}
inline void kelLogRead(LogIn& i, F64* v) {
  F64 const read = std::bit_cast<F64>(i.u64());
  if (read != read) throw RangeException("Invalid F64 'nan'");
  *v = read;
}
inline void kelLogRead(LogIn& i, String* v) {
  U32 const n = i.u32();
  U8 const* p = i.bytes(n);
  v->assign(reinterpret_cast<char const*>(p), n);
}

// Enumerations: a 32-bit word, any value (one without a name survives).
template <class E>
requires std::is_enum_v<E>
void kelLogWrite(LogOut& o, E v) { o.u32(static_cast<U32>(v)); }
template <class E>
requires std::is_enum_v<E>
void kelLogRead(LogIn& i, E* v) { *v = static_cast<E>(i.u32()); }

// The network types: their own fixed or length-prefixed encoding.
template <class T>
requires requires(T const& t, U8* p) { t.toNetwork(p); }
void kelLogWrite(LogOut& o, T const& v) {
  if constexpr (requires { T::wireSize; }) {
    v.toNetwork(o.reserve(T::wireSize));
  } else {
    v.toNetwork(o.reserve(v.wireSize()));
  }
}
template <class T>
requires requires(U8 const* p, std::size_t n) { T::fromNetwork(p, n); }
void kelLogRead(LogIn& i, T* v) {
  T const got = T::fromNetwork(i.position(), i.remaining());
  std::size_t size;
  if constexpr (requires { T::wireSize; }) {
    size = T::wireSize;
  } else {
    size = got.wireSize();
  }
  i.skip(size);
  *v = got;
}

}  // namespace Kel

#endif  // KEL_LOGCODEC_H
