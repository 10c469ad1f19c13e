#include <Kel/Reflect.h>
#include <Lumo/NetSupport.h>
#include <Tunnel/TunnelId.h>

#include <ostream>

namespace Tunnel::TunnelTable {

Kel::String TunnelId::stringValue() const {
  Kel::String out;
  appendStrep(out, *this);
  return out;
}

void TunnelId::stringValueIs(std::string_view text) { *this = Kel::strepToValue<TunnelId>(text); }

void TunnelId::toNetwork(Kel::U8* out) const noexcept { Lumo::detail::storeBe32(out, index_); }

TunnelId TunnelId::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  Lumo::detail::checkAvail("TunnelId", wireSize, avail);
  return TunnelId(Lumo::detail::loadBe32(in));
}

void appendStrep(Kel::String& out, TunnelId const& v) { Kel::appendStrep(out, v.index()); }

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, TunnelId* out) {
  Kel::U32 index = 0;
  Kel::sequenceToValue(it, end, &index);
  *out = TunnelId(index);
}

std::ostream& operator<<(std::ostream& os, TunnelId const& v) { return os << v.stringValue(); }

Kel::TypeDesc const typeTunnelId("Tunnel::TunnelTable::TunnelId", nullptr, 0,
                                 Kel::basicTypeParts<TunnelId>());

}  // namespace Tunnel::TunnelTable
