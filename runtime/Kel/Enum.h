// The enumeration frame: each enumeration of the model has one static table
// of its enumerators in declaration order (which need not be numeric order).
// Names are written without any type prefix or quotes.
//
// A number without an enumerator (possible when a raw value is cast or read
// from elsewhere) is written as its decimal number, and the parser reads a
// decimal number back as that number, so every stored value round-trips. A
// word that names no enumerator raises
// "Invalid enumerator 'xyz' for Rsvp::RsvpResvStyle".
#ifndef KEL_ENUM_H
#define KEL_ENUM_H

#include <Kel/Text.h>
#include <Kel/Types.h>

#include <span>
#include <string_view>

namespace Kel {

// The framework's descriptor of one enumerator.
struct Enumerator {
  std::string_view name;
  U32 value;
  U32 index;  // position in declaration order
};

// The descriptor of one enumeration: its qualified name and its table.
class EnumDesc {
 public:
  constexpr EnumDesc(std::string_view qualifiedName, std::span<Enumerator const> enumerators)
      : name_(qualifiedName), enumerators_(enumerators) {}

  [[nodiscard]] constexpr std::string_view name() const { return name_; }
  [[nodiscard]] constexpr std::span<Enumerator const> enumerators() const { return enumerators_; }

  // The enumerator with this number, or null. When two enumerators share a
  // number the first declared wins.
  [[nodiscard]] Enumerator const* byValue(U32 value) const noexcept;
  // The enumerator with this name, or null.
  [[nodiscard]] Enumerator const* byName(std::string_view name) const noexcept;

  // Writes the enumerator's name, or the decimal number when it has none.
  void append(String& out, U32 value) const;
  // Reads an enumerator name or a decimal number.
  [[nodiscard]] U32 parse(TextIt& it, TextIt end) const;

 private:
  std::string_view name_;
  std::span<Enumerator const> enumerators_;
};

}  // namespace Kel

#endif  // KEL_ENUM_H
