#include "StreamWriter.h"

#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace vel {

StreamWriter::StreamWriter(TimedPipeline& pipeline, const std::string& path)
    : mPipeline(pipeline), mPath(path), mFile(OpenFile(path, "w")) {
  if (mFile == nullptr) {
    throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  }
  mThread = std::thread([this] { Run(); });
}

void StreamWriter::Run() {
  while (const UVCFramePtr frame = mPipeline.Dequeue(std::numeric_limits<int>::max())) {
    if (std::fwrite(frame->data, 1, frame->length, mFile.get()) != frame->length) {
      mFailed = true;
    }
    ++mFrames;
    mBytes += frame->length;
  }
}

void StreamWriter::Stop() {
  mPipeline.Release();
  if (mThread.joinable()) {
    mThread.join();
  }
}

void StreamWriter::Finish() {
  Stop();
  if (std::fclose(mFile.release()) != 0 || mFailed) {
    throw std::runtime_error("cannot write all of " + mPath);
  }
}

}  // namespace vel
