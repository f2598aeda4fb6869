#include "apps/mfwd6ctl/output/text_table.h"

#include <algorithm>

#include "apps/mfwd6ctl/output/output.h"

namespace ctl {
namespace {

constexpr size_t rows_of_block = 256;
constexpr const char *gap = "  ";

// Characters, of UTF-8.
size_t width_of(const std::string &text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

}  // namespace

text_table::text_table(std::vector<std::string> headings) : headings_(std::move(headings)) {
    for (std::string &heading : headings_) {
        right_.push_back(heading.front() == '>');
        if (right_.back()) {
            heading.erase(0, 1);
        }
        widths_.push_back(width_of(heading));
    }
}

void text_table::add(std::vector<std::string> row) {
    row.resize(headings_.size());
    for (size_t column = 0; column < row.size(); ++column) {
        widths_[column] = std::max(widths_[column], width_of(row[column]));
    }
    block_.push_back(std::move(row));
    if (block_.size() == rows_of_block) {
        write_block();
    }
}

void text_table::end() {
    write_block();
}

void text_table::write_block() {
    if (!begun_) {
        write_row(headings_);
        begun_ = true;
    }
    for (const auto &row : block_) {
        write_row(row);
    }
    block_.clear();
}

void text_table::write_row(const std::vector<std::string> &row) {
    std::string line;
    for (size_t column = 0; column < row.size(); ++column) {
        const std::string padding(widths_[column] - width_of(row[column]), ' ');
        line += column == 0 ? "" : gap;
        line += right_[column] ? padding + row[column] : row[column] + padding;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    put(line + "\n");
}

}  // namespace ctl
