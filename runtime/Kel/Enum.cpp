#include <Kel/Enum.h>

namespace Kel {

Enumerator const* EnumDesc::byValue(U32 value) const noexcept {
  for (Enumerator const& e : enumerators_) {
    if (e.value == value) return &e;
  }
  return nullptr;
}

Enumerator const* EnumDesc::byName(std::string_view name) const noexcept {
  for (Enumerator const& e : enumerators_) {
    if (e.name == name) return &e;
  }
  return nullptr;
}

void EnumDesc::append(String& out, U32 value) const {
  if (Enumerator const* e = byValue(value)) {
    out += e->name;
  } else {
    appendStrep(out, value);
  }
}

U32 EnumDesc::parse(TextIt& it, TextIt end) const {
  if (it != end && *it >= '0' && *it <= '9') {
    U32 v = 0;
    sequenceToValue(it, end, &v);
    return v;
  }
  TextIt p = it;
  std::string_view const word = readWord(p, end);
  if (word.empty()) throwExpected("an enumerator of " + String(name_), it, end);
  Enumerator const* e = byName(word);
  if (e == nullptr) {
    throw RangeException("Invalid enumerator '" + excerpt(word) + "' for " + String(name_));
  }
  it = p;
  return e->value;
}

}  // namespace Kel
