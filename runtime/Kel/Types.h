// Basic types of the type framework: fixed-width integers, names, byte
// strings and times. Every value type of the model is built from these, the
// network types and other value types.
#ifndef KEL_TYPES_H
#define KEL_TYPES_H

#include <cstdint>
#include <string>

namespace Kel {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S8 = std::int8_t;
using S16 = std::int16_t;
using S32 = std::int32_t;
using S64 = std::int64_t;
using F32 = float;
using F64 = double;

// A byte string. It may hold any bytes, including zeros.
using String = std::string;

// The name of an entity within its parent.
using Name = std::string;

// A time or a duration in seconds. Protocol times default to 0.
using Seconds = double;

// Attribute identifiers of the attribute log: positive for an attribute,
// negated for the deletion of a collection member.
using AttributeId = S32;

// Asks for the cache line at `p` ahead of its use. GCC takes a function whose
// only effect is a prefetch for a pure one and drops the calls to it, so a
// hint of its own would vanish; the empty volatile asm is an effect it keeps.
inline void prefetch(void const* p) noexcept {
  __builtin_prefetch(p);
  asm volatile("" : : "r"(p));
}

}  // namespace Kel

#endif  // KEL_TYPES_H
