// Links of the kernel behind interface handles.
//
// A handle is the index that the link had when it was first named (services/imc, backend "rtnl").
// A link that is deleted and made again under its name has another index; the handle goes on to
// mean the link of that name.
#ifndef MFWD6_PLATFORMS_LINUX_LINKS_H
#define MFWD6_PLATFORMS_LINUX_LINKS_H

#include "platforms/linux/kernel.h"
#include "platforms/linux/ledger.h"
#include "services/events/event_manager.h"
#include "services/imc/imc.h"

namespace mfwd6::lnx {

// Begins to follow the links. With a NULL `evm` they stay as they are until links_refresh. `fn` may
// be called from event_manager functions.
cerrno links_open(event_manager_t *evm, imc_change_fn fn);
void links_close();
bool links_live();

// Looks at all links again; for a process without an event manager.
cerrno links_refresh();

// Index of the link that the handle means now, 0 when there is none. `name` is the name that it had
// when last seen, "" if never; a link found by handle writes its present name there.
uint32_t link_of(uint32_t ifh, char (&name)[link_name_bytes]);

}  // namespace mfwd6::lnx

#endif
