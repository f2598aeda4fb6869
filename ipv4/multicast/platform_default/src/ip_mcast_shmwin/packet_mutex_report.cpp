#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/packet_mutex_report.h"

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_books.h"

namespace {

int32_t packet_mutex_count() {
    return static_cast<int32_t>(ipv6_mlib_pak_client_mutex_get_count());
}

}  // namespace

void mlib::report_packet_mutex_depth(const char *operation, int line) {
    const int32_t count = packet_mutex_count();
    if (count > 1) {
        const ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
        report_error(operation, line, "[%d] Multiple lock count %d (%s/%d)", line, count,
                     lock_fn(hdr->pak_lock_fn).text, lock_book(hdr->pak_lock_line));
    } else if (count < 0) {
        report_error(operation, line, "[%d] Negative lock count: %d", line, count);
    }
}

void mlib::report_packet_mutex_held(const char *operation, int line) {
    const int32_t count = packet_mutex_count();
    if (count != 0) {
        const ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
        report_error(operation, line, "[%d] Mult lock count %d (%s/%d)", line, count,
                     lock_fn(hdr->pak_lock_fn).text, lock_book(hdr->pak_lock_line));
    }
}
