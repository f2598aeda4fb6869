#include "apps/netlab/programs.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace netlab {
namespace {

using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;
using json = nlohmann::json;

constexpr milliseconds step(5);

bool wait_until(const std::function<bool()> &what, milliseconds limit) {
    const auto end = clock::now() + limit;
    while (!what()) {
        if (clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(step);
    }
    return true;
}

std::string file_text(const std::string &path) {
    const std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

int exit_code(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Name and parent of a process; an empty name when it is gone or has ended.
struct process {
    std::string name;
    pid_t parent = 0;
};

process look_up(pid_t pid) {
    const std::string stat = file_text("/proc/" + std::to_string(pid) + "/stat");
    const size_t open = stat.find('(');
    const size_t close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos) {
        return {};
    }
    char state = 0;
    process p;
    std::istringstream(stat.substr(close + 1)) >> state >> p.parent;
    p.name = state == 'Z' ? "" : stat.substr(open + 1, close - open - 1);
    return p;
}

std::vector<pid_t> children_of(pid_t parent) {
    std::vector<pid_t> found;
    DIR *const proc = opendir("/proc");
    for (dirent *entry = readdir(proc); entry != nullptr; entry = readdir(proc)) {
        const pid_t pid = std::atoi(entry->d_name);
        if (pid > 0 && look_up(pid).parent == parent) {
            found.push_back(pid);
        }
    }
    closedir(proc);
    return found;
}

int connect_to(const std::string &path) {
    sockaddr_un where = {};
    where.sun_family = AF_UNIX;
    path.copy(where.sun_path, sizeof(where.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&where), sizeof(where)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// An unnamed file that a program may write to.
class scratch {
  public:
    scratch() : fd_(memfd_create("output", MFD_CLOEXEC)) {}
    ~scratch() { close(fd_); }
    scratch(const scratch &) = delete;
    scratch &operator=(const scratch &) = delete;

    int fd() const { return fd_; }
    std::string text() const { return file_text("/proc/self/fd/" + std::to_string(fd_)); }

  private:
    int fd_;
};

}  // namespace

std::string program_folder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

// ---- commands -----------------------------------------------------------------------------------

command_line::command_line(const std::string &socket_path, milliseconds limit) {
    wait_until(
        [&] {
            fd_ = connect_to(socket_path);
            return fd_ >= 0;
        },
        limit);
    if (fd_ < 0) {
        throw std::runtime_error("no daemon at " + socket_path + ": " + std::strerror(errno));
    }
}

command_line::~command_line() {
    close(fd_);
}

bool command_line::send_raw(const std::string &bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

std::string command_line::read_line(milliseconds limit) {
    const auto end = clock::now() + limit;
    for (;;) {
        const size_t eol = rest_.find('\n');
        if (eol != std::string::npos) {
            const std::string line = rest_.substr(0, eol);
            rest_.erase(0, eol + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<milliseconds>(end - clock::now()).count();
        pollfd ready = {fd_, POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0) {
            throw std::runtime_error("the daemon does not answer");
        }
        char part[65536];
        const ssize_t n = recv(fd_, part, sizeof(part), 0);
        if (n <= 0) {
            return "";
        }
        rest_.append(part, static_cast<size_t>(n));
    }
}

json command_line::ask(const std::string &action, const json &args, milliseconds limit) {
    const json request = {{"id", ++last_id_}, {"action", action}, {"args", args}};
    if (!send_raw(request.dump() + "\n")) {
        throw std::runtime_error("the daemon closed the connection");
    }
    const std::string answer = read_line(limit);
    if (answer.empty()) {
        throw std::runtime_error("the daemon closed the connection instead of answering " + action);
    }
    return json::parse(answer);
}

// ---- programs -----------------------------------------------------------------------------------

ended run_program(const network_namespace &space, const std::string &program,
                  const std::vector<std::string> &arguments, milliseconds limit) {
    const scratch out;
    const scratch err;
    const pid_t pid = space.start(program, arguments, {out.fd(), err.fd()});
    int status = 0;
    if (!wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit)) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    return {exit_code(status), out.text(), err.text()};
}

// ---- the daemon ---------------------------------------------------------------------------------

router::router(const network_namespace &space, const std::string &configuration, bool wait)
    : space_(space) {
    char folder[] = "/dev/shm/mfwd6-lab-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
        throw std::runtime_error(std::string("cannot make a run folder: ") + std::strerror(errno));
    }
    // What the keeper leaves without a parent comes to this process, which ends it.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    run_dir_ = folder;
    configuration_file_ = run_dir_ + "/mfwd6d.conf";
    log_file_ = run_dir_ + "/log";
    std::ofstream(configuration_file_) << configuration;
    try {
        start();
        if (wait) {
            wait_ready();
        }
    } catch (...) {
        end_everything();
        throw;
    }
}

router::~router() {
    end_everything();
}

void router::start() {
    const int log = open(log_file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    keeper_ =
        space_.start(program_folder() + "/mfwd6d",
                     {"run", "--run-dir", run_dir_, "--config", configuration_file_}, {log, log});
    close(log);
}

void router::start_again() {
    start();
    wait_ready();
}

void router::wait_ready() {
    try {
        must("status");
    } catch (const std::exception &e) {
        throw std::runtime_error(std::string(e.what()) + "; its log:\n" + log());
    }
}

std::string router::log() const {
    return file_text(log_file_);
}

json router::ask(const std::string &action, const json &args) const {
    return command_line(run_dir_ + "/command").ask(action, args);
}

json router::must(const std::string &action, const json &args) const {
    const json answer = ask(action, args);
    if (answer.value("code", -1) != 0) {
        throw std::runtime_error(action + " " + args.dump() + " was answered with " +
                                 answer.dump());
    }
    return answer.value("result", json::object());
}

ended router::ctl(const std::vector<std::string> &arguments) const {
    std::vector<std::string> all = {"--run-dir", run_dir_};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run_program(space_, program_folder() + "/mfwd6ctl", all);
}

pid_t router::child_named(const std::string &name) const {
    for (const pid_t child : children_of(keeper_)) {
        if (look_up(child).name == name) {
            return child;
        }
    }
    return 0;
}

pid_t router::owner() const {
    return child_named("mfwd6d");
}

pid_t router::signald() const {
    return child_named("mfwd6-signald");
}

bool router::wait_owner(pid_t before, milliseconds limit) const {
    const auto there = [&] {
        const pid_t now = owner();
        return now != 0 && now != before;
    };
    return wait_until(there, limit) && ask("status").value("code", -1) == 0;
}

bool router::wait_signald(pid_t before, milliseconds limit) const {
    const auto there = [&] {
        const pid_t now = signald();
        return now != 0 && now != before;
    };
    return wait_until(there, limit);
}

int router::wait_end(milliseconds limit) {
    int status = 0;
    if (keeper_ == 0 ||
        !wait_until([&] { return waitpid(keeper_, &status, WNOHANG) == keeper_; }, limit)) {
        return -1;
    }
    keeper_ = 0;
    return exit_code(status);
}

int router::shut_down(bool keep) {
    must("shutdown", {{"keep", keep}});
    return wait_end(std::chrono::seconds(10));
}

void router::end_everything() {
    if (keeper_ != 0) {
        kill(keeper_, SIGSTOP);  // so that it starts nobody any more
        const std::vector<pid_t> all = children_of(keeper_);
        kill(keeper_, SIGKILL);
        waitpid(keeper_, nullptr, 0);
        for (const pid_t pid : all) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);  // ours since its parent died
        }
        keeper_ = 0;
    }
    std::error_code ignored;
    std::filesystem::remove_all(run_dir_, ignored);
}

}  // namespace netlab
