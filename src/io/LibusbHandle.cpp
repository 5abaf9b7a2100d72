#include "io/LibusbHandle.h"

#include <algorithm>
#include <chrono>
#include <exception>

namespace vel {
namespace {

// Without an event thread: how long one wait in libusb lasts, since another thread may have handled
// the awaited event just before; and how far apart failing attempts are.
constexpr std::chrono::milliseconds kEventSlice{10};
constexpr std::chrono::milliseconds kEventRetryPause{1};

}  // namespace

int LibusbHandle::Open(libusb_device* device) {
  {
    MutexLock lock(mMutex);
    while (mClosing) {
      mChanged.Wait(lock);
    }
    if (mHandle != nullptr) {
      return LIBUSB_SUCCESS;
    }
  }
  libusb_device_handle* handle = nullptr;
  const int result = libusb_open(device, &handle);
  if (result == LIBUSB_SUCCESS) {
    const MutexLock lock(mMutex);
    mHandle.reset(handle);
  }
  return result;
}

int LibusbHandle::Close() {
  {
    MutexLock lock(mMutex);
    while (mClosing) {
      mChanged.Wait(lock);
    }
    if (mHandle == nullptr) {
      return LIBUSB_ERROR_NOT_FOUND;
    }
    mClosing = true;
    mChanged.NotifyAll();
    for (const auto& [id, flight] : mPending) {
      CancelFlight(*flight);
    }
  }
  const bool allCompleted = Await(nullptr);
  if (!allCompleted) {
    AwaitUses();
  }
  LibusbDeviceHandlePtr handle;
  {
    const MutexLock lock(mMutex);
    handle.swap(mHandle);
  }
  handle.reset();
  if (!allCompleted) {
    CompleteAbandoned();
  }
  const MutexLock lock(mMutex);
  mClosing = false;
  mChanged.NotifyAll();
  return LIBUSB_SUCCESS;
}

libusb_device_handle* LibusbHandle::Get() {
  const MutexLock lock(mMutex);
  return mClosing ? nullptr : mHandle.get();
}

libusb_device_handle* LibusbHandle::BeginUse() {
  const MutexLock lock(mMutex);
  if (mClosing || mHandle == nullptr) {
    return nullptr;
  }
  ++mUses;
  return mHandle.get();
}

void LibusbHandle::EndUse() {
  const MutexLock lock(mMutex);
  --mUses;
  if (mClosing) {
    mChanged.NotifyAll();
  }
}

int LibusbHandle::Submit(LibusbFlight& flight) {
  LibusbDeparture departure;
  libusb_transfer* const transfer = flight.transfer.get();
  {
    MutexLock lock(mMutex);
    while (mLulls > 0 && !mClosing) {
      mChanged.Wait(lock);
    }
    if (mClosing) {
      return LIBUSB_ERROR_NOT_FOUND;
    }
    try {
      flight.place = mPending.emplace(flight.id, &flight);
    } catch (const std::exception&) {
      return LIBUSB_ERROR_NO_MEM;
    }
    flight.departure = &departure;
    ++mInFlight;
  }
  const int result = libusb_submit_transfer(transfer);
  const MutexLock lock(mMutex);
  if (result < 0) {
    EndFlight(flight);
    --mInFlight;  // A close still waits for the caller's use.
  } else if (!departure.landed) {
    flight.departure = nullptr;
    if (departure.cancelled) {
      libusb_cancel_transfer(transfer);
    }
    if (mLulls > 0) {
      mChanged.NotifyAll();
    }
  }
  return result;
}

void LibusbHandle::Unfile(LibusbFlight& flight) {
  const MutexLock lock(mMutex);
  EndFlight(flight);
}

void LibusbHandle::Finish() {
  const MutexLock lock(mMutex);
  --mInFlight;
  if (mClosing) {
    mChanged.NotifyAll();
  }
}

bool LibusbHandle::Land(LibusbFlight& flight) {
  const MutexLock lock(mMutex);
  EndFlight(flight);
  --mInFlight;
  flight.landed = true;
  mChanged.NotifyAll();
  return flight.disowned;
}

int LibusbHandle::Cancel(std::uint32_t id, bool* known) {
  const MutexLock lock(mMutex);
  const auto [first, last] = mPending.equal_range(id);
  for (auto candidate = last; candidate != first;) {
    --candidate;
    if (!candidate->second->cancelled) {
      *known = true;
      return CancelFlight(*candidate->second);
    }
  }
  *known = false;
  return LIBUSB_ERROR_NOT_FOUND;
}

bool LibusbHandle::IsBusy() {
  const MutexLock lock(mMutex);
  return !mPending.empty();
}

bool LibusbHandle::SubmissionIsUnderWay() const {
  return std::any_of(mPending.begin(), mPending.end(),
                     [](const auto& entry) { return entry.second->departure != nullptr; });
}

void LibusbHandle::BeginLull(const LibusbEndpoints& endpoints) {
  MutexLock lock(mMutex);
  ++mLulls;
  for (const auto& [id, flight] : mPending) {
    if (id != LibusbFlight::kNoId && !flight->cancelled && endpoints.test(flight->transfer->endpoint)) {
      CancelFlight(*flight);
    }
  }
  while (SubmissionIsUnderWay()) {
    mChanged.Wait(lock);
  }
}

void LibusbHandle::EndLull() {
  const MutexLock lock(mMutex);
  --mLulls;
  mChanged.NotifyAll();
}

int LibusbHandle::CancelFlight(LibusbFlight& flight) {
  flight.cancelled = true;
  if (flight.departure != nullptr) {
    flight.departure->cancelled = true;
    return LIBUSB_SUCCESS;
  }
  return libusb_cancel_transfer(flight.transfer.get());
}

void LibusbHandle::EndFlight(LibusbFlight& flight) {
  mPending.erase(flight.place);
  if (flight.departure != nullptr) {
    flight.departure->landed = true;
  }
  if (mLulls > 0) {
    mChanged.NotifyAll();
  }
}

bool LibusbHandle::AwaitLanding(LibusbFlight& flight) {
  if (Await(&flight)) {
    return true;
  }
  const MutexLock lock(mMutex);
  flight.disowned = !flight.landed;
  return flight.landed;
}

bool LibusbHandle::IsThrough(const LibusbFlight* flight) const {
  return flight != nullptr ? flight->landed : mInFlight == 0 && mUses == 0;
}

// Until the flight has landed or, without one, until nothing keeps the device open. False when
// libusb refuses to handle events.
bool LibusbHandle::Await(const LibusbFlight* flight) {
  for (unsigned failures = 0; failures < kMaxEventFailures;) {
    {
      MutexLock lock(mMutex);
      if (failures > 0 && !IsThrough(flight)) {
        mChanged.WaitUntil(lock, std::chrono::steady_clock::now() + kEventRetryPause);
      }
      while (!IsThrough(flight) && mContext.ThreadHandlesEvents()) {
        mChanged.Wait(lock);
      }
      if (IsThrough(flight)) {
        return true;
      }
    }
    failures = mContext.HandleEvents(kEventSlice) == LIBUSB_SUCCESS ? 0 : failures + 1;
  }
  return false;
}

void LibusbHandle::AwaitUses() {
  MutexLock lock(mMutex);
  while (mUses > 0) {
    mChanged.Wait(lock);
  }
}

// The handle is closed and libusb has forgotten these transfers: tell their owners.
void LibusbHandle::CompleteAbandoned() {
  for (;;) {
    libusb_transfer* transfer = nullptr;
    {
      const MutexLock lock(mMutex);
      if (mPending.empty()) {
        return;
      }
      transfer = mPending.begin()->second->transfer.get();
    }
    transfer->status = LIBUSB_TRANSFER_CANCELLED;
    transfer->actual_length = 0;
    transfer->callback(transfer);
  }
}

void LibusbHandle::EventThreadEnded() {
  const MutexLock lock(mMutex);
  mChanged.NotifyAll();
}

}  // namespace vel
