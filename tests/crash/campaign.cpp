// The crash campaign: episodes of kills, each on a window of its own.
//
// In an episode owner follows owner. Each proves the window, does random operations, and is killed:
// by so many single steps behind the beginning of some operation (or of a part of one: steps are
// dear, and most of a long operation should be near a beginning), or of its own start, or after
// some time. In some episodes clients read and post beside it, and die as well. The last owner of
// an episode empties the window and finds as many blocks as there were at first.
//
// All choices follow from the seed and the number of the kill. Where processes run side by side, or
// death comes by the clock, a replay meets the same choices, not the same instruction.
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tests/crash/clients.h"
#include "tests/crash/life.h"
#include "tests/crash/options.h"
#include "tests/crash/steps.h"
#include "tests/kit/run_dir.h"

namespace crash {
namespace {

constexpr uint64_t kills_in_episode = 25;
constexpr uint32_t patience_ms = 120'000;
constexpr double most_steps = 6'000;
constexpr uint64_t most_points = 60;
constexpr uint32_t most_microseconds = 20'000;
constexpr uint32_t most_microseconds_of_start = 4'000;

// All choices about one kill.
struct plan {
    enum class way { start, operation, clock } how;
    uint64_t seed;   // of the owner's work
    uint64_t point;  // of the work, that is stopped ahead of
    uint64_t steps;  // from there
    uint32_t microseconds;
    bool start_by_clock;
    bool kill_client;
    bool client_holds_mutex;
};

plan make_plan(generator &random, bool clients) {
    plan p{};
    const uint64_t dice = random() % 100;
    p.how = dice < 12 ? plan::way::start : dice < 80 ? plan::way::operation : plan::way::clock;
    p.seed = random();
    p.point = 1 + random() % most_points;
    // Near and far points alike: each order of magnitude as often as the next.
    const double part = static_cast<double>(random() % 100'000) / 100'000;
    p.steps = static_cast<uint64_t>(std::exp(part * std::log(most_steps)));
    p.microseconds = static_cast<uint32_t>(random() % most_microseconds);
    p.start_by_clock = random() % 2 == 0;
    p.kill_client = clients && random() % 4 == 0;
    p.client_holds_mutex = random() % 2 == 0;
    return p;
}

// A process beside the owners, made anew when it was killed.
struct client {
    bool posts;
    std::unique_ptr<victim> process;
};

class episode {
  public:
    episode(uint64_t seed, uint64_t number) : random_(seed * 1'000'003 + number) {
        how_.folder = dir_.path();
        how_.async_errors = random_() % 2 == 0;
        how_.clients = random_() % 2 == 0;
        how_.shared_tries = random_() % 2 == 0;
        mkdir((how_.folder + "/hardware").c_str(), 0700);
        board &all = shared();
        all.known = world{};
        all.has_base = false;
        all.stop = 0;
        all.hush = 0;
        all.failure[0] = '\0';
    }

    // Empty, or what went wrong.
    std::string run(uint64_t kills, uint64_t *done) {
        std::string wrong = whole_life(&episode::empty_window_once);
        if (wrong.empty() && how_.clients) {
            wrong = one_life_for_clients();
        }
        for (uint64_t n = 0; n < kills && wrong.empty(); ++n) {
            const plan p = make_plan(random_, how_.clients);
            wrong = p.kill_client ? kill_client(p) : "";
            wrong = wrong.empty() ? kill_owner(p) : wrong;
            wrong = wrong.empty() ? look_after_clients() : wrong;
            *done += wrong.empty() ? 1 : 0;
        }
        if (wrong.empty()) {
            wrong = stop_clients();
        }
        return wrong.empty() ? whole_life(&episode::empty_window_once) : wrong;
    }

    std::string text() const {
        return std::string(how_.async_errors ? "asynchronous errors, " : "") +
               (how_.clients ? "clients, " : "") + (how_.shared_tries ? "shared tries, " : "");
    }

  private:
    int empty_window_once() {
        empty_and_compare(how_);
        return 0;
    }

    // An owner that comes to its end.
    std::string whole_life(int (episode::*life)()) {
        victim owner([&] { return (this->*life)(); });
        const int code = owner.wait(patience_ms);
        return code == 0 ? "" : failure("an owner ended with " + std::to_string(code));
    }

    // The window must be there before clients come.
    std::string one_life_for_clients() {
        std::string wrong = whole_life(&episode::start_once);
        for (uint32_t n = 0; n < 4 && wrong.empty(); ++n) {
            clients_.push_back({n % 2 == 1, nullptr});
            begin(clients_.back());
        }
        return wrong;
    }

    int start_once() {
        start_owner(how_, [] {});
        return 0;
    }

    void begin(client &of) {
        const uint64_t seed = random_();
        of.process = std::make_unique<victim>([this, seed, posts = of.posts] {
            if (!posts) {
                return read_routes(how_, seed);
            }
            return post_signals(
                how_, seed,
                [] {
                    if (shared().stop_poster.exchange(0) != 0) {
                        victim::stop_here();
                    }
                },
                [] {
                    if (shared().stop_holder.exchange(0) != 0) {
                        victim::stop_here();
                    }
                });
        });
    }

    std::string kill_owner(const plan &p) {
        victim owner([&] {
            start_owner(how_, [&] {
                if (p.how == plan::way::start) {
                    victim::stop_here();
                }
            });
            if (p.how == plan::way::clock) {
                victim::stop_here();
            }
            work(p.seed, [&](uint64_t n) {
                if (p.how == plan::way::operation && n == p.point) {
                    victim::stop_here();
                }
            });
            return 0;
        });
        std::string why;
        if (!owner.wait_for_stop(patience_ms, &why)) {
            return failure(why);
        }
        const bool by_clock =
            p.how == plan::way::clock || (p.how == plan::way::start && p.start_by_clock);
        if (!by_clock) {
            return owner.step_and_kill(p.steps, &why) ? "" : failure(why);
        }
        owner.go_on();
        usleep(p.how == plan::way::start ? p.microseconds % most_microseconds_of_start
                                         : p.microseconds);
        int code = 0;
        if (!owner.runs(&code)) {
            return failure("an owner ended with " + std::to_string(code));
        }
        owner.kill();
        return "";
    }

    // One of the clients dies, now and then with the window mutex in its hands.
    std::string kill_client(const plan &p) {
        client &of = clients_[random_() % clients_.size()];
        if (of.posts && of.process != nullptr) {
            // Any poster may take the order; the one that does is stepped.
            std::atomic<uint32_t> &order =
                p.client_holds_mutex ? shared().stop_holder : shared().stop_poster;
            order = 1;
            const std::string wrong = step_poster(p);
            order = 0;
            if (!wrong.empty()) {
                return wrong;
            }
        } else {
            of.process->kill();
        }
        for (client &each : clients_) {
            int code = 0;
            if (each.process == nullptr || !each.process->runs(&code)) {
                begin(each);
            }
        }
        return "";
    }

    // Posters run beside no owner for a moment, which they must be able to.
    std::string step_poster(const plan &p) {
        for (client &each : clients_) {
            std::string why;
            if (!each.posts) {
                continue;
            }
            if (each.process->wait_for_stop(50, &why)) {
                const bool killed = each.process->step_and_kill(p.steps % 20'000, &why);
                each.process.reset();
                return killed ? "" : failure("a poster: " + why);
            }
            if (why != "the process hangs") {  // it has not come to a post
                return failure("a poster: " + why);
            }
        }
        return "";
    }

    std::string look_after_clients() {
        for (client &each : clients_) {
            int code = 0;
            if (each.process != nullptr && !each.process->runs(&code)) {
                return failure(std::string(each.posts ? "a poster" : "a reader") + " ended with " +
                               std::to_string(code));
            }
        }
        return "";
    }

    std::string stop_clients() {
        shared().stop = 1;
        for (client &each : clients_) {
            const int code = each.process != nullptr ? each.process->wait(patience_ms) : 0;
            if (code != 0) {
                return failure(std::string(each.posts ? "a poster" : "a reader") + " ended with " +
                               std::to_string(code));
            }
        }
        clients_.clear();
        return "";
    }

    static std::string failure(const std::string &otherwise) {
        return shared().failure[0] != '\0' ? std::string(shared().failure) + "\n(" + otherwise + ")"
                                           : otherwise;
    }

    kit::run_dir dir_;
    setting how_;
    generator random_;
    std::vector<client> clients_;
};

double seconds_since(const timespec &start) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - start.tv_sec) +
           static_cast<double>(now.tv_nsec - start.tv_nsec) * 1e-9;
}

int run(const options &asked) {
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    const bool replay = asked.kill.has_value();
    uint64_t done = 0;
    uint64_t number = replay ? *asked.kill / kills_in_episode : 0;
    for (; replay || done < asked.kills; ++number) {
        const uint64_t first = number * kills_in_episode;
        const uint64_t wanted =
            replay ? *asked.kill - first + 1 : std::min(kills_in_episode, asked.kills - done);
        uint64_t made = 0;
        episode now(asked.seed, number);
        const std::string wrong = now.run(wanted, &made);
        done += made;
        if (!wrong.empty()) {
            const uint64_t last = first + std::min(made, wanted - 1);
            printf(
                "FAILED at kill %lu (%sepisode %lu): %s\nreplay: mfwd6-crash --seed %lu --kill "
                "%lu\n",
                last, now.text().c_str(), number, wrong.c_str(), asked.seed, last);
            return 1;
        }
        if (!asked.quiet) {
            printf("%lu kills, %.1f a second\n", done,
                   static_cast<double>(done) / seconds_since(start));
            fflush(stdout);
        }
        if (replay ||
            (asked.seconds != 0 && seconds_since(start) > static_cast<double>(asked.seconds))) {
            break;
        }
    }
    const board &all = shared();
    printf(
        "%lu kills in %.0f s (%.1f a second): %lu operations, %lu lookups and %lu posts beside "
        "them, %lu checks, %lu differences of the hardware brought in line, %lu leftovers met, %lu "
        "orphans reclaimed\n",
        done, seconds_since(start), static_cast<double>(done) / seconds_since(start),
        all.operations.load(), all.lookups.load(), all.posts.load(), all.checks.load(),
        all.resynced.load(), all.leftovers.load(), all.reclaimed.load());
    return 0;
}

}  // namespace
}  // namespace crash

int main(int argc, char **argv) {
    // Each owner is a fork: names that are not bound by now would be looked up in each anew, and be
    // stepped through.
    if (getenv("LD_BIND_NOW") == nullptr && setenv("LD_BIND_NOW", "1", 0) == 0) {
        execv("/proc/self/exe", argv);
    }
    crash::shared();
    return crash::run(crash::parse(argc, argv));
}
