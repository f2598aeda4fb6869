// A backend of the interface manager client that knows the links of the kernel's network namespace
// (rtnetlink(7)). A library of its own, mfwd6_imc_rtnl, so that only programs that want it link
// libmnl.
//
// The interface handle is the interface index. Types come from the kind of the link:
//   PHYSICAL      Ethernet without a kind, veth, dummy, macvlan, ipvlan, ...
//   SUBINTERFACE  vlan                      SVI     vlan of a bridge
//   BVI           bridge                    BUNDLE  bond, team
//   TUNNEL        gre, gretap, erspan, ip6gre, ip6gretap, ipip, sit, ip6tnl, vti, vti6, vxlan,
//   geneve,
//                 wireguard, tun, xfrm
//   PPPOE         any link of hardware type PPP
//   LOOPBACK, VRF, OTHER
// The parent is the link below (IFLA_LINK) when it is in the same namespace; the peer of a veth is
// none.
#ifndef MFWD6_SERVICES_IMC_RTNL_IMC_RTNL_H
#define MFWD6_SERVICES_IMC_RTNL_IMC_RTNL_H

#include "services/imc/imc.h"

MFWD6_BEGIN_C

// Registers the backend as "rtnl"; loading the library does the same. As imc_backend_register.
MFWD6_EXPORT cerrno imc_rtnl_register(void);

// Short for imc_rtnl_register and imc_context_open("rtnl", evm, context). With an event manager the
// context follows changes of the links; with NULL it stays as it was at the start. Failures are the
// errno values of the netlink socket.
MFWD6_EXPORT cerrno imc_rtnl_open(event_manager_t *evm, imc_context_t **context);

MFWD6_END_C

#endif
