// The programs of mfwd6, run in a network namespace with a run folder of their own.
#ifndef MFWD6_NETLAB_PROGRAMS_H
#define MFWD6_NETLAB_PROGRAMS_H

#include <sys/types.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "apps/netlab/namespaces.h"

namespace netlab {

// The folder in which this program and those beside it were built or installed.
std::string program_folder();

// Commands over the socket of a daemon, one connection.
class command_line {
  public:
    // Connects; waits up to `limit` for a daemon that is not there yet. Throws.
    explicit command_line(const std::string &socket_path,
                          std::chrono::milliseconds limit = std::chrono::seconds(10));
    ~command_line();
    command_line(const command_line &) = delete;
    command_line &operator=(const command_line &) = delete;

    // The whole answer. Throws when none comes within `limit`.
    nlohmann::json ask(const std::string &action, const nlohmann::json &args,
                       std::chrono::milliseconds limit = std::chrono::seconds(20));

    // The bytes as they are; and the next line that comes back, empty when the other side closed.
    bool send_raw(const std::string &bytes);
    std::string read_line(std::chrono::milliseconds limit);

  private:
    int fd_ = -1;
    uint64_t last_id_ = 0;
    std::string rest_;
};

// What a program that has ended left behind.
struct ended {
    int code = -1;  // 128 + signal when a signal ended it
    std::string out;
    std::string err;
};

// Runs a program to its end; kills it after `limit`, which gives code 137.
ended run_program(const network_namespace &space, const std::string &program,
                  const std::vector<std::string> &arguments,
                  std::chrono::milliseconds limit = std::chrono::seconds(30));

// `mfwd6d run`: keeper, owner and packet path. All of them end with this object.
class router {
  public:
    // Starts it with these configuration lines and waits until it takes commands. Throws, with its
    // log, if it does not. `wait` false: only starts it.
    router(const network_namespace &space, const std::string &configuration, bool wait = true);
    ~router();
    router(const router &) = delete;
    router &operator=(const router &) = delete;

    const std::string &run_dir() const { return run_dir_; }
    const std::string &configuration_file() const { return configuration_file_; }
    std::string log() const;  // what all three wrote

    // The answer to one command, on a connection of its own; waits while the owner is away.
    nlohmann::json ask(const std::string &action,
                       const nlohmann::json &args = nlohmann::json::object()) const;

    // The same for commands that must succeed: the result. Throws with code and text.
    nlohmann::json must(const std::string &action,
                        const nlohmann::json &args = nlohmann::json::object()) const;
    void line(const std::string &text) const { must("line", {{"line", text}}); }

    // Runs `mfwd6ctl` on it.
    ended ctl(const std::vector<std::string> &arguments) const;

    // The processes, 0 while one is not there. Found as the keeper's children.
    pid_t keeper() const { return keeper_; }
    pid_t owner() const;
    pid_t signald() const;

    // Waits until a process is there that is not `before`, and the owner answers commands.
    bool wait_owner(pid_t before, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
    bool wait_signald(pid_t before,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    // Waits for the keeper to end by itself; its exit code, -1 if it did not.
    int wait_end(std::chrono::milliseconds limit);

    // Asks all of it to end and waits; the keeper's exit code. With `keep` the state stays.
    int shut_down(bool keep = false);

    // Starts it again on the same folder and configuration, after it ended.
    void start_again();

  private:
    void start();
    void wait_ready();
    pid_t child_named(const std::string &name) const;
    void end_everything();

    const network_namespace &space_;
    std::string run_dir_;
    std::string configuration_file_;
    std::string log_file_;
    pid_t keeper_ = 0;
};

}  // namespace netlab

#endif
