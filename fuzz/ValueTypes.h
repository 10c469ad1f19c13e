// The types whose values the value fuzz target parses: the basic and network
// types, then every value and enumeration type of the model, in a fixed order
// (an input's first two bytes index it).
#ifndef RSVP_FUZZ_VALUETYPES_H
#define RSVP_FUZZ_VALUETYPES_H

#include <Kel/Reflect.h>
#include <Rsvp/Rsvp.h>

#include <vector>

namespace fuzzing {

inline std::vector<Kel::TypeDesc const*> const& valueTypes() {
  static std::vector<Kel::TypeDesc const*> const types = [] {
    std::vector<Kel::TypeDesc const*> out(Rsvp::basicTypes().begin(), Rsvp::basicTypes().end());
    for (Kel::TypeDesc const* t : Rsvp::allTypes()) {
      if (t->kind() != Kel::TypeKind::entity && t->ops() != nullptr) out.push_back(t);
    }
    return out;
  }();
  return types;
}

}  // namespace fuzzing

#endif  // RSVP_FUZZ_VALUETYPES_H
