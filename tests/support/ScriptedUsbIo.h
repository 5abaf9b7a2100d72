#ifndef VIRTUSB_TESTS_SUPPORT_SCRIPTED_USB_IO_H
#define VIRTUSB_TESTS_SUPPORT_SCRIPTED_USB_IO_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "io/IUsbIo.h"
#include "vel/VelDeviceBase.h"

namespace vel {

// A backend that does what the test says, and tells what was asked of it. It keeps the contract of
// IUsbIo.h: one completion per record, a refused one included; closing completes what is held as
// cancelled and lets blocked operations go on.
//
// The test holds this object; `Create`, passed as the device's factory, makes the backend for it:
//
//   ScriptedUsbIo io(remote);
//   VirtUsbDriver driver(&remote, &ScriptedUsbIo::Create);
//
// Any thread. A backend may outlive this object, and then answers what it was told last.
class ScriptedUsbIo {
 public:
  struct Result {
    std::int32_t status = kXferCompleted;
    // What the record holds then; without it the data stays as it is, or is none for a failure.
    std::optional<std::vector<std::uint8_t>> bytes;
  };
  // A record as it was submitted.
  struct Submitted {
    std::uint32_t streamId = 0;
    std::uint32_t localXferId = 0;
    std::uint32_t isoPacketNum = 0;
    std::uint32_t length = 0;
    std::vector<std::uint8_t> isoDescCopy;
  };
  using DataHook = std::function<int(std::span<std::uint8_t>)>;

  // Registers for the device; the next Create for it hands out a backend of this object.
  explicit ScriptedUsbIo(const VelDeviceBase& device);
  ScriptedUsbIo(const ScriptedUsbIo&) = delete;
  ScriptedUsbIo& operator=(const ScriptedUsbIo&) = delete;
  ~ScriptedUsbIo();
  static IUsbIo* Create(std::uint32_t type, VelDeviceBase* device);

  // What an operation answers; 0 unless told. A negative answer of BulkTransfer, InterruptTransfer
  // or IsochTransfer refuses the record.
  void Answer(std::string_view operation, int result);
  // Fills the buffer of "ControlTransfer" or "GetStringDescriptor" and says what the operation answers.
  void AnswerData(std::string_view operation, DataHook hook);
  void Describe(libusb_device_descriptor* device, libusb_config_descriptor* config);

  // The operation blocks until released, or until the device is closed.
  void Block(std::string_view operation);
  void Release(std::string_view operation);

  // Transfers complete at once with their data as it is, on the submitter's thread, unless told
  // otherwise.
  void HoldTransfers();
  void CompleteOnOwnThread();
  // Completes the oldest held transfer with this id, or the oldest of all, on this thread. False
  // when there is none.
  bool Complete(std::uint32_t streamId, const Result& result);
  bool CompleteNext(const Result& result);

  // The operations so far, with their arguments: "ClearHalt 0"; an operation that was blocked is
  // followed by "ResetDevice done". The record's endpoint, stream id and length are a transfer's
  // arguments.
  std::vector<std::string> Calls() const;
  std::vector<Submitted> Transfers() const;
  std::size_t CompletedCount() const;
  bool IsDestroyed() const;
  // False when it was not called, or so many are not held, by the deadline; IsCalledSoon is for
  // calls that must not come.
  [[nodiscard]] bool WaitForCall(std::string_view call) const;
  [[nodiscard]] bool IsCalledSoon(std::string_view call) const;
  [[nodiscard]] bool WaitForHeld(std::size_t n) const;

 private:
  class Backend;
  struct Script;
  struct Registry;

  const VelDeviceBase& mDevice;
  const std::shared_ptr<Script> mScript;
};

}  // namespace vel

#endif
