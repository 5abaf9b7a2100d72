#include <charconv>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include "CameraLog.h"
#include "CaptureDevices.h"
#include "V4l2Device.h"
#include "V4l2Source.h"

namespace oskelo {
namespace {

constexpr std::string_view kPrefix = "/dev/video";

// N of /dev/videoN.
std::optional<unsigned> NumberOf(std::string_view name) {
  unsigned number = 0;
  if (!name.starts_with(kPrefix)) {
    return std::nullopt;
  }
  const char* end = name.data() + name.size();
  const auto [parsed, error] = std::from_chars(name.data() + kPrefix.size(), end, number);
  return error == std::errc() && parsed == end ? std::optional(number) : std::nullopt;
}

bool Captures(const std::string& name) {
  int error = 0;
  const std::unique_ptr<V4l2Device> device = V4l2Device::Open(name, error);
  return device != nullptr && V4l2Source::Captures(*device);
}

}  // namespace

bool IsCaptureDevice(const std::string& name) {
  return NumberOf(name).has_value();
}

std::string FirstCaptureDevice() {
  std::optional<unsigned> first;
  std::error_code error;
  for (auto entry = std::filesystem::directory_iterator("/dev", error);
       !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().string();
    const std::optional<unsigned> number = NumberOf(name);
    if (number && (!first || *number < *first) && Captures(name)) {
      first = number;
    }
  }
  return first ? std::string(kPrefix) + std::to_string(*first) : std::string();
}

std::unique_ptr<CameraSource> OpenCaptureDevice(const std::string& name) {
  int error = 0;
  std::unique_ptr<V4l2Device> device = V4l2Device::Open(name, error);
  if (device == nullptr) {
    CAMERA_ERROR(name, "%s", std::generic_category().message(error).c_str());
    return nullptr;
  }
  return V4l2Source::Create(name, std::move(device));
}

}  // namespace oskelo
