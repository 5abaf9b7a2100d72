#include "FakeLibusb.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <span>
#include <utility>

#include "support/Limits.h"

namespace {

FakeLibusb& Fake() {
  return FakeLibusb::Get();
}

std::size_t SetupSize(const libusb_transfer& transfer) {
  return transfer.type == LIBUSB_TRANSFER_TYPE_CONTROL ? LIBUSB_CONTROL_SETUP_SIZE : 0;
}

bool IsInTransfer(const libusb_transfer& transfer) {
  return ((SetupSize(transfer) != 0 ? transfer.buffer[0] : transfer.endpoint) & LIBUSB_ENDPOINT_IN) != 0;
}

// A configuration of interfaces with one empty setting each.
int MakeConfig(const libusb_device& device, int index, libusb_config_descriptor** made) {
  const auto& [value, numbers] = device.configs.at(static_cast<std::size_t>(index));
  auto* interfaces = new libusb_interface[numbers.size()]();
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    auto* setting = new libusb_interface_descriptor[1]();
    setting->bInterfaceNumber = numbers[i];
    interfaces[i] = {.altsetting = setting, .num_altsetting = 1};
  }
  *made = new libusb_config_descriptor{};
  (*made)->bLength = LIBUSB_DT_CONFIG_SIZE;
  (*made)->bConfigurationValue = value;
  (*made)->bNumInterfaces = static_cast<std::uint8_t>(numbers.size());
  (*made)->interface = interfaces;
  ++Fake().openConfigs;
  return 0;
}

void ApplyPackets(libusb_transfer& transfer, const FakeResult& result) {
  std::size_t place = 0;
  std::size_t taken = 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(transfer.num_iso_packets); ++i) {
    libusb_iso_packet_descriptor& packet = transfer.iso_packet_desc[i];
    packet.actual_length = i < result.packets.size() ? result.packets[i].first : packet.length;
    packet.status = i < result.packets.size() ? result.packets[i].second : LIBUSB_TRANSFER_COMPLETED;
    for (std::size_t n = 0; IsInTransfer(transfer) && n < std::min(packet.actual_length, packet.length); ++n) {
      transfer.buffer[place + n] = taken < result.bytes.size() ? result.bytes[taken++] : 0;
    }
    place += packet.length;
  }
}

void Apply(libusb_transfer& transfer, const FakeResult& result) {
  transfer.status = result.status;
  std::size_t moved = static_cast<std::size_t>(transfer.length) - SetupSize(transfer);
  if (IsInTransfer(transfer)) {
    moved = std::min(moved, result.bytes.size());
  }
  transfer.actual_length = static_cast<int>(moved);
  if (transfer.type == LIBUSB_TRANSFER_TYPE_ISOCHRONOUS) {
    ApplyPackets(transfer, result);
  } else if (IsInTransfer(transfer)) {
    std::copy_n(result.bytes.begin(), moved, transfer.buffer + SetupSize(transfer));
  }
}

// No allocation of this thread fails meanwhile.
class Unfailing {
 public:
  Unfailing() = default;
  Unfailing(const Unfailing&) = delete;
  Unfailing& operator=(const Unfailing&) = delete;
  ~Unfailing() { FakeLibusb::allocationsLeft = mLeft; }

 private:
  const int mLeft = std::exchange(FakeLibusb::allocationsLeft, -1);
};

// A call of the library: noted, held, answered; the handle that it works on counts as busy meanwhile.
class Call {
 public:
  explicit Call(const char* function, libusb_device_handle* handle = nullptr) : mLock(Fake().mutex), mHandle(handle) {
    if (mHandle != nullptr) {
      ++mHandle->busy;
    }
    mAnswer = Fake().Enter(mLock, function);
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    if (mHandle != nullptr) {
      --mHandle->busy;
    }
  }
  int Answer() const { return mAnswer; }
  // Notes what is done to the device.
  int Act(std::string what, std::initializer_list<int> numbers = {}) const {
    for (const int number : numbers) {
      what += " " + std::to_string(number);
    }
    Fake().acts.push_back(std::move(what));
    return mAnswer;
  }
  FakeLibusb::Lock& Held() { return mLock; }

 private:
  const Unfailing mUnfailing;
  FakeLibusb::Lock mLock;
  libusb_device_handle* mHandle;
  int mAnswer = 0;
};

}  // namespace

thread_local int FakeLibusb::allocationsLeft = -1;

void* operator new(std::size_t size) {
  if (FakeLibusb::allocationsLeft >= 0 && FakeLibusb::allocationsLeft-- == 0) {
    throw std::bad_alloc();
  }
  void* const block = std::malloc(std::max<std::size_t>(size, 1));
  return block != nullptr ? block : throw std::bad_alloc();
}
// Beside that one, since a sanitizer has its own for whichever is missing.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
  std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}

FakeLibusb& FakeLibusb::Get() {
  static FakeLibusb fake;
  return fake;
}

void FakeLibusb::Reset() {
  const Lock lock(mutex);
  devices.clear();
  handles.clear();
  answers.clear();
  held.clear();
  calls.clear();
  acts.clear();
  violations.clear();
  inFlight.clear();
  done.clear();
  cancelResult = {LIBUSB_TRANSFER_CANCELLED};
  immediateResult.reset();
  eventErrors = 0;
}

void FakeLibusb::AwaitHeld(const std::string& function) {
  Lock lock(mutex);
  Await(lock, "a held call", [&] { return waiting[function] > 0; });
}

void FakeLibusb::AwaitInFlight(std::size_t count) {
  Lock lock(mutex);
  Await(lock, "transfers in flight", [&] { return inFlight.size() == count; });
}

bool FakeLibusb::Complete(std::uint8_t endpoint, const FakeResult& result) {
  const Lock lock(mutex);
  const auto found = std::ranges::find(inFlight, endpoint, &libusb_transfer::endpoint);
  if (found == inFlight.end()) {
    return false;
  }
  Queue(*found, result);
  return true;
}

std::vector<std::string> FakeLibusb::Violations() {
  const Lock lock(mutex);
  std::vector<std::string> all = violations;
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

void FakeLibusb::Await(Lock& lock, const char* what, const std::function<bool()>& condition) {
  if (!changed.wait_for(lock, vel::kDeadline, condition)) {
    Fail(std::string("waited in vain for ") + what);
  }
}

int FakeLibusb::Enter(Lock& lock, const std::string& function) {
  ++calls[function];
  if (held.contains(function)) {
    ++waiting[function];
    changed.notify_all();
    Await(lock, "being let go", [&] { return !held.contains(function); });
    --waiting[function];
  }
  std::deque<int>& scripted = answers[function];
  if (scripted.empty()) {
    return 0;
  }
  const int answer = scripted.front();
  scripted.pop_front();
  return answer;
}

void FakeLibusb::Queue(libusb_transfer* transfer, const FakeResult& result) {
  std::erase(inFlight, transfer);
  done.emplace_back(transfer, result);
  completing.insert(transfer);
  changed.notify_all();
}

void FakeLibusb::Deliver(Lock& lock) {
  while (MayDeliver()) {
    const auto [transfer, result] = done.front();
    done.pop_front();
    Apply(*transfer, result);
    lock.unlock();
    transfer->callback(transfer);
    lock.lock();
    completing.erase(transfer);
    changed.notify_all();
  }
}

extern "C" {

int LIBUSB_CALL libusb_init(libusb_context** context) {
  const Call call("libusb_init");
  if (call.Answer() == 0) {
    *context = new libusb_context;
    ++Fake().contexts;
  }
  return call.Answer();
}

void LIBUSB_CALL libusb_exit(libusb_context* context) {
  const Call call("libusb_exit");
  if (!Fake().handles.empty() || !Fake().transfers.empty() || Fake().handling) {
    Fake().Fail("libusb_exit while in use");
  }
  --Fake().contexts;
  delete context;
}

int LIBUSB_CALL libusb_set_option(libusb_context*, enum libusb_option option, ...) {
  return Call("libusb_set_option").Act("option", {option});
}

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context*, libusb_device*** list) {
  const Call call("libusb_get_device_list");
  if (call.Answer() != 0) {
    return call.Answer();
  }
  *list = static_cast<libusb_device**>(std::calloc(Fake().devices.size() + 1, sizeof(libusb_device*)));
  ssize_t count = 0;
  for (libusb_device& device : Fake().devices) {
    (*list)[count++] = libusb_ref_device(&device);
  }
  return count;
}

void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int unref) {
  for (libusb_device** entry = list; *entry != nullptr; ++entry) {
    (*entry)->references -= unref != 0 ? 1 : 0;
  }
  std::free(list);
}

libusb_device* LIBUSB_CALL libusb_ref_device(libusb_device* device) {
  ++device->references;
  return device;
}
void LIBUSB_CALL libusb_unref_device(libusb_device* device) {
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
int LIBUSB_CALL libusb_get_device_speed(libusb_device*) {
  return LIBUSB_SPEED_SUPER;
}

int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* device, libusb_device_descriptor* descriptor) {
  const Call call("libusb_get_device_descriptor");
  if (call.Answer() == 0) {
    *descriptor = device->descriptor;
  }
  return call.Answer();
}

int LIBUSB_CALL libusb_get_active_config_descriptor(libusb_device* device, libusb_config_descriptor** config) {
  const Call call("libusb_get_active_config_descriptor");
  if (call.Answer() != 0) {
    return call.Answer();
  }
  return device->active < 0 ? LIBUSB_ERROR_NOT_FOUND : MakeConfig(*device, device->active, config);
}

int LIBUSB_CALL libusb_get_config_descriptor(libusb_device* device, std::uint8_t index,
                                             libusb_config_descriptor** config) {
  const Call call("libusb_get_config_descriptor");
  return call.Answer() != 0 ? call.Answer() : MakeConfig(*device, index, config);
}

void LIBUSB_CALL libusb_free_config_descriptor(libusb_config_descriptor* config) {
  --Fake().openConfigs;
  for (const libusb_interface& item : std::span(config->interface, config->bNumInterfaces)) {
    delete[] item.altsetting;
  }
  delete[] config->interface;
  delete config;
}

int LIBUSB_CALL libusb_open(libusb_device* device, libusb_device_handle** handle) {
  const Call call("libusb_open");
  if (call.Answer() == 0) {
    *handle = &Fake().handles.emplace_back(libusb_device_handle{.device = device});
  }
  return call.Answer();
}

// Like the library, forgets transfers that are still in flight, which only broken event handling excuses.
void LIBUSB_CALL libusb_close(libusb_device_handle* handle) {
  const Call call("libusb_close");
  const auto isOwn = [handle](const libusb_transfer* transfer) { return transfer->dev_handle == handle; };
  const auto forgotten = std::erase_if(Fake().inFlight, isOwn) +
                         std::erase_if(Fake().done, [&](const auto& done) { return isOwn(done.first); });
  if (forgotten != 0 && Fake().eventErrors == 0) {
    Fake().Fail("libusb_close with transfers in flight");
  }
  if (handle->busy != 0) {
    Fake().Fail("libusb_close under a call");
  }
  Fake().handles.remove_if([handle](const libusb_device_handle& open) { return &open == handle; });
}

int LIBUSB_CALL libusb_get_configuration(libusb_device_handle* handle, int* value) {
  const Call call("libusb_get_configuration", handle);
  const libusb_device& device = *handle->device;
  *value = device.active < 0 ? 0 : device.configs[static_cast<std::size_t>(device.active)].first;
  return call.Answer();
}

int LIBUSB_CALL libusb_set_configuration(libusb_device_handle* handle, int value) {
  const Call call("libusb_set_configuration", handle);
  call.Act("configuration", {value});
  for (std::size_t i = 0; call.Answer() == 0 && i < handle->device->configs.size(); ++i) {
    if (handle->device->configs[i].first == value) {
      handle->device->active = static_cast<int>(i);
    }
  }
  return call.Answer();
}

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle* handle, int number) {
  return Call("libusb_claim_interface", handle).Act("claim", {number});
}
int LIBUSB_CALL libusb_release_interface(libusb_device_handle* handle, int number) {
  return Call("libusb_release_interface", handle).Act("release", {number});
}
int LIBUSB_CALL libusb_set_interface_alt_setting(libusb_device_handle* handle, int number, int setting) {
  return Call("libusb_set_interface_alt_setting", handle).Act("setting", {number, setting});
}
int LIBUSB_CALL libusb_clear_halt(libusb_device_handle* handle, unsigned char endpoint) {
  return Call("libusb_clear_halt", handle).Act("clear halt", {endpoint});
}
int LIBUSB_CALL libusb_reset_device(libusb_device_handle* handle) {
  return Call("libusb_reset_device", handle).Act("reset");
}
int LIBUSB_CALL libusb_kernel_driver_active(libusb_device_handle* handle, int) {
  return Call("libusb_kernel_driver_active", handle).Answer();
}
int LIBUSB_CALL libusb_detach_kernel_driver(libusb_device_handle* handle, int number) {
  return Call("libusb_detach_kernel_driver", handle).Act("detach", {number});
}
int LIBUSB_CALL libusb_attach_kernel_driver(libusb_device_handle* handle, int number) {
  return Call("libusb_attach_kernel_driver", handle).Act("attach", {number});
}

libusb_transfer* LIBUSB_CALL libusb_alloc_transfer(int packets) {
  const Call call("libusb_alloc_transfer");
  if (call.Answer() != 0) {
    return nullptr;
  }
  const std::size_t size =
      sizeof(libusb_transfer) + static_cast<std::size_t>(packets) * sizeof(libusb_iso_packet_descriptor);
  return *Fake().transfers.insert(static_cast<libusb_transfer*>(std::calloc(1, size))).first;
}

void LIBUSB_CALL libusb_free_transfer(libusb_transfer* transfer) {
  const FakeLibusb::Lock lock(Fake().mutex);
  if (std::ranges::count(Fake().inFlight, transfer) != 0 ||
      std::ranges::any_of(Fake().done, [transfer](const auto& done) { return done.first == transfer; })) {
    Fake().Fail("libusb_free_transfer in flight");
  }
  if (Fake().transfers.erase(transfer) != 1) {
    Fake().Fail("libusb_free_transfer of no transfer");
    return;
  }
  std::free(transfer);
}

int LIBUSB_CALL libusb_submit_transfer(libusb_transfer* transfer) {
  FakeLibusb& fake = Fake();
  Call call("libusb_submit_transfer", transfer->dev_handle);
  if (call.Answer() != 0) {
    return call.Answer();
  }
  if (!fake.transfers.contains(transfer) || std::ranges::count(fake.inFlight, transfer) != 0) {
    fake.Fail("submission of a transfer that is none, or in flight");
  }
  fake.inFlight.push_back(transfer);
  fake.changed.notify_all();
  if (fake.immediateResult) {
    fake.Queue(transfer, *fake.immediateResult);
    fake.Await(call.Held(), "an immediate completion", [&] { return !fake.completing.contains(transfer); });
  }
  return 0;
}

int LIBUSB_CALL libusb_cancel_transfer(libusb_transfer* transfer) {
  const Call call("libusb_cancel_transfer");
  if (!Fake().transfers.contains(transfer)) {
    Fake().Fail("cancellation of a transfer that was freed");
    return LIBUSB_ERROR_NOT_FOUND;
  }
  if (std::ranges::count(Fake().inFlight, transfer) == 0) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  if (call.Answer() == 0) {
    Fake().Queue(transfer, Fake().cancelResult);
  }
  return call.Answer();
}

int LIBUSB_CALL libusb_handle_events_timeout_completed(libusb_context* context, timeval* wait, int*) {
  FakeLibusb& fake = Fake();
  FakeLibusb::Lock lock(fake.mutex);
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::seconds(wait->tv_sec) + std::chrono::microseconds(wait->tv_usec);
  if (fake.handling) {
    fake.changed.wait_until(lock, end, [&] { return !fake.handling; });
    return 0;
  }
  fake.handling = true;
  fake.changed.wait_until(lock, end,
                          [&] { return fake.eventErrors != 0 || context->interrupted || fake.MayDeliver(); });
  int result = 0;
  if (fake.eventErrors != 0) {
    fake.eventErrors -= fake.eventErrors > 0 ? 1 : 0;
    result = fake.eventError;
    ++fake.calls["libusb_handle_events"];
  } else {
    context->interrupted = false;
    fake.Deliver(lock);
  }
  fake.handling = false;
  fake.changed.notify_all();
  return result;
}

void LIBUSB_CALL libusb_interrupt_event_handler(libusb_context* context) {
  const Call call("libusb_interrupt_event_handler");
  context->interrupted = true;
  Fake().changed.notify_all();
}

const char* LIBUSB_CALL libusb_error_name(int code) {
  return code == LIBUSB_ERROR_IO ? "LIBUSB_ERROR_IO" : "OTHER";
}
const char* LIBUSB_CALL libusb_strerror(int code) {
  return libusb_error_name(code);
}

}  // extern "C"
