#ifndef VIRTUSB_HOST_CMD_SERVE_ATTACHED_DEVICE_H
#define VIRTUSB_HOST_CMD_SERVE_ATTACHED_DEVICE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "cmd/serve/Retry.h"
#include "far/FarDevice.h"
#include "far/UsbipLink.h"
#include "remote/FdStream.h"

namespace vel {

// One device on this machine's bus, on a thread of its own. When it is gone it leaves the bus; where it may come back,
// it is tried again, and plugged in at whichever port is free then.
class AttachedDevice {
 public:
  struct Ways {
    // Reaches the device; throws std::runtime_error where that fails. Once `stop` is raised it takes no time.
    std::function<std::unique_ptr<FarDevice>(const StopSignal& stop)> open;
    // Plugs one of this speed in, as Vhci::Attach does.
    std::function<UniqueFd(std::uint32_t speed, unsigned& port)> plug;
    std::function<void(const UniqueFd& connection, unsigned port)> unplug;
    std::function<std::optional<Retry>()> retry;  // For each time it is gone; none where it is so for good.
    std::function<void(const std::string&)> note;
    std::function<void()> onEnd;  // It does not come back. On its thread.
  };

  // Tries until one is reached or there are no tries left: throws what the last one did then, and Interrupted once
  // stopped. `onFirstFailure` hears of the first of several.
  static std::unique_ptr<FarDevice> Reach(const Ways& ways, std::optional<Retry>& retry, const StopSignal& stop,
                                          const std::function<void(const std::string& why)>& onFirstFailure = nullptr);

  // Plugs the device in. `end` ends it, and outlives it. Throws what `plug` does.
  AttachedDevice(std::string name, std::unique_ptr<FarDevice> device, Ways ways, const StopSignal& end);
  AttachedDevice(const AttachedDevice&) = delete;
  AttachedDevice& operator=(const AttachedDevice&) = delete;
  ~AttachedDevice() { Join(); }

  void Join();
  const std::string& Name() const { return mName; }
  // Where it was plugged in last. Any thread.
  unsigned Port() const { return mPort; }
  // It was not the guest or `end` that ended it. After Join.
  bool WasLost() const { return mLast == UsbipLink::End::kDeviceGone; }

 private:
  using Clock = std::chrono::steady_clock;

  // What there is between plugging in and the end of the connection.
  struct Plugged {
    Plugged(AttachedDevice& owner, std::unique_ptr<FarDevice> reached);
    const std::unique_ptr<FarDevice> device;
    const UniqueFd kernel;
    UsbipLink link;
  };

  void Run();
  UsbipLink::End RunOnce();
  bool ComesBack();

  const std::string mName;
  const Ways mWays;
  const StopSignal& mEnd;
  std::atomic<unsigned> mPort{0};
  std::unique_ptr<Plugged> mPlugged;  // The thread's, once it runs.
  Clock::time_point mPluggedAt = Clock::now();
  std::optional<Retry> mRetry;  // Of this loss, and of those before that it hardly came back from.
  UsbipLink::End mLast = UsbipLink::End::kStopped;
  std::thread mThread;
};

}  // namespace vel

#endif
