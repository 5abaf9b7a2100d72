#ifndef VEL_PROCESSORS_H
#define VEL_PROCESSORS_H

#include "vel/vel_utils_export.h"

namespace vel {

// The processors that the calling thread may use at a time, at least 1: at most those that it is bound to, at most its
// control group's share. Any thread.
VEL_UTILS_EXPORT unsigned UsableProcessors();

}  // namespace vel

#endif
