// Everything the generated value types and enumerations build on: basic
// types, the range error, string forms and parsers, the hash accumulator and
// the enumeration frame.
#ifndef KEL_VALUE_H
#define KEL_VALUE_H

#include <Kel/Enum.h>
#include <Kel/Hash.h>
#include <Kel/RangeException.h>
#include <Kel/Text.h>
#include <Kel/Types.h>

#include <iosfwd>
#include <string_view>

#endif  // KEL_VALUE_H
