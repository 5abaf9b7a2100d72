#ifndef VIRTUSB_TESTS_SUPPORT_SCRIPTED_USB_IO_H
#define VIRTUSB_TESTS_SUPPORT_SCRIPTED_USB_IO_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "io/IUsbIo.h"
#include "support/Limits.h"
#include "support/RecordingDeviceBase.h"
#include "vel/Mutex.h"

namespace vel {

// A backend that does what the test says, and tells what was asked of it. It keeps the contract of IUsbIo.h: one
// completion per record, a refused one included; closing completes what is held as cancelled and lets blocked
// operations go on.
//
// The test holds this object, which outlives the backend that `Create`, passed as the device's factory, makes for it:
//
//   ScriptedUsbIo io(remote);
//   VirtUsbDriver driver(&remote, &ScriptedUsbIo::Create);
//
// Any thread.
class ScriptedUsbIo {
 public:
  struct Result {
    std::int32_t status = kXferCompleted;
    // What the record holds then; without it the data stays as it is, or is none for a failure.
    std::optional<std::vector<std::uint8_t>> bytes;
  };
  // A record as it was submitted.
  struct Submitted {
    std::uint32_t length = 0;
    std::uint32_t packetLength = 0;     // Of an isochronous one's first packet.
    std::vector<std::uint8_t> table{};  // Its copy of the request's.
  };
  using DataHook = std::function<int(std::span<std::uint8_t>)>;

  explicit ScriptedUsbIo(RecordingDeviceBase& device);
  ScriptedUsbIo(const ScriptedUsbIo&) = delete;
  ScriptedUsbIo& operator=(const ScriptedUsbIo&) = delete;
  // Null where no ScriptedUsbIo was made for the device, a RecordingDeviceBase.
  static IUsbIo* Create(std::uint32_t type, VelDeviceBase* device);

  // What an operation answers; 0 unless told. A negative answer of BulkTransfer, InterruptTransfer or IsochTransfer
  // refuses the record.
  void Answer(std::string_view operation, int result) {
    const MutexLock lock(mMutex);
    mAnswers.insert_or_assign(std::string(operation), result);
  }
  // Fills the buffer of "ControlTransfer" or "GetStringDescriptor" and says what the operation answers.
  void AnswerData(std::string_view operation, DataHook hook) {
    const MutexLock lock(mMutex);
    mHooks.insert_or_assign(std::string(operation), std::move(hook));
  }
  void SetCapability(std::uint32_t capability) { mCapability = capability; }  // Before it is used.
  void Describe(libusb_config_descriptor* config) {
    const MutexLock lock(mMutex);
    mConfig = config;
  }

  // The operation blocks until released, or until the device is closed.
  void Block(std::string_view operation) {
    const MutexLock lock(mMutex);
    mBlocked.emplace(operation);
  }
  void Release(std::string_view operation);

  // Transfers complete at once with their data as it is, on the submitter's thread, unless told otherwise.
  void HoldTransfers() {
    const MutexLock lock(mMutex);
    mHolds = true;
  }
  // Completes the oldest held transfer with this id, or the oldest of all, on this thread. False when there is none.
  bool Complete(std::uint32_t streamId, const Result& result) {
    return CompleteOne([streamId](const _UsbIoXferInfo& info) { return info.streamId == streamId; }, result);
  }
  bool CompleteNext(const Result& result) {
    return CompleteOne([](const _UsbIoXferInfo&) { return true; }, result);
  }

  // The operations so far, with their arguments: "ClearHalt 0"; an operation that was blocked is followed by
  // "ResetDevice done". The record's endpoint, stream id and length are a transfer's arguments.
  std::vector<std::string> Calls() const {
    const MutexLock lock(mMutex);
    return mCalls;
  }
  std::vector<Submitted> Transfers() const {
    const MutexLock lock(mMutex);
    return mTransfers;
  }
  bool IsDestroyed() const {
    const MutexLock lock(mMutex);
    return mDestroyed;
  }
  // False when it was not called, or so many are not held, by the deadline; IsCalledSoon is for calls that must not
  // come.
  [[nodiscard]] bool WaitForCall(std::string_view call) const { return WaitForCall(call, kDeadline); }
  [[nodiscard]] bool IsCalledSoon(std::string_view call) const { return WaitForCall(call, kNever); }
  [[nodiscard]] bool WaitForHeld(std::size_t n) const;

 private:
  class Backend;
  using Wanted = std::function<bool(const _UsbIoXferInfo&)>;

  // An operation: noted, held while it is blocked, answered.
  int Call(std::string_view operation, std::initializer_list<std::int64_t> arguments = {}) VEL_EXCLUDES(mMutex);
  int CallForData(std::string_view operation, std::initializer_list<std::int64_t> arguments,
                  std::span<std::uint8_t> data) VEL_EXCLUDES(mMutex);
  int Submit(std::string_view operation, _UsbIoXferInfo* info) VEL_EXCLUDES(mMutex);
  void Note(std::string call) VEL_REQUIRES(mMutex);
  bool CompleteOne(const Wanted& wanted, const Result& result) VEL_EXCLUDES(mMutex);
  void CancelAll() VEL_EXCLUDES(mMutex);
  void Unblock() VEL_EXCLUDES(mMutex);
  bool WaitForCall(std::string_view call, std::chrono::milliseconds limit) const VEL_EXCLUDES(mMutex);

  mutable Mutex mMutex;
  mutable CondVar mChanged;
  std::map<std::string, int, std::less<>> mAnswers VEL_GUARDED_BY(mMutex);
  std::map<std::string, DataHook, std::less<>> mHooks VEL_GUARDED_BY(mMutex);
  std::set<std::string, std::less<>> mBlocked VEL_GUARDED_BY(mMutex);
  std::vector<std::string> mCalls VEL_GUARDED_BY(mMutex);
  libusb_config_descriptor* mConfig VEL_GUARDED_BY(mMutex) = nullptr;
  std::uint32_t mCapability = 0;
  bool mHolds VEL_GUARDED_BY(mMutex) = false;
  std::deque<_UsbIoXferInfo*> mHeld VEL_GUARDED_BY(mMutex);
  std::size_t mCompleting VEL_GUARDED_BY(mMutex) = 0;
  std::vector<Submitted> mTransfers VEL_GUARDED_BY(mMutex);
  bool mDestroyed VEL_GUARDED_BY(mMutex) = false;
};

}  // namespace vel

#endif
