#include "FakeLibusb.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace {

// A wait that takes longer is reported instead of hanging the test.
constexpr std::chrono::seconds kPatience{20};

FakeLibusb& Fake() {
  return FakeLibusb::Get();
}

libusb_config_descriptor* MakeConfig(const libusb_device& device, std::size_t index) {
  const auto& [value, numbers] = device.configs.at(index);
  auto* config = new libusb_config_descriptor{};
  config->bLength = LIBUSB_DT_CONFIG_SIZE;
  config->bConfigurationValue = value;
  config->bNumInterfaces = static_cast<std::uint8_t>(numbers.size());
  auto* interfaces = new libusb_interface[numbers.size()]();
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    auto* endpoint = new libusb_endpoint_descriptor[1]();
    endpoint->bEndpointAddress = 0x81;
    auto* extra = new unsigned char[2]{2, value};
    auto* setting = new libusb_interface_descriptor[1]();
    setting->bInterfaceNumber = numbers[i];
    setting->bNumEndpoints = 1;
    setting->endpoint = endpoint;
    setting->extra = extra;
    setting->extra_length = 2;
    interfaces[i].altsetting = setting;
    interfaces[i].num_altsetting = 1;
  }
  config->interface = interfaces;
  return config;
}

std::size_t SetupSize(const libusb_transfer& transfer) {
  return transfer.type == LIBUSB_TRANSFER_TYPE_CONTROL ? LIBUSB_CONTROL_SETUP_SIZE : 0;
}

bool IsInTransfer(const libusb_transfer& transfer) {
  return ((SetupSize(transfer) != 0 ? transfer.buffer[0] : transfer.endpoint) & LIBUSB_ENDPOINT_IN) != 0;
}

void Apply(libusb_transfer& transfer, const FakeResult& result) {
  transfer.status = result.status;
  const std::size_t setup = SetupSize(transfer);
  std::size_t moved = static_cast<std::size_t>(transfer.length) - setup;
  if (IsInTransfer(transfer)) {
    moved = std::min(moved, result.bytes.size());
  }
  if (transfer.type == LIBUSB_TRANSFER_TYPE_ISOCHRONOUS) {
    std::size_t place = 0;
    std::size_t taken = 0;
    for (std::size_t i = 0; i < static_cast<std::size_t>(transfer.num_iso_packets); ++i) {
      libusb_iso_packet_descriptor& packet = transfer.iso_packet_desc[i];
      const auto [bytes, status] =
          i < result.packets.size() ? result.packets[i] : std::pair(packet.length, LIBUSB_TRANSFER_COMPLETED);
      packet.actual_length = bytes;
      packet.status = status;
      for (std::size_t n = 0; IsInTransfer(transfer) && n < std::min(bytes, packet.length); ++n) {
        transfer.buffer[place + n] = taken < result.bytes.size() ? result.bytes[taken++] : 0;
      }
      place += packet.length;
    }
  } else if (IsInTransfer(transfer) && moved > 0) {
    std::memcpy(transfer.buffer + setup, result.bytes.data(), moved);
  }
  transfer.actual_length = static_cast<int>(moved);
}

}  // namespace

FakeLibusb& FakeLibusb::Get() {
  static FakeLibusb fake;
  return fake;
}

void FakeLibusb::Reset() {
  const Lock lock(mutex);
  devices.clear();
  handles.clear();
  mAnswers.clear();
  mHeld.clear();
  mCalls.clear();
  mViolations.clear();
  mInFlight.clear();
  mDone.clear();
  mCancelResult = {LIBUSB_TRANSFER_CANCELLED};
  mImmediate = false;
  mEventErrors = 0;
}

libusb_device& FakeLibusb::AddDevice(libusb_device device) {
  const Lock lock(mutex);
  return devices.emplace_back(std::move(device));
}

void FakeLibusb::Answer(const std::string& function, std::vector<int> results) {
  const Lock lock(mutex);
  mAnswers[function].assign(results.begin(), results.end());
}

void FakeLibusb::FailEvents(int error, int times) {
  const Lock lock(mutex);
  mEventError = error;
  mEventErrors = error == 0 ? 0 : times;
  changed.notify_all();
}

void FakeLibusb::Hold(const std::string& function) {
  const Lock lock(mutex);
  mHeld.insert(function);
}

void FakeLibusb::LetGo(const std::string& function) {
  const Lock lock(mutex);
  mHeld.erase(function);
  changed.notify_all();
}

void FakeLibusb::AwaitHeld(const std::string& function) {
  Lock lock(mutex);
  Await(lock, "a held call", [&] { return mWaiting[function] > 0; });
}

void FakeLibusb::AwaitInFlight(std::size_t count) {
  Lock lock(mutex);
  Await(lock, "transfers in flight", [&] { return mInFlight.size() == count; });
}

bool FakeLibusb::Complete(std::uint8_t endpoint, const FakeResult& result) {
  const Lock lock(mutex);
  const auto found = std::ranges::find_if(
      mInFlight, [endpoint](const libusb_transfer* transfer) { return transfer->endpoint == endpoint; });
  if (found == mInFlight.end()) {
    return false;
  }
  Queue(*found, result);
  return true;
}

void FakeLibusb::SetCancelResult(FakeResult result) {
  const Lock lock(mutex);
  mCancelResult = std::move(result);
}

void FakeLibusb::SetImmediateResult(FakeResult result) {
  const Lock lock(mutex);
  mImmediate = true;
  mImmediateResult = std::move(result);
}

void FakeLibusb::Unplug(libusb_device& device) {
  const Lock lock(mutex);
  device.gone = true;
  while (!mInFlight.empty()) {
    Queue(mInFlight.front(), {LIBUSB_TRANSFER_NO_DEVICE});
  }
}

std::vector<std::string> FakeLibusb::Calls() {
  const Lock lock(mutex);
  return mCalls;
}

std::size_t FakeLibusb::Count(const std::string& function) {
  const Lock lock(mutex);
  return static_cast<std::size_t>(std::ranges::count_if(
      mCalls, [&](const std::string& line) { return line.substr(0, line.find(' ')) == function; }));
}

std::vector<std::uint8_t> FakeLibusb::LastSubmitted() {
  const Lock lock(mutex);
  return mLastSubmitted;
}

unsigned FakeLibusb::LastTimeout() {
  const Lock lock(mutex);
  return mLastTimeout;
}

int FakeLibusb::LastType() {
  const Lock lock(mutex);
  return mLastType;
}

int FakeLibusb::OpenConfigs() {
  const Lock lock(mutex);
  return openConfigs;
}

std::size_t FakeLibusb::TransferCount() {
  const Lock lock(mutex);
  return transfers.size();
}

std::vector<std::string> FakeLibusb::Violations() {
  const Lock lock(mutex);
  std::vector<std::string> all = mViolations;
  const auto left = [&all](const char* what, std::size_t count) {
    if (count != 0) {
      all.push_back(std::to_string(count) + " left over: " + what);
    }
  };
  left("contexts", static_cast<std::size_t>(contexts));
  left("handles", handles.size());
  left("transfers", transfers.size());
  left("configurations", static_cast<std::size_t>(openConfigs));
  for (const libusb_device& device : devices) {
    left("device references", static_cast<std::size_t>(device.references));
  }
  return all;
}

void FakeLibusb::Fail(const std::string& what) {
  mViolations.push_back(what);
}

void FakeLibusb::Await(Lock& lock, const char* what, const std::function<bool()>& condition) {
  if (!changed.wait_for(lock, kPatience, condition)) {
    Fail(std::string("waited in vain for ") + what);
  }
}

// Notes the call, waits while it is held, and gives its scripted answer or 0.
int FakeLibusb::Enter(Lock& lock, const std::string& function, const std::string& line) {
  mCalls.push_back(line);
  if (mHeld.contains(function)) {
    ++mWaiting[function];
    changed.notify_all();
    Await(lock, "being let go", [&] { return !mHeld.contains(function); });
    --mWaiting[function];
  }
  std::deque<int>& answers = mAnswers[function];
  if (answers.empty()) {
    return 0;
  }
  const int answer = answers.front();
  answers.pop_front();
  return answer;
}

// A call of the library: noted, held, answered; the handle that it works on counts as busy
// meanwhile.
class FakeLibusb::Call {
 public:
  Call(const char* function, libusb_device_handle* handle, const std::string& arguments = {})
      : mLock(Fake().mutex), mHandle(handle) {
    if (mHandle != nullptr) {
      ++mHandle->busy;
    }
    mAnswer = Fake().Enter(mLock, function, function + arguments);
    if (mHandle != nullptr && mHandle->device->gone && mAnswer == 0) {
      mAnswer = LIBUSB_ERROR_NO_DEVICE;
    }
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    if (mHandle != nullptr) {
      --mHandle->busy;
    }
  }
  int Answer() const { return mAnswer; }
  Lock& Held() { return mLock; }

 private:
  Lock mLock;
  libusb_device_handle* mHandle;
  int mAnswer = 0;
};

int FakeLibusb::Init(libusb_context** context) {
  const Call call("libusb_init", nullptr);
  if (call.Answer() == 0) {
    *context = new libusb_context;
    ++contexts;
  }
  return call.Answer();
}

void FakeLibusb::Exit(libusb_context* context) {
  const Call call("libusb_exit", nullptr);
  if (!handles.empty() || !transfers.empty() || mHandling) {
    Fail("libusb_exit while in use");
  }
  --contexts;
  delete context;
}

void FakeLibusb::Queue(libusb_transfer* transfer, const FakeResult& result) {
  std::erase(mInFlight, transfer);
  mDone.emplace_back(transfer, result);
  mCompleting.insert(transfer);
  changed.notify_all();
}

void FakeLibusb::Deliver(Lock& lock) {
  while (!mDone.empty() && !mHeld.contains("events")) {
    const auto [transfer, result] = mDone.front();
    mDone.pop_front();
    Apply(*transfer, result);
    lock.unlock();
    transfer->callback(transfer);
    lock.lock();
    mCompleting.erase(transfer);
    changed.notify_all();
  }
}

int FakeLibusb::HandleEvents(libusb_context* context, std::chrono::milliseconds limit) {
  Lock lock(mutex);
  const auto end = std::chrono::steady_clock::now() + limit;
  if (mHandling) {
    changed.wait_until(lock, end, [this] { return !mHandling; });
    return 0;
  }
  mHandling = true;
  changed.wait_until(lock, end, [&] {
    return mEventErrors != 0 || context->interrupted || (!mDone.empty() && !mHeld.contains("events"));
  });
  int result = 0;
  if (mEventErrors != 0) {
    mEventErrors -= mEventErrors > 0 ? 1 : 0;
    result = mEventError;
    mCalls.push_back("libusb_handle_events failed");
  } else {
    context->interrupted = false;
    Deliver(lock);
  }
  mHandling = false;
  changed.notify_all();
  return result;
}

int FakeLibusb::Submit(libusb_transfer* transfer) {
  Call call("libusb_submit_transfer", transfer->dev_handle);
  if (call.Answer() != 0) {
    return call.Answer();
  }
  if (!transfers.contains(transfer) || std::ranges::count(mInFlight, transfer) != 0) {
    Fail("submission of a transfer that is none, or in flight");
  }
  mLastTimeout = transfer->timeout;
  mLastType = transfer->type;
  if (transfer->length > 0) {
    mLastSubmitted.assign(transfer->buffer,
                          transfer->buffer + (IsInTransfer(*transfer) ? SetupSize(*transfer)
                                                                      : static_cast<std::size_t>(transfer->length)));
  }
  mInFlight.push_back(transfer);
  changed.notify_all();
  if (mImmediate) {
    Queue(transfer, mImmediateResult);
    Await(call.Held(), "an immediate completion", [&] { return !mCompleting.contains(transfer); });
  }
  return 0;
}

int FakeLibusb::Cancel(libusb_transfer* transfer) {
  const Call call("libusb_cancel_transfer", nullptr);
  if (!transfers.contains(transfer)) {
    Fail("cancellation of a transfer that was freed");
    return LIBUSB_ERROR_NOT_FOUND;
  }
  if (std::ranges::count(mInFlight, transfer) == 0) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  if (call.Answer() == 0) {
    Queue(transfer, mCancelResult);
  }
  return call.Answer();
}

// Like the library, forgets transfers that are still in flight, which only broken event handling
// excuses.
void FakeLibusb::Close(libusb_device_handle* handle) {
  const Call call("libusb_close", nullptr);
  const auto isOwn = [handle](const libusb_transfer* transfer) { return transfer->dev_handle == handle; };
  const auto forgotten =
      std::erase_if(mInFlight, isOwn) + std::erase_if(mDone, [&](const auto& done) { return isOwn(done.first); });
  if (forgotten != 0 && mEventErrors == 0) {
    Fail("libusb_close with transfers in flight");
  }
  if (handle->busy != 0) {
    Fail("libusb_close under a call");
  }
  handles.remove_if([handle](const libusb_device_handle& open) { return &open == handle; });
}

void FakeLibusb::FreeTransfer(libusb_transfer* transfer) {
  const Lock lock(mutex);
  if (std::ranges::count(mInFlight, transfer) != 0 ||
      std::ranges::any_of(mDone, [transfer](const auto& done) { return done.first == transfer; })) {
    Fail("libusb_free_transfer in flight");
  }
  if (transfers.erase(transfer) != 1) {
    Fail("libusb_free_transfer of no transfer");
    return;
  }
  std::free(transfer);
}

namespace {

int SimpleCall(const char* function, libusb_device_handle* handle, int argument) {
  return FakeLibusb::Call(function, handle, ' ' + std::to_string(argument)).Answer();
}

}  // namespace

extern "C" {

int LIBUSB_CALL libusb_init(libusb_context** context) {
  return Fake().Init(context);
}
void LIBUSB_CALL libusb_exit(libusb_context* context) {
  Fake().Exit(context);
}

int LIBUSB_CALL libusb_set_option(libusb_context*, enum libusb_option option, ...) {
  return FakeLibusb::Call("libusb_set_option", nullptr, ' ' + std::to_string(option)).Answer();
}

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context*, libusb_device*** list) {
  const FakeLibusb::Call call("libusb_get_device_list", nullptr);
  if (call.Answer() != 0) {
    return call.Answer();
  }
  auto** entries = static_cast<libusb_device**>(std::calloc(Fake().devices.size() + 1, sizeof(libusb_device*)));
  for (std::size_t i = 0; i < Fake().devices.size(); ++i) {
    entries[i] = &Fake().devices[i];
    ++entries[i]->references;
  }
  *list = entries;
  return static_cast<ssize_t>(Fake().devices.size());
}

void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int unref) {
  const FakeLibusb::Call call("libusb_free_device_list", nullptr);
  for (libusb_device** entry = list; *entry != nullptr; ++entry) {
    (*entry)->references -= unref != 0 ? 1 : 0;
  }
  std::free(list);
}

libusb_device* LIBUSB_CALL libusb_ref_device(libusb_device* device) {
  const FakeLibusb::Call call("libusb_ref_device", nullptr);
  ++device->references;
  return device;
}

void LIBUSB_CALL libusb_unref_device(libusb_device* device) {
  const FakeLibusb::Call call("libusb_unref_device", nullptr);
  --device->references;
}

std::uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device* device) {
  return device->bus;
}
std::uint8_t LIBUSB_CALL libusb_get_port_number(libusb_device* device) {
  return device->port;
}
std::uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device* device) {
  return device->address;
}
int LIBUSB_CALL libusb_get_device_speed(libusb_device* device) {
  return device->speed;
}

int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* device, libusb_device_descriptor* descriptor) {
  const FakeLibusb::Call call("libusb_get_device_descriptor", nullptr);
  if (call.Answer() == 0) {
    *descriptor = device->descriptor;
  }
  return call.Answer();
}

int LIBUSB_CALL libusb_get_active_config_descriptor(libusb_device* device, libusb_config_descriptor** config) {
  const FakeLibusb::Call call("libusb_get_active_config_descriptor", nullptr);
  if (call.Answer() != 0 || device->active < 0) {
    return call.Answer() != 0 ? call.Answer() : LIBUSB_ERROR_NOT_FOUND;
  }
  *config = MakeConfig(*device, static_cast<std::size_t>(device->active));
  ++Fake().openConfigs;
  return 0;
}

int LIBUSB_CALL libusb_get_config_descriptor(libusb_device* device, std::uint8_t index,
                                             libusb_config_descriptor** config) {
  const FakeLibusb::Call call("libusb_get_config_descriptor", nullptr, ' ' + std::to_string(index));
  if (call.Answer() == 0) {
    *config = MakeConfig(*device, index);
    ++Fake().openConfigs;
  }
  return call.Answer();
}

void LIBUSB_CALL libusb_free_config_descriptor(libusb_config_descriptor* config) {
  const FakeLibusb::Call call("libusb_free_config_descriptor", nullptr);
  --Fake().openConfigs;
  for (int i = 0; i < config->bNumInterfaces; ++i) {
    const libusb_interface& item = config->interface[i];
    delete[] item.altsetting->endpoint;
    delete[] item.altsetting->extra;
    delete[] item.altsetting;
  }
  delete[] config->interface;
  delete config;
}

int LIBUSB_CALL libusb_open(libusb_device* device, libusb_device_handle** handle) {
  const FakeLibusb::Call call("libusb_open", nullptr);
  if (call.Answer() == 0) {
    *handle = &Fake().handles.emplace_back(libusb_device_handle{.device = device});
  }
  return call.Answer();
}

void LIBUSB_CALL libusb_close(libusb_device_handle* handle) {
  Fake().Close(handle);
}

int LIBUSB_CALL libusb_set_configuration(libusb_device_handle* handle, int value) {
  const FakeLibusb::Call call("libusb_set_configuration", handle, ' ' + std::to_string(value));
  for (std::size_t i = 0; call.Answer() == 0 && i < handle->device->configs.size(); ++i) {
    if (handle->device->configs[i].first == value) {
      handle->device->active = static_cast<int>(i);
    }
  }
  return call.Answer();
}

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle* handle, int number) {
  return SimpleCall("libusb_claim_interface", handle, number);
}

int LIBUSB_CALL libusb_release_interface(libusb_device_handle* handle, int number) {
  return SimpleCall("libusb_release_interface", handle, number);
}

int LIBUSB_CALL libusb_set_interface_alt_setting(libusb_device_handle* handle, int number, int setting) {
  return FakeLibusb::Call("libusb_set_interface_alt_setting", handle,
                          ' ' + std::to_string(number) + ' ' + std::to_string(setting))
      .Answer();
}

int LIBUSB_CALL libusb_clear_halt(libusb_device_handle* handle, unsigned char endpoint) {
  return SimpleCall("libusb_clear_halt", handle, endpoint);
}

int LIBUSB_CALL libusb_reset_device(libusb_device_handle* handle) {
  return FakeLibusb::Call("libusb_reset_device", handle).Answer();
}

int LIBUSB_CALL libusb_kernel_driver_active(libusb_device_handle* handle, int number) {
  const FakeLibusb::Call call("libusb_kernel_driver_active", handle, ' ' + std::to_string(number));
  return call.Answer() != 0 ? call.Answer() : static_cast<int>(handle->device->kernelDrivers.contains(number));
}

int LIBUSB_CALL libusb_detach_kernel_driver(libusb_device_handle* handle, int number) {
  return SimpleCall("libusb_detach_kernel_driver", handle, number);
}

int LIBUSB_CALL libusb_attach_kernel_driver(libusb_device_handle* handle, int number) {
  return SimpleCall("libusb_attach_kernel_driver", handle, number);
}

libusb_transfer* LIBUSB_CALL libusb_alloc_transfer(int packets) {
  const FakeLibusb::Call call("libusb_alloc_transfer", nullptr);
  if (call.Answer() != 0) {
    return nullptr;
  }
  const std::size_t size =
      sizeof(libusb_transfer) + static_cast<std::size_t>(packets) * sizeof(libusb_iso_packet_descriptor);
  auto* transfer = static_cast<libusb_transfer*>(std::calloc(1, size));
  Fake().transfers.insert(transfer);
  return transfer;
}

void LIBUSB_CALL libusb_free_transfer(libusb_transfer* transfer) {
  Fake().FreeTransfer(transfer);
}
int LIBUSB_CALL libusb_submit_transfer(libusb_transfer* transfer) {
  return Fake().Submit(transfer);
}
int LIBUSB_CALL libusb_cancel_transfer(libusb_transfer* transfer) {
  return Fake().Cancel(transfer);
}

int LIBUSB_CALL libusb_handle_events_timeout_completed(libusb_context* context, timeval* wait, int*) {
  return Fake().HandleEvents(context, std::chrono::milliseconds(wait->tv_sec * 1000 + wait->tv_usec / 1000));
}

void LIBUSB_CALL libusb_interrupt_event_handler(libusb_context* context) {
  const FakeLibusb::Call call("libusb_interrupt_event_handler", nullptr);
  context->interrupted = true;
  Fake().changed.notify_all();
}

const char* LIBUSB_CALL libusb_error_name(int code) {
  switch (code) {
    case LIBUSB_SUCCESS:
      return "LIBUSB_SUCCESS";
    case LIBUSB_ERROR_IO:
      return "LIBUSB_ERROR_IO";
    case LIBUSB_ERROR_ACCESS:
      return "LIBUSB_ERROR_ACCESS";
    case LIBUSB_ERROR_NOT_FOUND:
      return "LIBUSB_ERROR_NOT_FOUND";
    default:
      return "**UNKNOWN**";
  }
}

const char* LIBUSB_CALL libusb_strerror(int code) {
  return libusb_error_name(code);
}

}  // extern "C"
