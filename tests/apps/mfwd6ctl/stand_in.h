// Stands in for the owner at a command socket: says what a test wants it to say.
#ifndef MFWD6_TESTS_APPS_MFWD6CTL_STAND_IN_H
#define MFWD6_TESTS_APPS_MFWD6CTL_STAND_IN_H

#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace ctl_test {

class stand_in {
  public:
    // What is sent back for a request: a line, without its end. Nothing for an empty text; a text
    // of "close" closes the connection instead.
    using reply = std::function<std::string(const nlohmann::json &request)>;

    // Listens on FOLDER/command, one connection at a time.
    stand_in(const std::string &folder, reply answer);
    ~stand_in();
    stand_in(const stand_in &) = delete;
    stand_in &operator=(const stand_in &) = delete;

    std::vector<nlohmann::json> requests() const;

  private:
    void serve();
    void talk(int connection);

    reply answer_;
    int listener_ = -1;
    int stop_[2] = {-1, -1};
    mutable std::mutex mutex_;
    std::vector<nlohmann::json> requests_;
    std::thread thread_;
};

// An answer with code 0, and one with another.
std::string good(const nlohmann::json &request, const nlohmann::json &result = {});
std::string bad(const nlohmann::json &request, uint32_t code, const std::string &text);

}  // namespace ctl_test

#endif
