#include "services/events/ptimer.h"

#include <type_traits>

#include "services/events/clock.h"
#include "services/journal/journal.h"

namespace events = mfwd6::events;
namespace journal = mfwd6::journal;

static_assert(sizeof(ptimer_t) == 8 && std::is_trivially_copyable_v<ptimer_t>,
              "one word in records that outlive the process");
static_assert(sizeof(timespec) == 16, "times in records that other processes read");

namespace {

timespec time_of(uint64_t ns) {
    return {static_cast<time_t>(ns / events::ns_per_s), static_cast<long>(ns % events::ns_per_s)};
}

}  // namespace

void ptimer_gettime(struct timespec *now) {
    *now = time_of(events::clock_now());
}

void ptimer_gettime_coarse(struct timespec *now) {
    *now = time_of(events::clock_now_coarse());
}

void ptimer_diff_timespec(const struct timespec *later, const struct timespec *earlier,
                          struct timespec *result) {
    time_t seconds = later->tv_sec - earlier->tv_sec;
    long nanoseconds = later->tv_nsec - earlier->tv_nsec;
    if (nanoseconds < 0) {
        nanoseconds += static_cast<long>(events::ns_per_s);
        --seconds;
    }
    const bool backwards = seconds < 0;
    result->tv_sec = backwards ? 0 : seconds;
    result->tv_nsec = backwards ? 0 : nanoseconds;
}

void ptimer_start(ptimer_t *timer, uint64_t nanoseconds) {
    journal::store(timer->expires_ns, events::add_capped(events::clock_now(), nanoseconds));
}

void ptimer_stop(ptimer_t *timer) {
    journal::store(timer->expires_ns, uint64_t{0});
}

int ptimer_running(const ptimer_t *timer) {
    const uint64_t expires = journal::observe(timer->expires_ns);
    return expires != 0 && events::clock_now() < expires ? 1 : 0;
}

int ptimer_expired(const ptimer_t *timer) {
    const uint64_t expires = journal::observe(timer->expires_ns);
    return expires != 0 && events::clock_now() >= expires ? 1 : 0;
}
