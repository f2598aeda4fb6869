// What a process that the keeper started has from it.
//
// The keeper (`mfwd6d run`) holds what must outlive its children: one multicast routing socket for
// each kernel table (the kernel drops the entries of a table with the last copy of its socket), the
// listening command socket, and the flow channel. Each child gets a connection of its own to the
// keeper and asks there for copies.
//
// The flow channel carries one datagram for each cache report, from the packet path to the owner.
// Both ends stay open in the keeper, so either process may die: what was sent before stays in the
// channel, and a full channel (EAGAIN) means that the owner is away. A report that is lost is no
// harm: the kernel forgets its flow after ten seconds and reports the next packet anew.
//
// The packet path is ended with SIGTERM; so are both children when the keeper dies
// (PR_SET_PDEATHSIG). A child stops in an orderly way then. The owner is told by `stop` when it is
// to end for good; after a SIGTERM alone it leaves the window as it is.
//
// All descriptors handed out are close-on-exec and belong to the caller. Codes are errno values; 0
// is success.
//
// Thread-safety: a link belongs to one thread at a time.
#ifndef MFWD6_APPS_KEEPER_KEEPER_LINK_H
#define MFWD6_APPS_KEEPER_KEEPER_LINK_H

#include <cstdint>
#include <deque>

#include "services/cerrno.h"

namespace mfwd6::keeper {

// In the environment of a child: the number of its end of the connection, and the folder that all
// processes share.
inline constexpr char fd_variable[] = "MFWD6_KEEPER_FD";
inline constexpr char run_dir_variable[] = "MFWD6_RUN_DIR";

// What the keeper tells unasked.
enum class event_kind : uint32_t {
    none = 0,         // nothing has arrived
    table = 1,        // a table's socket is there: told to the packet path only, at its start for
                      // all, later for each new one
    table_gone = 2,   // the table is not used any more: close your copies, or it stays alive
    keeper_gone = 3,  // the keeper is not there any more: stop
    stop = 4          // told to the owner only: end
};

struct event {
    event_kind kind = event_kind::none;
    uint32_t kernel_table = 0;
    int fd = -1;        // table: the copy, the caller's from now on
    bool keep = false;  // stop: the window stays as it is
};

class link {
  public:
    link() = default;
    ~link();
    link(const link &) = delete;
    link &operator=(const link &) = delete;

    // Takes the connection named in the environment, where it is erased. ENOENT: this process was
    // not started by a keeper. EBADF, ENOTSOCK: what is named there is no connection.
    cerrno open();

    // To be polled for reading; -1 while closed. When it is readable, call `next` until it has
    // nothing more.
    int fd() const { return fd_; }

    // The next thing that the keeper told; `none` when there is nothing. Never waits.
    cerrno next(event *e);

    // This process's end of the flow channel: the writing end for the packet path, the reading end
    // for the owner. A datagram is one record of the caller's, at most `flow_bytes` bytes. The
    // descriptor does not block.
    static constexpr uint32_t flow_bytes = 256;
    cerrno flow_channel(int *fd);

    // This process does its work from now on (the owner: the configuration has been applied and
    // commands are taken). A death behind this point is not counted as a failed start, behind which
    // the keeper waits longer each time.
    cerrno ready();

    // ---- owner only
    // ------------------------------------------------------------------------------

    // The command socket, listening, in the state that it had under the owner before.
    cerrno listener(int *fd);

    // A copy of the socket of a kernel table. The keeper makes it at the first call, a raw ICMPv6
    // socket as socket(2) made it, and the packet path is told then. Whoever programs the table
    // makes it the multicast routing socket (MRT6_TABLE, MRT6_INIT): that holds for all copies.
    // Otherwise what socket(2) said: EPERM.
    cerrno table(uint32_t kernel_table, int *fd);

    // The table is not used any more: the keeper closes its copy and tells the packet path. The
    // owner closes its own. 0 also when there is none.
    cerrno release(uint32_t kernel_table);

    // A copy of the n-th of the sockets by which this host joins groups, a UDP socket. The keeper
    // makes it at the first call; `number` is at most 255.
    cerrno membership(uint32_t number, int *fd);

    // Asks the keeper to end everything: the packet path first, then this process, then itself.
    // With `keep` the keeper stays alone with the sockets, so that the kernel goes on forwarding,
    // until another `mfwd6d run` takes them over.
    cerrno shut_down(bool keep);

  private:
    cerrno ask(uint32_t what, uint32_t argument, int *fd);
    cerrno receive(bool wait);

    int fd_ = -1;
    std::deque<event> waiting_;
    // The answer to `ask`, once it is there.
    bool answered_ = false;
    cerrno answer_ = 0;
    int answer_fd_ = -1;
};

}  // namespace mfwd6::keeper

#endif
