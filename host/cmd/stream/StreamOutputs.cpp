#include "cmd/stream/StreamOutputs.h"

#include <utility>

#include "cmd/stream/PictureBytes.h"

namespace vel {

StreamOutputs::StreamOutputs(const std::string& file, const std::string& snapshot) {
  if (!file.empty()) {
    mFile.emplace(file);
  }
  if (!snapshot.empty()) {
    mSnapshotFile.emplace(snapshot);
  }
}

void StreamOutputs::Take(PictureFormat format, std::vector<std::uint8_t> picture) {
  if (mFile) {
    mFile->Write(picture);
  }
  if (mSnapshotFile && IsKeyPicture(format, picture)) {
    mSnapshot.Keep(format, std::move(picture));
  }
}

void StreamOutputs::Finish(const PictureSize& size) {
  if (mFile) {
    mFile->Close();
  }
  if (mSnapshotFile) {
    mSnapshot.WritePng(*mSnapshotFile, size);
  }
}

}  // namespace vel
