// All network types of the runtime in one include: addresses, prefixes,
// labels, Ethernet types, interface names and network bytes.
#ifndef LUMO_LUMO_H
#define LUMO_LUMO_H

#include <Lumo/EthType.h>
#include <Lumo/IntfId.h>
#include <Lumo/Ip6Addr.h>
#include <Lumo/IpGenAddr.h>
#include <Lumo/IpGenPrefix.h>
#include <Lumo/MplsLabel.h>
#include <Lumo/NetU8.h>
#include <Lumo/TypeDescs.h>

#endif  // LUMO_LUMO_H
