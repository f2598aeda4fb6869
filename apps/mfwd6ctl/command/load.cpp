// load: configuration lines in bulk, many at a time under way.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "apps/mfwd6ctl/command/line_source.h"
#include "apps/mfwd6ctl/command/socket.h"
#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/interrupts.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/progress.h"
#include "services/diag/errors.h"

namespace ctl {
namespace {

using clock = std::chrono::steady_clock;

// One request: well below what the owner takes (1 MiB, 8192 lines), so that answers keep coming.
constexpr size_t lines_of_request = 1024;
constexpr size_t bytes_of_request = size_t{256} << 10;
constexpr size_t requests_under_way = 4;

constexpr int slice_ms = 100;
constexpr size_t shown_failures = 100;

struct request {
    std::string path;
    bool progress = false;
    bool no_progress = false;
};

struct line_failure {
    uint64_t line;
    uint32_t code;
    std::string text;
};

double seconds_since(clock::time_point then) {
    return std::chrono::duration<double>(clock::now() - then).count();
}

class loader {
  public:
    loader(const options &how, const request &r)
        : socket_(how),
          source_(r.path),
          timeout_s_(how.timeout_s),
          bar_(r.progress || (!r.no_progress && !how.json && isatty(STDERR_FILENO) != 0)) {}

    void run() {
        while (!is_done()) {
            if (take_interrupt()) {
                stopped_ = true;
                source_.stop();
            }
            while (wants_lines() && !interrupted() && source_.read_some()) {
            }
            exchange();
            check_patience();
            draw();
        }
        bar_.end();
        seconds_ = seconds_since(begin_);
        // A line that was never sent is told of before those that were sent ahead of it.
        std::stable_sort(
            failures_.begin(), failures_.end(),
            [](const line_failure &a, const line_failure &b) { return a.line < b.line; });
    }

    // Ends the command with what became of the lines.
    void report(bool as_json) const {
        if (as_json) {
            put_json(to_json());
        } else {
            write_text();
        }
        flush_output();
        if (stopped_) {
            throw failure(exit_code::interrupted, "");
        }
        if (failed_ != 0) {
            throw failure(exit_code::failed, "");
        }
    }

  private:
    using batch = std::vector<uint64_t>;  // numbers of its lines

    bool is_done() const { return source_.at_end() && source_.lines.empty() && under_way_.empty(); }
    bool wants_lines() const {
        return !source_.at_end() && source_.lines.size() < lines_of_request;
    }
    bool can_send() const {
        return !source_.lines.empty() && under_way_.size() < requests_under_way;
    }

    // Bytes both ways. An owner that goes away is told of with what it had answered until then.
    void exchange() {
        try {
            while (can_send()) {
                send_batch();
            }
            socket_.exchange(slice_ms, wants_lines() ? source_.descriptor() : -1);
            take_answers();
        } catch (const failure &f) {
            bar_.end();
            take_answers();
            throw failure(f.code(), fmt::format("{}. {}", f.what(), extent()));
        }
    }

    // How far the load has come.
    std::string extent() const {
        return under_way_.empty()
                   ? fmt::format("{} lines are done", done_)
                   : fmt::format("{} lines are done; from line {} on it is not known", done_,
                                 under_way_.front().front());
    }

    void send_batch() {
        batch numbers;
        json lines = json::array();
        size_t bytes = 0;
        while (!source_.lines.empty() && numbers.size() < lines_of_request &&
               bytes < bytes_of_request) {
            numbered_line line = std::move(source_.lines.front());
            source_.lines.pop_front();
            if (line.text.size() > longest_line) {
                fail(line.number, EMSGSIZE, "the line is too long");
                continue;
            }
            bytes += line.text.size();
            numbers.push_back(line.number);
            lines.push_back(std::move(line.text));
        }
        if (numbers.empty()) {
            return;
        }
        if (under_way_.empty()) {
            last_answer_ = clock::now();
        }
        socket_.send("lines", {{"lines", std::move(lines)}});
        under_way_.push_back(std::move(numbers));
    }

    void take_answers() {
        while (std::optional<answer> a = socket_.next_answer()) {
            if (under_way_.empty()) {
                throw failure(exit_code::failed, "mfwd6d gave an answer that nobody asked for");
            }
            take(*a, under_way_.front());
            under_way_.pop_front();
            last_answer_ = clock::now();
        }
    }

    void take(const answer &a, const batch &numbers) {
        done_ += numbers.size();
        if (a.code != 0) {
            for (const uint64_t number : numbers) {
                fail(number, a.code, a.text);
            }
            return;
        }
        accepted_ += a.result.value("accepted", uint64_t{0});
        for (const json &one : a.result.value("failed", json::array())) {
            const auto index = one.value("index", numbers.size());
            fail(index < numbers.size() ? numbers[index] : 0, one.value("code", 0U),
                 one.value("text", std::string()));
        }
    }

    void fail(uint64_t line, uint32_t code, const std::string &text) {
        ++failed_;
        failures_.push_back({line, code, text.empty() ? cerr_strerror(code) : text});
    }

    void check_patience() {
        if (under_way_.empty() || seconds_since(last_answer_) < timeout_s_) {
            return;
        }
        bar_.end();
        throw failure(exit_code::absent,
                      fmt::format("mfwd6d has not answered for {} s. {}", timeout_s_, extent()));
    }

    void draw() {
        const double part = source_.size() != 0 ? static_cast<double>(source_.bytes_read()) /
                                                      static_cast<double>(source_.size())
                                                : -1;
        const double seconds = seconds_since(begin_);
        bar_.draw(part,
                  fmt::format("{} lines  {:.0f}/s  {} failed", done_,
                              seconds > 0 ? static_cast<double>(done_) / seconds : 0, failed_));
    }

    double rate() const { return seconds_ > 0 ? static_cast<double>(accepted_) / seconds_ : 0; }

    json to_json() const {
        json j;
        j["lines"] = done_;
        j["accepted"] = accepted_;
        j["failed"] = json::array();
        for (const line_failure &f : failures_) {
            j["failed"].push_back({{"line", f.line}, {"code", f.code}, {"text", f.text}});
        }
        j["seconds"] = seconds_;
        j["rate"] = rate();
        j["interrupted"] = stopped_;
        return j;
    }

    void write_text() const {
        for (size_t n = 0; n < failures_.size() && n < shown_failures; ++n) {
            fmt::print(stderr, "{}:{}: {}\n", source_.name(), failures_[n].line, failures_[n].text);
        }
        if (failures_.size() > shown_failures) {
            fmt::print(stderr, "{} more lines failed; --json tells of all\n",
                       failures_.size() - shown_failures);
        }
        put(fmt::format("{} lines accepted, {} failed, in {:.2f} s ({:.0f} a second){}\n",
                        accepted_, failed_, seconds_, rate(),
                        stopped_ ? "; interrupted: the rest was not sent" : ""));
    }

    command_socket socket_;
    line_source source_;
    double timeout_s_;
    progress_bar bar_;
    clock::time_point begin_ = clock::now();
    clock::time_point last_answer_ = clock::now();
    std::deque<batch> under_way_;
    std::vector<line_failure> failures_;
    uint64_t done_ = 0;
    uint64_t accepted_ = 0;
    uint64_t failed_ = 0;
    double seconds_ = 0;
    bool stopped_ = false;
};

}  // namespace

void add_load(CLI::App &program, const options &how) {
    auto r = std::make_shared<request>();
    CLI::App *command = program.add_subcommand("load", "Load configuration lines from a file");
    command->add_option("file", r->path, "File, or \"-\" for standard input")
        ->required()
        ->type_name("FILE");
    command->add_flag("--progress", r->progress, "Draw a bar, terminal or not");
    command->add_flag("--no-progress", r->no_progress, "Draw no bar");
    command->footer(
        "The lines are those of mfwd6d.conf(5). Each is taken or refused by itself; those that "
        "were\n"
        "refused are listed at the end, by file and line. ^C sends no more lines and waits for "
        "the\n"
        "answers that are due; a second ^C ends at once.\n\n"
        "Examples:\n"
        "  mfwd6ctl load routes.conf\n"
        "  make-routes | mfwd6ctl load -");
    command->callback([r, &how] {
        loader l(how, *r);
        l.run();
        l.report(how.json);
    });
}

}  // namespace ctl
