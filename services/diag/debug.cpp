#include "services/diag/debug.h"

#include <dirent.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "services/diag/inside.h"
#include "services/diag/run_dir.h"
#include "services/diag/shared_file.h"

using namespace mfwd6::diag;

namespace {

// The contents of a mask file. Changed only by who holds the lock on the file of all programs;
// `effective` is made again from the two others at each change, so a change cut short is finished
// by the next one.
struct mask_record {
    uint64_t effective;  // own | all
    uint64_t own;
    uint64_t all;
};

constexpr const char *all_name = ".all";
constexpr size_t largest_page = 65536;

// The mask of this process. The file is mapped over it, so that the word has one address for good.
alignas(largest_page) union {
    mask_record mask;
    unsigned char bytes[largest_page];
} page;

std::mutex guard;  // of all below
bool started;
bool shared;
void *event_manager;
ipv4_debug_sink_ft sink;
void *sink_context;

uint64_t load(const uint64_t &word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
void store(uint64_t &word, uint64_t value) {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

size_t page_bytes() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

class descriptor {
  public:
    descriptor() = default;
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    ~descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    int fd = -1;
};

class mapped_mask {
  public:
    mapped_mask() = default;
    mapped_mask(const mapped_mask &) = delete;
    mapped_mask &operator=(const mapped_mask &) = delete;
    ~mapped_mask() {
        if (mask != nullptr) {
            munmap(mask, page_bytes());
        }
    }

    int open(const char *name, open_mode mode) {
        char path[path_size];
        int error = file_path("debug", name, path);
        if (error == 0) {
            error = open_file(path, mode, &file.fd);
        }
        if (error == 0) {
            error = grow_file(file.fd, page_bytes());
        }
        if (error != 0) {
            return error;
        }
        void *memory = mmap(nullptr, page_bytes(), PROT_READ | PROT_WRITE, MAP_SHARED, file.fd, 0);
        if (memory == MAP_FAILED) {
            return errno;
        }
        mask = static_cast<mask_record *>(memory);
        return 0;
    }

    descriptor file;
    mask_record *mask = nullptr;
};

// Opens the file of all programs and takes its lock, which guards every change.
int open_all(mapped_mask &all) {
    char path[path_size];
    int error = make_folder("debug", path);
    if (error == 0) {
        error = all.open(all_name, open_mode::create);
    }
    return error != 0 ? error : lock_file(all.file.fd, true);
}

void refresh(mask_record *mask, uint64_t all) {
    store(mask->all, all);
    store(mask->effective, load(mask->own) | all);
}

int map_page() {
    if (page_bytes() > largest_page) {
        return ENOTSUP;
    }
    mapped_mask all;
    mapped_mask mine;
    int error = open_all(all);
    if (error == 0) {
        error = mine.open(diag_program(), open_mode::create);
    }
    if (error != 0) {
        return error;
    }
    if (!shared) {  // what the program switched on before stays on
        store(mine.mask->own, load(mine.mask->own) | load(page.mask.own));
    }
    refresh(mine.mask, load(all.mask->own));
    void *memory =
        mmap(&page, page_bytes(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, mine.file.fd, 0);
    return memory == MAP_FAILED ? errno : 0;
}

void unmap_page() {
    if (shared && mmap(&page, page_bytes(), PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED) {
        shared = false;
    }
    if (!shared) {
        store(page.mask.own, 0);
        refresh(&page.mask, 0);
    }
}

int start() {
    started = true;
    const int error = map_page();
    if (error == 0) {
        shared = true;
    }
    return error;
}

// ---- Switching ----

int for_each_program(int (*visit)(void *context, const char *program), void *context) {
    char folder[path_size];
    if (const int error = file_path("debug", ".", folder); error != 0) {
        return error;
    }
    DIR *dir = opendir(folder);
    if (dir == nullptr) {
        return errno == ENOENT ? 0 : errno;
    }
    for (const dirent *entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
        if (is_plain_name(entry->d_name) && visit(context, entry->d_name) != 0) {
            break;
        }
    }
    closedir(dir);
    return 0;
}

int refresh_program(void *context, const char *program) {
    mapped_mask one;
    if (one.open(program, open_mode::existing) == 0) {
        refresh(one.mask, *static_cast<const uint64_t *>(context));
    }
    return 0;
}

int switch_all(uint64_t on, uint64_t off) {
    mapped_mask all;
    if (const int error = open_all(all); error != 0) {
        return error;
    }
    uint64_t classes = (load(all.mask->own) & ~off) | on;
    store(all.mask->own, classes);
    store(all.mask->effective, classes);
    return for_each_program(refresh_program, &classes);
}

int switch_program(const char *program, uint64_t on, uint64_t off) {
    mapped_mask all;
    mapped_mask one;
    int error = open_all(all);
    if (error == 0) {
        error = one.open(program, open_mode::create);
    }
    if (error == 0) {
        store(one.mask->own, (load(one.mask->own) & ~off) | on);
        refresh(one.mask, load(all.mask->own));
    }
    return error;
}

bool is_all(const char *program) {
    return strcmp(program, "*") == 0;
}

// True if this process's own words are meant and no file stands behind them.
bool is_private(const char *program) {
    const std::lock_guard hold(guard);
    return program == nullptr && !shared;
}

// ---- Lines ----

__attribute__((format(printf, 3, 0))) void write_line(uint32_t debug_class, const char *header,
                                                      const char *format, va_list arguments) {
    char text[2048];
    text[0] = '\0';
    if (format != nullptr) {
        vsnprintf(text, sizeof(text), format, arguments);
    }
    for (size_t length = strlen(text); length > 0 && text[length - 1] == '\n';) {
        text[--length] = '\0';
    }
    const char *before = header == nullptr ? "" : header;
    ipv4_debug_sink_ft to = nullptr;
    void *context = nullptr;
    {
        const std::lock_guard hold(guard);
        to = sink;
        context = sink_context;
    }
    if (to != nullptr) {
        to(context, debug_class, before, text);
        return;
    }
    char line[ltrace_text_size];
    const int length = snprintf(line, sizeof(line), "%s%s", before, text);
    _lstrace(debug_ltrace(), debug_class, nullptr, length < 0 ? text : line);
    fprintf(stderr, "%s%s\n", before, text);
}

const char *const class_names[] = {"ERR",          "WRN", "SVD", "IDB",     "INTF",
                                   "ROUTE",        "EV",  "SIG", "STATE",   nullptr,
                                   "ROUTE-COMMIT", "DEV", "BVI", "BVI-IFH", "OBJ-ID"};
constexpr uint32_t named_classes = sizeof(class_names) / sizeof(class_names[0]);
static_assert(named_classes == IPV4_DEBUG_OBJ_ID + 1);

}  // namespace

extern const uint64_t *const ipv4_debug_mask;
const uint64_t *const ipv4_debug_mask = &page.mask.effective;

namespace mfwd6::diag {

void debug_follow_run_dir() {
    const std::lock_guard hold(guard);
    if (started) {
        unmap_page();
        start();
    }
}

void *debug_event_manager() {
    const std::lock_guard hold(guard);
    return event_manager;
}

}  // namespace mfwd6::diag

cerrno ipv4_mlib_debug_init(void *evm) {
    const std::lock_guard hold(guard);
    event_manager = evm;
    return shared ? 0 : static_cast<cerrno>(start());
}

void ipv4_mlib_debug_terminate(void) {
    const std::lock_guard hold(guard);
    event_manager = nullptr;
    started = false;
    unmap_page();
}

bool ipv4_debug_event_active(uint32_t debug_class) {
    return debug_class < IPV4_DEBUG_CLASSES && (load(page.mask.effective) >> debug_class & 1U) != 0;
}

void ipv4_mlib_buginf_adjust(uint32_t debug_class, const char *header, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(debug_class, header, format, arguments);
    va_end(arguments);
}

void ipv4_mlib_bvi_buginf_adjust(uint32_t debug_class, const char *header, const char *format,
                                 ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(debug_class, header, format, arguments);
    va_end(arguments);
}

void ipv4_debug_set_sink(ipv4_debug_sink_ft to, void *context) {
    const std::lock_guard hold(guard);
    sink = to;
    sink_context = context;
}

cerrno ipv4_debug_switch(const char *program, uint64_t on, uint64_t off) {
    if (is_private(program)) {
        const std::lock_guard hold(guard);
        store(page.mask.own, (load(page.mask.own) & ~off) | on);
        refresh(&page.mask, 0);
        return 0;
    }
    const char *name = program == nullptr ? diag_program() : program;
    if (is_all(name)) {
        return static_cast<cerrno>(switch_all(on, off));
    }
    return is_plain_name(name) ? static_cast<cerrno>(switch_program(name, on, off)) : EINVAL;
}

cerrno ipv4_debug_get(const char *program, uint64_t *mask) {
    if (mask == nullptr) {
        return EINVAL;
    }
    if (program == nullptr) {
        *mask = load(page.mask.effective);
        return 0;
    }
    const bool all = is_all(program);
    if (!all && !is_plain_name(program)) {
        return EINVAL;
    }
    mapped_mask one;
    const int error = one.open(all ? all_name : program, open_mode::existing);
    if (error == 0) {
        *mask = load(one.mask->effective);
    }
    return static_cast<cerrno>(error);
}

cerrno ipv4_debug_walk(int (*visit)(void *context, const char *program, uint64_t mask),
                       void *context) {
    if (visit == nullptr) {
        return EINVAL;
    }
    struct walk {
        decltype(visit) function;
        void *context;
    } step = {visit, context};
    const auto one = [](void *at, const char *program) {
        const auto *to = static_cast<const walk *>(at);
        uint64_t mask = 0;
        return ipv4_debug_get(program, &mask) == 0 ? to->function(to->context, program, mask) : 0;
    };
    return static_cast<cerrno>(for_each_program(one, &step));
}

const char *ipv4_debug_class_name(uint32_t debug_class) {
    return debug_class < named_classes ? class_names[debug_class] : nullptr;
}

int ipv4_debug_class_of(const char *name) {
    for (uint32_t i = 0; name != nullptr && i < named_classes; ++i) {
        if (class_names[i] != nullptr && strcasecmp(class_names[i], name) == 0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}
