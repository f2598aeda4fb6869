// The command socket: requests and answers as lines of JSON, many clients, none of which can hold
// up the others or the owner's other work.
//
// A request is {"id":ID,"action":NAME,"args":{...}}, an answer {"id":ID,"code":N,"text":TEXT,
// "result":{...}} with code 0 for success. Answers come in the order of requests; a client need not
// wait for one before it sends the next. What is no request, or is longer than `request_bytes`, is
// answered once and ends the connection.
//
// Work is done in slices: each connection gets a turn of at most `turn_ns`, so that a bulk request
// neither starves other clients nor the flows of the packet path.
#ifndef MFWD6_APPS_MFWD6D_COMMAND_SERVER_H
#define MFWD6_APPS_MFWD6D_COMMAND_SERVER_H

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "apps/mfwd6d/owner/outcome.h"
#include "services/events/event_manager.h"

namespace mfwd6::daemon {

inline constexpr size_t request_bytes = size_t{1} << 20;  // a line, with its end
inline constexpr size_t unread_bytes = size_t{1} << 20;   // answers that wait for a client
inline constexpr uint32_t lines_of_request = 8192;
inline constexpr uint32_t connections_max = 64;
inline constexpr uint64_t turn_ns = 1'000'000;

// What the requests are about.
struct command_handler {
    // `lines`: one line of configuration.
    std::function<outcome(std::string_view line)> line;
    // All other actions. ENOSYS for one that is not known.
    std::function<outcome(const std::string &action, const nlohmann::json &args,
                          nlohmann::json *result)>
        action;
};

class command_server {
  public:
    command_server(event_manager_t *evm, command_handler handler);
    ~command_server();
    command_server(const command_server &) = delete;
    command_server &operator=(const command_server &) = delete;

    // Begins to accept on a listening socket, which stays the caller's.
    outcome start(int listener);

    // Gives connections that have something to do a turn each. True while there is more.
    bool work();

    // Writes what can be written now; for an orderly end.
    void flush();

    uint32_t connections() const { return static_cast<uint32_t>(connections_.size()); }

  private:
    struct connection;

    static void on_listener(event_manager_t *evm, int fd, uint32_t events, void *context);
    static void on_connection(event_manager_t *evm, int fd, uint32_t events, void *context);
    void accept_all(int fd);
    void admit(int fd);
    bool make_room();
    void receive(connection &c);
    void send_some(connection &c);
    void watch(connection &c);
    void drop(connection &c);
    void take_turn(connection &c);
    void next_request(connection &c);
    void begin(connection &c, std::string_view line);
    bool begin_lines(connection &c, std::string_view args);
    void run_lines(connection &c);
    void run_action(connection &c, std::string_view action, std::string_view args);
    void answer(connection &c, const outcome &o, std::string_view result);
    void refuse(connection &c, cerrno code, std::string_view text);

    event_manager_t *evm_;
    command_handler handler_;
    int listener_ = -1;
    std::list<std::unique_ptr<connection>> connections_;  // the one heard of last behind
};

}  // namespace mfwd6::daemon

#endif
