#include "cmd/serve/AttachedDevice.h"

#include <exception>
#include <utility>

#include "cmd/console/UsageError.h"
#include "remote/StopWatcher.h"

namespace vel {

std::unique_ptr<FarDevice> AttachedDevice::Reach(const Ways& ways, std::optional<Retry>& retry, const StopSignal& stop,
                                                 const std::function<void(const std::string& why)>& onFirstFailure) {
  for (bool first = true;; first = false) {
    try {
      return ways.open(stop);
    } catch (const UsageError&) {
      throw;
    } catch (const std::runtime_error& error) {
      const auto pause = retry ? retry->Next() : std::nullopt;
      if (stop.IsRaised() || !pause) {
        throw;
      }
      if (first && onFirstFailure) {
        onFirstFailure(error.what());
      }
      stop.WaitFor(kNoFd, 0, *pause);
    }
    if (stop.IsRaised()) {
      throw Interrupted();
    }
  }
}

AttachedDevice::Plugged::Plugged(AttachedDevice& owner, std::unique_ptr<FarDevice> reached)
    : device(std::move(reached)),
      kernel([&] {
        unsigned port = 0;
        UniqueFd fd = owner.mWays.plug(device->Facts().KernelSpeed(), port);
        owner.mPort = port;
        return fd;
      }()),
      link(kernel.Get(), *device, owner.mEnd) {}

AttachedDevice::AttachedDevice(std::string name, std::unique_ptr<FarDevice> device, Ways ways, const StopSignal& end)
    : mName(std::move(name)),
      mWays(std::move(ways)),
      mEnd(end),
      mPlugged(std::make_unique<Plugged>(*this, std::move(device))),
      mThread([this] { Run(); }) {}

void AttachedDevice::Join() {
  if (mThread.joinable()) {
    mThread.join();
  }
}

void AttachedDevice::Run() {
  do {
    mLast = RunOnce();
  } while (mLast == UsbipLink::End::kDeviceGone && ComesBack());
  mWays.onEnd();
}

UsbipLink::End AttachedDevice::RunOnce() {
  UsbipLink& link = mPlugged->link;
  const UsbipLink::End end = link.Run();
  if (end == UsbipLink::End::kGuestLeft || end == UsbipLink::End::kMalformed) {
    mWays.note(mName + " was detached by this machine" + (link.Error().empty() ? "" : ": " + link.Error()));
  } else if (end == UsbipLink::End::kFailed) {
    mWays.note(mName + ": ended, " + link.Error());
  }
  mWays.unplug(mPlugged->kernel, mPort);
  mPlugged.reset();
  return end;
}

bool AttachedDevice::ComesBack() {
  if (!mRetry || Clock::now() - mPluggedAt >= mRetry->Longest()) {  // Otherwise it comes back only to go again.
    mRetry = mWays.retry();
  }
  const auto pause = mRetry ? mRetry->Next() : std::nullopt;
  if (!pause || mEnd.IsRaised()) {
    return false;
  }
  mWays.note(mName + " is lost, trying again");
  mEnd.WaitFor(kNoFd, 0, *pause);
  if (mEnd.IsRaised()) {
    return false;
  }
  try {
    mPlugged = std::make_unique<Plugged>(*this, Reach(mWays, mRetry, mEnd));
    mPluggedAt = Clock::now();
  } catch (const std::exception& error) {
    if (!mEnd.IsRaised()) {
      mWays.note(mName + " is given up: " + error.what());
    }
    return false;
  }
  mWays.note(mName + " is back on port " + std::to_string(mPort));
  return true;
}

}  // namespace vel
