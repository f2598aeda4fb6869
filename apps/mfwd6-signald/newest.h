// A queue that never fills: its oldest entries make room for new ones, and are counted.
//
// Thread-safety: none of its own.
#ifndef MFWD6_SIGNALD_NEWEST_H
#define MFWD6_SIGNALD_NEWEST_H

#include <cstddef>
#include <cstdint>
#include <deque>

namespace mfwd6::signald {

template <class T>
class newest {
  public:
    explicit newest(size_t room) : room_(room) {}

    void put(const T &entry) {
        if (entries_.size() == room_) {
            entries_.pop_front();
            ++dropped_;
        }
        entries_.push_back(entry);
    }

    bool empty() const { return entries_.empty(); }
    size_t size() const { return entries_.size(); }
    const T &oldest() const { return entries_.front(); }
    void take_oldest() { entries_.pop_front(); }

    // Entries that made room, ever.
    uint64_t dropped() const { return dropped_; }

  private:
    size_t room_;
    std::deque<T> entries_;
    uint64_t dropped_ = 0;
};

}  // namespace mfwd6::signald

#endif
