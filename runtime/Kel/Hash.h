// The one-at-a-time hash accumulator that every value type's `hash()` uses,
// and the bit reversal that hash tables apply to pick a bucket.
//
//   Kel::OneAtATime h;
//   h.addU32(sessionId.hash());
//   h.addU32(pathId.hash());
//   return h.finish();
//
// Words are mixed low byte first whatever the host's byte order, so a hash is
// the same on every machine. A finished hash of a nested value is mixed again
// as a 4-byte word; that nesting decides bucket placement and must be kept.
#ifndef KEL_HASH_H
#define KEL_HASH_H

#include <Kel/Types.h>

#include <bit>
#include <cstring>
#include <type_traits>

namespace Kel {

// Every step is forced in line: called out of line, as the compiler chose
// in large hash functions, a step took its accumulator through memory and
// a call, several times the step's own few cycles.
class OneAtATime {
 public:
  [[gnu::always_inline]] constexpr void addByte(U8 byte) noexcept {
    h_ += byte;
    h_ += h_ << 10;
    h_ ^= h_ >> 6;
  }
  [[gnu::always_inline]] constexpr void addU8(U8 v) noexcept { addByte(v); }
  [[gnu::always_inline]] constexpr void addU16(U16 v) noexcept {
    addByte(static_cast<U8>(v));
    addByte(static_cast<U8>(v >> 8));
  }
  [[gnu::always_inline]] constexpr void addU32(U32 v) noexcept {
    addByte(static_cast<U8>(v));
    addByte(static_cast<U8>(v >> 8));
    addByte(static_cast<U8>(v >> 16));
    addByte(static_cast<U8>(v >> 24));
  }
  [[gnu::always_inline]] constexpr void addU64(U64 v) noexcept {
    addU32(static_cast<U32>(v));
    addU32(static_cast<U32>(v >> 32));
  }
  [[gnu::always_inline]] constexpr void addBool(bool v) noexcept { addByte(v ? 1 : 0); }
  // Floating-point values mix their bit pattern; +0.0 and -0.0 are made one.
  void addF32(F32 v) noexcept { addU32(std::bit_cast<U32>(v == 0.0f ? 0.0f : v)); }
  void addF64(F64 v) noexcept { addU64(std::bit_cast<U64>(v == 0.0 ? 0.0 : v)); }
  void addBytes(void const* data, std::size_t size) noexcept {
    auto const* p = static_cast<U8 const*>(data);
    for (std::size_t i = 0; i < size; ++i) addByte(p[i]);
  }

  // The finished hash. The accumulator may go on being used afterwards.
  [[nodiscard, gnu::always_inline]] constexpr U32 finish() const noexcept {
    U32 h = h_;
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
  }

 private:
  U32 h_ = 0;
};

// The last key of type K hashed on this thread, with its hash. A road hashes
// one key into many tables in a row (a state path's id goes into a dozen on
// the way in); with a memo each of those after the first costs a comparison
// instead of a walk over the key's bytes.
//
// The memo keeps and compares the key's bytes: a hash is a function of the
// key's members, so the same bytes have the same hash, and a key without
// padding (which the memo requires) has no bytes outside its members. The
// answer is the same whether the memo held the key or not. Meant for a `static
// thread_local` inside the key type's hash(): it is constant-initialized,
// so a thread pays no guard for it.
template <class K>
class HashMemo {
  static_assert(std::is_trivially_copyable_v<K>,
                "a hash memo keeps the bytes of keys that are trivially copyable");
  static_assert(std::has_unique_object_representations_v<K>,
                "a hash memo compares the bytes of keys without padding");

 public:
  constexpr HashMemo() noexcept = default;

  template <class Compute>
  [[nodiscard]] U32 hashOf(K const& key, Compute&& compute) noexcept {
    if (held_ && std::memcmp(bytes_, &key, sizeof(K)) == 0) return hash_;
    hash_ = compute();
    std::memcpy(bytes_, &key, sizeof(K));
    held_ = true;
    return hash_;
  }

 private:
  unsigned char bytes_[sizeof(K)] = {};
  U32 hash_ = 0;
  bool held_ = false;
};

// Reverses the order of the 32 bits of `v` (bit 0 becomes bit 31).
[[nodiscard]] constexpr U32 bitReverse32(U32 v) noexcept {
  v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
  v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
  v = ((v >> 4) & 0x0f0f0f0fu) | ((v & 0x0f0f0f0fu) << 4);
  v = ((v >> 8) & 0x00ff00ffu) | ((v & 0x00ff00ffu) << 8);
  return (v >> 16) | (v << 16);
}

// The bucket of a hash in a table of 2^bits buckets: the top `bits` bits of
// the bit-reversed hash, that is the low `bits` bits of the hash in reverse.
[[nodiscard]] constexpr U32 bucketOf(U32 hash, unsigned bits) noexcept {
  return bits == 0 ? 0 : bitReverse32(hash) >> (32 - bits);
}

}  // namespace Kel

#endif  // KEL_HASH_H
