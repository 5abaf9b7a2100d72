#ifndef VIRTUSB_HOST_CMD_STREAM_STREAM_RUN_H
#define VIRTUSB_HOST_CMD_STREAM_STREAM_RUN_H

#include <cstdint>
#include <optional>
#include <string>

#include "cmd/stream/GuestCamera.h"
#include "cmd/stream/PictureSize.h"
#include "cmd/stream/StreamOutputs.h"
#include "cmd/stream/StreamReport.h"
#include "remote/RemoteDevice.h"
#include "remote/StopSignal.h"

namespace vel {

struct StreamOptions {
  std::optional<PictureSize> size;  // Otherwise the camera's choice.
  std::uint64_t frames = 0;         // 0: no limit. Without either limit until interrupted.
  double seconds = 0;               // The same.
  double silence = 5;               // Seconds without a picture after which the camera has failed.
  bool untouched = false;           // Raw pictures stay raw.
  std::string file;                 // Empty: the pictures are only counted.
  std::string snapshot;             // Empty: none.
};

// Streams the camera behind `remote` until enough has come or `stop` is raised, and gives it back. Says on standard
// error how it goes. Throws Interrupted when no picture had come by then, RemoteError when the camera fails, and what
// GuestCamera::Negotiate and `outputs` do.
StreamResult StreamCamera(GuestCamera& camera, RemoteDevice& remote, const StreamOptions& options,
                          StreamOutputs& outputs, const StopSignal& stop);

}  // namespace vel

#endif
