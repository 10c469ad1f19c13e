// A plain attribute kept out of line: the entity holds one pointer, null
// while the attribute holds its default, and a copy on the heap otherwise.
// For the larger objects of a message or a state that most instances never
// set: they cost a pointer instead of their size.
#ifndef KEL_BOXED_H
#define KEL_BOXED_H

#include <memory>

namespace Kel {

template <class T>
class Boxed {
 public:
  Boxed() = default;
  Boxed(Boxed const&) = delete;
  Boxed& operator=(Boxed const&) = delete;

  // The value: the box's, or `fallback` (the attribute's default) when empty.
  [[nodiscard]] T const& get(T const& fallback) const noexcept { return p_ ? *p_ : fallback; }
  [[nodiscard]] bool holds() const noexcept { return p_ != nullptr; }
  // Keeps `value`; a value equal to `fallback` empties the box.
  void set(T const& value, T const& fallback) {
    if (value == fallback) {
      p_.reset();
    } else if (p_) {
      *p_ = value;
    } else {
      p_ = std::make_unique<T>(value);
    }
  }

 private:
  std::unique_ptr<T> p_;
};

}  // namespace Kel

#endif  // KEL_BOXED_H
