// What the campaign is asked to do.
#ifndef MFWD6_TESTS_CRASH_OPTIONS_H
#define MFWD6_TESTS_CRASH_OPTIONS_H

#include <cstdint>
#include <optional>

namespace crash {

struct options {
    uint64_t seed = 1;
    uint64_t kills = 200;
    std::optional<uint64_t> kill;  // replay the episode of this one, up to it
    uint64_t seconds = 0;          // stop behind the episode in which so many have passed; 0: never
    bool quiet = false;
};

// From the command line; prints help or what is wrong, and ends the process then.
options parse(int argc, char **argv);

}  // namespace crash

#endif
