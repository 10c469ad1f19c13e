#include <Kel/Reflect.h>
#include <Lumo/Lumo.h>
#include <Lumo/TypeDescs.h>

namespace Lumo {

namespace {

template <class T>
constexpr Kel::TypeDesc::Parts parts() {
  Kel::TypeDesc::Parts p;
  p.kind = Kel::TypeKind::basic;
  p.ops = &Kel::valueOpsOf<T>;
  return p;
}

}  // namespace

Kel::TypeDesc const typeIp6Addr("Lumo::Ip6Addr", nullptr, 0, parts<Ip6Addr>());
Kel::TypeDesc const typeIpGenAddr("Lumo::IpGenAddr", nullptr, 0, parts<IpGenAddr>());
Kel::TypeDesc const typeIpGenPrefix("Lumo::IpGenPrefix", nullptr, 0, parts<IpGenPrefix>());
Kel::TypeDesc const typeMplsLabel("Lumo::MplsLabel", nullptr, 0, parts<MplsLabel>());
Kel::TypeDesc const typeEthType("Lumo::EthType", nullptr, 0, parts<EthType>());
Kel::TypeDesc const typeIntfId("Lumo::IntfId", nullptr, 0, parts<IntfId>());
Kel::TypeDesc const typeNetU8("Lumo::NetU8", nullptr, 0, parts<NetU8>());

}  // namespace Lumo
