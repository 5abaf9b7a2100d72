#ifndef VEL_CODEC_FRAME_DUMP_H
#define VEL_CODEC_FRAME_DUMP_H

#include <cstdint>
#include <cstdio>
#include <memory>

#include "base/LockOrder.h"

namespace vel {

// A file that a stream's frames are written to back to back, while it is open. Any thread.
class FrameDump {
 public:
  // Replaces the file. A file that was open is closed. False, with an Error line, when it cannot be opened.
  bool Open(const char* path);
  void Close();

  // Does nothing while closed.
  void Write(const std::uint8_t* data, std::uint32_t length);

 private:
  struct FileCloser {
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
  };
  using File = std::unique_ptr<std::FILE, FileCloser>;

  Mutex mMutex VEL_LOCK_LEVEL(Leaf);
  File mFile VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
