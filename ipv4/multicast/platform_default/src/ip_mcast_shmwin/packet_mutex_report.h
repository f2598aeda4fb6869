// What long operations say about the packet client mutex, which must not be held over them.
#ifndef IP6MC_SRC_IP_MCAST_SHMWIN_PACKET_MUTEX_REPORT_H
#define IP6MC_SRC_IP_MCAST_SHMWIN_PACKET_MUTEX_REPORT_H

namespace mlib {

// At the start of an operation: more than one hold, or a count gone wrong, is reported.
void report_packet_mutex_depth(const char *operation, int line);

// Where the thread is about to yield or to call out: any hold is reported.
void report_packet_mutex_held(const char *operation, int line);

}  // namespace mlib

#endif
