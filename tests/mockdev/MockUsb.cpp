#include "mockdev/MockUsb.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "support/Limits.h"

namespace vel {
namespace {

constexpr char kSysPath[] = "/devices/usb1/1-1";
constexpr std::array<std::uint8_t, 4096> kFifoFill{};
constexpr std::size_t kSetupBytes = 8;
constexpr std::uint8_t kLastAddress = 100;
constexpr std::size_t kMemoryLimit = std::size_t{16} << 20U;  // usbcore.usbfs_memory_mb, of which each URB takes more.

// The node of a device on bus 1, below /dev.
std::string NodeOf(std::uint8_t address) {
  const std::string digits = std::to_string(address);
  return "bus/usb/001/" + std::string(3 - digits.size(), '0') + digits;
}

// A device in umockdev's notation.
std::string DeviceText(const std::string& path, std::uint8_t address, const Bytes& descriptors) {
  std::string text = "P: " + path + "\nN: " + NodeOf(address) + "\n";
  text += "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: BUSNUM=001\nE: DEVNUM=" + std::to_string(address) + "\n";
  text += "E: DEVNAME=/dev/" + NodeOf(address) + "\nA: busnum=1\\n\nA: devnum=" + std::to_string(address) + "\\n\n";
  text += "A: bConfigurationValue=1\\n\nA: speed=480\\n\nH: descriptors=";
  for (const std::uint8_t byte : descriptors) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    text += {kDigits[byte >> 4U], kDigits[byte & 15U]};
  }
  return text + "\n";
}

// A view of what the client's memory holds there; copied back when the call completes.
template <class T>
T& As(UMockdevIoctlData& data) {
  return *reinterpret_cast<T*>(data.data);
}

UMockdevIoctlData* BufferOf(UMockdevIoctlData& urb, std::size_t length) {
  return umockdev_ioctl_data_resolve(&urb, offsetof(usbdevfs_urb, buffer), length, nullptr);
}

}  // namespace

std::span<usbdevfs_iso_packet_desc> MockUsb::Urb::Packets() const {
  auto& urb = As<usbdevfs_urb>(*data);
  return {urb.iso_frame_desc, static_cast<std::size_t>(urb.number_of_packets)};
}

MockUsb::MockUsb(Traits traits)
    : mTraits(std::move(traits)), mTestbed(umockdev_testbed_new()), mHandler(umockdev_ioctl_base_new()) {
  g_signal_connect(mHandler.get(), "handle-ioctl", G_CALLBACK(&MockUsb::OnIoctl), this);
  g_signal_connect(mHandler.get(), "client-connected", G_CALLBACK(&MockUsb::OnOpened), this);
  const Bytes hub = {18, 1, 0x00, 0x02, 9, 0, 0, 64, 0x6B, 0x1D, 2, 0, 0, 1, 0, 0, 0, 1, 9, 2, 9, 0, 0, 1, 0, 0, 0};
  umockdev_testbed_add_from_string(mTestbed.get(), DeviceText("/devices/usb1", 1, hub).c_str(), nullptr);
}

bool MockUsb::AwaitPending(std::size_t count) {
  return Await([count](const State& state) { return state.pending == count; });
}

bool MockUsb::AwaitClosed() {
  return Await([](const State& state) { return state.openFiles == 0; });
}

Bytes MockUsb::Descriptor(std::uint8_t type, std::uint8_t index) const {
  constexpr std::uint8_t kVendorLow = kVendor & 0xFFU;
  constexpr std::uint8_t kVendorHigh = kVendor >> 8U;
  const auto product = static_cast<std::uint8_t>(mTraits.product);
  if (type == 1) {
    return {18, 1, 0x00, 0x02, mTraits.usbClass,      0, 0, 64, kVendorLow, kVendorHigh, product, 0, 0,
            1,  1, 2,    0,    mTraits.configurations};
  }
  if (type == 2) {
    return mTraits.config;
  }
  const std::array<std::string_view, 2> strings = {kMaker, kName};
  if (type != 3 || index > strings.size()) {
    return {};
  }
  Bytes bytes = {4, 3, 0x09, 0x04};
  if (index > 0) {
    bytes.resize(2);
    for (const char letter : strings[index - 1U]) {
      bytes.insert(bytes.end(), {static_cast<std::uint8_t>(letter), 0});
    }
    bytes[0] = static_cast<std::uint8_t>(bytes.size());
  }
  return bytes;
}

void MockUsb::Plug() {
  mAddress = mAddress < kLastAddress ? static_cast<std::uint8_t>(mAddress + 1) : 2;
  const std::string node = "/dev/" + NodeOf(mAddress);
  Bytes descriptors = Descriptor(1, 0);
  descriptors.insert(descriptors.end(), mTraits.config.begin(), mTraits.config.end());
  umockdev_testbed_attach_ioctl(mTestbed.get(), node.c_str(), mHandler.get(), nullptr);
  const std::string text = DeviceText(kSysPath, mAddress, descriptors);
  if (umockdev_testbed_add_from_string(mTestbed.get(), text.c_str(), nullptr) == FALSE) {
    throw std::runtime_error("umockdev does not take the device");
  }
  const std::string fifo = NodeFile();
  unlink(fifo.c_str());
  {
    const MutexLock lock(mMutex);
    mFifo = UniqueFd(mkfifo(fifo.c_str(), 0666) == 0 ? open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC) : -1);
    if (!mFifo.IsValid() || fcntl(mFifo.Get(), F_SETPIPE_SZ, int{kFifoFill.size()}) < 0) {
      throw std::runtime_error("no FIFO at " + fifo);
    }
    mNode = node;
    mFull = false;
    mHalted = mTraits.halted;
    mState.driverBound = {true, true};
    mState.altSetting = 0;
    mState.configuration = 1;
    Changed();
  }
  if (mTells) {
    umockdev_testbed_uevent(mTestbed.get(), (std::string("/sys") + kSysPath).c_str(), "add");
  }
}

void MockUsb::PlugTwin() {
  Bytes descriptors = Descriptor(1, 0);
  descriptors.insert(descriptors.end(), mTraits.config.begin(), mTraits.config.end());
  const std::string text = DeviceText("/devices/usb1/1-2", kLastAddress + 1, descriptors);
  umockdev_testbed_add_from_string(mTestbed.get(), text.c_str(), nullptr);
}

void MockUsb::Unplug() {
  umockdev_testbed_detach_ioctl(mTestbed.get(), ("/dev/" + NodeOf(mAddress)).c_str(), nullptr);
  {
    const MutexLock lock(mMutex);
    mNode.clear();
    mState.driverBound = {};
    Kill(-ESHUTDOWN, [](const Urb&) { return true; });
    Changed();
    mFifo = {};  // Left empty: whoever still has it open is told at once that the device is gone.
  }
  if (mTells) {
    umockdev_testbed_uevent(mTestbed.get(), (std::string("/sys") + kSysPath).c_str(), "remove");
  }
  umockdev_testbed_remove_device(mTestbed.get(), (std::string("/sys") + kSysPath).c_str());
}

std::string MockUsb::NodeFile() const {
  const std::unique_ptr<gchar, decltype(&g_free)> root(umockdev_testbed_get_root_dir(mTestbed.get()), &g_free);
  return root.get() + ("/dev/" + NodeOf(mAddress));
}

void MockUsb::Forbid() {
  if (chmod(NodeFile().c_str(), 0) != 0) {
    throw std::runtime_error("cannot change the rights of " + NodeFile());
  }
}

MockUsb::State MockUsb::Look() {
  const MutexLock lock(mMutex);
  return mState;
}

bool MockUsb::Await(const std::function<bool(const State&)>& reached) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mMutex);
  while (!reached(mState) && mChanged.WaitUntil(lock, deadline)) {
  }
  return reached(mState);
}

void MockUsb::Changed() {
  const bool full = mDone.empty();
  if (mFifo.IsValid() && full != mFull) {
    std::array<std::uint8_t, kFifoFill.size()> drain{};
    const ssize_t count =
        full ? write(mFifo.Get(), kFifoFill.data(), kFifoFill.size()) : read(mFifo.Get(), drain.data(), drain.size());
    mFull = full && count > 0;
  }
  mState.pending = mPending.size();
  mChanged.NotifyAll();
}

void MockUsb::OnOpened(UMockdevIoctlBase* /*base*/, UMockdevIoctlClient* client, gpointer self) {
  auto& device = *static_cast<MockUsb*>(self);
  const MutexLock lock(device.mMutex);
  ++device.mState.openFiles;
  g_object_weak_ref(G_OBJECT(client), &MockUsb::OnClosed, self);
}

void MockUsb::OnClosed(gpointer self, GObject* client) {
  auto& device = *static_cast<MockUsb*>(self);
  const MutexLock lock(device.mMutex);
  const void* const gone = client;
  const auto isOfClient = [gone](const Urb& urb) { return urb.client == gone; };
  device.mPending.remove_if(isOfClient);
  device.mDone.remove_if(isOfClient);
  std::ranges::replace(device.mClaims, gone, nullptr);
  --device.mState.openFiles;
  device.Changed();
}

gboolean MockUsb::OnIoctl(UMockdevIoctlBase* /*base*/, UMockdevIoctlClient* client, gpointer self) {
  auto& device = *static_cast<MockUsb*>(self);
  const MutexLock lock(device.mMutex);
  const long result = device.Handle(client);
  device.Changed();
  umockdev_ioctl_client_complete(client, result < 0 ? -1 : result, result < 0 ? static_cast<int>(-result) : 0);
  return TRUE;
}

long MockUsb::Handle(UMockdevIoctlClient* client) {
  UMockdevIoctlData& arg = *umockdev_ioctl_client_get_arg(client);
  const gulong request = umockdev_ioctl_client_get_request(client);
  if (request == USBDEVFS_REAPURBNDELAY) {
    return Reap(client);
  }
  if (mNode != umockdev_ioctl_client_get_devnode(client)) {
    return -ENODEV;
  }
  const auto argument = [&](std::size_t size) {
    return ObjectPtr<UMockdevIoctlData>(umockdev_ioctl_data_resolve(&arg, 0, size, nullptr));
  };
  switch (request) {
    case USBDEVFS_GET_CAPABILITIES:
      As<std::uint32_t>(*argument(sizeof(std::uint32_t))) =
          USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
          USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
      return 0;
    case USBDEVFS_SUBMITURB:
      return Submit(client);
    case USBDEVFS_DISCARDURB: {
      const auto address = As<unsigned long>(arg);
      return Kill(-ENOENT, [&](const Urb& urb) { return urb.client == client && urb.data->client_addr == address; }) > 0
                 ? 0
                 : -EINVAL;
    }
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_RELEASEINTERFACE:
      return DriverCall(client, As<unsigned>(*argument(sizeof(unsigned))), static_cast<unsigned>(request));
    case USBDEVFS_GETDRIVER: {
      auto& query = As<usbdevfs_getdriver>(*argument(sizeof(usbdevfs_getdriver)));
      if (query.interface > 1 || (!mState.driverBound[query.interface] && mClaims[query.interface] == nullptr)) {
        return -ENODATA;
      }
      const std::string_view driver = mState.driverBound[query.interface] ? "mocked" : "usbfs";
      query.driver[driver.copy(query.driver, driver.size())] = '\0';
      return 0;
    }
    case USBDEVFS_IOCTL: {
      const auto& call = As<usbdevfs_ioctl>(*argument(sizeof(usbdevfs_ioctl)));
      return DriverCall(client, static_cast<unsigned>(call.ifno), static_cast<unsigned>(call.ioctl_code));
    }
    case USBDEVFS_SETINTERFACE:
      return SetInterface(As<usbdevfs_setinterface>(*argument(sizeof(usbdevfs_setinterface))));
    case USBDEVFS_SETCONFIGURATION:
      return SetConfiguration(As<int>(*argument(sizeof(int))));
    case USBDEVFS_CLEAR_HALT:
      mHalted.erase(static_cast<std::uint8_t>(As<unsigned>(*argument(sizeof(unsigned)))));
      return 0;
    case USBDEVFS_RESET:
      ++mState.resets;
      return 0;
    default:
      return -ENOTTY;
  }
}

// Who has an interface: a kernel driver, a client, or nobody.
long MockUsb::DriverCall(const UMockdevIoctlClient* client, unsigned interface, unsigned code) {
  if (interface > 1) {
    return -EINVAL;
  }
  bool& bound = mState.driverBound[interface];
  const void*& claim = mClaims[interface];
  switch (code) {
    case USBDEVFS_CLAIMINTERFACE:
      if (bound || (claim != nullptr && claim != client)) {
        return -EBUSY;
      }
      claim = client;
      return 0;
    case USBDEVFS_RELEASEINTERFACE:
      if (claim != client) {
        return -EINVAL;
      }
      claim = nullptr;
      KillInterface(interface);
      return 0;
    case USBDEVFS_DISCONNECT:
      return std::exchange(bound, false) ? 0 : -ENODATA;
    case USBDEVFS_CONNECT:
      if (bound || claim != nullptr) {
        return -EBUSY;
      }
      bound = true;
      return 1;
    default:
      return -ENOTTY;
  }
}

long MockUsb::SetInterface(const usbdevfs_setinterface& wanted) {
  if (wanted.interface > 1 || wanted.altsetting > (wanted.interface == 1 ? mTraits.lastSetting : 0)) {
    return -EINVAL;
  }
  KillInterface(wanted.interface);
  mState.altSetting = wanted.interface == 1 ? wanted.altsetting : mState.altSetting;
  return 0;
}

long MockUsb::SetConfiguration(int value) {
  if (std::ranges::any_of(mState.driverBound, std::identity()) ||
      std::ranges::any_of(mClaims, [](const void* claim) { return claim != nullptr; })) {
    return -EBUSY;
  }
  mState.configuration = value;
  umockdev_testbed_set_attribute(mTestbed.get(), (std::string("/sys") + kSysPath).c_str(), "bConfigurationValue",
                                 std::to_string(value).c_str());
  return 0;
}

void MockUsb::KillInterface(unsigned interface) {
  Kill(-ENOENT,
       [&](const Urb& urb) { return urb.type != USBDEVFS_URB_TYPE_CONTROL && InterfaceOf(urb.endpoint) == interface; });
}

long MockUsb::Submit(UMockdevIoctlClient* client) {
  UMockdevIoctlData& arg = *umockdev_ioctl_client_get_arg(client);
  const auto address = As<unsigned long>(arg);
  Urb urb;
  urb.client = client;
  urb.data.reset(umockdev_ioctl_data_resolve(&arg, 0, sizeof(usbdevfs_urb), nullptr));
  urb.type = As<usbdevfs_urb>(*urb.data).type;
  urb.endpoint = As<usbdevfs_urb>(*urb.data).endpoint;
  urb.length = static_cast<std::size_t>(As<usbdevfs_urb>(*urb.data).buffer_length);
  if (urb.type == USBDEVFS_URB_TYPE_ISO) {
    // Once more, with its packets; the first answer is kept unless it is dropped.
    const std::size_t size = sizeof(usbdevfs_urb) + urb.Packets().size_bytes();
    umockdev_ioctl_data_reload(&arg, nullptr);
    As<unsigned long>(arg) = address;
    urb.data.reset(umockdev_ioctl_data_resolve(&arg, 0, size, nullptr));
    urb.length = 0;
    for (const usbdevfs_iso_packet_desc& packet : urb.Packets()) {
      urb.length += packet.length;
    }
  }
  if (urb.type != USBDEVFS_URB_TYPE_CONTROL && mState.driverBound[InterfaceOf(urb.endpoint)]) {
    return -EBUSY;
  }
  if (urb.length >= kMemoryLimit) {
    return -ENOMEM;
  }
  if (urb.type == USBDEVFS_URB_TYPE_ISO && mState.altSetting == 0) {
    return -ENOENT;
  }
  Bytes data;
  if (urb.length > 0 && (urb.type == USBDEVFS_URB_TYPE_CONTROL || !urb.IsIn())) {
    const ObjectPtr<UMockdevIoctlData> buffer(BufferOf(*urb.data, urb.length));
    data.assign(buffer->data, buffer->data + buffer->data_len);
  }
  bool done = true;
  if (urb.type == USBDEVFS_URB_TYPE_CONTROL) {
    done = ServeControl(urb, data);
  } else if (mHalted.contains(urb.endpoint)) {
    urb.status = -EPIPE;
  } else {
    done = Serve(urb, std::move(data));
  }
  (done ? mDone : mPending).push_back(std::move(urb));
  return 0;
}

bool MockUsb::ServeControl(Urb& urb, const Bytes& data) {
  const std::span setup = std::span(data).first(kSetupBytes);
  const std::size_t room = data.size() - kSetupBytes;
  Bytes answer;
  if (setup[0] == 0x80 && setup[1] == 6) {
    answer = Descriptor(setup[3], setup[2]);
    urb.status = answer.empty() ? -EPIPE : 0;
  } else if (!ServeRequest(urb, setup, Bytes(data.begin() + kSetupBytes, data.end()), answer)) {
    return false;
  }
  if (urb.status == 0 && (setup[0] & 0x80U) != 0) {
    answer.resize(std::min(answer.size(), room));
    urb.moved = answer.size();
    urb.in.assign(setup.begin(), setup.end());
    urb.in.insert(urb.in.end(), answer.begin(), answer.end());
  } else if (urb.status == 0) {
    urb.moved = room;
  }
  return true;
}

std::size_t MockUsb::Kill(int status, const std::function<bool(const Urb&)>& fits) {
  std::size_t killed = 0;
  for (auto urb = mPending.begin(); urb != mPending.end();) {
    const auto next = std::next(urb);
    if (fits(*urb)) {
      urb->status = status;
      mDone.splice(mDone.end(), mPending, urb);
      ++killed;
    }
    urb = next;
  }
  return killed;
}

long MockUsb::Reap(UMockdevIoctlClient* client) {
  const auto done = std::ranges::find(mDone, static_cast<const void*>(client), &Urb::client);
  if (done == mDone.end()) {
    return mNode == umockdev_ioctl_client_get_devnode(client) ? -EAGAIN : -ENODEV;
  }
  As<usbdevfs_urb>(*done->data).status = done->status;
  As<usbdevfs_urb>(*done->data).actual_length = static_cast<int>(done->moved);
  if (!done->in.empty()) {
    const ObjectPtr<UMockdevIoctlData> buffer(BufferOf(*done->data, done->length));
    std::ranges::copy(done->in, buffer->data);
  }
  UMockdevIoctlData* const arg = umockdev_ioctl_client_get_arg(client);
  const ObjectPtr<UMockdevIoctlData> place(umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr));
  umockdev_ioctl_data_set_ptr(place.get(), 0, done->data.get());
  mDone.erase(done);
  return 0;
}

}  // namespace vel
