#include "platforms/linux/intf_uses.h"

#include "platforms/linux/life.h"

namespace mfwd6::lnx {

namespace {

constexpr mrib_attrib_entry_type uses_mif =
    MRIB_INTF_ACCEPT | MRIB_INTF_FORWARD | MRIB_INTF_NEGATE_SIGNAL;

bool is_use(const intf_extension &e) {
    return e.counted_by(self().run);
}

}  // namespace

cerrno settle_use(table &t, ipv4mc_intf_entry_st &entry, bool must_exist) {
    if ((entry.attributes & uses_mif) == 0 || entry.intf_type != IPV4MC_INTF_ORDINARY) {
        end_use(t, entry);
        return 0;
    }
    intf_extension &e = extension(entry);
    const bool first = !is_use(e);
    uint32_t mif = e.mif();
    cerrno failed = first ? take_mif(t, entry.ifh, must_exist, &mif) : 0;
    if (failed == 0 && (entry.attributes & MRIB_INTF_ACCEPT) != 0) {
        failed = rule_mif(t, mif);
        if (failed != 0 && first) {
            give_mif(t, mif);
        }
    }
    if (failed == 0) {
        e.set(self().run, mif);
    }
    return failed;
}

void end_use(table &t, ipv4mc_intf_entry_st &entry) {
    intf_extension &e = extension(entry);
    if (is_use(e)) {
        const uint32_t mif = e.mif();
        e = {};
        give_mif(t, mif);
    }
}

}  // namespace mfwd6::lnx
