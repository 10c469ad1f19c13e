// The framework's range error: raised when text does not parse, when a
// bounded attribute is given a value out of range, and when a value read from
// elsewhere breaks its type's rules. Whoever raises it leaves the target value
// unchanged.
#ifndef KEL_RANGEEXCEPTION_H
#define KEL_RANGEEXCEPTION_H

#include <exception>
#include <string>
#include <string_view>

namespace Kel {

// Carries the fixed text of the failure (`text()`) and, when a parser of a
// composite value rethrew it, the path of attributes that led to the failing
// one, outermost first (`attribute()`, such as "sessionId.dstIp").
//
// `what()` is `text()` alone when no attribute was named, else
// `text() + " (attribute 'sessionId.dstIp')"`.
class RangeException : public std::exception {
 public:
  explicit RangeException(std::string text);

  [[nodiscard]] char const* what() const noexcept override { return what_.c_str(); }
  [[nodiscard]] std::string const& text() const noexcept { return text_; }
  [[nodiscard]] std::string const& attribute() const noexcept { return attribute_; }

  // Names `attr` as the attribute, within the enclosing value, where the
  // failure happened. Called by the parsers as the exception travels outward.
  void attributePrepend(std::string_view attr);

 private:
  void updateWhat();

  std::string text_;
  std::string attribute_;
  std::string what_;
};

// Raises the not-allowed error of a bounded attribute:
// "<type>::<attr> < <min> or > <max> not allowed".
[[noreturn]] void throwOutOfRange(std::string_view type, std::string_view attr,
                                  std::string_view min, std::string_view max);

// Runs `parse`, naming `attr` in any range error that it raises. This is the
// rethrow step of every parser of a composite value.
template <class Parse>
inline void parseNamed(std::string_view attr, Parse&& parse) {
  try {
    parse();
  } catch (RangeException& e) {
    e.attributePrepend(attr);
    throw;
  }
}

}  // namespace Kel

#endif  // KEL_RANGEEXCEPTION_H
