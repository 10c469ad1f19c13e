#include <Kel/Reflect.h>
#include <Lumo/NetSupport.h>
#include <Mpls/LfibViaSetKey.h>

#include <ostream>

namespace Mpls {

Kel::String LfibViaSetKey::stringValue() const {
  Kel::String out;
  appendStrep(out, *this);
  return out;
}

void LfibViaSetKey::stringValueIs(std::string_view text) {
  *this = Kel::strepToValue<LfibViaSetKey>(text);
}

void LfibViaSetKey::toNetwork(Kel::U8* out) const noexcept {
  Lumo::detail::storeBe32(out, static_cast<Kel::U32>(id_ >> 32));
  Lumo::detail::storeBe32(out + 4, static_cast<Kel::U32>(id_));
}

LfibViaSetKey LfibViaSetKey::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  Lumo::detail::checkAvail("LfibViaSetKey", wireSize, avail);
  return LfibViaSetKey(Lumo::detail::loadBe64(in));
}

void appendStrep(Kel::String& out, LfibViaSetKey const& v) { Kel::appendStrep(out, v.id()); }

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, LfibViaSetKey* out) {
  Kel::U64 id = 0;
  Kel::sequenceToValue(it, end, &id);
  *out = LfibViaSetKey(id);
}

std::ostream& operator<<(std::ostream& os, LfibViaSetKey const& v) { return os << v.stringValue(); }

Kel::TypeDesc const typeLfibViaSetKey("Mpls::LfibViaSetKey", nullptr, 0,
                                      Kel::basicTypeParts<LfibViaSetKey>());

}  // namespace Mpls
