// The ledger: what the kernel cannot say about itself, in a file that outlives the owner.
//
// One writer, the owner (a lock on the file that the kernel holds for it); any number of readers in
// other processes, who lock nothing. Slots are the truth: a slot counts when its state is not 0,
// and the state is written last. Indexes over the slots are made anew when an owner opens the file;
// a reader bounds its steps and may find a chain cut short while that goes on.
//
// Whatever the kernel is told about a mif or a flow is written here first. What was being told when
// the owner was killed stands among the recent keys.
#ifndef MFWD6_PLATFORMS_LINUX_LEDGER_H
#define MFWD6_PLATFORMS_LINUX_LEDGER_H

#include <atomic>
#include <cstddef>

#include "platforms/linux/kernel.h"

namespace mfwd6::lnx {

inline constexpr uint32_t no_slot = UINT32_MAX;
inline constexpr uint32_t tables_max = 256;
inline constexpr uint32_t flows_max = 1U << 18;
inline constexpr uint32_t flow_heads = 1U << 16;
inline constexpr uint32_t recent_keys = 256;
inline constexpr uint32_t boundaries_max = 1024;
inline constexpr size_t link_name_bytes = 16;  // IFNAMSIZ

enum mif_states : uint32_t { mif_free = 0, mif_interface = 1, mif_register = 2 };

struct mif_slot {
    uint32_t state;  // one of mif_states
    uint32_t ifh;
    uint32_t ifindex;  // 0: the interface is not there
    uint8_t ruled;     // its packets are sent to this table by rules
    uint8_t lacking;   // entries were made without it while it was not there
    uint8_t reserved[2];
    char name[link_name_bytes];
};
static_assert(sizeof(mif_slot) == 32);

struct table_slot {
    uint32_t kernel_table;  // 0: free
    uint32_t tid;
    uint64_t epoch;  // of the kernel's state: a new one whenever it began empty
    mif_slot mifs[mifs_of_table];
};

// A key that the kernel was told something about lately.
struct recent_key {
    uint32_t kernel_table;  // 0: none
    uint32_t reserved;
    entry_key key;
};

enum flow_states : uint8_t { flow_free = 0, flow_derived = 1, flow_held = 2 };

// Indexes that a flow stands in.
enum flow_chains : uint32_t { by_key = 0, by_group = 1, by_route = 2, chains = 3 };

struct flow_slot {
    uint8_t state;       // one of flow_states
    uint8_t parent;      // where the entry takes packets from
    uint16_t route_len;  // of a derived one
    uint32_t kernel_table;
    entry_key key;
    entry_key route;  // key of the route that it was derived from
    uint32_t outputs;
    uint32_t made;     // seconds
    uint32_t checked;  // seconds: `seen_packets` were counted then
    uint32_t next[chains];
    uint32_t previous[chains];
    uint8_t local_mif_plus_1;  // where it holds a membership of this node, 0: nowhere
    uint8_t arrival;           // where its packets come in, as reported last
    uint8_t reserved[2];
    uint64_t base_packets;  // counted before it was this route's
    uint64_t base_bytes;
    uint64_t seen_packets;
};
static_assert(sizeof(flow_slot) == 136);

// A prefix of groups that neither come in nor go out by an interface; for who reads reports.
struct boundary_slot {
    uint32_t ifh;
    uint32_t length;
    ip_maddr_st group;
};

struct ledger_head {
    uint64_t magic;
    uint32_t version;
    uint32_t layout;   // sizes, as one number
    uint32_t retired;  // 1: another file has taken its place
    uint32_t reserved;
    uint64_t last_stamp;
    uint32_t recent_next;
    uint32_t flow_room;   // slots that the file really has
    uint32_t flow_used;   // slots ever taken: none beyond
    uint32_t boundaries;  // in use
    uint32_t reserved_2;
};

struct ledger_map {
    ledger_head head;
    table_slot tables[tables_max];
    recent_key recent[recent_keys];
    boundary_slot boundaries[boundaries_max];
    uint32_t heads[chains][flow_heads];
    flow_slot flows[flows_max];
};

class ledger {
  public:
    // For the owner: the file in `folder`, made when it is not there or of another layout, or
    // process memory for nullptr. EBUSY: another process owns it.
    cerrno open_owner(const char *folder);

    // For readers. ENOENT, EPROTO.
    cerrno open_reader(const char *folder);

    void close();
    bool opened() const { return map_ != nullptr; }
    bool retired() const { return load(map_->head.retired) != 0; }

    // ---- tables ----
    uint32_t find_table(uint32_t kernel_table) const;
    uint32_t find_tid(uint32_t tid) const;
    table_slot &table(uint32_t slot) const { return map_->tables[slot]; }
    // ENOSPC.
    cerrno add_table(uint32_t kernel_table, uint32_t tid, uint32_t *slot);
    void drop_table(uint32_t slot);
    // A new epoch for a table whose kernel side is empty.
    void begin_epoch(uint32_t slot);

    // A number that nobody had before, with this ledger or another one; below 2^56, never 0.
    uint64_t next_stamp();

    // ---- recent keys ----
    void note(uint32_t kernel_table, const entry_key &key);
    const recent_key &recent(uint32_t n) const { return map_->recent[n]; }
    void forget_recent();

    // ---- boundaries ----
    // Writes all of them anew; what does not fit is left out: a signal more.
    void begin_boundaries() { publish(map_->head.boundaries, 0); }
    void add_boundary(const boundary_slot &boundary);
    uint32_t boundaries() const { return load(map_->head.boundaries); }
    const boundary_slot &boundary(uint32_t n) const { return map_->boundaries[n]; }

    // ---- flows ----
    uint32_t flows_used() const { return load(map_->head.flow_used); }
    flow_slot &flow(uint32_t slot) const { return map_->flows[slot]; }
    uint32_t find_flow(uint32_t kernel_table, const entry_key &key) const;
    // First of a chain and the one behind; of others that share the hash, too: compare.
    uint32_t first_of_group(uint32_t kernel_table, const ip_maddr_st &group) const;
    uint32_t first_of_route(uint32_t kernel_table, const entry_key &route, uint32_t length) const;
    uint32_t next_in(flow_chains chain, uint32_t slot) const;
    // Takes a slot for the content, which has no links yet. ENOSPC.
    cerrno add_flow(const flow_slot &content, uint32_t *slot);
    // Changes what a flow was derived from, where it comes from and goes to.
    void change_flow(uint32_t slot, const flow_slot &content);
    void drop_flow(uint32_t slot);
    uint32_t flows_of(flow_states state) const { return counts_[state]; }

    // Forgets everything.
    void clear();

  private:
    static uint32_t load(const uint32_t &word) { return __atomic_load_n(&word, __ATOMIC_ACQUIRE); }
    static void publish(uint32_t &word, uint32_t value) {
        __atomic_store_n(&word, value, __ATOMIC_RELEASE);
    }
    cerrno open_file(const char *path, bool *usable);
    cerrno map_whole(int protection);
    cerrno grow();
    void index_all();
    void link(flow_chains chain, uint32_t slot);
    void unlink(flow_chains chain, uint32_t slot);
    uint32_t head_of(flow_chains chain, const flow_slot &content) const;

    ledger_map *map_ = nullptr;
    int fd_ = -1;
    uint32_t free_ = no_slot;  // owner: chain of free flow slots, through next[by_key]
    uint32_t counts_[3] = {};
};

// The ledger of this process: the owner's, or the one that a client attached to.
ledger &book();

}  // namespace mfwd6::lnx

#endif
