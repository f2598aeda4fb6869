#include "apps/mfwd6ctl/command/socket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/interrupts.h"
#include "services/diag/errors.h"

namespace ctl {
namespace {

using clock = std::chrono::steady_clock;

constexpr size_t piece = 65536;
constexpr int poll_slice_ms = 200;

failure cannot_connect(const std::string &path, int error) {
    switch (error) {
        case ENOENT:
        case ECONNREFUSED:
            return {exit_code::absent,
                    fmt::format("no mfwd6d answers: nobody listens on {}", path)};
        case EACCES:
        case EPERM:
            return {exit_code::forbidden,
                    fmt::format("not permitted to give commands: {} is for root and mfwd6d's user",
                                path)};
        case EAGAIN:
            return {exit_code::absent, "mfwd6d does not take connections: too many are waiting"};
        default:
            return {exit_code::absent, fmt::format("{}: {}", path, std::strerror(error))};
    }
}

failure closed_by_owner() {
    return {exit_code::absent,
            "mfwd6d closed the connection: it has ended, or does not take commands from this user"};
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw failure(exit_code::usage, path + ": the path of the socket is too long");
    }
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

}  // namespace

command_socket::command_socket(const options &how)
    : path_(how.folder() + "/command"), timeout_s_(how.timeout_s) {
    const sockaddr_un address = address_of(path_);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) {
        throw cannot_connect(path_, errno);
    }
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(fd_);
        throw cannot_connect(path_, error);
    }
}

command_socket::~command_socket() {
    close(fd_);
}

answer command_socket::ask(const std::string &action, const json &args) {
    send(action, args);
    const auto deadline = clock::now() + std::chrono::duration<double>(timeout_s_);
    for (;;) {
        if (std::optional<answer> a = next_answer()) {
            return *a;
        }
        stop_if_interrupted();
        if (clock::now() >= deadline) {
            throw failure(exit_code::absent,
                          fmt::format("mfwd6d has not answered within {} s: it is being restarted, "
                                      "or busy; the command may still be done",
                                      timeout_s_));
        }
        exchange(poll_slice_ms);
    }
}

uint64_t command_socket::send(const std::string &action, const json &args) {
    json request;
    request["id"] = ++last_id_;
    request["action"] = action;
    request["args"] = args;
    if (sent_ == out_.size()) {
        out_.clear();
        sent_ = 0;
    }
    out_ += request.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    write_some();
    return last_id_;
}

void command_socket::exchange(int timeout_ms, int also) {
    pollfd ends[2] = {{fd_, POLLIN, 0}, {also, POLLIN, 0}};
    if (bytes_to_send() != 0) {
        ends[0].events = static_cast<short>(ends[0].events | POLLOUT);
    }
    if (poll(ends, also >= 0 ? 2 : 1, timeout_ms) <= 0) {
        return;  // in time, or interrupted: the caller looks
    }
    if ((ends[0].revents & POLLOUT) != 0) {
        write_some();
    }
    if ((ends[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        read_some();
    }
}

std::optional<answer> command_socket::next_answer() {
    if (answers_.empty()) {
        return std::nullopt;
    }
    answer a = std::move(answers_.front());
    answers_.pop_front();
    return a;
}

void command_socket::write_some() {
    while (bytes_to_send() != 0) {
        const ssize_t n = ::send(fd_, out_.data() + sent_, bytes_to_send(), MSG_NOSIGNAL);
        if (n >= 0) {
            sent_ += static_cast<size_t>(n);
        } else if (errno == EAGAIN || errno == EINTR) {
            return;
        } else {
            read_some();  // what it said last
            throw closed_by_owner();
        }
    }
}

void command_socket::read_some() {
    char bytes[piece];
    const ssize_t n = recv(fd_, bytes, sizeof(bytes), 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (n <= 0) {
        throw closed_by_owner();
    }
    in_.append(bytes, static_cast<size_t>(n));
    size_t begin = 0;
    for (size_t end = in_.find('\n'); end != std::string::npos; end = in_.find('\n', begin)) {
        answers_.push_back(parse(in_.substr(begin, end - begin)));
        begin = end + 1;
    }
    in_.erase(0, begin);
}

answer command_socket::parse(const std::string &line) const {
    const json j = json::parse(line, nullptr, false);
    const auto is = [&](const char *name, bool (json::*type)() const noexcept, bool must) {
        return j.contains(name) ? (j[name].*type)() : !must;
    };
    if (!j.is_object() || !is("code", &json::is_number_unsigned, true) ||
        !is("text", &json::is_string, false)) {
        throw failure(exit_code::failed,
                      "mfwd6d answered with something that is no answer: " + line.substr(0, 200));
    }
    answer a;
    a.id = j.contains("id") && j["id"].is_number_unsigned() ? j["id"].get<uint64_t>() : 0;
    a.code = j["code"].get<uint32_t>();
    a.text = j.value("text", std::string());
    a.result = j.contains("result") ? j["result"] : json::object();
    return a;
}

json ask_owner(const options &how, const std::string &action, const json &args) {
    command_socket socket(how);
    const answer a = socket.ask(action, args);
    if (a.code != 0) {
        throw failure(
            a.code == EPERM || a.code == EACCES ? exit_code::forbidden : exit_code::failed,
            a.text.empty() ? cerr_strerror(a.code) : a.text);
    }
    return a.result;
}

}  // namespace ctl
