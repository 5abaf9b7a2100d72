#ifndef VIRTUSB_TOOLS_TRANSCODE_STREAM_WRITER_H
#define VIRTUSB_TOOLS_TRANSCODE_STREAM_WRITER_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "TimedPipeline.h"
#include "os/Files.h"

namespace vel {

// The pipeline's consumer: a thread that writes what comes out to a file, until the pipeline is
// released.
class StreamWriter {
 public:
  // Throws std::runtime_error when the file cannot be opened. The pipeline outlives the writer.
  StreamWriter(TimedPipeline& pipeline, const std::string& path);
  StreamWriter(const StreamWriter&) = delete;
  StreamWriter& operator=(const StreamWriter&) = delete;
  ~StreamWriter() { Stop(); }

  // Releases the pipeline and waits for the thread.
  void Stop();
  // Stops, and throws std::runtime_error unless everything was written.
  void Finish();

  std::uint32_t Frames() const { return mFrames; }
  std::uint64_t Bytes() const { return mBytes; }

 private:
  void Run();

  TimedPipeline& mPipeline;
  const std::string mPath;
  FileHandle mFile;
  std::atomic<std::uint32_t> mFrames{0};
  std::atomic<std::uint64_t> mBytes{0};
  std::atomic<bool> mFailed{false};
  std::thread mThread;
};

}  // namespace vel

#endif
