#include "apps/mfwd6-signald/packet_store.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace mfwd6::signald {

// A handle is the number of a packet, from 1; its slot is the number modulo the slots.
struct packet_slot {
    uint64_t number;  // 0 while it is being written
    uint32_t bytes;   // kept
    uint32_t reserved;
    uint8_t packet[packet_room];
};

struct packet_store_file {
    uint64_t magic;
    uint64_t last;  // number given out last
    uint8_t reserved[48];
    packet_slot slots[packet_slots];
};
static_assert(sizeof(packet_slot) == 2000 && offsetof(packet_store_file, slots) == 64,
              "other processes read it");

namespace {

constexpr uint64_t magic = 0x31737061'6b643677;

packet_store_file *map(int fd, int protection) {
    void *const memory = mmap(nullptr, sizeof(packet_store_file), protection, MAP_SHARED, fd, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<packet_store_file *>(memory);
}

// Copies the packet if the slot holds it before and after the copy.
cerrno copy_out(packet_store_file *file, uint64_t number, std::vector<uint8_t> *packet) {
    packet_slot &slot = file->slots[number % packet_slots];
    std::atomic_ref<uint64_t> holds(slot.number);
    if (file->magic != magic || holds.load(std::memory_order_acquire) != number) {
        return ENOENT;
    }
    const uint32_t bytes = std::min(slot.bytes, packet_room);
    packet->assign(slot.packet, slot.packet + bytes);
    std::atomic_thread_fence(std::memory_order_acquire);
    return holds.load(std::memory_order_relaxed) == number ? 0 : ENOENT;
}

}  // namespace

packet_store::~packet_store() {
    if (file_ != nullptr) {
        munmap(file_, sizeof(packet_store_file));
    }
}

cerrno packet_store::open(const std::string &run_dir) {
    const std::string path = run_dir + "/" + packet_store_name;
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return static_cast<cerrno>(errno);
    }
    // Really allocated: a full tmpfs is an error here and never a signal later.
    int code = posix_fallocate(fd, 0, sizeof(packet_store_file));
    if (code == 0) {
        file_ = map(fd, PROT_READ | PROT_WRITE);
        code = file_ == nullptr ? errno : 0;
    }
    close(fd);
    if (code == 0 && file_->magic != magic) {
        std::memset(file_, 0, sizeof(*file_));
        file_->magic = magic;
    }
    return static_cast<cerrno>(code);
}

void *packet_store::keep(const uint8_t *packet, size_t bytes) {
    if (file_ == nullptr) {
        return nullptr;
    }
    const uint64_t number = ++file_->last;
    packet_slot &slot = file_->slots[number % packet_slots];
    std::atomic_ref<uint64_t> holds(slot.number);
    holds.store(0, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    slot.bytes = static_cast<uint32_t>(std::min<size_t>(bytes, packet_room));
    std::memcpy(slot.packet, packet, slot.bytes);
    holds.store(number, std::memory_order_release);
    return reinterpret_cast<void *>(static_cast<uintptr_t>(number));
}

cerrno read_kept_packet(const std::string &run_dir, const void *handle,
                        std::vector<uint8_t> *packet) {
    const std::string path = run_dir + "/" + packet_store_name;
    const auto number = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(handle));
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    struct stat st = {};
    if (fd < 0 || fstat(fd, &st) != 0) {
        const int error = errno;
        close(fd);
        return static_cast<cerrno>(error);
    }
    packet_store_file *const file =
        st.st_size >= static_cast<off_t>(sizeof(packet_store_file)) ? map(fd, PROT_READ) : nullptr;
    close(fd);
    if (file == nullptr || number == 0) {
        return ENOENT;
    }
    const cerrno code = copy_out(file, number, packet);
    munmap(file, sizeof(packet_store_file));
    return code;
}

}  // namespace mfwd6::signald
