#include "OpenSource.h"

#include <cstdlib>

#include "CameraLog.h"
#include "CaptureDevices.h"
#include "FileSource.h"
#include "TestSource.h"
#include "vel/Mutex.h"

namespace oskelo {
namespace {

constexpr char kTest[] = "test";

struct DefaultSource {
  vel::Mutex mutex;
  std::string source VEL_GUARDED_BY(mutex);
};

DefaultSource& Default() {
  static DefaultSource instance;
  return instance;
}

std::string Resolve(const std::string& id) {
  if (!id.empty()) {
    return id;
  }
  DefaultSource& chosen = Default();
  {
    const vel::MutexLock lock(chosen.mutex);
    if (!chosen.source.empty()) {
      return chosen.source;
    }
  }
  const char* fromEnvironment = std::getenv(OSKELO_CAMERA_SOURCE_VARIABLE);
  if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
    return fromEnvironment;
  }
  return FirstCaptureDevice();
}

}  // namespace

void SetDefaultSource(const std::string& source) {
  DefaultSource& chosen = Default();
  const vel::MutexLock lock(chosen.mutex);
  chosen.source = source;
}

std::unique_ptr<CameraSource> OpenSource(const std::string& id, const std::atomic<bool>& cancelled) {
  const std::string name = Resolve(id);
  if (name.empty()) {
    CAMERA_ERROR(id, "no camera was found; name a device, a file or \"test\" in " OSKELO_CAMERA_SOURCE_VARIABLE);
    return nullptr;
  }
  if (name == kTest) {
    return std::make_unique<TestSource>();
  }
  if (IsCaptureDevice(name)) {
    return OpenCaptureDevice(name);
  }
  return FileSource::Open(name, cancelled);
}

}  // namespace oskelo
