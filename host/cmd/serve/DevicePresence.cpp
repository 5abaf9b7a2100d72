#include "cmd/serve/DevicePresence.h"

#include <exception>
#include <variant>

#include "cmd/console/Output.h"
#include "cmd/devices/DevicePlace.h"
#include "cmd/devices/SystemDevices.h"

namespace vel {

DevicePresence::DevicePresence(const std::string& device, bool wait, const std::string& cameraSource) : mWait(wait) {
  const DeviceChoice choice = ParseDevice(device, cameraSource);
  if (const auto* emulated = std::get_if<DeviceIdentity>(&choice)) {
    mPresent = *emulated;
    return;
  }
  if (!wait) {
    const MutexLock lock(mMutex);
    Take(FindDevice(device));
  } else if (FindLocalDevice(std::get<LocalSelector>(choice)); WhyNobodyTellsOfDevices() != nullptr) {
    Note(std::string(WhyNobodyTellsOfDevices()) + ": the device is looked for every second");
  }
  mWatch = std::make_unique<DeviceWatch>(
      std::get<LocalSelector>(choice),
      DeviceWatch::Callbacks{.onArrived = [this](const DeviceIdentity& identity) { OnArrived(identity); },
                             .onLeft = [this](const DeviceIdentity& identity) { OnLeft(identity); }});
}

std::optional<DeviceIdentity> DevicePresence::Await(const ByteStream& remote) {
  while (true) {
    std::shared_ptr<StopSignal> arrival;
    {
      const MutexLock lock(mMutex);
      if (mPresent || (!mWait && mWatch != nullptr)) {
        return mPresent;
      }
      arrival = std::make_shared<StopSignal>();
      mArrival = arrival;
    }
    Note("waiting for the device");
    if (!remote.WaitWhileOpen(arrival->Fd(), kReadable)) {
      return std::nullopt;
    }
  }
}

void DevicePresence::Take(const DeviceIdentity& identity) {
  mHold = HoldIfLocal(identity);
  mPresent = identity;
  if (const std::string other = mHold == nullptr ? "" : mHold->OtherProgram(); !other.empty()) {
    Note(Describe(identity) + " is held by " + other + ": until that ends, the remote side cannot use all of it");
  }
}

void DevicePresence::GiveBack() {
  const MutexLock lock(mMutex);
  if (mHold != nullptr) {
    if (const DeviceHold::Repair repair = mHold->PutRight(); !repair.failure.empty()) {
      Note(repair.failure);
    }
  }
}

void DevicePresence::OnArrived(const DeviceIdentity& identity) {
  const MutexLock lock(mMutex);
  if (mPresent) {
    return;  // Already known, or a second one of the same kind.
  }
  try {
    Take(identity);
  } catch (const std::exception& error) {
    if (mRefusals.insert(error.what()).second) {
      Note(error.what());
    }
    return;
  }
  if (mServer != nullptr) {
    mServer->Redirect(identity);
  }
  Note("device is there: " + Describe(identity));
  if (mArrival != nullptr) {
    mArrival->Raise();
    mArrival.reset();
  }
}

void DevicePresence::OnLeft(const DeviceIdentity& identity) {
  const MutexLock lock(mMutex);
  if (!mPresent || !AreSamePlace(*mPresent, identity)) {
    return;
  }
  Note("device was unplugged: " + Describe(identity));
  mPresent.reset();
  mHold.reset();
  if (mServer != nullptr && !mWait) {
    mServer->DeviceLeft();
  }
}

DevicePresence::Attachment::Attachment(DevicePresence& presence, Server& server) : mPresence(presence) {
  const MutexLock lock(mPresence.mMutex);
  mPresence.mServer = &server;
  if (!mPresence.mPresent && !mPresence.mWait) {
    server.DeviceLeft();  // It left while the server was made.
  }
}

DevicePresence::Attachment::~Attachment() {
  const MutexLock lock(mPresence.mMutex);
  mPresence.mServer = nullptr;
}

}  // namespace vel
