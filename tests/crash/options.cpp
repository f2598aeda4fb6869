#include "tests/crash/options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

namespace crash {

options parse(int argc, char **argv) {
    options asked;
    CLI::App app(
        "Kills owners and clients at any instruction and proves what the next owner finds.");
    app.add_option("--seed", asked.seed, "seed of the campaign");
    app.add_option("--kills", asked.kills, "kills to make");
    app.add_option("--kill", asked.kill, "replay the episode of this kill, up to it");
    app.add_option("--seconds", asked.seconds,
                   "end behind the episode in which so many have passed");
    app.add_flag("--quiet", asked.quiet, "print nothing but the result");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &problem) {
        std::exit(app.exit(problem));
    }
    return asked;
}

}  // namespace crash
