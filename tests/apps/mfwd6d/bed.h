// A daemon for tests: a network namespace of its own with interfaces of every name that tests use,
// a run dir, a keeper as a child, and a client of the command socket.
//
// The namespace is that of the whole test program; a program that may not make one skips its tests
// with the reason.
#ifndef MFWD6_TESTS_APPS_MFWD6D_BED_H
#define MFWD6_TESTS_APPS_MFWD6D_BED_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace bed {

using json = nlohmann::json;

// Why there is no namespace with interfaces eth0 to eth7 and up; empty when there is.
const std::string &no_namespace();

#define NEEDS_NAMESPACE()                          \
    if (!bed::no_namespace().empty())              \
    GTEST_SKIP() << "no network namespace of its " \
                    "own: "                        \
                 << bed::no_namespace()

// Runs a shell command, for interfaces; true on success.
bool shell(const std::string &command);

class folder {
  public:
    folder();
    ~folder();
    folder(const folder &) = delete;
    folder &operator=(const folder &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    // Writes a file there; its path.
    std::string write(const std::string &name, const std::string &text) const;

  private:
    std::string path_;
    pid_t maker_;
};

// A process of the daemon's program, with what it says on stderr.
class program {
  public:
    program(const folder &dir, std::vector<std::string> arguments);
    ~program();  // kills what still runs
    program(const program &) = delete;
    program &operator=(const program &) = delete;

    pid_t pid() const { return pid_; }
    // Waits until it has said this, from where the last such wait ended; false after `seconds`.
    bool hears(const std::string &text, double seconds = 20);
    const std::string &said();
    // Waits for its end: exit code, 128 + signal, or -1 after `seconds`.
    int wait(double seconds = 20);
    void signal(int number) const;

  private:
    void listen(int milliseconds);

    pid_t pid_ = -1;
    int ear_ = -1;
    std::string said_;
    size_t heard_ = 0;
};

// `mfwd6d run --platform sim` in a folder.
class keeper : public program {
  public:
    explicit keeper(const folder &dir, const std::vector<std::string> &more = {});
    bool ready(double seconds = 30) { return hears("ready after", seconds); }
};

// A connection to the command socket. Throws when it cannot be had or ends.
class client {
  public:
    explicit client(const folder &dir);
    ~client();
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    void send(std::string_view bytes) const;
    // The next line, without its end; throws at the end of the connection or after 20 s.
    std::string receive();
    // True when the connection has ended, within `seconds`; what comes before is passed over.
    bool is_closed(double seconds = 5);

    json call(const std::string &action, const json &args = json::object());
    // Code of the answer to `line`.
    uint32_t line(const std::string &text);
    int fd() const { return fd_; }

  private:
    bool fill(int milliseconds);

    int fd_ = -1;
    std::string in_;
    uint64_t next_id_ = 0;
};

// Waits until a client can be served, as after a restart.
void wait_until_served(const folder &dir);

// Pid of the owner, by the command socket.
pid_t owner_pid(const folder &dir);

// What stands in the window, from a process of its own that is attached to it: a line for each
// route, "default (*,ff3e::1) signal in eth0 out eth1 eth2"; and what is wrong with the window.
struct view {
    std::multiset<std::string> routes;
    std::vector<std::string> faults;
    uint32_t search_keys = 0;  // of killed owners
};
view look(const folder &dir);

}  // namespace bed

#endif
