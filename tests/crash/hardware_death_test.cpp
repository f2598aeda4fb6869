// Hardware in a folder whose process dies in the middle of a call: the next one can name all that
// it holds.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "tests/crash/steps.h"
#include "tests/kit/run_dir.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr uint64_t stride = 160;  // a call takes many more instructions
#else
constexpr uint64_t stride = 16;
#endif
constexpr uint64_t most_instructions = 20'000;
constexpr uint32_t patience_ms = 10'000;

// What one call makes, which differs from call to call in `n` only.
using make_ft = cerrno (*)(uint32_t n);

cerrno make_table(uint32_t n) {
    ipv4mc_table_st *none = nullptr;
    const std::string name = "vrf" + std::to_string(n);
    return ip6mc_platform_table_operation(IPV4MC_ACTION_CREATE, 0, 0x60000006 + n, name.c_str(),
                                          &none, 1);
}

cerrno make_interface(uint32_t n) {
    ipv4mc_table_st table = {};
    table.tid = 0xe0000005;
    ipv4mc_route_entry_st route = {};
    route.group.bytes[0] = 0xff;
    route.pfx_len = 128;
    ipv4mc_intf_entry_st entry = {};
    entry.ifh = entry.key_ifh = 0x101 + n;
    ipv4mc_intf_entry_st *given = &entry;
    return ip6mc_platform_intf_operation(IPV4MC_ACTION_CREATE, &table, &route, entry.ifh, 0, &given,
                                         nullptr, 0, 0, 1);
}

// One call in a process that is killed so many instructions behind its beginning. False when it
// came to its end before. Another one goes first, so that memory is there and the names of the
// library are bound: the call is short then.
bool make_and_die(const std::string &folder, make_ft make, uint64_t instructions) {
    static auto *const ended = static_cast<bool *>(
        mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    *ended = false;
    crash::victim owner([&] {
        if (sim_hardware_open(folder.c_str()) != 0) {
            return 1;
        }
        sim_reset();
        if (make(1) != 0) {
            return 1;
        }
        crash::victim::stop_here();
        make(0);
        *ended = true;
        crash::victim::stop_here();
        return 0;
    });
    std::string why;
    EXPECT_TRUE(owner.wait_for_stop(patience_ms, &why)) << why;
    EXPECT_TRUE(owner.step_and_kill(instructions, &why)) << why;
    return !*ended;
}

// Kills at every so many instructions of the call; behind each, `see` counts what nobody can name.
void dies_at_every_place(make_ft make, ip6mc_platform_kind kind, ip6mc_platform_held_ft see) {
    const kit::run_dir dir;
    const std::string folder = dir.path() + "/hardware";
    mkdir(folder.c_str(), 0700);
    uint64_t instructions = 0;
    bool in_time = true;
    while (in_time && instructions < most_instructions) {
        in_time = make_and_die(folder, make, instructions);
        ASSERT_EQ(sim_hardware_open(folder.c_str()), 0U);
        uint32_t nameless = 0;
        EXPECT_EQ(ip6mc_platform_enumerate(kind, see, &nameless), 0U);
        sim_hardware_close();
        ASSERT_EQ(nameless, 0U) << instructions << " instructions behind the beginning";
        instructions += stride;
    }
    EXPECT_FALSE(in_time);  // the whole call was seen
}

}  // namespace

TEST(HardwareDeath, NoTableIsHeldThatNobodyCanName) {
    dies_at_every_place(make_table, IP6MC_PLATFORM_TABLE,
                        [](const ip6mc_platform_held_st *held, void *nameless) -> cerrno {
                            if (held->vrf_id == 0 && held->vrf_name[0] == 0) {
                                ++*static_cast<uint32_t *>(nameless);
                            }
                            return 0;
                        });
}

TEST(HardwareDeath, NoInterfaceIsHeldThatNobodyCanName) {
    dies_at_every_place(make_interface, IP6MC_PLATFORM_INTF,
                        [](const ip6mc_platform_held_st *held, void *nameless) -> cerrno {
                            if (held->ifh == 0) {
                                ++*static_cast<uint32_t *>(nameless);
                            }
                            return 0;
                        });
}
