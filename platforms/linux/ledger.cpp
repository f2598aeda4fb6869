#include "platforms/linux/ledger.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "platforms/linux/linux.h"

namespace mfwd6::lnx {

namespace {

constexpr uint64_t ledger_magic = 0x6d66776436206c64;  // "mfwd6 ld"
constexpr uint32_t ledger_version = 1;
constexpr uint32_t ledger_layout = sizeof(flow_slot) + 1000 * sizeof(mif_slot) +
                                   100000 * tables_max + flow_heads + flows_max + boundaries_max;
constexpr size_t fixed_bytes = offsetof(ledger_map, flows);
constexpr uint32_t grow_by = 4096;  // flow slots

struct hash {
    uint64_t state = 0x9e3779b97f4a7c15;
    void add(uint64_t word) {
        state = (state ^ word) * 0xd6e8feb86659fd93;
        state ^= state >> 32;
    }
    void add(const ip_maddr_st &address) {
        uint64_t words[2];
        std::memcpy(words, &address, sizeof(address));
        add(words[0]);
        add(words[1]);
    }
    uint32_t head() const { return static_cast<uint32_t>(state) % flow_heads; }
};

uint32_t key_head(uint32_t kernel_table, const entry_key &key) {
    hash h;
    h.add(kernel_table);
    h.add(key.source);
    h.add(key.group);
    return h.head();
}

uint32_t group_head(uint32_t kernel_table, const ip_maddr_st &group) {
    hash h;
    h.add(kernel_table);
    h.add(group);
    return h.head();
}

uint32_t route_head(uint32_t kernel_table, const entry_key &route, uint32_t length) {
    hash h;
    h.add((uint64_t{length} << 32) | kernel_table);
    h.add(route.source);
    h.add(route.group);
    return h.head();
}

bool right_layout(const ledger_head &head) {
    return head.magic == ledger_magic && head.version == ledger_version &&
           head.layout == ledger_layout;
}

cerrno last_error() {
    return static_cast<cerrno>(errno);
}

cerrno path_of(const char *folder, char (&path)[PATH_MAX]) {
    const int written = snprintf(path, sizeof(path), "%s/%s", folder, LINUX_LEDGER_NAME);
    return written > 0 && written < static_cast<int>(sizeof(path)) ? 0 : ENAMETOOLONG;
}

// Bytes that the file really has, so that a full file system is a code and not a signal.
cerrno allocate(int fd, size_t bytes) {
    const int failed = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
    return static_cast<cerrno>(failed);
}

cerrno lock(int fd) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
        return 0;
    }
    return errno == EWOULDBLOCK ? EBUSY : last_error();
}

}  // namespace

ledger &book() {
    static ledger the_book;
    return the_book;
}

cerrno ledger::map_whole(int protection) {
    void *map = mmap(nullptr, sizeof(ledger_map), protection,
                     fd_ >= 0 ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, fd_, 0);
    if (map == MAP_FAILED) {
        return last_error();
    }
    map_ = static_cast<ledger_map *>(map);
    return 0;
}

// The file as it is, or a new one. `*usable` is false for one of another layout.
cerrno ledger::open_file(const char *path, bool *usable) {
    *usable = true;
    fd_ = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (fd_ < 0) {
        return last_error();
    }
    struct stat file = {};
    cerrno failed = lock(fd_);
    if (failed == 0 && fstat(fd_, &file) != 0) {
        failed = last_error();
    }
    // A file shorter than its fixed part is one whose maker was killed: nothing is in it.
    if (failed == 0 && static_cast<size_t>(file.st_size) < fixed_bytes) {
        failed = ftruncate(fd_, 0) == 0 ? allocate(fd_, fixed_bytes) : last_error();
    }
    failed = failed != 0 ? failed : map_whole(PROT_READ | PROT_WRITE);
    if (failed == 0 && map_->head.magic != 0 && !right_layout(map_->head)) {
        *usable = false;
    }
    return failed;
}

cerrno ledger::open_owner(const char *folder) {
    close();
    cerrno failed = 0;
    if (folder == nullptr) {
        failed = map_whole(PROT_READ | PROT_WRITE);
    } else {
        char path[PATH_MAX];
        bool usable = false;
        failed = path_of(folder, path);
        failed = failed != 0 ? failed : open_file(path, &usable);
        if (failed == 0 && !usable) {
            map_->head.retired = 1;
            close();
            (void)::unlink(path);
            failed = open_file(path, &usable);
        }
    }
    if (failed != 0) {
        close();
        return failed;
    }
    if (map_->head.magic == 0) {
        map_->head.version = ledger_version;
        map_->head.layout = ledger_layout;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        map_->head.magic = ledger_magic;
    }
    index_all();
    return 0;
}

cerrno ledger::open_reader(const char *folder) {
    close();
    char path[PATH_MAX];
    cerrno failed = path_of(folder, path);
    if (failed == 0) {
        fd_ = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        failed = fd_ < 0 ? last_error() : 0;
    }
    struct stat file = {};
    if (failed == 0 && fstat(fd_, &file) != 0) {
        failed = last_error();
    }
    if (failed == 0 && static_cast<size_t>(file.st_size) < fixed_bytes) {
        failed = ENOENT;  // being made
    }
    failed = failed != 0 ? failed : map_whole(PROT_READ);
    if (failed == 0 && !right_layout(map_->head)) {
        failed = map_->head.magic == 0 ? ENOENT : EPROTO;
    }
    if (failed != 0) {
        close();
    }
    return failed;
}

void ledger::close() {
    if (map_ != nullptr) {
        munmap(map_, sizeof(ledger_map));
    }
    if (fd_ >= 0) {
        ::close(fd_);
    }
    map_ = nullptr;
    fd_ = -1;
    free_ = no_slot;
    std::memset(counts_, 0, sizeof(counts_));
}

// ---- tables -------------------------------------------------------------------------------------

uint32_t ledger::find_table(uint32_t kernel_table) const {
    for (uint32_t slot = 0; slot < tables_max; ++slot) {
        if (load(map_->tables[slot].kernel_table) == kernel_table) {
            return slot;
        }
    }
    return no_slot;
}

uint32_t ledger::find_tid(uint32_t tid) const {
    for (uint32_t slot = 0; slot < tables_max; ++slot) {
        if (load(map_->tables[slot].kernel_table) != 0 && map_->tables[slot].tid == tid) {
            return slot;
        }
    }
    return no_slot;
}

cerrno ledger::add_table(uint32_t kernel_table, uint32_t tid, uint32_t *slot) {
    *slot = find_table(0);
    if (*slot == no_slot) {
        return ENOSPC;
    }
    table_slot &t = table(*slot);
    std::memset(static_cast<void *>(&t), 0, sizeof(t));
    t.tid = tid;
    begin_epoch(*slot);
    publish(t.kernel_table, kernel_table);
    return 0;
}

void ledger::drop_table(uint32_t slot) {
    publish(table(slot).kernel_table, 0);
}

void ledger::begin_epoch(uint32_t slot) {
    table(slot).epoch = next_stamp();
}

// Time in steps of 32 ns: a ledger that was lost had smaller ones, and records may have them.
uint64_t ledger::next_stamp() {
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t stamp =
        (static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec)) >> 5;
    uint64_t &last = map_->head.last_stamp;
    last = stamp > last ? stamp : last + 1;
    return last;
}

// ---- recent keys --------------------------------------------------------------------------------

void ledger::note(uint32_t kernel_table, const entry_key &key) {
    recent_key &place = map_->recent[map_->head.recent_next % recent_keys];
    place.kernel_table = 0;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    place.key = key;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    place.kernel_table = kernel_table;
    ++map_->head.recent_next;
    // Before the kernel call that follows.
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

void ledger::forget_recent() {
    for (recent_key &place : map_->recent) {
        place.kernel_table = 0;
    }
}

void ledger::add_boundary(const boundary_slot &boundary) {
    const uint32_t place = map_->head.boundaries;
    if (place < boundaries_max) {
        map_->boundaries[place] = boundary;
        publish(map_->head.boundaries, place + 1);
    }
}

// ---- flows --------------------------------------------------------------------------------------

uint32_t ledger::head_of(flow_chains chain, const flow_slot &content) const {
    switch (chain) {
        case by_group:
            return group_head(content.kernel_table, content.key.group);
        case by_route:
            return route_head(content.kernel_table, content.route, content.route_len);
        default:
            return key_head(content.kernel_table, content.key);
    }
}

// Heads and links hold slot + 1, so that a file of zeros has empty chains.
void ledger::link(flow_chains chain, uint32_t slot) {
    flow_slot &f = flow(slot);
    uint32_t &head = map_->heads[chain][head_of(chain, f)];
    f.next[chain] = head;
    f.previous[chain] = 0;
    if (head != 0) {
        flow(head - 1).previous[chain] = slot + 1;
    }
    publish(head, slot + 1);
}

void ledger::unlink(flow_chains chain, uint32_t slot) {
    flow_slot &f = flow(slot);
    if (f.previous[chain] != 0) {
        publish(flow(f.previous[chain] - 1).next[chain], f.next[chain]);
    } else {
        publish(map_->heads[chain][head_of(chain, f)], f.next[chain]);
    }
    if (f.next[chain] != 0) {
        flow(f.next[chain] - 1).previous[chain] = f.previous[chain];
    }
}

void ledger::index_all() {
    std::memset(map_->heads, 0, sizeof(map_->heads));
    std::memset(counts_, 0, sizeof(counts_));
    free_ = no_slot;
    for (uint32_t slot = flows_used(); slot-- > 0;) {
        flow_slot &f = flow(slot);
        if (f.state == flow_free) {
            f.next[by_key] = free_;
            free_ = slot;
            continue;
        }
        ++counts_[f.state];
        link(by_key, slot);
        link(by_group, slot);
        link(by_route, slot);
    }
}

uint32_t ledger::next_in(flow_chains chain, uint32_t slot) const {
    const uint32_t next = load(flow(slot).next[chain]);
    return next == 0 || next > flows_used() ? no_slot : next - 1;
}

uint32_t ledger::find_flow(uint32_t kernel_table, const entry_key &key) const {
    const uint32_t head = load(map_->heads[by_key][key_head(kernel_table, key)]);
    uint32_t steps = flows_used();
    for (uint32_t slot = head == 0 ? no_slot : head - 1; slot < flows_used() && steps-- > 0;
         slot = next_in(by_key, slot)) {
        const flow_slot &f = flow(slot);
        if (f.state != flow_free && f.kernel_table == kernel_table &&
            same(f.key.source, key.source) && same(f.key.group, key.group)) {
            return slot;
        }
    }
    return no_slot;
}

uint32_t ledger::first_of_group(uint32_t kernel_table, const ip_maddr_st &group) const {
    const uint32_t head = load(map_->heads[by_group][group_head(kernel_table, group)]);
    return head == 0 ? no_slot : head - 1;
}

uint32_t ledger::first_of_route(uint32_t kernel_table, const entry_key &route,
                                uint32_t length) const {
    const uint32_t head = load(map_->heads[by_route][route_head(kernel_table, route, length)]);
    return head == 0 ? no_slot : head - 1;
}

cerrno ledger::grow() {
    const uint32_t room = map_->head.flow_room + grow_by;
    if (room > flows_max) {
        return ENOSPC;
    }
    if (fd_ >= 0) {
        if (const cerrno failed = allocate(fd_, fixed_bytes + room * sizeof(flow_slot));
            failed != 0) {
            return failed;
        }
    }
    publish(map_->head.flow_room, room);
    return 0;
}

cerrno ledger::add_flow(const flow_slot &content, uint32_t *slot) {
    if (free_ != no_slot) {
        *slot = free_;
        free_ = flow(free_).next[by_key];
    } else {
        if (map_->head.flow_used == map_->head.flow_room) {
            if (const cerrno failed = grow(); failed != 0) {
                return failed;
            }
        }
        *slot = map_->head.flow_used;
        flow(*slot).state = flow_free;
        publish(map_->head.flow_used, *slot + 1);
    }
    flow_slot &f = flow(*slot);
    flow_slot filled = content;
    filled.state = flow_free;
    f = filled;
    std::atomic_thread_fence(std::memory_order_release);
    f.state = content.state;
    ++counts_[content.state];
    link(by_key, *slot);
    link(by_group, *slot);
    link(by_route, *slot);
    return 0;
}

// Not one store: an owner killed in between leaves a mixture, whose key stands among the recent
// ones and is worked out anew.
void ledger::change_flow(uint32_t slot, const flow_slot &content) {
    flow_slot &f = flow(slot);
    unlink(by_route, slot);
    --counts_[f.state];
    f.parent = content.parent;
    f.arrival = content.arrival;
    f.route_len = content.route_len;
    f.route = content.route;
    f.outputs = content.outputs;
    f.made = content.made;
    f.checked = content.checked;
    f.base_packets = content.base_packets;
    f.base_bytes = content.base_bytes;
    f.seen_packets = content.seen_packets;
    f.state = content.state;
    ++counts_[content.state];
    link(by_route, slot);
}

void ledger::drop_flow(uint32_t slot) {
    flow_slot &f = flow(slot);
    unlink(by_key, slot);
    unlink(by_group, slot);
    unlink(by_route, slot);
    --counts_[f.state];
    f.state = flow_free;
    f.next[by_key] = free_;
    free_ = slot;
}

void ledger::clear() {
    for (uint32_t slot = 0; slot < tables_max; ++slot) {
        drop_table(slot);
    }
    for (uint32_t slot = 0; slot < flows_used(); ++slot) {
        flow(slot).state = flow_free;
    }
    publish(map_->head.flow_used, 0);
    forget_recent();
    index_all();
}

}  // namespace mfwd6::lnx
