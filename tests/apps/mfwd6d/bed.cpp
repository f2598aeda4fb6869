#include "tests/apps/mfwd6d/bed.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "apps/check/check.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "services/diag/run_dir.h"
#include "services/window/setup.h"
#include "tests/kit/library.h"

namespace bed {
namespace {

using clock = std::chrono::steady_clock;

constexpr int pairs_of_interfaces = 20;

clock::time_point after(double seconds) {
    return clock::now() +
           std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(seconds));
}

int milliseconds_to(clock::time_point until) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

bool write_text(const char *path, const std::string &text) {
    std::ofstream out(path);
    out << text;
    return out.good();
}

std::string make_namespace() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (uid == 0) {
        if (unshare(CLONE_NEWNET) != 0) {
            return std::string("unshare: ") + std::strerror(errno);
        }
    } else if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0 ||
               !write_text("/proc/self/setgroups", "deny") ||
               !write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
               !write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
        return std::string("unshare of a user namespace: ") + std::strerror(errno);
    }
    const std::string command =
        "for i in $(seq 0 2 " + std::to_string(2 * pairs_of_interfaces - 2) +
        "); do ip link add eth$i type veth peer name eth$((i+1)) || exit 1; "
        "done; ip link set lo up";
    return shell(command) ? "" : "ip link add failed";
}

// Before main, and so before there are threads.
const std::string namespace_problem = make_namespace();

std::string name_of(ifhtype ifh) {
    ipv4mc_idb_st *idb = nullptr;
    if (ip6mc_idb_lookup(ifh, &idb) != 0 || idb == nullptr) {
        return "?" + std::to_string(ifh);
    }
    return {idb->name, strnlen(idb->name, sizeof(idb->name))};
}

std::string address_text(const ip_maddr_st &address) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, address.bytes, text, sizeof(text));
}

std::string route_text(const ipv4mc_table_st *table, const ipv4mc_route_entry_st *route) {
    const ip_maddr_st any{};
    std::string text =
        std::string(table->vtable->vrf_name) + " (" +
        (std::memcmp(&route->source, &any, sizeof(any)) == 0 ? "*" : address_text(route->source)) +
        "," + address_text(route->group);
    if (route->pfx_len < 128) {
        text += "/" + std::to_string(route->pfx_len);
    }
    text += ")";
    text += (route->attributes & MRIB_ROUTE_SIGNAL) != 0 ? " signal" : "";
    text += (route->attributes & MRIB_ROUTE_DROP) != 0 ? " drop" : "";
    text += (route->attributes & MRIB_ROUTE_IA) != 0 ? " inherit-accept" : "";
    std::set<std::string> in;
    std::set<std::string> out;
    for (const auto *entry = route->intf_list; entry != nullptr; entry = entry->next_intf) {
        if ((entry->attributes & MRIB_INTF_ACCEPT) != 0)
            in.insert(name_of(entry->ifh));
        if ((entry->attributes & MRIB_INTF_FORWARD) != 0)
            out.insert(name_of(entry->ifh));
    }
    text += " in";
    for (const std::string &name : in)
        text += " " + name;
    text += " out";
    for (const std::string &name : out)
        text += " " + name;
    return text;
}

void tell_window(const std::string &dir, std::string *text) {
    shmwin_set_run_dir(dir.c_str());
    diag_set_run_dir(dir.c_str());
    kit::start how;
    how.attach_only = 1;
    how.with_callback = false;
    if (kit::start_library(how) != 0 ||
        ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr) != 0) {
        *text = "!cannot attach\n";
        return;
    }
    const ip_maddr_st any{};
    for (ipv4mc_table_st *table = ip6mc_table_tid_get_first(); table != nullptr;
         table = ip6mc_table_tid_get_next(table->tid)) {
        for (auto *route = ip6mc_route_first_key(table, &any, &any, 0); route != nullptr;
             route = ip6mc_route_next(table, route)) {
            *text += route_text(table, route) + "\n";
        }
    }
    mfwd6::check::options options;
    options.live = true;
    const mfwd6::check::report report = mfwd6::check::check_window(options);
    for (const mfwd6::check::finding &f : report.findings)
        *text += "!" + mfwd6::check::to_string(f) + "\n";
    for (const mfwd6::check::finding &f : report.leftovers)
        *text += "!" + mfwd6::check::to_string(f) + "\n";
    // The key of its table searches is what a killed owner may leave, and nothing else.
    for (const mfwd6::check::orphan &o : report.orphans) {
        if (o.type == IPMC_SHMWIN_ALLOC_AVL && o.bytes == sizeof(ipv4mc_table_st))
            *text += "?\n";
        else
            *text += "!orphan of type " + mfwd6::check::type_name(o.type) + "\n";
    }
}

}  // namespace

const std::string &no_namespace() {
    return namespace_problem;
}

bool shell(const std::string &command) {
    return system(command.c_str()) == 0;
}

// ---- folder -------------------------------------------------------------------------------------

folder::folder() : maker_(getpid()) {
    char name[] = "/dev/shm/mfwd6-test-XXXXXX";
    if (mkdtemp(name) == nullptr)
        throw std::runtime_error("no folder below /dev/shm");
    path_ = name;
}

folder::~folder() {
    if (getpid() == maker_) {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
}

std::string folder::write(const std::string &name, const std::string &text) const {
    std::ofstream out(file(name), std::ios::trunc);
    out << text;
    return file(name);
}

// ---- programs -----------------------------------------------------------------------------------

program::program(const folder &, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), MFWD6D_PROGRAM);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
        dup2(ends[1], STDERR_FILENO);
        dup2(ends[1], STDOUT_FILENO);
        std::vector<char *> words;
        for (std::string &word : arguments)
            words.push_back(word.data());
        words.push_back(nullptr);
        execv(words[0], words.data());
        _exit(127);
    }
    close(ends[1]);
    ear_ = ends[0];
    fcntl(ear_, F_SETFL, O_NONBLOCK);
}

program::~program() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        if (wait(8) == -1) {
            ::kill(pid_, SIGKILL);
            wait(5);
        }
    }
    if (testing::Test::HasFailure())
        fprintf(stderr, "---- the daemon said:\n%s----\n", said().c_str());
    close(ear_);
}

void program::listen(int milliseconds) {
    pollfd waiting{ear_, POLLIN, 0};
    if (poll(&waiting, 1, milliseconds) <= 0)
        return;
    char part[4096];
    const ssize_t n = read(ear_, part, sizeof(part));
    if (n > 0)
        said_.append(part, static_cast<size_t>(n));
    else if (n == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(milliseconds, 20)));
}

bool program::hears(const std::string &text, double seconds) {
    const auto until = after(seconds);
    for (;;) {
        const size_t at = said_.find(text, heard_);
        if (at != std::string::npos) {
            heard_ = at + text.size();
            return true;
        }
        if (clock::now() >= until)
            return false;
        listen(std::min(milliseconds_to(until), 100));
    }
}

const std::string &program::said() {
    for (size_t before = SIZE_MAX; before != said_.size();) {
        before = said_.size();
        listen(0);
    }
    return said_;
}

int program::wait(double seconds) {
    const auto until = after(seconds);
    for (;;) {
        int status = 0;
        if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
            said();
            pid_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        if (pid_ <= 0 || clock::now() >= until)
            return -1;
        listen(5);
    }
}

void program::signal(int number) const {
    ::kill(pid_, number);
}

namespace {

std::vector<std::string> keeper_arguments(const folder &dir, const std::vector<std::string> &more) {
    std::vector<std::string> words = {"run",        "--run-dir", dir.path(),    "--no-syslog",
                                      "--platform", "sim",       "--no-signald"};
    words.insert(words.end(), more.begin(), more.end());
    // Not that of the machine.
    if (std::find(more.begin(), more.end(), "--config") == more.end())
        words.insert(words.end(), {"--config", dir.write("empty.conf", "")});
    return words;
}

}  // namespace

keeper::keeper(const folder &dir, const std::vector<std::string> &more)
    : program(dir, keeper_arguments(dir, more)) {}

// ---- clients ------------------------------------------------------------------------------------

client::client(const folder &dir) {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", dir.file("command").c_str());
    if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        close(fd_);
        throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
    }
}

client::~client() {
    close(fd_);
}

void client::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0)
            throw std::runtime_error("the connection has ended");
        bytes.remove_prefix(static_cast<size_t>(n));
    }
}

bool client::fill(int milliseconds) {
    pollfd waiting{fd_, POLLIN, 0};
    if (poll(&waiting, 1, milliseconds) <= 0)
        throw std::runtime_error("no answer");
    char part[65536];
    const ssize_t n = recv(fd_, part, sizeof(part), 0);
    if (n > 0)
        in_.append(part, static_cast<size_t>(n));
    return n > 0;
}

std::string client::receive() {
    size_t end = 0;
    while ((end = in_.find('\n')) == std::string::npos) {
        if (!fill(20000))
            throw std::runtime_error("the connection has ended");
    }
    std::string line = in_.substr(0, end);
    in_.erase(0, end + 1);
    return line;
}

bool client::is_closed(double seconds) {
    const auto until = after(seconds);
    try {
        while (fill(milliseconds_to(until))) {
        }
        return true;
    } catch (const std::runtime_error &) {
        return false;
    }
}

json client::call(const std::string &action, const json &args) {
    const json request = {{"id", ++next_id_}, {"action", action}, {"args", args}};
    send(request.dump() + "\n");
    json answer = json::parse(receive());
    EXPECT_EQ(answer["id"], next_id_);
    return answer;
}

uint32_t client::line(const std::string &text) {
    return call("line", {{"line", text}})["code"].get<uint32_t>();
}

void wait_until_served(const folder &dir) {
    const auto until = after(30);
    for (;;) {
        try {
            client c(dir);
            c.call("status");
            return;
        } catch (const std::runtime_error &) {
            if (clock::now() >= until)
                throw;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
}

pid_t owner_pid(const folder &dir) {
    client c(dir);
    return c.call("status")["result"]["pid"].get<pid_t>();
}

// ---- the window ---------------------------------------------------------------------------------

view look(const folder &dir) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe");
    const pid_t pid = fork();
    if (pid == 0) {
        std::string text;
        tell_window(dir.path(), &text);
        for (std::string_view left = text; !left.empty();) {
            const ssize_t n = write(ends[1], left.data(), left.size());
            if (n <= 0)
                break;
            left.remove_prefix(static_cast<size_t>(n));
        }
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    char part[65536];
    for (ssize_t n = 0; (n = read(ends[0], part, sizeof(part))) > 0;)
        text.append(part, static_cast<size_t>(n));
    close(ends[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    view seen;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        seen.faults.push_back("the process that looked died");
    for (size_t from = 0, end = 0; (end = text.find('\n', from)) != std::string::npos;
         from = end + 1) {
        std::string line = text.substr(from, end - from);
        if (line[0] == '?')
            ++seen.search_keys;
        else if (line[0] == '!')
            seen.faults.push_back(line.substr(1));
        else
            seen.routes.insert(std::move(line));
    }
    return seen;
}

}  // namespace bed
