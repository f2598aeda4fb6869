#include "apps/mfwd6ctl/output/output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/interrupts.h"

namespace ctl {
namespace {

// Names in a window are bytes; what is no UTF-8 is shown with a mark instead.
std::string dump(const json &value, int indent) {
    return value.dump(indent, ' ', false, json::error_handler_t::replace);
}

void check_write(bool good) {
    if (good) {
        return;
    }
    const int error = errno;
    stop_if_interrupted();
    if (error == EPIPE) {
        throw failure(exit_code::output_closed, "");
    }
    throw failure(exit_code::failed, std::string("cannot write: ") + std::strerror(error));
}

}  // namespace

void put(std::string_view text) {
    stop_if_interrupted();
    check_write(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void flush_output() {
    check_write(std::fflush(stdout) == 0);
}

void put_json(const json &document) {
    put(dump(document, 2) + "\n");
}

json_array::json_array(std::string_view name) {
    put("{\"" + std::string(name) + "\": [");
}

void json_array::add(const json &element) {
    put((empty_ ? "\n  " : ",\n  ") + dump(element, -1));
    empty_ = false;
}

void json_array::end() {
    put(empty_ ? "]}\n" : "\n]}\n");
}

}  // namespace ctl
