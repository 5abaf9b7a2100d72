#ifndef OSKELO_CAMERA_V4L2_DEVICE_H
#define OSKELO_CAMERA_V4L2_DEVICE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace oskelo {

// What the kernel does for an open capture device, and no more.
//
// One thread at a time, but for Wake.
class V4l2Device {
 public:
  enum class Event : std::uint8_t { kPicture, kWoken };

  // Null and `error` (an errno value) when the device cannot be opened.
  static std::unique_ptr<V4l2Device> Open(const std::string& path, int& error);

  V4l2Device() = default;
  V4l2Device(const V4l2Device&) = delete;
  V4l2Device& operator=(const V4l2Device&) = delete;
  virtual ~V4l2Device() = default;

  // 0 or a negative errno value.
  virtual int Ioctl(unsigned long request, void* argument) = 0;
  // Null when it fails.
  virtual void* Map(std::size_t length, std::uint32_t offset) = 0;
  virtual void Unmap(void* memory, std::size_t length) = 0;
  // Waits until there is a picture, or an error, to fetch, or until woken; waking holds until
  // ClearWake.
  virtual Event Wait() = 0;
  // Any thread.
  virtual void Wake() = 0;
  virtual void ClearWake() = 0;
};

}  // namespace oskelo

#endif
