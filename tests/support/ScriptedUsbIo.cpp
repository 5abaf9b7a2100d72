#include "support/ScriptedUsbIo.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "protocol/IsoTable.h"

namespace vel {
namespace {

void Finish(_UsbIoXferInfo* info, const ScriptedUsbIo::Result& result) {
  if (!result.bytes && result.status != kXferCompleted) {
    FailXfer(info, result.status);
    return;
  }
  if (result.bytes && DataPacket(*info) != nullptr && result.bytes->size() <= info->length) {
    std::ranges::copy(*result.bytes, info->data);  // As libusb does.
    info->length = static_cast<std::uint32_t>(result.bytes->size());
  } else if (result.bytes) {
    auto* data = static_cast<std::uint8_t*>(std::malloc(std::max<std::size_t>(result.bytes->size(), 1)));
    std::copy(result.bytes->begin(), result.bytes->end(), data);
    ReplaceXferData(*info, data, static_cast<std::uint32_t>(result.bytes->size()));
  }
  info->reserved |= result.bytes && result.status != kXferCompleted ? kXferHoldsPart : 0;
  info->status = result.status;
  CompleteXfer(info);
}

}  // namespace

class ScriptedUsbIo::Backend final : public IUsbIo {
 public:
  Backend(ScriptedUsbIo& script, std::uint32_t type) : mScript(script), mType(static_cast<std::uint8_t>(type)) {}
  ~Backend() override {
    mScript.CancelAll();
    const MutexLock lock(mScript.mMutex);
    mScript.mDestroyed = true;
  }

  void* GetIoHandler() override { return nullptr; }
  std::uint8_t GetIoType() override { return mType; }
  std::uint32_t GetIoCapability() override { return mScript.mCapability; }
  void Init() override { mScript.Call("Init"); }
  int OpenUsbDev() override { return mScript.Call("OpenUsbDev"); }
  int CloseUsbDev() override {
    const int result = mScript.Call("CloseUsbDev");
    mScript.Unblock();
    mScript.CancelAll();
    return result;
  }
  std::uint8_t GetDevicePortNumber() override { return CallForByte("GetDevicePortNumber"); }
  libusb_device_descriptor* GetDeviceDesc() override { return nullptr; }
  libusb_config_descriptor* GetConfigDesc() override {
    mScript.Call("GetConfigDesc");
    const MutexLock lock(mScript.mMutex);
    return mScript.mConfig;
  }
  std::uint8_t GetBusNumber() override { return CallForByte("GetBusNumber"); }
  std::uint8_t GetDeviceAddress() override { return CallForByte("GetDeviceAddress"); }
  std::uint8_t GetDeviceSpeed() override { return CallForByte("GetDeviceSpeed"); }
  int GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer, int length) override {
    return mScript.CallForData("GetStringDescriptor", {index, langId, length},
                               {buffer, static_cast<std::size_t>(length)});
  }
  int ResetDevice() override { return mScript.Call("ResetDevice"); }
  int AttachKernelDriver() override { return mScript.Call("AttachKernelDriver"); }
  int DetachKernelDriver() override { return mScript.Call("DetachKernelDriver"); }
  int ClearHalt(int endpoint) override { return mScript.Call("ClearHalt", {endpoint}); }
  int ReleaseAllInterface() override { return mScript.Call("ReleaseAllInterface"); }
  int SetConfiguration(int configuration) override { return mScript.Call("SetConfiguration", {configuration}); }
  int ClaimAllInterface() override { return mScript.Call("ClaimAllInterface"); }
  int SetInterfaceAltSetting(int interfaceNumber, int altSetting) override {
    return mScript.Call("SetInterfaceAltSetting", {interfaceNumber, altSetting});
  }
  int CancelTransfer(std::uint32_t localXferId) override {
    const int result = mScript.Call("CancelTransfer", {localXferId});
    const auto wanted = [localXferId](const _UsbIoXferInfo& info) { return HasRemoteId(info, localXferId); };
    const bool found = mScript.CompleteOne(wanted, {.status = kXferCancelled, .bytes = {}});
    return result == 0 && !found ? LIBUSB_ERROR_NOT_FOUND : result;
  }
  int CancelOwnTransfers(const UsbIoTransferCallback* callback) override {
    mScript.Call("CancelOwnTransfers");
    int count = 0;
    const auto wanted = [callback](const _UsbIoXferInfo& info) { return IsOwnOf(info, callback); };
    while (mScript.CompleteOne(wanted, {.status = kXferCancelled, .bytes = {}})) {
      ++count;
    }
    return count;
  }
  int ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue, std::uint16_t wIndex,
                      std::uint8_t* data, std::uint16_t wLength, std::uint32_t timeout) override {
    return mScript.CallForData("ControlTransfer", {bmRequestType, bRequest, wValue, wIndex, wLength, timeout},
                               {data, wLength});
  }
  int BulkTransfer(_UsbIoXferInfo* info) override { return Submit("BulkTransfer", info); }
  int InterruptTransfer(_UsbIoXferInfo* info) override { return Submit("InterruptTransfer", info); }
  int IsochTransfer(_UsbIoXferInfo* info) override { return Submit("IsochTransfer", info); }
  // Both kinds are tested.
  bool LeavesDataInPlace() const override { return mType == kIoTypeLibusb; }

 private:
  std::uint8_t CallForByte(std::string_view operation) { return static_cast<std::uint8_t>(mScript.Call(operation)); }
  int Submit(std::string_view operation, _UsbIoXferInfo* info) {
    if (info == nullptr) {
      return 0;
    }
    info->owner = this;
    return mScript.Submit(operation, info);
  }

  ScriptedUsbIo& mScript;
  const std::uint8_t mType;
};

ScriptedUsbIo::ScriptedUsbIo(RecordingDeviceBase& device) {
  device.SetBackend([this](std::uint32_t type) { return new Backend(*this, type); });
}

IUsbIo* ScriptedUsbIo::Create(std::uint32_t type, VelDeviceBase* device) {
  return static_cast<RecordingDeviceBase*>(device)->MakeBackend(type);
}

int ScriptedUsbIo::Call(std::string_view operation, std::initializer_list<std::int64_t> arguments) {
  std::string call(operation);
  for (const std::int64_t argument : arguments) {
    call += ' ' + std::to_string(argument);
  }
  MutexLock lock(mMutex);
  Note(std::move(call));
  if (mBlocked.contains(operation)) {
    while (mBlocked.contains(operation)) {
      mChanged.Wait(lock);
    }
    Note(std::string(operation) + " done");
  }
  const auto answer = mAnswers.find(operation);
  return answer == mAnswers.end() ? 0 : answer->second;
}

int ScriptedUsbIo::CallForData(std::string_view operation, std::initializer_list<std::int64_t> arguments,
                               std::span<std::uint8_t> data) {
  const int otherwise = Call(operation, arguments);
  DataHook hook;
  {
    const MutexLock lock(mMutex);
    const auto found = mHooks.find(operation);
    hook = found == mHooks.end() ? nullptr : found->second;
  }
  return hook ? hook(data) : otherwise;
}

int ScriptedUsbIo::Submit(std::string_view operation, _UsbIoXferInfo* info) {
  const int result = Call(operation, {info->epAddr, info->streamId, info->length});
  {
    const MutexLock lock(mMutex);
    const bool hasTable = info->isoPacketNum > 0 && info->data != nullptr && info->length >= sizeof(IsoPacketRecord);
    const auto* const table = static_cast<const std::uint8_t*>(info->isoDescCopy);
    mTransfers.push_back({.length = info->length,
                          .packetLength = hasTable ? LoadIsoRecord(info->data, 0).length : 0U,
                          .table = {table, table + info->isoDescLen}});
    if (result >= 0 && mHolds) {
      mHeld.push_back(info);
      mChanged.NotifyAll();
      return result;
    }
  }
  if (result < 0) {
    const XferGuard completesAsRefused(info);
  } else {
    Finish(info, {});
  }
  return result;
}

void ScriptedUsbIo::Note(std::string call) {
  mCalls.push_back(std::move(call));
  mChanged.NotifyAll();
}

bool ScriptedUsbIo::CompleteOne(const Wanted& wanted, const Result& result) {
  _UsbIoXferInfo* info = nullptr;
  {
    const MutexLock lock(mMutex);
    const auto found = std::ranges::find_if(mHeld, [&wanted](const _UsbIoXferInfo* each) { return wanted(*each); });
    if (found == mHeld.end()) {
      return false;
    }
    info = *found;
    mHeld.erase(found);
    ++mCompleting;
  }
  Finish(info, result);
  const MutexLock lock(mMutex);
  --mCompleting;
  mChanged.NotifyAll();
  return true;
}

void ScriptedUsbIo::CancelAll() {
  while (CompleteNext({.status = kXferCancelled, .bytes = {}})) {
  }
  MutexLock lock(mMutex);
  while (mCompleting > 0) {
    mChanged.Wait(lock);
  }
}

void ScriptedUsbIo::Release(std::string_view operation) {
  const MutexLock lock(mMutex);
  mBlocked.erase(std::string(operation));
  mChanged.NotifyAll();
}

void ScriptedUsbIo::Unblock() {
  const MutexLock lock(mMutex);
  mBlocked.clear();
  mChanged.NotifyAll();
}

bool ScriptedUsbIo::WaitForCall(std::string_view call, std::chrono::milliseconds limit) const {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  MutexLock lock(mMutex);
  while (std::ranges::find(mCalls, call) == mCalls.end() && mChanged.WaitUntil(lock, deadline)) {
  }
  return std::ranges::find(mCalls, call) != mCalls.end();
}

bool ScriptedUsbIo::WaitForHeld(std::size_t n) const {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mMutex);
  while (mHeld.size() < n && mChanged.WaitUntil(lock, deadline)) {
  }
  return mHeld.size() >= n;
}

}  // namespace vel
