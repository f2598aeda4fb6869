// The end of flow entries.
#ifndef MFWD6_PLATFORMS_LINUX_AGEING_H
#define MFWD6_PLATFORMS_LINUX_AGEING_H

namespace mfwd6::lnx {

// Ends held entries and idle flows among the next few thousand slots.
void age_flows();

// Ends a held entry that is about the oldest, for room.
void end_oldest_held();

}  // namespace mfwd6::lnx

#endif
