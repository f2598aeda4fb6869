#include <gtest/gtest.h>

#include "tests/apps/mfwd6ctl/owner.h"
using namespace ctl_test;
TEST(Show, Look) {
    const owner o;
    for (const words &w : std::vector<words>{{"show", "routes"},
                                             {"show", "routes", "--json"},
                                             {"show", "tables"},
                                             {"show", "interfaces"},
                                             {"show", "interfaces", "--json"},
                                             {"show", "encaps"},
                                             {"show", "bvi"},
                                             {"show", "memory"},
                                             {"show", "locks"},
                                             {"show", "clients"},
                                             {"show", "status"},
                                             {"show", "signals"},
                                             {"show", "signals", "--json"},
                                             {"show", "route", "2001:db8::1", "ff3e::1"},
                                             {"show", "route", "any", "ff3e:1::/96", "--json"},
                                             {"show", "routes", "--tree"},
                                             {"show", "routes", "--tree", "--ascii"},
                                             {"show", "routes", "--dot"},
                                             {"show", "flows"},
                                             {"show", "routes", "--group", "ff3e:1::/32"},
                                             {"show", "routes", "--source", "any"},
                                             {"show", "routes", "--count"},
                                             {"trace", "--last", "5"},
                                             {"trace", "--list"},
                                             {"debug", "show"}}) {
        const ended e = o.run(w);
        std::string c;
        for (auto &x : w)
            c += x + " ";
        printf("---- %s => %d\n%s%s", c.c_str(), e.code, e.out.c_str(), e.err.c_str());
    }
}
