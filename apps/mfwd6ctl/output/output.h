// Standard output. A failed write ends the command.
#ifndef MFWD6_APPS_MFWD6CTL_OUTPUT_H
#define MFWD6_APPS_MFWD6CTL_OUTPUT_H

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace ctl {

// Objects keep the order in which their fields were set.
using json = nlohmann::ordered_json;

// Writes to standard output. Never while a step (window/step.h) is under way: nobody knows how long
// a write takes. Throws failure when it cannot be written, or the operator has had enough.
void put(std::string_view text);
void flush_output();

// One document, with a line end.
void put_json(const json &document);

// An object with one array, {"NAME": [ELEMENT, ...]}, written element by element.
class json_array {
  public:
    explicit json_array(std::string_view name);
    void add(const json &element);
    void end();

  private:
    bool empty_ = true;
};

}  // namespace ctl

#endif
