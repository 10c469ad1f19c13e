#include <Kel/RangeException.h>
#include <Lumo/IntfId.h>
#include <Lumo/NetSupport.h>

#include <cstring>
#include <ostream>

namespace Lumo {

namespace {

[[noreturn]] void throwInvalid() { throw Kel::RangeException("Invalid IntfId"); }

// Answers the end of the run of name characters at `p`.
char const* nameRunEnd(char const* p, char const* end) noexcept {
  while (p != end && IntfId::isNameChar(*p)) ++p;
  return p;
}

}  // namespace

IntfId::IntfId(std::string_view name) {
  if (name.size() > maxSize ||
      nameRunEnd(name.data(), name.data() + name.size()) != name.data() + name.size()) {
    throwInvalid();
  }
  name_.assign(name);
}

bool IntfId::isNameChar(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || detail::isDigit(c) || c == '/' ||
         c == '.' || c == '_' || c == ':' || c == '-';
}

void IntfId::toNetwork(Kel::U8* out) const noexcept {
  out[0] = static_cast<Kel::U8>(name_.size());
  std::memcpy(out + 1, name_.data(), name_.size());
}

IntfId IntfId::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  detail::checkAvail("IntfId", 1, avail);
  std::size_t const size = in[0];
  detail::checkAvail("IntfId", 1 + size, avail);
  // The bytes are read through char, as the name keeps them.
  return IntfId(std::string_view(reinterpret_cast<char const*>(in + 1), size));
}

void appendStrep(Kel::String& out, IntfId const& v) { out += v.name(); }

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IntfId* out) {
  Kel::TextIt const p = nameRunEnd(it, end);
  if (static_cast<std::size_t>(p - it) > IntfId::maxSize) throwInvalid();
  out->name_.assign(it, p);
  it = p;
}

std::ostream& operator<<(std::ostream& os, IntfId const& v) { return os << v.name(); }

}  // namespace Lumo
