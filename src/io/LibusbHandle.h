#ifndef VEL_IO_LIBUSB_HANDLE_H
#define VEL_IO_LIBUSB_HANDLE_H

#include <cstdint>

#include "io/LibusbContext.h"
#include "io/LibusbEndpoints.h"
#include "io/LibusbFlight.h"
#include "io/LibusbPtr.h"
#include "vel/Mutex.h"

namespace vel {

// The open device and all that keeps it open: operations under way and transfers in flight.
//
// One lock guards it. It is held across libusb_cancel_transfer, which completes nothing itself, so
// that a transfer is not freed while it is being cancelled; never across a submission or a
// completion.
class LibusbHandle {
 public:
  // How often in a row event handling may fail, without an event thread, before it is given up.
  static constexpr unsigned kMaxEventFailures = 50;

  explicit LibusbHandle(LibusbContext& context) : mContext(context) {}
  LibusbHandle(const LibusbHandle&) = delete;
  LibusbHandle& operator=(const LibusbHandle&) = delete;
  ~LibusbHandle() { Close(); }

  // libusb's result; success when it is open already. Loop thread.
  int Open(libusb_device* device);
  // Cancels what is in flight, waits until all of it is completed and no operation is under way,
  // and closes. LIBUSB_ERROR_NOT_FOUND when nothing is open. Any thread but the one that handles
  // events; the second of two callers waits for the first.
  int Close() VEL_EXCLUDES(mMutex);
  // Null while closed and from the start of a close. Any thread.
  libusb_device_handle* Get() VEL_EXCLUDES(mMutex);

  // Submits a filled transfer, after a lull. Called with a LibusbUse held. On success the transfer
  // is in flight until its callback has called Unfile and Finish, or Land; the flight may be gone
  // when this returns. After a failure there is no callback and the flight is still the caller's.
  int Submit(LibusbFlight& flight) VEL_EXCLUDES(mMutex);
  // First act of a completion: from here on no cancel finds the transfer.
  void Unfile(LibusbFlight& flight) VEL_EXCLUDES(mMutex);
  // Last act of a completion: a close does not wait for it any more.
  void Finish() VEL_EXCLUDES(mMutex);
  // Cancels the newest transfer with this id that was not cancelled before. LIBUSB_ERROR_NOT_FOUND
  // with `*known` false when there is none, otherwise libusb's result.
  int Cancel(std::uint32_t id, bool* known) VEL_EXCLUDES(mMutex);

  // Whether anything is in flight. Any thread.
  bool IsBusy() VEL_EXCLUDES(mMutex);

  // The whole completion of a synchronous transfer: wakes whoever waits in AwaitLanding. True when
  // nobody does and the flight is the caller's to free; otherwise the flight may be gone.
  [[nodiscard]] bool Land(LibusbFlight& flight) VEL_EXCLUDES(mMutex);
  // Waits until a synchronous transfer has landed. False when libusb refuses to handle events: then
  // the flight belongs to its completion, which comes at the latest when the device is closed.
  [[nodiscard]] bool AwaitLanding(LibusbFlight& flight) VEL_EXCLUDES(mMutex);

  // The event thread is gone: those who wait for it handle events themselves from now on.
  void EventThreadEnded() VEL_EXCLUDES(mMutex);

 private:
  friend class LibusbLull;
  friend class LibusbUse;

  libusb_device_handle* BeginUse() VEL_EXCLUDES(mMutex);
  void EndUse() VEL_EXCLUDES(mMutex);
  void BeginLull(const LibusbEndpoints& endpoints) VEL_EXCLUDES(mMutex);
  void EndLull() VEL_EXCLUDES(mMutex);
  bool SubmissionIsUnderWay() const VEL_REQUIRES(mMutex);
  bool Await(const LibusbFlight* flight) VEL_EXCLUDES(mMutex);
  bool IsThrough(const LibusbFlight* flight) const VEL_REQUIRES(mMutex);
  int CancelFlight(LibusbFlight& flight) VEL_REQUIRES(mMutex);
  void EndFlight(LibusbFlight& flight) VEL_REQUIRES(mMutex);
  void AwaitUses() VEL_EXCLUDES(mMutex);
  void CompleteAbandoned() VEL_EXCLUDES(mMutex);

  LibusbContext& mContext;
  Mutex mMutex;
  CondVar mChanged;
  LibusbDeviceHandlePtr mHandle VEL_GUARDED_BY(mMutex);
  bool mClosing VEL_GUARDED_BY(mMutex) = false;
  int mUses VEL_GUARDED_BY(mMutex) = 0;
  int mLulls VEL_GUARDED_BY(mMutex) = 0;
  int mInFlight VEL_GUARDED_BY(mMutex) = 0;  // Filed, or in their completion.
  LibusbPending mPending VEL_GUARDED_BY(mMutex);
};

// Keeps the device open for the length of an operation.
class LibusbUse {
 public:
  explicit LibusbUse(LibusbHandle& owner) : mOwner(owner), mHandle(owner.BeginUse()) {}
  LibusbUse(const LibusbUse&) = delete;
  LibusbUse& operator=(const LibusbUse&) = delete;
  ~LibusbUse() {
    if (mHandle != nullptr) {
      mOwner.EndUse();
    }
  }
  // Null when the device is not open, or about to be closed.
  libusb_device_handle* Get() const { return mHandle; }

 private:
  LibusbHandle& mOwner;
  libusb_device_handle* const mHandle;
};

}  // namespace vel

#endif
