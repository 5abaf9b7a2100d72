#include "cmd/serve/AutoExport.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>
#include <variant>

#include "cmd/console/Format.h"
#include "cmd/console/Output.h"
#include "cmd/devices/DeviceChannel.h"
#include "cmd/devices/DeviceChoice.h"
#include "cmd/devices/DevicePlace.h"
#include "cmd/devices/SystemDevices.h"
#include "remote/StopWatcher.h"

namespace vel {
namespace {

// Nothing tells when another program lets a device go, or its node gets other rights.
constexpr std::chrono::seconds kRetryAfter{2};

// The one device that is meant by what was named on the command line, when it is a local one.
std::optional<LocalDevice> FindNamed(const std::string& name, const std::vector<LocalDevice>& plugged) {
  if (IsRemoteDevice(name)) {
    return std::nullopt;
  }
  const DeviceChoice choice = ParseDevice(name);
  const auto* const selector = std::get_if<LocalSelector>(&choice);
  const auto isMeant = [&](const LocalDevice& device) {
    return selector != nullptr && selector->Matches(device.identity);
  };
  if (std::ranges::count_if(plugged, isMeant) != 1) {
    return std::nullopt;
  }
  return *std::ranges::find_if(plugged, isMeant);
}

}  // namespace

AutoExport::AutoExport(DeviceFilter filter, const std::vector<std::string>& named, UsbipServer& server, Open open)
    : mFilter(std::move(filter)),
      mServer(server),
      mOpen(std::move(open)),
      mLastNumber(static_cast<std::uint32_t>(named.size())),
      mWatch({}, {.onArrived = [this](const DeviceIdentity& device) { OnArrived(device); },
                  .onLeft = [this](const DeviceIdentity& device) { OnLeft(device); }}) {
  if (const char* const why = WhyNobodyTellsOfDevices(); why != nullptr) {
    Note(std::string(why) + ": devices are looked for every second");
  }
  const std::vector<LocalDevice> plugged = PluggedDevices();
  for (std::size_t i = 0; i < named.size(); ++i) {
    if (const auto device = FindNamed(named[i], plugged)) {
      mPorts[device->port] = {.number = static_cast<std::uint32_t>(i + 1),
                              .device = device->identity,
                              .plugged = true,
                              .opened = true,
                              .refusal = {}};
    }
  }
  mThread = std::thread([this] { Work(); });
}

AutoExport::~AutoExport() {
  {
    const MutexLock lock(mMutex);
    mStopped = true;
  }
  mChanged.NotifyAll();
  mThread.join();
}

void AutoExport::OnArrived(const DeviceIdentity& device) {
  const MutexLock lock(mMutex);
  if (!Contains(mPresent, device)) {
    mPresent.push_back(device);
    mLookAgain = true;
    mChanged.NotifyAll();
  }
}

void AutoExport::OnLeft(const DeviceIdentity& device) {
  const MutexLock lock(mMutex);
  std::erase_if(mPresent, [&device](const DeviceIdentity& each) { return AreSamePlace(each, device); });
  mLookAgain = true;
  mChanged.NotifyAll();
}

bool AutoExport::IsStopped() {
  const MutexLock lock(mMutex);
  return mStopped;
}

void AutoExport::Work() {
  while (true) {
    {
      const bool retries = !mTrouble.empty() ||
                           std::ranges::any_of(mPorts, [](const auto& entry) { return !entry.second.refusal.empty(); });
      const auto deadline = std::chrono::steady_clock::now() + kRetryAfter;
      MutexLock lock(mMutex);
      while (!mLookAgain && !mStopped) {
        if (!retries) {
          mChanged.Wait(lock);
        } else if (!mChanged.WaitUntil(lock, deadline)) {
          break;
        }
      }
      if (mStopped) {
        return;
      }
      mLookAgain = false;
    }
    try {
      Look();
      mTrouble.clear();
    } catch (const std::exception& error) {  // No memory or descriptor: soon, perhaps.
      if (std::exchange(mTrouble, error.what()) != error.what()) {
        Note(mTrouble);
      }
    }
  }
}

void AutoExport::Look() {
  std::vector<LocalDevice> plugged = Plugged();
  RemoveLeft(plugged);
  std::erase_if(plugged, [this](const LocalDevice& device) { return !mFilter.Judge(device).allowed; });
  // Those that were refused before come last: they may take their time again.
  std::stable_partition(plugged.begin(), plugged.end(),
                        [this](const LocalDevice& device) { return !mPorts[device.port].plugged; });
  for (const LocalDevice& device : plugged) {
    if (IsStopped()) {
      return;
    }
    TryExport(device);
  }
}

std::vector<LocalDevice> AutoExport::Plugged() {
  std::vector<LocalDevice> plugged = PluggedDevices();
  const MutexLock lock(mMutex);
  std::erase_if(
      plugged, [this](const LocalDevice& device) VEL_REQUIRES(mMutex) { return !Contains(mPresent, device.identity); });
  return plugged;
}

void AutoExport::RemoveLeft(const std::vector<LocalDevice>& plugged) {
  for (auto& entry : mPorts) {
    Port& port = entry.second;
    const bool isThere = std::ranges::any_of(
        plugged, [&port](const LocalDevice& each) { return AreSamePlace(each.identity, port.device); });
    if (port.plugged && !isThere) {
      port = {.number = port.number, .device = {}, .refusal = {}};
      mServer.Remove(port.number);
    }
  }
}

void AutoExport::TryExport(const LocalDevice& device) {
  Port& port = mPorts[device.port];
  port.number = port.number == 0 ? ++mLastNumber : port.number;
  if (port.opened) {
    return;
  }
  port.plugged = true;
  port.device = device.identity;
  const std::string place = Place(device.identity);
  try {
    std::unique_ptr<FarDevice> opened = mOpen(place);
    const std::string product = opened->Facts().Product();
    Note(place +
         Format(" (%04x:%04x%s) is ", unsigned{device.identity.vendorId}, unsigned{device.identity.productId},
                product.empty() ? "" : (", " + product).c_str()) +
         mServer.Add(port.number, place, std::move(opened)));
    port.opened = true;
    port.refusal.clear();
  } catch (const Interrupted&) {
    return;
  } catch (const std::exception& error) {
    if (std::exchange(port.refusal, error.what()) != error.what()) {
      Note(port.refusal);
    }
  }
}

}  // namespace vel
