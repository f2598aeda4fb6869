// The bytes of one fuzzing input, read as small choices. Behind its end all choices are 0.
#ifndef MFWD6_TESTS_FUZZ_OPERATIONS_INPUT_H
#define MFWD6_TESTS_FUZZ_OPERATIONS_INPUT_H

#include <cstddef>
#include <cstdint>

namespace fuzz {

class input {
  public:
    input(const uint8_t *bytes, size_t size) : next_(bytes), end_(bytes + size) {}

    bool empty() const { return next_ == end_; }
    uint8_t byte() { return empty() ? 0 : *next_++; }
    bool flag() { return (byte() & 1) != 0; }

    // 0 to below - 1; 0 for an empty range, without a byte.
    size_t pick(size_t below) { return below == 0 ? 0 : byte() % below; }

  private:
    const uint8_t *next_;
    const uint8_t *end_;
};

}  // namespace fuzz

#endif
