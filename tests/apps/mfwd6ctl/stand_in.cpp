#include "tests/apps/mfwd6ctl/stand_in.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace ctl_test {

using nlohmann::json;

stand_in::stand_in(const std::string &folder, reply answer) : answer_(std::move(answer)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = folder + "/command";
    std::memcpy(address.sun_path, path.c_str(), path.size());
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(listener_, 8) != 0 || pipe2(stop_, O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot listen on " + path);
    }
    thread_ = std::thread([this] { serve(); });
}

stand_in::~stand_in() {
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
    close(listener_);
}

std::vector<json> stand_in::requests() const {
    const std::lock_guard guard(mutex_);
    return requests_;
}

void stand_in::serve() {
    for (;;) {
        pollfd fds[2] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
        poll(fds, 2, -1);
        if (fds[1].revents != 0) {
            return;
        }
        const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        talk(connection);
        close(connection);
    }
}

void stand_in::talk(int connection) {
    std::string in;
    for (;;) {
        pollfd fds[2] = {{connection, POLLIN, 0}, {stop_[0], POLLIN, 0}};
        poll(fds, 2, -1);
        char bytes[65536];
        const ssize_t n = fds[1].revents != 0 ? 0 : read(connection, bytes, sizeof(bytes));
        if (n <= 0) {
            return;
        }
        in.append(bytes, static_cast<size_t>(n));
        for (size_t end = in.find('\n'); end != std::string::npos; end = in.find('\n')) {
            const json request = json::parse(in.substr(0, end));
            in.erase(0, end + 1);
            {
                const std::lock_guard guard(mutex_);
                requests_.push_back(request);
            }
            const std::string line = answer_(request);
            if (line == "close") {
                return;
            }
            if (!line.empty()) {
                const std::string out = line + "\n";
                send(connection, out.data(), out.size(), MSG_NOSIGNAL);
            }
        }
    }
}

std::string good(const json &request, const json &result) {
    return json{{"id", request["id"]},
                {"code", 0},
                {"text", "Success"},
                {"result", result.is_null() ? json::object() : result}}
        .dump();
}

std::string bad(const json &request, uint32_t code, const std::string &text) {
    return json{{"id", request["id"]}, {"code", code}, {"text", text}, {"result", json::object()}}
        .dump();
}

}  // namespace ctl_test
