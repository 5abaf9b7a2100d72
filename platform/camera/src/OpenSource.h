#ifndef OSKELO_CAMERA_OPEN_SOURCE_H
#define OSKELO_CAMERA_OPEN_SOURCE_H

#include <atomic>
#include <memory>
#include <string>

#include "CameraSource.h"

namespace oskelo {

// What the empty id stands for; "" for the first capture device. Any thread.
void SetDefaultSource(const std::string& source);

// The source that `id` names, ready to stream; null after an Error line. Gives up soon once
// `cancelled` is true, and after 2.5 seconds. `cancelled` outlives the call only. Any thread.
std::unique_ptr<CameraSource> OpenSource(const std::string& id, const std::atomic<bool>& cancelled);

}  // namespace oskelo

#endif
