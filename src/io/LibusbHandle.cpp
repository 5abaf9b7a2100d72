#include "io/LibusbHandle.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

namespace vel {
namespace {

// Without an event thread: how long one wait in libusb lasts, since another thread may have handled the awaited event
// just before; and how far apart failing attempts are.
constexpr std::chrono::milliseconds kEventSlice{10};
constexpr std::chrono::milliseconds kEventRetryPause{1};

// The handles that this thread has a use of and is in a completion of. A close would wait for the first, and libusb
// handles no events within the second.
thread_local LibusbHandle* tUsing = nullptr;
thread_local LibusbHandle* tCompleting = nullptr;

}  // namespace

LibusbUse::LibusbUse(LibusbHandle& owner)
    : mOwner(owner), mOuter(std::exchange(tUsing, &owner)), mHandle(owner.BeginUse()) {}

LibusbUse::~LibusbUse() {
  tUsing = mOuter;
  if (mHandle != nullptr) {
    mOwner.EndUse();
  }
}

LibusbCompletion::LibusbCompletion(LibusbHandle& owner, LibusbPendingTransfer& pending)
    : mOwner(owner), mOuter(std::exchange(tCompleting, &owner)) {
  owner.BeginCompletion(pending);
}

LibusbCompletion::~LibusbCompletion() {
  tCompleting = mOuter;
  mOwner.EndCompletion();
}

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
    for (const auto& [key, pending] : mPending) {
      CancelPending(*pending);
    }
  }
  const bool allCompleted = Await(Until::kUnused);
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

int LibusbHandle::Submit(LibusbPendingTransfer& pending) {
  LibusbSubmission submission;
  libusb_transfer* const transfer = pending.transfer.get();
  {
    MutexLock lock(mMutex);
    while (mBarriers > 0 && !mClosing) {
      mChanged.Wait(lock);
    }
    if (mClosing) {
      return LIBUSB_ERROR_NOT_FOUND;
    }
    try {
      pending.place = mPending.emplace(pending.key, &pending);
    } catch (const std::exception&) {
      return LIBUSB_ERROR_NO_MEM;
    }
    pending.submission = &submission;
    ++mInFlight;
  }
  const int result = libusb_submit_transfer(transfer);
  const MutexLock lock(mMutex);
  if (result < 0) {
    Unfile(pending);
    --mInFlight;  // A close still waits for the caller's use.
  } else if (!submission.completed) {
    pending.submission = nullptr;
    if (submission.cancelled) {
      libusb_cancel_transfer(transfer);
    }
    if (mBarriers > 0) {
      mChanged.NotifyAll();
    }
  }
  return result;
}

void LibusbHandle::BeginCompletion(LibusbPendingTransfer& pending) {
  const MutexLock lock(mMutex);
  Unfile(pending);
}

void LibusbHandle::EndCompletion() {
  const MutexLock lock(mMutex);
  --mInFlight;
  if (mClosing) {
    mChanged.NotifyAll();
  }
}

bool LibusbHandle::CompleteSync(LibusbPendingTransfer& pending) {
  bool abandoned = false;
  {
    const MutexLock lock(mMutex);
    Unfile(pending);
    --mInFlight;
    pending.completed = true;
    abandoned = pending.abandoned;
  }
  mChanged.NotifyAll();  // Outside the lock: the woken thread takes it at once.
  return abandoned;
}

int LibusbHandle::Cancel(std::uint32_t id, bool* known) {
  const MutexLock lock(mMutex);
  const auto [first, last] = mPending.equal_range(id);
  for (auto candidate = last; candidate != first;) {
    --candidate;
    if (!candidate->second->cancelled) {
      *known = true;
      return CancelPending(*candidate->second);
    }
  }
  *known = false;
  return LIBUSB_ERROR_NOT_FOUND;
}

int LibusbHandle::CancelGroup(const void* group) {
  const MutexLock lock(mMutex);
  const auto [first, last] = mPending.equal_range(LibusbPendingTransfer::kModuleKey);
  int count = 0;
  for (auto entry = first; entry != last; ++entry) {
    LibusbPendingTransfer& pending = *entry->second;
    if (pending.group == group && !pending.cancelled) {
      CancelPending(pending);
      ++count;
    }
  }
  return count;
}

bool LibusbHandle::IsBusy() {
  const MutexLock lock(mMutex);
  return !mPending.empty();
}

bool LibusbHandle::SubmissionIsUnderWay() const {
  return std::any_of(mPending.begin(), mPending.end(),
                     [](const auto& entry) { return entry.second->submission != nullptr; });
}

void LibusbHandle::BeginBarrier(const LibusbEndpoints& endpoints) {
  MutexLock lock(mMutex);
  ++mBarriers;
  for (const auto& [key, pending] : mPending) {
    if (key != LibusbPendingTransfer::kSyncKey && !pending->cancelled && endpoints.test(pending->transfer->endpoint)) {
      CancelPending(*pending);
    }
  }
  while (SubmissionIsUnderWay()) {
    mChanged.Wait(lock);
  }
}

void LibusbHandle::EndBarrier() {
  const MutexLock lock(mMutex);
  --mBarriers;
  mChanged.NotifyAll();
}

int LibusbHandle::CancelPending(LibusbPendingTransfer& pending) {
  mCancelled += pending.cancelled ? 0 : 1;
  pending.cancelled = true;
  if (pending.submission != nullptr) {
    pending.submission->cancelled = true;
    return LIBUSB_SUCCESS;
  }
  return libusb_cancel_transfer(pending.transfer.get());
}

void LibusbHandle::Unfile(LibusbPendingTransfer& pending) {
  mPending.erase(pending.place);
  mCancelled -= pending.cancelled ? 1 : 0;
  if (pending.submission != nullptr) {
    pending.submission->completed = true;
  }
  if (mBarriers > 0) {
    mChanged.NotifyAll();
  }
}

bool LibusbHandle::AwaitSync(LibusbPendingTransfer& pending) {
  if (Await(Until::kCompleted, &pending)) {
    DeliverCancelled();  // By completions that ran on this thread meanwhile.
    return true;
  }
  const MutexLock lock(mMutex);
  pending.abandoned = !pending.completed;
  return pending.completed;
}

bool LibusbHandle::IsThrough(Until until, const LibusbPendingTransfer* pending) const {
  switch (until) {
    case Until::kCompleted:
      return pending->completed;
    case Until::kCancelledAreCompleted:
      return mCancelled == 0;
    case Until::kUnused:
      return mInFlight == 0 && mUses == 0;
  }
  return true;
}

// False when libusb refuses to handle events.
bool LibusbHandle::Await(Until until, const LibusbPendingTransfer* pending) {
  for (unsigned failures = 0; failures < kMaxEventFailures;) {
    {
      MutexLock lock(mMutex);
      if (failures > 0 && !IsThrough(until, pending)) {
        mChanged.WaitUntil(lock, std::chrono::steady_clock::now() + kEventRetryPause);
      }
      while (!IsThrough(until, pending) && mContext.ThreadHandlesEvents()) {
        mChanged.Wait(lock);
      }
      if (IsThrough(until, pending)) {
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
  {
    const MutexLock lock(mMutex);
    mChanged.NotifyAll();
  }
  DeliverCancelled();  // What this thread was trusted with.
}

void LibusbHandle::DeliverCancelled() {
  if (mContext.ThreadHandlesEvents() || tCompleting == this) {
    return;
  }
  if (!Await(Until::kCancelledAreCompleted) && tUsing != this) {
    Close();
  }
}

}  // namespace vel
