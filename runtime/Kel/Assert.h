// Fatal assertions: programming errors that the design stops on, in every
// build (not only with assertions on). The text printed is the expression as
// written, so the expression carries the message:
//
//   KEL_ASSERT(!objIter && !otherObjIter && "We already compared objects length, should be equal");
#ifndef KEL_ASSERT_H
#define KEL_ASSERT_H

namespace Kel {

// Prints "Assertion failed: <text> (<file>:<line>)" to standard error and aborts.
[[noreturn]] void assertFailed(char const* text, char const* file, int line) noexcept;

}  // namespace Kel

#define KEL_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : ::Kel::assertFailed(#expr, __FILE__, __LINE__))

#endif  // KEL_ASSERT_H
