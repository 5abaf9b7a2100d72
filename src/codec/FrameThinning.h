#ifndef VEL_CODEC_FRAME_THINNING_H
#define VEL_CODEC_FRAME_THINNING_H

#include <cstddef>
#include <cstdint>

#include "base/VelLog.h"

namespace vel {

// More frames than this in a list and it is thinned before the next one is added.
inline constexpr std::size_t kFrameListLimit = 3;
inline constexpr std::uint32_t kFrameListCacheSize = 1;

// Of each group of frames the first one stays and the others are erased, with groups so large that about `cacheSize` of
// them fill the list. What does not fill a group stays too, and so does the front frame always. `List` is a sequence
// that owns its frames; `queue` names it in the log.
template <class List>
void ThinFrames(std::uint32_t cacheSize, List& list, const char* queue) {
  const std::size_t count = list.size();
  std::size_t interval = 1;
  for (std::size_t k = 1; k < count; ++k) {
    if (count / k <= cacheSize) {
      interval = k - 1;
      VEL_DEBUG("[UVC tuning] Output frame list size:%lu, cache size: %u, interval: %d\n",
                static_cast<unsigned long>(count), cacheSize, static_cast<int>(interval));
      break;
    }
  }
  if (list.empty()) {
    return;
  }
  const std::size_t groups = count / (interval + 1);
  auto place = list.begin();
  for (std::size_t group = 0; group < groups; ++group) {
    ++place;
    for (std::size_t i = 0; i < interval; ++i) {
      if (place == list.end()) {
        VEL_DEBUG("UVC: reach frame list end:%d, %d \n", static_cast<int>(group), static_cast<int>(i));
        break;
      }
      place = list.erase(place);
    }
  }
  VEL_DEBUG("UVC: %s queue size after resize: %lu \n", queue, static_cast<unsigned long>(list.size()));
}

}  // namespace vel

#endif
