#include <Kel/Reflect.h>
#include <Lumo/Lumo.h>
#include <Lumo/TypeDescs.h>

namespace Lumo {

Kel::TypeDesc const typeIp6Addr("Lumo::Ip6Addr", nullptr, 0, Kel::basicTypeParts<Ip6Addr>());
Kel::TypeDesc const typeIpGenAddr("Lumo::IpGenAddr", nullptr, 0, Kel::basicTypeParts<IpGenAddr>());
Kel::TypeDesc const typeIpGenPrefix("Lumo::IpGenPrefix", nullptr, 0,
                                    Kel::basicTypeParts<IpGenPrefix>());
Kel::TypeDesc const typeMplsLabel("Lumo::MplsLabel", nullptr, 0, Kel::basicTypeParts<MplsLabel>());
Kel::TypeDesc const typeEthType("Lumo::EthType", nullptr, 0, Kel::basicTypeParts<EthType>());
Kel::TypeDesc const typeIntfId("Lumo::IntfId", nullptr, 0, Kel::basicTypeParts<IntfId>());
Kel::TypeDesc const typeNetU8("Lumo::NetU8", nullptr, 0, Kel::basicTypeParts<NetU8>());

}  // namespace Lumo
