#include "apps/mfwd6ctl/output/progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace ctl {
namespace {

constexpr auto pause = std::chrono::milliseconds(100);
constexpr size_t cells = 30;

std::string bar_of(double part) {
    const auto full = static_cast<size_t>(std::clamp(part, 0.0, 1.0) * cells);
    return fmt::format("[{}{}] {:3.0f}%", std::string(full, '#'), std::string(cells - full, '-'),
                       std::clamp(part, 0.0, 1.0) * 100);
}

}  // namespace

void progress_bar::draw(double part, const std::string &text) {
    const auto now = std::chrono::steady_clock::now();
    if (!shown_ || (drawn_ && now - last_ < pause)) {
        return;
    }
    fmt::print(stderr, "\r\033[K{}{}", part < 0 ? "" : bar_of(part) + "  ", text);
    std::fflush(stderr);
    drawn_ = true;
    last_ = now;
}

void progress_bar::end() {
    if (drawn_) {
        fmt::print(stderr, "\r\033[K");
        drawn_ = false;
    }
}

}  // namespace ctl
