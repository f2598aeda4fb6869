// Errors of the hardware: objects that go on the retry queue, are read back from it and leave it.
#include <cerrno>
#include <string>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "tests/crash/workload/step.h"

namespace crash {
namespace {

// What waits for its retry says so itself.
void read_retry_queue() {
    const dlqueue_node_t *queue = ipv4mc_desc->shmwin_info->retry_queue;
    if (queue == nullptr) {
        return;
    }
    for (const dlqueue_node_t *node = queue->next; node != queue; node = node->next) {
        const auto *element = static_cast<const ipmc_retry_msg *>(node->data);
        const bool waits =
            element->type == IPMC_RETRY_ROUTE
                ? ipmc_platform_route_get_err(
                      static_cast<const ipv4mc_route_entry_st *>(element->object)) != 0
                : static_cast<const ipv4mc_encap_entry_st *>(element->object)->retry_queued != 0;
        if (!waits) {
            give_up("an object of the retry queue does not know that it waits");
        }
    }
}

// The hardware knows a route and its interfaces by their ids.
void compare_ids(ipv4mc_route_entry_st *route) {
    ipv4mc_route_entry_st *named = nullptr;
    if (ipmc_route_get_from_id(route->obj_id, &named) == 0 && named != route) {
        give_up("the object id of a route names another one");
    }
    for (ipv4mc_intf_entry_st *entry = ipv4mc_intf_route_get_first_intf(route); entry != nullptr;
         entry = ipv4mc_intf_route_get_next_intf(route, entry)) {
        ipv4mc_intf_entry_st *other = nullptr;
        if (ip6mc_intf_get_from_id(entry->obj_id, &other) == 0 && other != entry) {
            give_up("the object id of an interface names another one");
        }
    }
}

}  // namespace

void step::errors() {
    aim_at_entry();
    ipv4mc_route_entry_st *route = route_here();
    if (route == nullptr) {
        return add_route();
    }
    ipv4mc_intf_entry_st *entry = entry_here();
    const uint32_t id = 1 + number(most_encaps);
    // A route that waits for resources waits until it goes: few should.
    const uint32_t error = number(32) == 0 ? IPMC_OOR_ERROR_FULL : IPMC_OOR_ERROR_PLAIN;
    change(operation::other, 0, [&] {
        ipv4mc_encap_entry_st *encap = nullptr;
        switch (number(7)) {
            case 0:
                ipmc_platform_err_handler_async_obj(route->obj_id, error);
                break;
            case 1:
                if (entry != nullptr) {
                    ipmc_platform_err_handler_async_obj(entry->obj_id, error);
                }
                break;
            case 2:
                if (entry != nullptr) {
                    ipmc_platform_err_handler_sync_intf(entry, route, EIO);
                }
                break;
            case 3:
                ip6mc_encapid_lookup(id, &encap);
                if (encap != nullptr && encap->retry_queued == 0) {
                    ipmc_platform_err_handler_sync_encap(encap, EIO);
                } else if (encap != nullptr) {
                    ipmc_platform_err_handler_clear_encap_err(encap);
                }
                break;
            case 4:
                read_retry_queue();
                compare_ids(route);
                break;
            default:
                ipmc_platform_err_handler_clear_route_err(route);
        }
    });
}

}  // namespace crash
