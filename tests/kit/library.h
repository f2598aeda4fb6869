// The library on a window of its own with the simulated platform, in two lines:
//
//     kit::run_dir dir;
//     kit::library owner;
#ifndef MFWD6_TESTS_KIT_LIBRARY_H
#define MFWD6_TESTS_KIT_LIBRARY_H

#include <cstdint>
#include <utility>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_lib.h"

namespace kit {

constexpr uint32_t default_tid = 0xe0800000;
constexpr uint32_t default_vrf_id = 0x60000000;
constexpr uint32_t line_card_role = 2;

// Everything that ip6mc_lib_init takes, with what most tests want.
struct start {
    int attach_only = 0;
    uint32_t node_role = line_card_role;
    bool with_callback = true;
    void *evm = nullptr;
    void *im_context = nullptr;
    ipmc_free_hook_ft free_hook = nullptr;
    int keep_buffer_pool = 0;
};

// Messages that the client callback got since it was last asked.
std::vector<ipv4mc_lib_callback_msg> take_messages();

// What the client callback answers.
void answer_callback_with(cerrno rc);

// Calls ip6mc_lib_init; its result.
cerrno start_library(const start &how = {});

// Starts in the constructor (throws if that fails) and, unless told otherwise, ends the window in
// the destructor.
class library {
  public:
    explicit library(const start &how = {});
    ~library();
    library(const library &) = delete;
    library &operator=(const library &) = delete;

    // Ends it with this reason now; the destructor does nothing then.
    cerrno terminate(uint32_t reason);

  private:
    int attach_only_;
    bool ended_ = false;
};

}  // namespace kit

#endif
