// An owner of known state, in a process of its own.
#ifndef MFWD6_TESTS_APPS_MFWD6CTL_OWNER_H
#define MFWD6_TESTS_APPS_MFWD6CTL_OWNER_H

#include <functional>
#include <memory>

#include "ipv4/multicast/lib/ip6mc_table.h"
#include "tests/apps/mfwd6ctl/program.h"
#include "tests/kit/child.h"
#include "tests/kit/run_dir.h"

namespace ctl_test {

// What an owner of these tests is made from, within its process.
ipv4mc_table_st *add_table(uint32_t tid, uint32_t vrf_id, const char *name);
void add_interface(ifhtype ifh, const char *name);

struct entry {
    ifhtype ifh;
    uint64_t attributes;
};
void add_route(ipv4mc_table_st *table, const char *source, const char *group, uint16_t length,
               uint64_t attributes, const std::vector<entry> &entries);
void delete_route(ipv4mc_table_st *table, const char *source, const char *group, uint16_t length);
void add_signal(ipv4mc_table_st *table, const char *source, const char *group, ifhtype ifh);

// The state that golden texts know: VRFs "default" and "red", eth0 to eth3 with handles 1 to 4.
struct world {
    ipv4mc_table_st *standard;
    ipv4mc_table_st *red;
};
world make_world();

// A process that owns a window in a folder of its own, until it is killed or the test ends. The
// window stays when it is killed.
class owner {
  public:
    // Builds the world; then does `more`, if that is given, with a line to the test.
    using work = std::function<int(const world &, const kit::post &)>;
    explicit owner(const work &more = nullptr);

    void kill() { process_->kill(); }
    const kit::child &process() const { return *process_; }
    const std::string &folder() const { return dir_.path(); }

    // Arguments that lead to this window, in front of `more`.
    words with(const words &more) const;
    ended run(const words &more, const std::string &input = "") const {
        return ctl_test::run(with(more), input);
    }

  private:
    kit::run_dir dir_;
    std::unique_ptr<kit::child> process_;
};

}  // namespace ctl_test

#endif
