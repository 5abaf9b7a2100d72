#ifndef VIRTUSB_HOST_OBSERVE_CAPTURE_FILE_H
#define VIRTUSB_HOST_OBSERVE_CAPTURE_FILE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "observe/UsbmonRecord.h"
#include "os/Files.h"
#include "remote/StopSignal.h"
#include "vel/Mutex.h"

namespace vel {

// A file of what crosses, for all devices of the process. Records are put into blocks of memory, which a thread of the
// file's own writes: nobody waits for the disk. What is more than the blocks hold is left out, and counted. The file
// holds whole records at any time, the latest a moment after they came; one on which nothing more can be written keeps
// what it has, which is told once.
class CaptureFile {
 public:
  // Overwrites what is there; a FIFO must have its reader. `dataLimit` cuts each record's data, in bytes. `note` takes
  // lines for people, on the file's thread and the destructor's. Throws std::runtime_error when the file cannot be
  // opened. From here on the process ignores SIGXFSZ.
  CaptureFile(const std::string& path, std::uint32_t dataLimit, std::function<void(const std::string&)> note);
  CaptureFile(const CaptureFile&) = delete;
  CaptureFile& operator=(const CaptureFile&) = delete;
  // Writes what waits, and the counts. Nothing is written any more by others.
  ~CaptureFile();

  // The number by which a device's records are written. Any thread.
  std::uint32_t AddInterface(std::string_view name) VEL_EXCLUDES(mMutex);
  // Any thread. Records are stamped in the order in which they come.
  void Write(std::uint32_t interface, const UsbEvent& event) VEL_EXCLUDES(mMutex);

 private:
  struct Block {
    std::unique_ptr<std::uint8_t[]> bytes;
    std::size_t used = 0;
  };
  struct Counts {
    std::uint64_t received = 0;
    std::uint64_t dropped = 0;
  };

  CaptureTime Now() const;
  // Room for `count` bytes behind what waits; empty when there is none, unless they are needed.
  std::span<std::uint8_t> Reserve(std::size_t count, bool needed) VEL_REQUIRES(mMutex);
  void Run() VEL_EXCLUDES(mMutex);
  // Gives the last batch's memory back, and waits for the next; false at the end.
  bool Await(std::vector<Block>& batch) VEL_EXCLUDES(mMutex);
  bool HasDropped() VEL_EXCLUDES(mMutex);
  std::vector<std::uint8_t> Statistics() VEL_EXCLUDES(mMutex);
  // Of blocks that cannot be written to their end, the whole ones stay in the file.
  void WriteBlocks(std::span<const std::uint8_t> blocks) VEL_EXCLUDES(mMutex);

  const std::string mPath;
  const std::uint32_t mDataLimit;
  const std::function<void(const std::string&)> mNote;
  const WrittenFile mFile;
  const std::chrono::system_clock::time_point mWallStart = std::chrono::system_clock::now();
  const std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
  const StopSignal mHurry;  // At the end: a FIFO's reader that takes nothing is waited for no longer.

  // The file's thread, and after it the destructor.
  std::int64_t mWritten = 0;  // Bytes.
  std::uint64_t mLost = 0;    // Records that were to be written when nothing could be any more.
  int mError = 0;             // An errno, from then on.
  bool mToldDropped = false;

  Mutex mMutex;
  CondVar mWork;
  bool mEnding VEL_GUARDED_BY(mMutex) = false;
  bool mFailed VEL_GUARDED_BY(mMutex) = false;
  std::vector<Block> mFilled VEL_GUARDED_BY(mMutex);  // The last one has room.
  std::vector<Block> mSpare VEL_GUARDED_BY(mMutex);
  std::size_t mBlocks VEL_GUARDED_BY(mMutex) = 0;      // There are in all.
  std::vector<Counts> mCounts VEL_GUARDED_BY(mMutex);  // Of each interface.
  std::thread mThread;
};

}  // namespace vel

#endif
