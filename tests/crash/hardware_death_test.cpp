// Hardware in a folder whose process dies in the middle of a call: the next one can name all that
// it holds.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "platforms/sim/sim.h"
#include "tests/crash/steps.h"
#include "tests/kit/run_dir.h"

namespace {

constexpr uint64_t stride = 16;
constexpr uint64_t most_instructions = 20'000;
constexpr uint32_t patience_ms = 10'000;

cerrno make_table(uint32_t vrf_id, const char *name) {
    ipv4mc_table_st *none = nullptr;
    return ip6mc_platform_table_operation(IPV4MC_ACTION_CREATE, 0, vrf_id, name, &none, 1);
}

// One table by id and name, in a process that is killed so many instructions behind the beginning
// of the call. False when the call came to its end before. Another table goes first, so that memory
// is there and the names of the library are bound: the call is short then.
bool make_table_and_die(const std::string &folder, uint64_t instructions) {
    static auto *const ended = static_cast<bool *>(
        mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    crash::victim owner([&] {
        if (sim_hardware_open(folder.c_str()) != 0) {
            return 1;
        }
        sim_reset();
        if (make_table(0x60000007, "blue") != 0) {
            return 1;
        }
        crash::victim::stop_here();
        make_table(0x60000006, "red");
        *ended = true;
        crash::victim::stop_here();
        return 0;
    });
    std::string why;
    EXPECT_TRUE(owner.wait_for_stop(patience_ms, &why)) << why;
    EXPECT_TRUE(owner.step_and_kill(instructions, &why)) << why;
    return !*ended;
}

cerrno see(const ip6mc_platform_held_st *held, void *nameless) {
    *static_cast<uint32_t *>(nameless) += held->vrf_id == 0 && held->vrf_name[0] == 0 ? 1U : 0U;
    return 0;
}

}  // namespace

TEST(HardwareDeath, NoTableIsHeldThatNobodyCanName) {
    const kit::run_dir dir;
    const std::string folder = dir.path() + "/hardware";
    mkdir(folder.c_str(), 0700);
    uint64_t instructions = 0;
    bool in_time = true;
    while (in_time && instructions < most_instructions) {
        in_time = make_table_and_die(folder, instructions);
        ASSERT_EQ(sim_hardware_open(folder.c_str()), 0U);
        uint32_t nameless = 0;
        EXPECT_EQ(ip6mc_platform_enumerate(IP6MC_PLATFORM_TABLE, see, &nameless), 0U);
        sim_hardware_close();
        ASSERT_EQ(nameless, 0U) << instructions << " instructions behind the beginning";
        instructions += stride;
    }
    EXPECT_FALSE(in_time);  // the whole call was seen
}
