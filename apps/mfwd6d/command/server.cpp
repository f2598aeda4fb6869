#include "apps/mfwd6d/command/server.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <nlohmann/json.hpp>
#include <vector>

#include "apps/mfwd6d/command/json_scan.h"
#include "apps/mfwd6d/monotonic.h"
#include "apps/mfwd6d/say.h"

namespace mfwd6::daemon {
namespace {

using nlohmann::json;

constexpr size_t read_bytes = 256 * 1024;
constexpr uint32_t lines_between_clocks = 16;
constexpr uint32_t failures_with_text = 1000;

std::string json_text(std::string_view text) {
    return json(std::string(text)).dump(-1, ' ', false, json::error_handler_t::replace);
}

bool may_command(int fd) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == 0 || peer.uid == geteuid());
}

std::string answer_text(std::string_view id, const outcome &o, std::string_view result) {
    return fmt::format("{{\"id\":{},\"code\":{},\"text\":{},\"result\":{}}}\n", id, o.code,
                       json_text(o.text), result);
}

}  // namespace

// A bulk request in work.
struct bulk {
    std::string request;  // what the lines are views of
    std::deque<std::string> unescaped;
    std::vector<std::string_view> lines;
    size_t next = 0;
    uint32_t accepted = 0;
    uint32_t failed = 0;
    std::string failures;  // JSON objects with commas between them
};

struct command_server::connection {
    explicit connection(int descriptor) : fd(descriptor) {}

    int fd;
    std::string in;
    size_t from = 0;     // bytes of `in` that are done
    size_t scanned = 0;  // bytes of `in` up to here are done, or have no line end
    std::string out;
    size_t written = 0;
    std::string id = "null";  // of the request at hand
    std::unique_ptr<bulk> job;
    bool has_line = false;  // a whole line waits in `in`
    bool peer_closed = false;
    bool closing = false;  // to be closed when `out` is written
    bool dead = false;
    uint32_t watched = 0;
    command_server *server = nullptr;

    bool busy() const { return !dead && !closing && (job != nullptr || has_line); }
};

command_server::command_server(event_manager_t *evm, command_handler handler)
    : evm_(evm), handler_(std::move(handler)) {}

command_server::~command_server() {
    if (listener_ >= 0) {
        event_fd_unwatch(evm_, listener_);
    }
    for (auto &c : connections_) {
        drop(*c);
    }
}

outcome command_server::start(int listener) {
    const cerrno rc = event_fd_watch(evm_, listener, EPOLLIN, on_listener, this);
    if (rc != 0) {
        return failure_of(rc, "the command socket");
    }
    listener_ = listener;
    return {};
}

// ---- connections --------------------------------------------------------------------------------

void command_server::on_listener(event_manager_t *, int fd, uint32_t, void *context) {
    static_cast<command_server *>(context)->accept_all(fd);
}

void command_server::accept_all(int fd) {
    for (uint32_t n = 0; n < connections_max; ++n) {
        const int accepted = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (accepted < 0) {
            return;
        }
        admit(accepted);
    }
}

void command_server::admit(int fd) {
    auto fresh = std::make_unique<connection>(fd);
    connection &c = *fresh;
    c.server = this;
    const bool permitted = may_command(fd);
    if (!permitted || !make_room()) {
        const outcome o = permitted ? failure(EBUSY, "too many connections are in use")
                                    : failure(EPERM, "commands are for root and the daemon's user");
        const std::string text = answer_text("null", o, "{}");
        send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        close(fd);
        return;
    }
    connections_.push_back(std::move(fresh));
    watch(c);
}

// The connection that was silent longest, and that nothing is done for, makes room for a new one.
bool command_server::make_room() {
    if (connections_.size() < connections_max) {
        return true;
    }
    for (auto at = connections_.begin(); at != connections_.end(); ++at) {
        if (!(*at)->busy()) {
            drop(**at);
            connections_.erase(at);
            return true;
        }
    }
    return false;
}

void command_server::on_connection(event_manager_t *, int fd, uint32_t events, void *context) {
    connection &c = *static_cast<connection *>(context);
    command_server &server = *c.server;
    if (c.dead || c.fd != fd) {
        return;
    }
    if ((events & EPOLLOUT) != 0) {
        server.send_some(c);
    }
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && !c.dead) {
        server.receive(c);
    }
    if (!c.dead) {
        server.watch(c);
    }
}

// Reading stops while a request waits, so what a client may send ahead is bounded.
void command_server::watch(connection &c) {
    uint32_t wanted = 0;
    if (!c.busy() && !c.closing && !c.peer_closed) {
        wanted |= EPOLLIN;
    }
    if (c.written < c.out.size()) {
        wanted |= EPOLLOUT;
    }
    if (wanted == 0 && c.peer_closed && !c.busy()) {
        drop(c);
        return;
    }
    if (c.closing && c.written == c.out.size()) {
        drop(c);
        return;
    }
    if (wanted == c.watched && wanted != 0) {
        return;
    }
    if (wanted == 0) {
        event_fd_unwatch(evm_, c.fd);
    } else if (event_fd_watch(evm_, c.fd, wanted, on_connection, &c) != 0) {
        drop(c);
        return;
    }
    c.watched = wanted;
}

// Marked only: the record goes at the end of a turn.
void command_server::drop(connection &c) {
    if (c.dead) {
        return;
    }
    event_fd_unwatch(evm_, c.fd);
    close(c.fd);
    c.dead = true;
}

void command_server::receive(connection &c) {
    if (c.busy() || c.closing) {
        return;
    }
    c.in.erase(0, c.from);
    c.scanned -= c.from;
    c.from = 0;
    const size_t before = c.in.size();
    const size_t room = std::min(read_bytes, request_bytes + 1 - std::min(before, request_bytes));
    c.in.resize(before + room);
    const ssize_t n = recv(c.fd, c.in.data() + before, room, 0);
    c.in.resize(before + (n > 0 ? static_cast<size_t>(n) : 0));
    if (n == 0) {
        c.peer_closed = true;
    } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
        drop(c);
        return;
    }
    next_request(c);
    if (c.has_line) {  // it was heard of: it goes behind the others
        for (auto at = connections_.begin(); at != connections_.end(); ++at) {
            if (at->get() == &c) {
                connections_.splice(connections_.end(), connections_, at);
                break;
            }
        }
    }
}

void command_server::send_some(connection &c) {
    while (c.written < c.out.size()) {
        const ssize_t n = send(c.fd, c.out.data() + c.written, c.out.size() - c.written,
                               MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            if (errno != EAGAIN) {
                drop(c);
            }
            return;
        }
        c.written += static_cast<size_t>(n);
    }
    c.out.clear();
    c.written = 0;
}

void command_server::flush() {
    for (auto &c : connections_) {
        if (!c->dead) {
            send_some(*c);
        }
    }
}

// ---- turns --------------------------------------------------------------------------------------

bool command_server::work() {
    // Those that take a turn are noted first: a turn changes the order.
    std::vector<connection *> busy;
    for (auto &c : connections_) {
        if (c->busy()) {
            busy.push_back(c.get());
        }
    }
    for (connection *c : busy) {
        take_turn(*c);
    }
    bool more = false;
    for (auto at = connections_.begin(); at != connections_.end();) {
        more = more || (*at)->busy();
        at = (*at)->dead ? connections_.erase(at) : std::next(at);
    }
    return more;
}

void command_server::take_turn(connection &c) {
    const uint64_t until = monotonic_ns() + turn_ns;
    while (c.busy() && monotonic_ns() < until) {
        if (c.job != nullptr) {
            run_lines(c);
        } else {
            const size_t end = c.in.find('\n', c.scanned);
            const std::string_view line(c.in.data() + c.from, end - c.from);
            c.from = c.scanned = end + 1;
            c.has_line = false;
            begin(c, line);
            if (!c.closing) {
                next_request(c);
            }
        }
    }
    if (!c.dead) {
        send_some(c);
    }
    if (!c.dead && c.out.size() - c.written > unread_bytes) {
        say(weight::warning, "a client that does not read its answers is dropped");
        drop(c);
    }
    if (!c.dead) {
        watch(c);
    }
}

// Looks whether a whole line is there. One that is too long is answered at once.
void command_server::next_request(connection &c) {
    const size_t end = c.in.find('\n', c.scanned);
    const size_t length = std::min(end, c.in.size()) - c.from;
    c.has_line = end != std::string::npos && length < request_bytes;
    if (c.has_line) {
        return;
    }
    c.scanned = c.in.size();
    if (length >= request_bytes) {
        c.id = "null";
        refuse(c, EMSGSIZE, "a request is longer than 1 MiB");
    }
}

void command_server::begin(connection &c, std::string_view line) {
    request_parts parts;
    c.id = "null";
    if (!split_request(line, &parts) || parts.action.empty()) {
        refuse(c, EINVAL, "not a request: {\"id\":ID,\"action\":NAME,\"args\":{...}} is");
        return;
    }
    c.id = parts.id;
    if (parts.action == "lines") {
        if (!begin_lines(c, parts.args)) {
            answer(c, failure(EINVAL, "\"lines\" takes an array of at most 8192 texts"), "{}");
        }
        return;
    }
    run_action(c, parts.action, parts.args);
}

bool command_server::begin_lines(connection &c, std::string_view args) {
    auto job = std::make_unique<bulk>();
    job->request = args;
    job->lines.reserve(lines_of_request);
    std::string buffer;
    const bool good = each_string(job->request, "lines", &buffer, [&](std::string_view text) {
        if (job->lines.size() == lines_of_request) {
            return false;
        }
        if (text.data() == buffer.data()) {
            job->unescaped.emplace_back(text);
            text = job->unescaped.back();
        }
        job->lines.push_back(text);
        return true;
    });
    if (good) {
        c.job = std::move(job);
    }
    return good;
}

void command_server::run_lines(connection &c) {
    bulk &job = *c.job;
    const uint64_t until = monotonic_ns() + turn_ns;
    for (uint32_t n = 1; job.next < job.lines.size(); ++n) {
        const size_t index = job.next++;
        const outcome o = handler_.line(job.lines[index]);
        if (!o.failed()) {
            ++job.accepted;
        } else {
            ++job.failed;
            fmt::format_to(
                std::back_inserter(job.failures), "{}{{\"index\":{},\"code\":{},\"text\":{}}}",
                job.failed == 1 ? "" : ",", index, o.code,
                job.failed <= failures_with_text ? json_text(o.text) : std::string("\"\""));
        }
        if (n % lines_between_clocks == 0 && monotonic_ns() >= until) {
            break;
        }
    }
    if (job.next < job.lines.size()) {
        return;
    }
    const std::string result =
        fmt::format("{{\"accepted\":{},\"failed\":[{}]}}", job.accepted, job.failures);
    c.job = nullptr;
    answer(c, {}, result);
}

void command_server::run_action(connection &c, std::string_view action, std::string_view args) {
    const json parsed = json::parse(args, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) {
        refuse(c, EINVAL, "\"args\" is no object");
        return;
    }
    json result = json::object();
    outcome o;
    try {
        o = handler_.action(std::string(action), parsed, &result);
    } catch (const json::exception &e) {
        o = failure(EINVAL, e.what());
    }
    answer(c, o, result.dump(-1, ' ', false, json::error_handler_t::replace));
}

void command_server::answer(connection &c, const outcome &o, std::string_view result) {
    c.out += answer_text(c.id, o, result);
}

void command_server::refuse(connection &c, cerrno code, std::string_view text) {
    answer(c, failure(code, std::string(text)), "{}");
    c.closing = true;
    c.has_line = false;
    c.job = nullptr;
}

}  // namespace mfwd6::daemon
