// The errors of the entity frame. Range and parse errors are
// `Kel::RangeException` (RangeException.h); these report misuse of entities
// and collections. All carry a fixed text, returned by what().
#ifndef KEL_EXCEPTION_H
#define KEL_EXCEPTION_H

#include <Kel/Types.h>

#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace Kel {

class Exception : public std::exception {
 public:
  explicit Exception(std::string text) : text_(std::move(text)) {}
  [[nodiscard]] char const* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

// A null pointer given to a mutator of a pointer attribute. The text is
// "null " + param + " parameter to mutator for " + qualifiedAttr +
// " not allowed" followed by one stray double-quote character ("), which
// belongs to the text. `param` is written as given, leading underscore
// included: the generated mutators pass "_<attr>" (such as "_tunnelReq"),
// giving "null _tunnelReq parameter to mutator for
// Rsvp::RsvpTunnelRequestTable::tunnelReq not allowed"".
class NullPointerException : public Exception {
 public:
  NullPointerException(std::string_view param, std::string_view qualifiedAttr);
};

// Find-or-create given constructor arguments that differ from those of the
// entity found: "Reinstantiating the entity with fullName <fullName> where
// constructor parameter attribute '<attr>' has a different value of <value>".
class ReinstantiationException : public Exception {
 public:
  ReinstantiationException(std::string_view fullName, std::string_view attr,
                           std::string_view value);
};

// A write to an attribute fixed at construction:
// "Attribute <Type>::<attr> is immutable".
class ImmutableAttributeException : public Exception {
 public:
  explicit ImmutableAttributeException(std::string_view qualifiedAttr);
};

// A generic value asked of a type that has no value methods (an entity
// type): "Type <Type> has no value methods".
class NoValueMethodsException : public Exception {
 public:
  explicit NoValueMethodsException(std::string_view typeName);
};

}  // namespace Kel

#endif  // KEL_EXCEPTION_H
