// Packets kept for the control plane: what `preserved_pak` of a signal route names.
//
// A file in the run folder with room for the latest packets, so that any process can read them,
// also after the packet path has died. Nothing is ever given back: a packet ends when its room is
// needed for another one, and its handle then names nothing.
//
// One writer, the packet path; readers need no lock. A reader sees a packet whole or not at all.
#ifndef MFWD6_SIGNALD_PACKET_STORE_H
#define MFWD6_SIGNALD_PACKET_STORE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "services/cerrno.h"

namespace mfwd6::signald {

inline constexpr char packet_store_name[] = "packets";
inline constexpr uint32_t packet_slots = 512;
inline constexpr uint32_t packet_room = 1984;  // bytes of a packet; longer ones are cut

struct packet_store_file;

class packet_store {
  public:
    packet_store() = default;
    ~packet_store();
    packet_store(const packet_store &) = delete;
    packet_store &operator=(const packet_store &) = delete;

    // Opens the file in this folder for writing, and makes it if it is not there. Handles go on
    // where the writer before left off. Errno values; without a file nothing is kept.
    cerrno open(const std::string &run_dir);

    // Keeps an IPv6 packet; its handle, never null once the file is open.
    void *keep(const uint8_t *packet, size_t bytes);

  private:
    packet_store_file *file_ = nullptr;
};

// The packet of a handle, from its IPv6 header on. ENOENT: it is not kept any more, or never was.
// Errno values for the file.
cerrno read_kept_packet(const std::string &run_dir, const void *handle,
                        std::vector<uint8_t> *packet);

}  // namespace mfwd6::signald

#endif
