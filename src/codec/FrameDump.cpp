#include "codec/FrameDump.h"

#include "base/VelLog.h"

namespace vel {

bool FrameDump::Open(const char* path) {
  const MutexLock lock(mMutex);
  mFile.reset();  // First: it may be the same file, whose last bytes are written now.
  mFile.reset(std::fopen(path, "wb"));
  if (mFile == nullptr) {
    VEL_ERROR("cannot open %s for the frames", path);
  }
  return mFile != nullptr;
}

void FrameDump::Close() {
  const MutexLock lock(mMutex);
  mFile.reset();
}

void FrameDump::Write(const std::uint8_t* data, std::uint32_t length) {
  const MutexLock lock(mMutex);
  if (mFile != nullptr && data != nullptr && std::fwrite(data, 1, length, mFile.get()) != length) {
    VEL_ERROR("cannot write %u bytes of frames, the dump ends", length);
    mFile.reset();
  }
}

}  // namespace vel
