#ifndef VIRTUSB_HOST_OBSERVE_OBSERVER_H
#define VIRTUSB_HOST_OBSERVE_OBSERVER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "observe/CaptureFile.h"
#include "observe/DeviceTap.h"
#include "observe/ReportSignal.h"
#include "vel/Mutex.h"

namespace vel {

// What a process observes of the devices that it redirects: a capture, and figures, of each device, at an interval and
// when SIGUSR1 asks for them. One in a process; it outlives what it watches.
class Observer {
 public:
  struct Options {
    std::string capture;  // The file; empty: none.
    std::uint32_t captureBytes = kCaptureBytes;
    std::chrono::milliseconds interval{0};              // 0: figures only when asked for.
    std::function<void(const DeviceFigures&)> show;     // On the observer's thread and the destructor's.
    std::function<void(const std::string& line)> note;  // For people. Any thread.
  };

  // Throws std::runtime_error when the capture cannot be written.
  explicit Observer(Options options);
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;
  // With an interval, the figures of what has come since the last time are shown.
  ~Observer();

  // Any thread. A device is shown for as long as its tap is there, and once more.
  std::shared_ptr<DeviceTap> Watch(std::string device) VEL_EXCLUDES(mMutex);

 private:
  void Run();
  void Show() VEL_EXCLUDES(mMutex);

  const Options mOptions;
  std::optional<CaptureFile> mCapture;
  Mutex mMutex;
  std::vector<std::shared_ptr<DeviceTap>> mTaps VEL_GUARDED_BY(mMutex);
  const ReportSignal mAsked;
  const StopSignal mEnd;
  std::thread mThread;
};

}  // namespace vel

#endif
