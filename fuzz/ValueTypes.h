// The types whose values the value fuzz target parses: the basic and network
// types, then every value and enumeration type of the model, in a fixed order
// (an input's first two bytes index it).
#ifndef FUZZ_VALUETYPES_H
#define FUZZ_VALUETYPES_H

#include <Kel/Reflect.h>
#include <Rsvp/Rsvp.h>

#include <vector>

namespace fuzzing {

inline std::vector<Kel::TypeDesc const*> const& valueTypes() {
  static std::vector<Kel::TypeDesc const*> const types = [] {
    std::vector<Kel::TypeDesc const*> out = {
        &Kel::typeU8,           &Kel::typeU16,        &Kel::typeU32,      &Kel::typeU64,
        &Kel::typeS8,           &Kel::typeS16,        &Kel::typeS32,      &Kel::typeS64,
        &Kel::typeBool,         &Kel::typeF32,        &Kel::typeF64,      &Kel::typeSeconds,
        &Kel::typeString,       &Kel::typeName,       &Lumo::typeIp6Addr, &Lumo::typeIpGenAddr,
        &Lumo::typeIpGenPrefix, &Lumo::typeMplsLabel, &Lumo::typeEthType, &Lumo::typeIntfId,
        &Lumo::typeNetU8,
    };
    for (Kel::TypeDesc const* t : Rsvp::allTypes()) {
      if (t->kind() != Kel::TypeKind::entity && t->ops() != nullptr) out.push_back(t);
    }
    return out;
  }();
  return types;
}

}  // namespace fuzzing

#endif  // FUZZ_VALUETYPES_H
