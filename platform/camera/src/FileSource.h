#ifndef OSKELO_CAMERA_FILE_SOURCE_H
#define OSKELO_CAMERA_FILE_SOURCE_H

#include <atomic>
#include <memory>
#include <string>

#include "CameraSource.h"
#include "MediaPass.h"
#include "Pacer.h"

namespace oskelo {

// A file or an address that FFmpeg reads, from the start and again from the start, at its own rate
// and size.
//
// Each round opens it anew, so that every format starts over at its first picture and a live source
// is taken up again.
class FileSource final : public CameraSource {
 public:
  // Null after an Error line: it cannot be read, or has no picture.
  static std::unique_ptr<FileSource> Open(const std::string& name, const std::atomic<bool>& cancelled);

  bool Select(const _CameraParam& param) override;
  bool Stream(PictureSink& sink) override;
  void Stop() override { mPacer.Stop(); }
  void Arm() override { mPacer.Arm(); }

 private:
  explicit FileSource(std::string name) : mName(std::move(name)) {}
  // Opens a round and goes to its first picture. False after an Error line, unless stopped.
  bool BeginRound(std::chrono::milliseconds limit);
  // Plays the round to its end, or until stopped. Returns how many pictures it delivered.
  std::size_t PlayRound(PictureSink& sink);

  const std::string mName;
  Pacer mPacer;
  ReadLimit mLimit;
  std::unique_ptr<MediaPass> mPass;  // At its first picture between opening and streaming.
};

}  // namespace oskelo

#endif
