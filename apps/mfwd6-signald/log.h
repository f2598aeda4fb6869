// What the packet path tells the operator: lines on standard error, which the keeper's log is.
#ifndef MFWD6_SIGNALD_LOG_H
#define MFWD6_SIGNALD_LOG_H

namespace mfwd6::signald {

// Writes one line, in one piece. Any thread.
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace mfwd6::signald

#endif
