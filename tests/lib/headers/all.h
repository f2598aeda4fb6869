// All public headers of the library.
#ifndef TESTS_LIB_HEADERS_ALL_H
#define TESTS_LIB_HEADERS_ALL_H

#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_locks.h"
#include "ipv4/multicast/lib/ip6mc_mdt.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_shmwin.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/lib/ip6mc_svd.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/lib/ip6mc_types.h"
#include "ipv4/multicast/lib/multicast_alloc.h"

#endif
