#include "oskelo/camera.h"

#include <exception>
#include <map>
#include <memory>
#include <string>

#include "Camera.h"
#include "CameraLog.h"
#include "OpenSource.h"
#include "vel/Mutex.h"

static_assert(sizeof(_CameraParam) == 16);

namespace oskelo {
namespace {

struct Registry {
  vel::Mutex mutex;
  std::map<std::string, std::shared_ptr<Camera>, std::less<>> cameras VEL_GUARDED_BY(mutex);
};

Registry& Cameras() {
  // Never destroyed: a thread may still capture while the process exits.
  static auto* const registry = new Registry;
  return *registry;
}

std::string Text(const char* id) {
  return id == nullptr ? std::string() : std::string(id);
}

std::shared_ptr<Camera> FindOpen(const char* id) {
  Registry& registry = Cameras();
  const vel::MutexLock lock(registry.mutex);
  const auto found = registry.cameras.find(id == nullptr ? "" : id);
  return found == registry.cameras.end() ? nullptr : found->second;
}

std::shared_ptr<Camera> Find(const char* id) {
  std::shared_ptr<Camera> camera = FindOpen(id);
  if (camera == nullptr) {
    CAMERA_ERROR(Text(id), "is not open");
  }
  return camera;
}

void Remove(const std::string& id, const std::shared_ptr<Camera>& camera) {
  Registry& registry = Cameras();
  const vel::MutexLock lock(registry.mutex);
  const auto found = registry.cameras.find(id);
  if (found != registry.cameras.end() && found->second == camera) {
    registry.cameras.erase(found);
  }
}

}  // namespace
}  // namespace oskelo

extern "C" {

void CamSetDefaultSource(const char* source) {
  oskelo::SetDefaultSource(oskelo::Text(source));
}

int CamOpen(const char* id) try {
  const std::string name = oskelo::Text(id);
  const auto camera = std::make_shared<oskelo::Camera>(name);
  {
    oskelo::Registry& registry = oskelo::Cameras();
    const vel::MutexLock lock(registry.mutex);
    if (!registry.cameras.emplace(name, camera).second) {
      CAMERA_ERROR(name, "is open already");
      return -1;
    }
  }
  const int result = camera->Open();
  if (result < 0) {
    oskelo::Remove(name, camera);
  }
  return result;
} catch (const std::exception&) {  // No memory. Nothing throws through the interface.
  return -1;
}

int CamClose(const char* id) {
  const auto camera = oskelo::FindOpen(id);
  if (camera == nullptr) {
    return -1;  // Closing twice is no fault to report.
  }
  camera->Close();
  oskelo::Remove(oskelo::Text(id), camera);
  return 0;
}

int CamGetParamList(const char* id, _CameraParam** list, int* count) {
  const auto camera = oskelo::Find(id);
  return camera == nullptr ? -1 : camera->GetParamList(list, count);
}

int CamSetParam(const char* id, _CameraParam* param) {
  const auto camera = oskelo::Find(id);
  return camera == nullptr || param == nullptr ? -1 : camera->SetParam(*param);
}

int CamStreamOn(const char* id) {
  const auto camera = oskelo::Find(id);
  return camera == nullptr ? -1 : camera->StreamOn();
}

int CamStreamOff(const char* id) {
  const auto camera = oskelo::Find(id);
  return camera == nullptr ? -1 : camera->StreamOff();
}

void CamSetStreamCallback(const char* id, CamStreamCallback callback, void* context) {
  if (const auto camera = oskelo::FindOpen(id)) {
    camera->SetCallback(callback, context);
  }
}

}  // extern "C"
