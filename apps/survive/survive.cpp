// mfwd6-survive: shows in a second what the window promises.
//
// A first process makes a window, writes notes into it, each in one journal group, and is killed
// with SIGKILL while one more group is half done. A second process opens the window and says what
// it found: every finished note, and no trace of the unfinished change.
//
// Exit code: 0 all that was finished survived and nothing else, 1 it did not, 2 the demonstration
// could not be run.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "services/diag/errors.h"
#include "services/journal/journal.h"
#include "services/window/inspect.h"
#include "services/window/setup.h"
#include "services/window/window.h"

namespace {

namespace journal = mfwd6::journal;

constexpr char window_name[] = "survive";
constexpr uint32_t most_notes = 1000000;
constexpr uint32_t half_done_new = 20;
constexpr uint32_t half_done_gone = 30;

// One note. Its text follows from its number, so that whoever reads it can tell a true one.
struct note {
    note *next;
    uint64_t number;

    char *text() { return reinterpret_cast<char *>(this + 1); }
};

struct header {
    note *newest;
    uint64_t count;
};

struct window {
    uint32_t id = 0;
    header *root = nullptr;
};

std::string text_of(uint64_t number) {
    std::string text = "This is note ";
    text += std::to_string(number);
    text.append(number % 200, '.');
    return text;
}

bool open_window(window *w) {
    shmwin_open_record r = {};
    std::memcpy(r.name, window_name, sizeof(window_name));
    r.hdr_size = sizeof(header);
    r.open_flags = SHMWIN_OPEN_OWNER;
    void *root = nullptr;
    cerrno code = shmwin_platform_info(window_name, &r.base_addr, &r.max_table_size);
    if (code == 0) {
        code = shmwin_open_win(&r, &root, &w->id);
    }
    if (code != 0) {
        std::printf("    cannot open the window: %s\n", cerr_strerror(code));
        return false;
    }
    w->root = static_cast<header *>(root);
    return true;
}

// The caller has a group open: the note is there with all that belongs to it, or not at all.
bool add_note(const window &w, uint64_t number) {
    const std::string text = text_of(number);
    void *block = nullptr;
    if (shmwin_malloc(w.id, sizeof(note) + text.size() + 1, &block) != 0) {
        return false;
    }
    note *n = static_cast<note *>(block);
    n->next = w.root->newest;
    n->number = number;
    std::memcpy(n->text(), text.c_str(), text.size() + 1);
    journal::publish(w.root->newest, n);
    journal::store(w.root->count, w.root->count + 1);
    return true;
}

// The caller has a group open.
bool drop_newest(const window &w) {
    note *n = w.root->newest;
    journal::publish(w.root->newest, n->next);
    journal::store(w.root->count, w.root->count - 1);
    return shmwin_free(n) == 0;
}

// ---- the first process

// Drops old notes and adds new ones in one group, says so when it is in the middle of it, and
// never comes to its end.
bool begin_a_change(const window &w, uint64_t notes, int told) {
    const journal::group change;
    for (uint32_t i = 0; i < half_done_gone; ++i) {
        if (!drop_newest(w)) {
            return false;
        }
    }
    for (uint32_t i = 0; i < half_done_new; ++i) {
        if (!add_note(w, notes + 1000 + i)) {
            return false;
        }
    }
    std::printf("    then began one change of %u steps: dropped %u notes, added %u ...\n",
                half_done_gone + half_done_new, half_done_gone, half_done_new);
    std::fflush(stdout);
    if (write(told, "x", 1) != 1) {
        return false;
    }
    for (;;) {
        pause();
    }
}

int write_notes(uint64_t notes, int told) {
    window w;
    if (!open_window(&w)) {
        return 2;
    }
    for (uint64_t i = 0; i < notes; ++i) {
        const journal::group g;
        if (!add_note(w, i)) {
            std::printf("    the window is full\n");
            return 2;
        }
    }
    std::printf("    process %d wrote %lu notes, each in a group of its own\n", getpid(), notes);
    return begin_a_change(w, notes, told) ? 0 : 2;
}

// ---- the second process

bool say(bool good, const char *text) {
    std::printf("    [%s] %s\n", good ? " ok " : "LOST", text);
    return good;
}

// The notes from newest to oldest are those that were finished, word for word.
bool notes_are_those(const window &w, uint64_t notes) {
    uint64_t expected = notes;
    for (note *n = w.root->newest; n != nullptr; n = n->next) {
        if (expected == 0 || n->number != expected - 1 || text_of(n->number) != n->text()) {
            return false;
        }
        --expected;
    }
    return expected == 0 && w.root->count == notes;
}

uint64_t live_blocks(const window &w) {
    uint64_t count = 0;
    const auto add = [](const shmwin_block *, void *context) {
        ++*static_cast<uint64_t *>(context);
        return 0;
    };
    shmwin_each_block(w.id, 0, add, &count);
    return count;
}

uint64_t now_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000U + static_cast<uint64_t>(ts.tv_nsec);
}

bool can_go_on(const window &w, uint64_t notes) {
    {
        const journal::group g;
        if (!add_note(w, notes)) {
            return false;
        }
    }
    return notes_are_those(w, notes + 1);
}

void show_opening(const window &w, uint64_t took_ns) {
    shmwin_opening opening = {};
    shmwin_usage usage = {};
    shmwin_get_opening(w.id, &opening);
    shmwin_get_usage(w.id, &usage);
    std::printf("    process %d opened the window in %.2f ms, of that %.2f ms to recover\n",
                getpid(), static_cast<double>(took_ns) / 1e6,
                static_cast<double>(opening.recovery_ns) / 1e6);
    std::printf("    the log ran back %lu unfinished change%s; %lu notes, %.1f kB in use\n",
                usage.undone, usage.undone == 1 ? "" : "s", w.root->count,
                static_cast<double>(usage.used) / 1000);
}

int look_at_notes(uint64_t notes) {
    window w;
    const uint64_t from = now_ns();
    if (!open_window(&w)) {
        return 1;
    }
    show_opening(w, now_ns() - from);
    shmwin_usage usage = {};
    shmwin_get_usage(w.id, &usage);
    char why[160] = "the heap is whole";
    bool all = say(usage.undone == 1, "the unfinished change was found and run back");
    all &= say(notes_are_those(w, notes), "every finished note is there, word for word");
    all &= say(live_blocks(w) == notes, "no block of the unfinished change is left over");
    all &= say(shmwin_check_heap(w.id, why, sizeof(why)) == 0, why);
    all &= say(can_go_on(w, notes), "the next note can be written");
    shmwin_close(w.id, 1);
    return all ? 0 : 1;
}

// ---- the parent, which never opens the window

// Exit code of a child, or 2 when something else ended it.
int end_of(pid_t child) {
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : 2;
}

template <class F>
pid_t start(F work) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int code = work();
        std::fflush(stdout);
        _exit(code);
    }
    return child;
}

// Lets the first process come to the middle of its change, and kills it there.
bool kill_in_the_middle(uint64_t notes) {
    int ends[2];
    if (pipe(ends) != 0) {
        return false;
    }
    const pid_t writer = start([&] {
        close(ends[0]);
        return write_notes(notes, ends[1]);
    });
    close(ends[1]);
    char c = 0;
    const bool reached = writer > 0 && read(ends[0], &c, 1) == 1;
    close(ends[0]);
    if (writer > 0) {
        kill(writer, SIGKILL);
        end_of(writer);
    }
    if (reached) {
        std::printf("    ... and was killed with SIGKILL in the middle of it\n");
    }
    return reached;
}

int run(uint64_t notes) {
    std::printf("1. A process works in a window of shared memory.\n");
    if (!kill_in_the_middle(notes)) {
        return 2;
    }
    std::printf("2. Another process opens what it left.\n");
    const pid_t reader = start([&] { return look_at_notes(notes); });
    const int code = reader > 0 ? end_of(reader) : 2;
    std::printf("%s\n", code == 0 ? "Everything finished survived, and nothing else."
                                  : "The window did NOT survive as it should.");
    return code;
}

bool read_count(int argc, char **argv, uint64_t *notes) {
    if (argc == 1) {
        return true;
    }
    char *end = nullptr;
    *notes = std::strtoul(argv[1], &end, 10);
    return argc == 2 && *end == '\0' && *notes >= half_done_gone && *notes <= most_notes;
}

}  // namespace

int main(int argc, char **argv) {
    uint64_t notes = 5000;
    if (!read_count(argc, argv, &notes)) {
        std::fprintf(stderr, "usage: mfwd6-survive [NOTES]   (%u to %u, default 5000)\n",
                     half_done_gone, most_notes);
        return 2;
    }
    char dir[] = "/dev/shm/mfwd6-survive-XXXXXX";
    if (mkdtemp(dir) == nullptr || shmwin_set_run_dir(dir) != 0) {
        std::perror("mfwd6-survive: cannot make a folder for the window");
        return 2;
    }
    const int code = run(notes);
    const std::string file = std::string(dir) + "/" + window_name;
    unlink(file.c_str());
    rmdir(dir);
    return code;
}
