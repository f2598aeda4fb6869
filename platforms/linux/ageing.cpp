#include "platforms/linux/ageing.h"

#include "platforms/linux/flows.h"
#include "platforms/linux/life.h"
#include "platforms/linux/program.h"

namespace mfwd6::lnx {

namespace {

constexpr uint32_t slots_each_time = 8192;

uint32_t next_slot = 0;
uint32_t next_held = 0;

// Slots are taken from the front, so a turn over them meets held entries about in the order in
// which they were made.
uint32_t step(uint32_t *cursor) {
    if (*cursor >= book().flows_used()) {
        *cursor = 0;
    }
    return (*cursor)++;
}

bool has_ended(const table &t, flow_slot &flow) {
    const uint32_t now = self().now;
    if (flow.state == flow_held) {
        return now - flow.made >= self().held_seconds;
    }
    if (now - flow.checked < self().idle_seconds) {
        return false;
    }
    const uint64_t packets = counted(t, flow.key).packets;
    const bool idle = packets == flow.seen_packets;
    flow.seen_packets = packets;
    flow.checked = now;
    return idle;
}

}  // namespace

void age_flows() {
    uint32_t steps = book().flows_used();
    steps = steps < slots_each_time ? steps : slots_each_time;
    while (steps-- > 0) {
        const uint32_t slot = step(&next_slot);
        flow_slot &flow = book().flow(slot);
        table *t = flow.state != flow_free ? find_kernel_table(flow.kernel_table) : nullptr;
        if (t != nullptr && has_ended(*t, flow)) {
            end_flow(*t, slot);
        }
    }
}

void end_oldest_held() {
    uint32_t steps = book().flows_used();
    while (steps-- > 0) {
        const uint32_t slot = step(&next_held);
        const flow_slot &flow = book().flow(slot);
        table *t = flow.state == flow_held ? find_kernel_table(flow.kernel_table) : nullptr;
        if (t != nullptr) {
            end_flow(*t, slot);
            return;
        }
    }
}

}  // namespace mfwd6::lnx
