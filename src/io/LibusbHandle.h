#ifndef VEL_IO_LIBUSB_HANDLE_H
#define VEL_IO_LIBUSB_HANDLE_H

#include <cstdint>
#include <map>
#include <utility>

#include "base/LockOrder.h"
#include "io/LibusbContext.h"
#include "io/LibusbDevice.h"
#include "io/LibusbPtr.h"

namespace vel {

struct LibusbPendingTransfer;

// Pending transfers by key; among equal keys the newest is last.
using LibusbPendingMap = std::multimap<std::uint64_t, LibusbPendingTransfer*>;

// What the submitting thread and the others tell each other about a transfer while libusb_submit_transfer has not
// returned. Lives on the submitter's stack.
struct LibusbSubmission {
  bool completed = false;  // Already; the pending transfer may be gone.
  bool cancelled = false;  // To be cancelled as soon as it is submitted.
};

// A libusb transfer from its submission to its completion. Members that are not const belong to
// LibusbHandle's lock.
struct LibusbPendingTransfer {
  // A transfer of the remote side has its id for a key. The others are beyond 32 bits: those of the module, which are
  // told apart by their group, and the synchronous ones.
  static constexpr std::uint64_t kModuleKey = std::uint64_t{1} << 32U;
  static constexpr std::uint64_t kSyncKey = std::uint64_t{2} << 32U;

  LibusbPendingTransfer(LibusbTransferPtr filled, std::uint64_t filedUnder, const void* cancelledWith = nullptr)
      : transfer(std::move(filled)), key(filedUnder), group(cancelledWith) {}

  const LibusbTransferPtr transfer;
  const std::uint64_t key;
  const void* const group;
  LibusbPendingMap::iterator place{};
  LibusbSubmission* submission = nullptr;  // While it is under way.
  bool cancelled = false;
  bool completed = false;  // Synchronous transfers only.
  bool abandoned = false;  // Synchronous transfers only: nobody waits for it any more.
};

// The open device and all that keeps it open: operations under way (uses), barriers against submissions, and transfers
// in flight. A transfer is in flight from its submission to the end of its completion.
//
//   handle  closing  barriers | a use is   a submission is             a close
//   ------  -------  -------- | ---------  --------------------------  --------------------------------------------
//   none    no       0        | refused    refused                     fails
//   open    no       0        | granted    made                        begins: cancels all that is in flight
//   open    no       > 0      | granted    held until the last ends    begins, the same
//   open    yes      any      | refused    refused, a held one too     ends at no use and nothing in flight; a second
//                                                                      one waits for the first
//
// A cancel reaches what is in flight and not in its completion, in every state; a transfer whose submission has not
// returned is cancelled right after. A barrier begins when no submission is under way. Each submission and each barrier
// is part of a use.
//
// One lock guards it. It is held across libusb_cancel_transfer, which completes nothing itself, so that a transfer is
// not freed while it is being cancelled; never across a submission or a completion.
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
  // Cancels what is in flight, waits until all of it is completed and no operation is under way, and closes.
  // LIBUSB_ERROR_NOT_FOUND when nothing is open. Any thread but the one that handles events; the second of two callers
  // waits for the first.
  int Close() VEL_EXCLUDES(mMutex);
  // Null while closed and from the start of a close. Any thread.
  libusb_device_handle* Get() VEL_EXCLUDES(mMutex);

  // Submits a filled transfer, once no barrier stands. Called with a LibusbUse held. On success the transfer is in
  // flight until its callback has made a LibusbCompletion or called CompleteSync; it may be gone when this returns.
  // After a failure there is no callback and the transfer is still the caller's.
  int Submit(LibusbPendingTransfer& pending) VEL_EXCLUDES(mMutex);
  // Cancels the newest transfer with this id that was not cancelled before. LIBUSB_ERROR_NOT_FOUND with `*known` false
  // when there is none, otherwise libusb's result.
  int Cancel(std::uint32_t id, bool* known) VEL_EXCLUDES(mMutex);
  // Cancels the module's transfers of this group. How many those were.
  int CancelGroup(const void* group) VEL_EXCLUDES(mMutex);

  // Whether anything is in flight. Any thread.
  bool IsBusy() VEL_EXCLUDES(mMutex);

  // The whole completion of a synchronous transfer: wakes whoever waits in AwaitSync. True when nobody does and the
  // transfer is the caller's to free; otherwise it may be gone.
  [[nodiscard]] bool CompleteSync(LibusbPendingTransfer& pending) VEL_EXCLUDES(mMutex);
  // Waits until a synchronous transfer is completed. False when libusb refuses to handle events: then the transfer
  // belongs to its completion, which comes at the latest when the device is closed.
  [[nodiscard]] bool AwaitSync(LibusbPendingTransfer& pending) VEL_EXCLUDES(mMutex);

  // The event thread is gone: those who wait for it handle events themselves from now on. On that thread.
  void EventThreadEnded() VEL_EXCLUDES(mMutex);
  // For after a cancel: completes what is cancelled when no event thread does, on the caller's thread, unless that is
  // in a completion. When libusb refuses to handle events, the device is closed, which completes everything.
  void DeliverCancelled() VEL_EXCLUDES(mMutex);

 private:
  friend class LibusbCompletion;
  friend class LibusbSubmitBarrier;
  friend class LibusbUse;

  libusb_device_handle* BeginUse() VEL_EXCLUDES(mMutex);
  void EndUse() VEL_EXCLUDES(mMutex);
  void BeginBarrier(const LibusbEndpoints& endpoints) VEL_EXCLUDES(mMutex);
  void EndBarrier() VEL_EXCLUDES(mMutex);
  bool SubmissionIsUnderWay() const VEL_REQUIRES(mMutex);
  // What Await waits for: one synchronous transfer, all that was cancelled, or all that keeps the device open.
  enum class Until : std::uint8_t { kCompleted, kCancelledAreCompleted, kUnused };
  bool Await(Until until, const LibusbPendingTransfer* pending = nullptr) VEL_EXCLUDES(mMutex);
  bool IsThrough(Until until, const LibusbPendingTransfer* pending) const VEL_REQUIRES(mMutex);
  void BeginCompletion(LibusbPendingTransfer& pending) VEL_EXCLUDES(mMutex);
  void EndCompletion() VEL_EXCLUDES(mMutex);
  int CancelPending(LibusbPendingTransfer& pending) VEL_REQUIRES(mMutex);
  void Unfile(LibusbPendingTransfer& pending) VEL_REQUIRES(mMutex);
  void AwaitUses() VEL_EXCLUDES(mMutex);
  void CompleteAbandoned() VEL_EXCLUDES(mMutex);

  LibusbContext& mContext;
  Mutex mMutex VEL_LOCK_LEVEL(Leaf);
  CondVar mChanged;
  LibusbDeviceHandlePtr mHandle VEL_GUARDED_BY(mMutex);
  bool mClosing VEL_GUARDED_BY(mMutex) = false;
  int mUses VEL_GUARDED_BY(mMutex) = 0;
  int mBarriers VEL_GUARDED_BY(mMutex) = 0;
  int mInFlight VEL_GUARDED_BY(mMutex) = 0;   // Pending, or in their completion.
  int mCancelled VEL_GUARDED_BY(mMutex) = 0;  // Of the pending ones.
  LibusbPendingMap mPending VEL_GUARDED_BY(mMutex);
};

// The completion of a transfer that is not synchronous: from its beginning on no cancel finds the transfer, and a close
// waits for its end.
class LibusbCompletion {
 public:
  LibusbCompletion(LibusbHandle& owner, LibusbPendingTransfer& pending);
  LibusbCompletion(const LibusbCompletion&) = delete;
  LibusbCompletion& operator=(const LibusbCompletion&) = delete;
  ~LibusbCompletion();

 private:
  LibusbHandle& mOwner;
  LibusbHandle* const mOuter;
};

// Keeps the device open for the length of an operation.
class LibusbUse {
 public:
  explicit LibusbUse(LibusbHandle& owner);
  LibusbUse(const LibusbUse&) = delete;
  LibusbUse& operator=(const LibusbUse&) = delete;
  ~LibusbUse();
  // Null when the device is not open, or about to be closed.
  libusb_device_handle* Get() const { return mHandle; }

 private:
  LibusbHandle& mOwner;
  LibusbHandle* const mOuter;
  libusb_device_handle* const mHandle;
};

// For an act that makes the kernel drop transfers (the release of interfaces, a reset, another alternate setting):
// cancels those of the endpoints concerned, and lets nothing be submitted while it lives. Without the first, libusb
// reports them as completed with no bytes moved; without the second, a transfer from another thread claims its
// interface anew. The synchronous transfers that are in flight go on. Made with a LibusbUse held; any thread, also
// within a completion.
class LibusbSubmitBarrier {
 public:
  LibusbSubmitBarrier(LibusbHandle& owner, const LibusbEndpoints& endpoints) : mOwner(owner) {
    owner.BeginBarrier(endpoints);
  }
  LibusbSubmitBarrier(const LibusbSubmitBarrier&) = delete;
  LibusbSubmitBarrier& operator=(const LibusbSubmitBarrier&) = delete;
  ~LibusbSubmitBarrier() {
    mOwner.EndBarrier();
    mOwner.DeliverCancelled();
  }

 private:
  LibusbHandle& mOwner;
};

}  // namespace vel

#endif
