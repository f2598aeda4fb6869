// The owner's command socket: JSON objects, one a line, each way.
#ifndef MFWD6_APPS_MFWD6CTL_SOCKET_H
#define MFWD6_APPS_MFWD6CTL_SOCKET_H

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "apps/mfwd6ctl/options.h"
#include "apps/mfwd6ctl/output/output.h"

namespace ctl {

struct answer {
    uint64_t id = 0;
    uint32_t code = 0;  // 0 is success
    std::string text;
    json result;
};

class command_socket {
  public:
    // Throws failure: nobody listens, or not permitted.
    explicit command_socket(const options &how);
    ~command_socket();
    command_socket(const command_socket &) = delete;
    command_socket &operator=(const command_socket &) = delete;

    // Sends one request and waits for its answer, whatever its code. Throws failure when none comes
    // in time.
    answer ask(const std::string &action, const json &args);

    // The same in two parts, for many requests under way. `send` keeps what the socket does not
    // take; `exchange` moves bytes both ways for at most `timeout_ms`, or until `also` (a further
    // descriptor, -1 for none) can be read. Answers come in the order of requests.
    uint64_t send(const std::string &action, const json &args);
    void exchange(int timeout_ms, int also = -1);
    std::optional<answer> next_answer();
    size_t bytes_to_send() const { return out_.size() - sent_; }

  private:
    void write_some();
    void read_some();
    answer parse(const std::string &line) const;

    std::string path_;
    double timeout_s_;
    int fd_ = -1;
    uint64_t last_id_ = 0;
    std::string out_;
    size_t sent_ = 0;
    std::string in_;
    std::deque<answer> answers_;
};

// Asks for one action; an answer with another code than 0 is a failure with the owner's text.
json ask_owner(const options &how, const std::string &action, const json &args);

}  // namespace ctl

#endif
