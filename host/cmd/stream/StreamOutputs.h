#ifndef VIRTUSB_HOST_CMD_STREAM_STREAM_OUTPUTS_H
#define VIRTUSB_HOST_CMD_STREAM_STREAM_OUTPUTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cmd/stream/PictureFile.h"
#include "cmd/stream/PictureSize.h"
#include "cmd/stream/Snapshot.h"
#include "remote/CameraModel.h"

namespace vel {

// Files that a stream's pictures go to. One thread. Everything throws std::runtime_error that names the file.
class StreamOutputs {
 public:
  // Opens the file of all pictures and the one of the snapshot; an empty path is none.
  StreamOutputs(const std::string& file, const std::string& snapshot);

  // Takes a picture over.
  void Take(PictureFormat format, std::vector<std::uint8_t> picture);
  // Writes the snapshot. `size` is that of raw pictures.
  void Finish(const PictureSize& size);

 private:
  std::optional<PictureFile> mFile;
  std::optional<PictureFile> mSnapshotFile;
  Snapshot mSnapshot;
};

}  // namespace vel

#endif
