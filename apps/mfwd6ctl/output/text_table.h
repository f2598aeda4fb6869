// Columns for people.
#ifndef MFWD6_APPS_MFWD6CTL_TEXT_TABLE_H
#define MFWD6_APPS_MFWD6CTL_TEXT_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

namespace ctl {

// Lines up cells under headings. Rows are written in blocks, so that a long table begins to appear
// at once and takes little memory; columns only ever grow.
class text_table {
  public:
    // A heading that begins with '>' makes its column line up on the right.
    explicit text_table(std::vector<std::string> headings);

    void add(std::vector<std::string> row);

    // Writes what was not written yet; the headings too, even without a row.
    void end();

  private:
    void write_block();
    void write_row(const std::vector<std::string> &row);

    std::vector<std::string> headings_;
    std::vector<bool> right_;
    std::vector<size_t> widths_;
    std::vector<std::vector<std::string>> block_;
    bool begun_ = false;
};

}  // namespace ctl

#endif
