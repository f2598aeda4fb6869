// The window as the owner opens it: looked at before it is taken, so that nothing is thrown away
// that somebody may still want; freed blocks wait for its readers.
#ifndef MFWD6_APPS_MFWD6D_OWNER_WINDOW_H
#define MFWD6_APPS_MFWD6D_OWNER_WINDOW_H

#include <cstdint>
#include <string>

#include "apps/mfwd6d/owner/outcome.h"
#include "services/events/event_manager.h"

namespace mfwd6::daemon {

// Ids of the tables and VRFs. The default table's id has no number of the kernel in it; a VRF's
// table id is the number of its kernel table.
inline constexpr uint32_t default_tid = 0xe0800000;
inline constexpr uint32_t default_vrf_id = 0x60000000;
constexpr uint32_t vrf_id_of(uint32_t table_id) {
    return default_vrf_id | table_id;
}

// Says in a sentence why the window of the run dir cannot be taken; success when it can, or when
// there is none. Changes nothing.
outcome look_at_window();

// Starts the library as the owner, and its interface half.
outcome start_library(event_manager_t *evm, void *im_context);

// Ends it: with `keep` the window stays as it is, else it is emptied and its file removed.
void stop_library(bool keep);

// Ends blocks that all readers have passed, at most `most` (0: all). How many still wait.
uint64_t reclaim_blocks(uint32_t most);

// Goes up whenever the window begins anew.
uint64_t window_generation();

}  // namespace mfwd6::daemon

#endif
