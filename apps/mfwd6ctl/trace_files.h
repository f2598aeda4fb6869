// Trace rings of all processes, living and dead, in the run dir.
#ifndef MFWD6_APPS_MFWD6CTL_TRACE_FILES_H
#define MFWD6_APPS_MFWD6CTL_TRACE_FILES_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "services/diag/trace.h"

namespace ctl {

struct close_ring {
    void operator()(ltrace_reader *reader) const { ltrace_close(reader); }
};
using ring = std::unique_ptr<ltrace_reader, close_ring>;

// Paths of the ring files below `folder`, sorted; empty when there is none.
std::vector<std::string> ring_files(const std::string &folder);

// NULL when the file cannot be read as a ring; *why is an errno value then.
ring open_ring(const std::string &path, cerrno *why);

// Calls `fn` for what has come since the last time, no more than the ring holds at once: a writer
// may be faster than its readers.
void each_record(ltrace_reader *reader, const std::function<void(const ltrace_record &)> &fn);

// "PROGRAM.PID KIND".
std::string name_of(const ltrace_ring_info &info);

// "2026-11-21 03:14:15.123456".
std::string time_of(const ltrace_record &record);

// Id, words and text of a record: "0x100000001 1 2", "0x200600060009 ERR: ...".
std::string text_of(const ltrace_record &record);

}  // namespace ctl

#endif
