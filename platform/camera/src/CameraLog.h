// One line per failure: which camera, and what is wrong with it.
#ifndef OSKELO_CAMERA_LOG_H
#define OSKELO_CAMERA_LOG_H

#include "oskelo/log.h"

#define CAMERA_ERROR(id, format, ...) \
  oskeloLogPrint(0, OSKELO_LOG_ERROR, "VEL_CAMERA", "camera \"%s\": " format, (id).c_str() __VA_OPT__(, ) __VA_ARGS__)

#endif
