// The functions of libusb, of which no other is in the program. What goes through the seam is found by its name.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "io/libusb/LibusbSeam.h"
#include "mockdev/WaitingUsb.h"

struct libusb_context {};
struct libusb_device {};
struct libusb_device_handle {};

namespace vel {
namespace {

WaitingUsb* gDevice = nullptr;
libusb_context gContext;
libusb_device gNode;
libusb_device_handle gHandle;

// A configuration and all that it points to: 1 has both interfaces, 2 only the second.
struct Config {
  explicit Config(std::uint8_t value) {
    endpoint.bLength = 7;
    endpoint.bDescriptorType = LIBUSB_DT_ENDPOINT;
    endpoint.bEndpointAddress = 0x83;
    endpoint.bmAttributes = LIBUSB_TRANSFER_TYPE_ISOCHRONOUS;
    endpoint.wMaxPacketSize = 64;
    endpoint.bInterval = 1;
    for (std::uint8_t i = value - 1; i < 2; ++i) {
      settings[i].bLength = 9;
      settings[i].bDescriptorType = LIBUSB_DT_INTERFACE;
      settings[i].bInterfaceNumber = i;
      settings[i].bInterfaceClass = 255;
      interfaces[i] = {.altsetting = &settings[i], .num_altsetting = 1};
    }
    if (value == 1) {
      settings[1].bNumEndpoints = 1;
      settings[1].endpoint = &endpoint;
    }
    descriptor.bLength = 9;
    descriptor.bDescriptorType = LIBUSB_DT_CONFIG;
    descriptor.wTotalLength = value == 1 ? 34 : 18;
    descriptor.bNumInterfaces = static_cast<std::uint8_t>(3 - value);
    descriptor.bConfigurationValue = value;
    descriptor.bmAttributes = 0x80;
    descriptor.interface = &interfaces[value - 1];
  }

  libusb_config_descriptor descriptor{};  // First: whoever frees it frees the rest.
  libusb_interface interfaces[2]{};
  libusb_interface_descriptor settings[2]{};
  libusb_endpoint_descriptor endpoint{};
};

int GiveConfig(int value, libusb_config_descriptor** config) {
  if (value != 1 && value != 2) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  *config = &(new Config(static_cast<std::uint8_t>(value)))->descriptor;
  return 0;
}

libusb_transfer_status StatusOf(int kernelStatus) {
  return kernelStatus == 0        ? LIBUSB_TRANSFER_COMPLETED
         : kernelStatus == -EPIPE ? LIBUSB_TRANSFER_STALL
                                  : LIBUSB_TRANSFER_ERROR;
}

bool IsIn(const libusb_transfer& transfer) {
  return (transfer.endpoint & LIBUSB_ENDPOINT_IN) != 0 || transfer.endpoint == 0;
}

// What goes through the seam.
int Init(libusb_context** context) {
  *context = &gContext;
  return 0;
}
ssize_t GetDeviceList(libusb_context* /*context*/, libusb_device*** list) {
  *list = new libusb_device* [2] { &gNode, nullptr };
  return 1;
}
int Open(libusb_device* /*device*/, libusb_device_handle** handle) {
  *handle = &gHandle;
  return 0;
}
int SetConfiguration(libusb_device_handle* /*handle*/, int value) {
  gDevice->configuration = value;
  return 0;
}
int Detach(libusb_device_handle* /*handle*/, int number) {
  return std::exchange(gDevice->driverActive[number], false) ? 0 : LIBUSB_ERROR_NOT_FOUND;
}
int Attach(libusb_device_handle* /*handle*/, int number) {
  gDevice->driverActive[number] = true;
  return 0;
}
libusb_transfer* AllocTransfer(int packets) {
  const std::size_t size =
      sizeof(libusb_transfer) + static_cast<std::size_t>(packets) * sizeof(libusb_iso_packet_descriptor);
  return static_cast<libusb_transfer*>(std::calloc(1, size));
}
int OnHandle(libusb_device_handle* /*handle*/) {
  return 0;
}
int OnInterface(libusb_device_handle* /*handle*/, int /*number*/) {
  return 0;
}

template <class Result, class... Args>
void* Address(Result (*function)(Args...)) {
  return reinterpret_cast<void*>(function);
}

}  // namespace

// Allocates nothing, as the system's own would not.
void* LibusbBehindSeam(const char* function) {
  static const std::pair<std::string_view, void*> functions[] = {
      {"libusb_init", Address(Init)},
      {"libusb_get_device_list", Address(GetDeviceList)},
      {"libusb_open", Address(Open)},
      {"libusb_close", Address(OnHandle)},
      {"libusb_reset_device", Address(OnHandle)},
      {"libusb_set_configuration", Address(SetConfiguration)},
      {"libusb_claim_interface", Address(OnInterface)},
      {"libusb_release_interface", Address(OnInterface)},
      {"libusb_set_interface_alt_setting", Address(+[](libusb_device_handle*, int, int) { return 0; })},
      {"libusb_clear_halt", Address(+[](libusb_device_handle*, unsigned char) { return 0; })},
      {"libusb_detach_kernel_driver", Address(Detach)},
      {"libusb_attach_kernel_driver", Address(Attach)},
      {"libusb_alloc_transfer", Address(AllocTransfer)},
      {"libusb_submit_transfer", Address(+[](libusb_transfer* transfer) { return gDevice->Submit(transfer); })},
      {"libusb_cancel_transfer", Address(+[](libusb_transfer* transfer) { return gDevice->Cancel(transfer); })},
      {"libusb_handle_events_timeout_completed",
       Address(+[](libusb_context*, timeval* limit, int*) { return gDevice->HandleEvents(*limit); })},
  };
  return std::ranges::find(functions, std::string_view(function), &std::pair<std::string_view, void*>::first)->second;
}

WaitingUsb::WaitingUsb() {
  gDevice = this;
}

WaitingUsb::~WaitingUsb() {
  gDevice = nullptr;
}

bool WaitingUsb::Complete(std::uint8_t endpoint, const UsbResult& result) {
  const MutexLock lock(mMutex);
  const auto transfer = Fill(endpoint, result);
  if (transfer == mPending.end()) {
    return false;
  }
  (*transfer)->status = StatusOf(result.status);
  mDone.splice(mDone.end(), mPending, transfer);
  mChanged.NotifyAll();
  return true;
}

void WaitingUsb::MovePart(std::uint8_t endpoint, const UsbResult& result) {
  const MutexLock lock(mMutex);
  Fill(endpoint, result);
}

Bytes WaitingUsb::LastSent() {
  const MutexLock lock(mMutex);
  return mSent;
}

bool WaitingUsb::AwaitPending(std::size_t count) {
  MutexLock lock(mMutex);
  while (mPending.size() != count) {
    mChanged.Wait(lock);
  }
  return true;
}

int WaitingUsb::Submit(libusb_transfer* transfer) {
  const MutexLock lock(mMutex);
  if (!IsIn(*transfer)) {
    mSent.assign(transfer->buffer, transfer->buffer + transfer->length);
  }
  transfer->actual_length = 0;
  mPending.push_back(transfer);
  mChanged.NotifyAll();
  return 0;
}

int WaitingUsb::Cancel(libusb_transfer* transfer) {
  const MutexLock lock(mMutex);
  const auto pending = std::ranges::find(mPending, transfer);
  if (pending == mPending.end()) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  transfer->status = LIBUSB_TRANSFER_CANCELLED;
  mDone.splice(mDone.end(), mPending, pending);
  mChanged.NotifyAll();
  return 0;
}

int WaitingUsb::HandleEvents(const timeval& limit) {
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::seconds(limit.tv_sec) + std::chrono::microseconds(limit.tv_usec);
  {
    MutexLock lock(mMutex);
    const unsigned round = mRounds;
    while (!mInterrupted && mRounds == round && (mHandled || mDone.empty())) {
      if (!mChanged.WaitUntil(lock, end)) {
        return 0;
      }
    }
    mInterrupted = false;
    if (mHandled) {
      return 0;
    }
    mHandled = true;
  }
  while (libusb_transfer* transfer = TakeDone()) {
    transfer->callback(transfer);
  }
  const MutexLock lock(mMutex);
  mHandled = false;
  ++mRounds;
  mChanged.NotifyAll();
  return 0;
}

libusb_transfer* WaitingUsb::TakeDone() {
  const MutexLock lock(mMutex);
  if (mDone.empty()) {
    return nullptr;
  }
  libusb_transfer* transfer = mDone.front();
  mDone.pop_front();
  return transfer;
}

void WaitingUsb::Interrupt() {
  const MutexLock lock(mMutex);
  mInterrupted = true;
  mChanged.NotifyAll();
}

WaitingUsb::Transfers::iterator WaitingUsb::Fill(std::uint8_t endpoint, const UsbResult& result) {
  const auto found = std::ranges::find_if(
      mPending, [&](const libusb_transfer* each) { return endpoint == kAny || each->endpoint == endpoint; });
  if (found == mPending.end()) {
    return found;
  }
  libusb_transfer& transfer = **found;
  const std::size_t setup = transfer.type == LIBUSB_TRANSFER_TYPE_CONTROL ? LIBUSB_CONTROL_SETUP_SIZE : 0;
  if (IsIn(transfer)) {
    std::memcpy(transfer.buffer + setup, result.bytes.data(),
                std::min(result.bytes.size(), static_cast<std::size_t>(transfer.length) - setup));
  }
  if (transfer.type != LIBUSB_TRANSFER_TYPE_ISOCHRONOUS) {
    transfer.actual_length = IsIn(transfer) ? static_cast<int>(result.bytes.size()) : transfer.length;
  }
  for (std::size_t i = 0; i < static_cast<std::size_t>(transfer.num_iso_packets); ++i) {
    libusb_iso_packet_descriptor& packet = transfer.iso_packet_desc[i];
    packet.actual_length = i < result.packets.size() ? result.packets[i].first : packet.length;
    packet.status = StatusOf(i < result.packets.size() ? result.packets[i].second : 0);
  }
  return found;
}

}  // namespace vel

extern "C" {

void libusb_exit(libusb_context* /*context*/) {}
void libusb_free_device_list(libusb_device** list, int /*unref*/) {
  delete[] list;
}
libusb_device* libusb_ref_device(libusb_device* device) {
  return device;
}
void libusb_unref_device(libusb_device* /*device*/) {}
std::uint8_t libusb_get_bus_number(libusb_device* /*device*/) {
  return vel::MockUsb::kBus;
}
std::uint8_t libusb_get_device_address(libusb_device* /*device*/) {
  return vel::gDevice->Address();
}
std::uint8_t libusb_get_port_number(libusb_device* /*device*/) {
  return 1;
}
int libusb_get_device_speed(libusb_device* /*device*/) {
  return LIBUSB_SPEED_HIGH;
}
int libusb_get_device_descriptor(libusb_device* /*device*/, libusb_device_descriptor* descriptor) {
  *descriptor = {};
  descriptor->bLength = 18;
  descriptor->bDescriptorType = LIBUSB_DT_DEVICE;
  descriptor->bNumConfigurations = 2;
  return 0;
}
int libusb_get_configuration(libusb_device_handle* /*handle*/, int* value) {
  *value = vel::gDevice->configuration;
  return 0;
}
int libusb_get_active_config_descriptor(libusb_device* /*device*/, libusb_config_descriptor** config) {
  return vel::GiveConfig(vel::gDevice->configuration, config);
}
int libusb_get_config_descriptor(libusb_device* /*device*/, std::uint8_t index, libusb_config_descriptor** config) {
  return vel::GiveConfig(index + 1, config);
}
void libusb_free_config_descriptor(libusb_config_descriptor* config) {
  delete reinterpret_cast<vel::Config*>(config);
}
int libusb_kernel_driver_active(libusb_device_handle* /*handle*/, int number) {
  return vel::gDevice->driverActive[number] ? 1 : 0;
}
void libusb_free_transfer(libusb_transfer* transfer) {
  std::free(transfer);
}
void libusb_interrupt_event_handler(libusb_context* /*context*/) {
  vel::gDevice->Interrupt();
}
const char* libusb_error_name(int /*code*/) {
  return "LIBUSB_ERROR";
}
const char* libusb_strerror(int code) {
  return code == LIBUSB_ERROR_IO ? "Input/Output Error" : "Error";
}

}  // extern "C"
