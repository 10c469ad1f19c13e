#include <Kel/RangeException.h>

#include <utility>

namespace Kel {

RangeException::RangeException(std::string text) : text_(std::move(text)), what_(text_) {}

void RangeException::attributePrepend(std::string_view attr) {
  std::string path(attr);
  if (!attribute_.empty()) {
    path += '.';
    path += attribute_;
  }
  attribute_ = std::move(path);
  updateWhat();
}

void RangeException::updateWhat() {
  what_ = text_;
  if (!attribute_.empty()) {
    what_ += " (attribute '";
    what_ += attribute_;
    what_ += "')";
  }
}

void throwOutOfRange(std::string_view type, std::string_view attr, std::string_view min,
                     std::string_view max) {
  std::string text;
  text.reserve(type.size() + attr.size() + min.size() + max.size() + 24);
  text.append(type).append("::").append(attr).append(" < ").append(min).append(" or > ");
  text.append(max).append(" not allowed");
  throw RangeException(std::move(text));
}

}  // namespace Kel
