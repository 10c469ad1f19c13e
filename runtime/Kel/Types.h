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

}  // namespace Kel

#endif  // KEL_TYPES_H
