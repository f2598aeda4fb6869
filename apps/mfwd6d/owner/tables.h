// The tables, by the name of their VRF.
#ifndef MFWD6_APPS_MFWD6D_OWNER_TABLES_H
#define MFWD6_APPS_MFWD6D_OWNER_TABLES_H

#include <map>
#include <string>
#include <string_view>

#include "apps/mfwd6d/owner/outcome.h"
#include "ipv4/multicast/lib/ip6mc_table.h"

namespace mfwd6::daemon {

struct table {
    std::string vrf;
    uint32_t tid = 0;
    ipv4mc_table_st *record = nullptr;  // the table-id side
};

class tables {
  public:
    // Takes over what the window holds, and makes the default table where it is missing.
    outcome start();

    table *find(std::string_view vrf);
    const std::map<std::string, table, std::less<>> &all() const { return tables_; }

    // 0 too when it is there with the same id. EEXIST, EINVAL.
    outcome add(std::string_view vrf, uint32_t table_id);

    // With all its routes and signals. ENOENT; EINVAL for the default table.
    outcome erase(std::string_view vrf);

  private:
    outcome activate(const std::string &vrf, uint32_t tid, uint32_t vrf_id);

    std::map<std::string, table, std::less<>> tables_;
    table *last_ = nullptr;  // most lines name the table of the line before
};

}  // namespace mfwd6::daemon

#endif
