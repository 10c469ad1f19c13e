// Descriptors of the network types, for reflection: their generic value
// methods (construct, copy, compare, hash, text) reached by descriptor.
#ifndef LUMO_TYPEDESCS_H
#define LUMO_TYPEDESCS_H

#include <Kel/TypeDesc.h>

namespace Lumo {

extern Kel::TypeDesc const typeIp6Addr;
extern Kel::TypeDesc const typeIpGenAddr;
extern Kel::TypeDesc const typeIpGenPrefix;
extern Kel::TypeDesc const typeMplsLabel;
extern Kel::TypeDesc const typeEthType;
extern Kel::TypeDesc const typeIntfId;
extern Kel::TypeDesc const typeNetU8;

}  // namespace Lumo

#endif  // LUMO_TYPEDESCS_H
