#include <Rsvp/RsvpNeighborIntfMap.h>

#include <Kel/HashTable.h>

namespace Rsvp {

Kel::U32 RsvpNeighborIntfMap::intfCount() const {
  Kel::HashTable<Lumo::IntfId, Kel::NoValue> seen;
  for (auto it = intfAndAddrIter(); !it.done(); ++it) seen.insert(it.value().intfId());
  return static_cast<Kel::U32>(seen.size());
}

}  // namespace Rsvp
