#ifndef OSKELO_CAMERA_SOURCE_H
#define OSKELO_CAMERA_SOURCE_H

#include <cstdint>
#include <span>
#include <vector>

#include "oskelo/camera.h"

namespace oskelo {

// Takes pictures from a source. The thread of CameraSource::Stream.
class PictureSink {
 public:
  PictureSink() = default;
  PictureSink(const PictureSink&) = delete;
  PictureSink& operator=(const PictureSink&) = delete;
  virtual ~PictureSink() = default;
  // The bytes are valid during the call, and the sink's to change.
  virtual void OnPicture(std::span<std::uint8_t> picture) = 0;
};

// One opened source of pictures. Logs its own failures.
//
// Select, Arm and Stream are never called at the same time; Stop and Params may come from any
// thread at any time.
class CameraSource {
 public:
  CameraSource() = default;
  CameraSource(const CameraSource&) = delete;
  CameraSource& operator=(const CameraSource&) = delete;
  virtual ~CameraSource() = default;

  // Fixed and not empty. Valid as long as this object; not const because the C interface hands it
  // out so.
  std::vector<_CameraParam>& Params() { return mParams; }

  // Makes the next stream deliver this entry of Params. False on failure.
  virtual bool Select(const _CameraParam& param) = 0;
  // Delivers pictures until stopped (true) or until the source fails (false).
  virtual bool Stream(PictureSink& sink) = 0;
  // Ends the stream soon, and every later one at once until armed.
  virtual void Stop() = 0;
  virtual void Arm() = 0;

 protected:
  std::vector<_CameraParam> mParams;  // Filled before the source is handed out.
};

inline constexpr std::uint32_t kMaxDimension = 8192;  // Pixels; no camera exceeds it, broken files do.

}  // namespace oskelo

#endif
