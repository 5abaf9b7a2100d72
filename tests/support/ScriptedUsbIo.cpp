#include "support/ScriptedUsbIo.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <thread>
#include <utility>

#include "support/Limits.h"
#include "vel/Mutex.h"

namespace vel {
namespace {

using Clock = std::chrono::steady_clock;

void Finish(_UsbIoXferInfo* info, const ScriptedUsbIo::Result& result) {
  if (!result.bytes && result.status != kXferCompleted) {
    FailXfer(info, result.status);
    return;
  }
  if (result.bytes) {
    auto* data = static_cast<std::uint8_t*>(std::malloc(std::max<std::size_t>(result.bytes->size(), 1)));
    std::copy(result.bytes->begin(), result.bytes->end(), data);
    ReplaceXferData(*info, data, static_cast<std::uint32_t>(result.bytes->size()));
  }
  info->status = result.status;
  CompleteXfer(info);
}

}  // namespace

struct ScriptedUsbIo::Script {
  enum class Mode : std::uint8_t { kAtOnce, kHeld, kOwnThread };

  mutable Mutex mutex;
  mutable CondVar changed;
  std::map<std::string, int, std::less<>> answers VEL_GUARDED_BY(mutex);
  std::set<std::string, std::less<>> blocked VEL_GUARDED_BY(mutex);
  std::vector<std::string> calls VEL_GUARDED_BY(mutex);
  std::map<std::string, DataHook, std::less<>> hooks VEL_GUARDED_BY(mutex);
  libusb_device_descriptor* deviceDesc VEL_GUARDED_BY(mutex) = nullptr;
  libusb_config_descriptor* configDesc VEL_GUARDED_BY(mutex) = nullptr;
  Mode mode VEL_GUARDED_BY(mutex) = Mode::kAtOnce;
  std::deque<_UsbIoXferInfo*> held VEL_GUARDED_BY(mutex);
  std::size_t completing VEL_GUARDED_BY(mutex) = 0;
  std::size_t completed VEL_GUARDED_BY(mutex) = 0;
  std::vector<Submitted> transfers VEL_GUARDED_BY(mutex);
  bool destroyed VEL_GUARDED_BY(mutex) = false;
  bool ending VEL_GUARDED_BY(mutex) = false;
  std::thread completer;  // The test's thread only.

  int Call(std::string_view operation, std::initializer_list<std::int64_t> arguments = {}) {
    std::string call(operation);
    for (const std::int64_t argument : arguments) {
      call += ' ' + std::to_string(argument);
    }
    MutexLock lock(mutex);
    Record(std::move(call));
    if (blocked.contains(operation)) {
      while (blocked.contains(operation)) {
        changed.Wait(lock);
      }
      Record(std::string(operation) + " done");
    }
    const auto answer = answers.find(operation);
    return answer == answers.end() ? 0 : answer->second;
  }

  void Record(std::string call) VEL_REQUIRES(mutex) {
    calls.push_back(std::move(call));
    changed.NotifyAll();
  }

  bool WaitForCall(std::string_view call, Clock::time_point deadline) const {
    MutexLock lock(mutex);
    while (std::ranges::find(calls, call) == calls.end() && changed.WaitUntil(lock, deadline)) {
    }
    return std::ranges::find(calls, call) != calls.end();
  }

  // Completes one held record that `wanted` picks.
  template <class Wanted>
  bool CompleteOne(Wanted wanted, const Result& result) {
    _UsbIoXferInfo* info = nullptr;
    {
      const MutexLock lock(mutex);
      const auto found = std::find_if(held.begin(), held.end(), wanted);
      if (found == held.end()) {
        return false;
      }
      info = *found;
      held.erase(found);
      ++completing;
    }
    Finish(info, result);
    const MutexLock lock(mutex);
    --completing;
    ++completed;
    changed.NotifyAll();
    return true;
  }

  void CancelAll() {
    while (CompleteOne([](const _UsbIoXferInfo*) { return true; }, {.status = kXferCancelled, .bytes = {}})) {
    }
    MutexLock lock(mutex);
    while (completing > 0) {
      changed.Wait(lock);
    }
  }

  void CompleteUntilEnd() {
    while (true) {
      {
        MutexLock lock(mutex);
        while (held.empty() && !ending) {
          changed.Wait(lock);
        }
        if (held.empty()) {
          return;
        }
      }
      CompleteOne([](const _UsbIoXferInfo*) { return true; }, {});
    }
  }
};

class ScriptedUsbIo::Backend final : public IUsbIo {
 public:
  Backend(std::shared_ptr<Script> script, std::uint32_t type)
      : mScript(std::move(script)), mType(static_cast<std::uint8_t>(type)) {}
  ~Backend() override {
    mScript->CancelAll();
    const MutexLock lock(mScript->mutex);
    mScript->destroyed = true;
  }

  void* GetIoHandler() override { return nullptr; }
  std::uint8_t GetIoType() override { return mType; }
  void Init() override { mScript->Call("Init"); }
  int OpenUsbDev() override { return mScript->Call("OpenUsbDev"); }
  int CloseUsbDev() override {
    const int result = mScript->Call("CloseUsbDev");
    {
      const MutexLock lock(mScript->mutex);
      mScript->blocked.clear();
      mScript->changed.NotifyAll();
    }
    mScript->CancelAll();
    return result;
  }
  std::uint8_t GetDevicePortNumber() override { return CallForByte("GetDevicePortNumber"); }
  libusb_device_descriptor* GetDeviceDesc() override {
    mScript->Call("GetDeviceDesc");
    const MutexLock lock(mScript->mutex);
    return mScript->deviceDesc;
  }
  libusb_config_descriptor* GetConfigDesc() override {
    mScript->Call("GetConfigDesc");
    const MutexLock lock(mScript->mutex);
    return mScript->configDesc;
  }
  std::uint8_t GetBusNumber() override { return CallForByte("GetBusNumber"); }
  std::uint8_t GetDeviceAddress() override { return CallForByte("GetDeviceAddress"); }
  std::uint8_t GetDeviceSpeed() override { return CallForByte("GetDeviceSpeed"); }
  int GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer, int length) override {
    const int result = mScript->Call("GetStringDescriptor", {index, langId, length});
    return AnswerData("GetStringDescriptor", {buffer, static_cast<std::size_t>(length)}, result);
  }
  int ResetDevice() override { return mScript->Call("ResetDevice"); }
  int AttachKernelDriver() override { return mScript->Call("AttachKernelDriver"); }
  int DetachKernelDriver() override { return mScript->Call("DetachKernelDriver"); }
  int ClearHalt(int endpoint) override { return mScript->Call("ClearHalt", {endpoint}); }
  int ReleaseAllInterface() override { return mScript->Call("ReleaseAllInterface"); }
  int SetConfiguration(int configuration) override { return mScript->Call("SetConfiguration", {configuration}); }
  int ClaimAllInterface() override { return mScript->Call("ClaimAllInterface"); }
  int SetInterfaceAltSetting(int interfaceNumber, int altSetting) override {
    return mScript->Call("SetInterfaceAltSetting", {interfaceNumber, altSetting});
  }
  int CancelTransfer(std::uint32_t localXferId) override {
    const int result = mScript->Call("CancelTransfer", {localXferId});
    const auto wanted = [localXferId](const _UsbIoXferInfo* info) { return info->localXferId == localXferId; };
    const bool found = mScript->CompleteOne(wanted, {.status = kXferCancelled, .bytes = {}});
    return result == 0 && !found ? LIBUSB_ERROR_NOT_FOUND : result;
  }
  int ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue, std::uint16_t wIndex,
                      std::uint8_t* data, std::uint16_t wLength, std::uint32_t timeout) override {
    const int result = mScript->Call("ControlTransfer", {bmRequestType, bRequest, wValue, wIndex, wLength, timeout});
    return AnswerData("ControlTransfer", {data, wLength}, result);
  }
  int BulkTransfer(_UsbIoXferInfo* info) override { return Submit("BulkTransfer", info); }
  int InterruptTransfer(_UsbIoXferInfo* info) override { return Submit("InterruptTransfer", info); }
  int IsochTransfer(_UsbIoXferInfo* info) override { return Submit("IsochTransfer", info); }

 private:
  std::uint8_t CallForByte(std::string_view operation) { return static_cast<std::uint8_t>(mScript->Call(operation)); }

  int AnswerData(std::string_view operation, std::span<std::uint8_t> data, int otherwise) const {
    DataHook hook;
    {
      const MutexLock lock(mScript->mutex);
      const auto found = mScript->hooks.find(operation);
      hook = found == mScript->hooks.end() ? nullptr : found->second;
    }
    return hook ? hook(data) : otherwise;
  }

  int Submit(std::string_view operation, _UsbIoXferInfo* info) {
    if (info == nullptr) {
      return 0;
    }
    info->owner = this;
    const int result = mScript->Call(operation, {info->epAddr, info->streamId, info->length});
    bool atOnce = true;
    {
      const MutexLock lock(mScript->mutex);
      const auto* table = static_cast<const std::uint8_t*>(info->isoDescCopy);
      mScript->transfers.push_back({.streamId = info->streamId,
                                    .localXferId = info->localXferId,
                                    .isoPacketNum = info->isoPacketNum,
                                    .length = info->length,
                                    .isoDescCopy = {table, table + info->isoDescLen}});
      if (result >= 0 && mScript->mode != Script::Mode::kAtOnce) {
        mScript->held.push_back(info);
        mScript->changed.NotifyAll();
        atOnce = false;
      }
    }
    if (atOnce) {
      if (result < 0) {
        const XferGuard completesAsRefused(info);
      } else {
        Finish(info, {});
      }
      const MutexLock lock(mScript->mutex);
      ++mScript->completed;
    }
    return result;
  }

  const std::shared_ptr<Script> mScript;
  const std::uint8_t mType;
};

// Who waits for a backend.
struct ScriptedUsbIo::Registry {
  Mutex mutex;
  std::map<const VelDeviceBase*, std::shared_ptr<Script>> scripts VEL_GUARDED_BY(mutex);

  static Registry& Get() {
    static Registry registry;
    return registry;
  }
};

ScriptedUsbIo::ScriptedUsbIo(const VelDeviceBase& device) : mDevice(device), mScript(std::make_shared<Script>()) {
  Registry& registry = Registry::Get();
  const MutexLock lock(registry.mutex);
  registry.scripts[&device] = mScript;
}

ScriptedUsbIo::~ScriptedUsbIo() {
  {
    Registry& registry = Registry::Get();
    const MutexLock lock(registry.mutex);
    registry.scripts.erase(&mDevice);
  }
  {
    const MutexLock lock(mScript->mutex);
    mScript->ending = true;
    mScript->blocked.clear();
    mScript->changed.NotifyAll();
  }
  if (mScript->completer.joinable()) {
    mScript->completer.join();
  }
}

IUsbIo* ScriptedUsbIo::Create(std::uint32_t type, VelDeviceBase* device) {
  Registry& registry = Registry::Get();
  const MutexLock lock(registry.mutex);
  const auto found = registry.scripts.find(device);
  if (found == registry.scripts.end()) {
    return nullptr;
  }
  return new Backend(found->second, type);
}

void ScriptedUsbIo::Answer(std::string_view operation, int result) {
  const MutexLock lock(mScript->mutex);
  mScript->answers.insert_or_assign(std::string(operation), result);
}

void ScriptedUsbIo::AnswerData(std::string_view operation, DataHook hook) {
  const MutexLock lock(mScript->mutex);
  mScript->hooks.insert_or_assign(std::string(operation), std::move(hook));
}

void ScriptedUsbIo::Describe(libusb_device_descriptor* device, libusb_config_descriptor* config) {
  const MutexLock lock(mScript->mutex);
  mScript->deviceDesc = device;
  mScript->configDesc = config;
}

void ScriptedUsbIo::Block(std::string_view operation) {
  const MutexLock lock(mScript->mutex);
  mScript->blocked.emplace(operation);
}

void ScriptedUsbIo::Release(std::string_view operation) {
  const MutexLock lock(mScript->mutex);
  mScript->blocked.erase(std::string(operation));
  mScript->changed.NotifyAll();
}

void ScriptedUsbIo::HoldTransfers() {
  const MutexLock lock(mScript->mutex);
  mScript->mode = Script::Mode::kHeld;
}

void ScriptedUsbIo::CompleteOnOwnThread() {
  const MutexLock lock(mScript->mutex);
  mScript->mode = Script::Mode::kOwnThread;
  mScript->completer = std::thread([script = mScript.get()] { script->CompleteUntilEnd(); });
}

bool ScriptedUsbIo::Complete(std::uint32_t streamId, const Result& result) {
  return mScript->CompleteOne([streamId](const _UsbIoXferInfo* info) { return info->streamId == streamId; }, result);
}

bool ScriptedUsbIo::CompleteNext(const Result& result) {
  return mScript->CompleteOne([](const _UsbIoXferInfo*) { return true; }, result);
}

std::vector<std::string> ScriptedUsbIo::Calls() const {
  const MutexLock lock(mScript->mutex);
  return mScript->calls;
}

std::vector<ScriptedUsbIo::Submitted> ScriptedUsbIo::Transfers() const {
  const MutexLock lock(mScript->mutex);
  return mScript->transfers;
}

std::size_t ScriptedUsbIo::CompletedCount() const {
  const MutexLock lock(mScript->mutex);
  return mScript->completed;
}

bool ScriptedUsbIo::IsDestroyed() const {
  const MutexLock lock(mScript->mutex);
  return mScript->destroyed;
}

bool ScriptedUsbIo::WaitForCall(std::string_view call) const {
  return mScript->WaitForCall(call, Clock::now() + kDeadline);
}

bool ScriptedUsbIo::IsCalledSoon(std::string_view call) const {
  return mScript->WaitForCall(call, Clock::now() + kNever);
}

bool ScriptedUsbIo::WaitForHeld(std::size_t n) const {
  const auto deadline = Clock::now() + kDeadline;
  MutexLock lock(mScript->mutex);
  while (mScript->held.size() < n && mScript->changed.WaitUntil(lock, deadline)) {
  }
  return mScript->held.size() >= n;
}

}  // namespace vel
