#include "mockdev/MockUsbDevice.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <numeric>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "mockdev/MockedUsbfs.h"

namespace vel {
namespace {

constexpr char kSysPath[] = "/sys/devices/usb1/1-1";
constexpr std::array<std::uint8_t, 4096> kFifoFill{};
constexpr std::chrono::seconds kLimit{30};  // Only a failure reaches it.
constexpr std::size_t kSetupBytes = 8;
constexpr std::uint8_t kLastAddress = 100;

constexpr std::uint8_t kLow(std::size_t value) {
  return static_cast<std::uint8_t>(value);
}
constexpr std::uint8_t kHigh(std::size_t value) {
  return static_cast<std::uint8_t>(value >> 8U);
}

Bytes DeviceDescriptor(std::uint8_t usbClass, std::uint16_t vendor, std::uint16_t product) {
  return {18, 1, 0x00, 0x02, usbClass, 0, 0, 64, kLow(vendor), kHigh(vendor), kLow(product), kHigh(product),
          0,  1, 1,    2,    0,        1};
}

// clang-format off
constexpr std::array<std::uint8_t, 106> kConfig = {
    9, 2, 106, 0, 2, 1, 0, 0x80, 50,
    9, 4, 0, 0, 8, 0xFF, 0, 0, 0,
    7, 5, 0x01, 2, 0x00, 0x02, 0,
    7, 5, 0x81, 2, 0x00, 0x02, 0,
    7, 5, 0x02, 2, 0x00, 0x02, 0,
    7, 5, 0x82, 2, 0x00, 0x02, 0,
    7, 5, 0x84, 2, 0x00, 0x02, 0,
    7, 5, 0x85, 2, 0x00, 0x02, 0,
    7, 5, 0x03, 3, 64, 0, 4,
    7, 5, 0x83, 3, 64, 0, 4,
    9, 4, 1, 0, 0, 0xFF, 0, 0, 0,
    9, 4, 1, 1, 2, 0xFF, 0, 0, 0,
    7, 5, 0x06, 1, 0x00, 0x04, 1,
    7, 5, 0x86, 1, 0x00, 0x04, 1};
// clang-format on

Bytes StringDescriptor(std::uint8_t index) {
  if (index == 0) {
    return {4, 3, 0x09, 0x04};
  }
  const std::string text = index == 1 ? MockUsbDevice::kMaker : MockUsbDevice::kName;
  Bytes bytes = {static_cast<std::uint8_t>(2 + 2 * text.size()), 3};
  for (const char letter : text) {
    bytes.insert(bytes.end(), {static_cast<std::uint8_t>(letter), 0});
  }
  return bytes;
}

bool IsIn(std::uint8_t endpoint) {
  return (endpoint & 0x80U) != 0;
}
std::size_t InterfaceOf(std::uint8_t endpoint) {
  return (endpoint & 0x0FU) == 6 ? 1 : 0;
}

}  // namespace

MockUsbDevice::MockUsbDevice() : mTestbed(umockdev_testbed_new()), mHandler(umockdev_ioctl_base_new()) {
  g_signal_connect(mHandler.get(), "handle-ioctl", G_CALLBACK(&MockUsbDevice::OnIoctl), this);
  g_signal_connect(mHandler.get(), "client-connected", G_CALLBACK(&MockUsbDevice::OnOpened), this);
  const std::string hub = DeviceText("/devices/usb1", 1, DeviceDescriptor(9, 0x1D6B, 2));
  umockdev_testbed_add_from_string(mTestbed.get(), hub.c_str(), nullptr);
}

MockUsbDevice::~MockUsbDevice() {
  static_cast<void>(Await([](const State& state) { return state.openFiles == 0; }));
}

void MockUsbDevice::Plug() {
  mAddress = mAddress < kLastAddress ? static_cast<std::uint8_t>(mAddress + 1) : 2;
  const std::string node = NodeOf(mAddress);
  Bytes descriptors = DeviceDescriptor(0, kVendor, kProduct);
  descriptors.insert(descriptors.end(), kConfig.begin(), kConfig.end());
  umockdev_testbed_attach_ioctl(mTestbed.get(), ("/dev/" + node).c_str(), mHandler.get(), nullptr);
  const std::string text = DeviceText("/devices/usb1/1-1", mAddress, descriptors);
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
    mNode = "/dev/" + node;
    mFull = false;
    mHalted = true;
    mState.driverBound = {true, true};
    mState.altSetting = 0;
    mLoops.clear();
    Changed();
  }
  umockdev_testbed_uevent(mTestbed.get(), kSysPath, "add");
}

void MockUsbDevice::Unplug() {
  umockdev_testbed_detach_ioctl(mTestbed.get(), ("/dev/" + NodeOf(mAddress)).c_str(), nullptr);
  {
    const MutexLock lock(mMutex);
    mNode.clear();
    mState.driverBound = {};
    Kill(-ESHUTDOWN, [](const Urb&) { return true; });
    Changed();
    mFifo = {};  // Left empty: whoever still has it open is told at once that the device is gone.
  }
  umockdev_testbed_uevent(mTestbed.get(), kSysPath, "remove");
  umockdev_testbed_remove_device(mTestbed.get(), kSysPath);
}

std::string MockUsbDevice::NodeFile() const {
  const std::unique_ptr<gchar, decltype(&g_free)> root(umockdev_testbed_get_root_dir(mTestbed.get()), &g_free);
  return root.get() + ("/dev/" + NodeOf(mAddress));
}

void MockUsbDevice::Forbid() {
  if (chmod(NodeFile().c_str(), 0) != 0) {
    throw std::runtime_error("cannot change the rights of " + NodeFile());
  }
}

void MockUsbDevice::SetPacketStatuses(std::vector<int> statuses) {
  const MutexLock lock(mMutex);
  mPacketStatuses = std::move(statuses);
}

Bytes MockUsbDevice::Taken(std::uint8_t endpoint) {
  const MutexLock lock(mMutex);
  return mTaken[endpoint];
}

Bytes MockUsbDevice::Pattern(std::size_t length) {
  Bytes bytes(length);
  for (std::size_t i = 0; i < length; ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
  }
  return bytes;
}

MockUsbDevice::State MockUsbDevice::Look() {
  const MutexLock lock(mMutex);
  return mState;
}

bool MockUsbDevice::Await(const std::function<bool(const State&)>& reached) {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  MutexLock lock(mMutex);
  while (!reached(mState) && mChanged.WaitUntil(lock, deadline)) {
  }
  return reached(mState);
}

void MockUsbDevice::Changed() {
  const bool full = mDone.empty();
  if (mFifo.IsValid() && full != mFull) {
    std::array<std::uint8_t, kFifoFill.size()> drain{};
    const ssize_t count =
        full ? write(mFifo.Get(), kFifoFill.data(), kFifoFill.size()) : read(mFifo.Get(), drain.data(), drain.size());
    mFull = full && count > 0;
  }
  mState.pending = mPending.size();
  for (std::size_t i = 0; i < mClaims.size(); ++i) {
    mState.claimed[i] = mClaims[i] != nullptr;
  }
  mChanged.NotifyAll();
}

void MockUsbDevice::OnOpened(UMockdevIoctlBase* /*base*/, UMockdevIoctlClient* client, gpointer self) {
  auto& device = *static_cast<MockUsbDevice*>(self);
  const MutexLock lock(device.mMutex);
  ++device.mState.openFiles;
  g_object_weak_ref(G_OBJECT(client), &MockUsbDevice::OnClosed, self);
}

void MockUsbDevice::OnClosed(gpointer self, GObject* client) {
  auto& device = *static_cast<MockUsbDevice*>(self);
  const MutexLock lock(device.mMutex);
  const void* const gone = client;
  const auto isOfClient = [gone](const Urb& urb) { return urb.client == gone; };
  device.mPending.remove_if(isOfClient);
  device.mDone.remove_if(isOfClient);
  for (const void*& claim : device.mClaims) {
    claim = claim == gone ? nullptr : claim;
  }
  --device.mState.openFiles;
  device.Changed();
}

gboolean MockUsbDevice::OnIoctl(UMockdevIoctlBase* /*base*/, UMockdevIoctlClient* client, gpointer self) {
  auto& device = *static_cast<MockUsbDevice*>(self);
  const MutexLock lock(device.mMutex);
  const long result = device.Handle(client);
  device.Changed();
  umockdev_ioctl_client_complete(client, result < 0 ? -1 : result, result < 0 ? static_cast<int>(-result) : 0);
  return TRUE;
}

long MockUsbDevice::Handle(UMockdevIoctlClient* client) {
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
      return DriverCall(client, As<unsigned>(*argument(sizeof(unsigned))), static_cast<int>(request));
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
      return DriverCall(client, static_cast<unsigned>(call.ifno), call.ioctl_code);
    }
    case USBDEVFS_SETINTERFACE: {
      const auto& wanted = As<usbdevfs_setinterface>(*argument(sizeof(usbdevfs_setinterface)));
      if (wanted.interface > 1 || wanted.altsetting > wanted.interface) {
        return -EINVAL;
      }
      Kill(-ENOENT, [interface = wanted.interface](const Urb& urb) {
        return urb.type != USBDEVFS_URB_TYPE_CONTROL && InterfaceOf(urb.endpoint) == interface;
      });
      mState.altSetting = wanted.interface == 1 ? static_cast<int>(wanted.altsetting) : mState.altSetting;
      return 0;
    }
    case USBDEVFS_SETCONFIGURATION:
      return mState.driverBound[0] || mState.driverBound[1] || mClaims[0] != nullptr || mClaims[1] != nullptr ? -EBUSY
                                                                                                              : 0;
    case USBDEVFS_CLEAR_HALT:
      mHalted = mHalted && As<unsigned>(*argument(sizeof(unsigned))) != 0x85;
      return 0;
    case USBDEVFS_RESET:
      ++mState.resets;
      return 0;
    default:
      return -ENOTTY;
  }
}

// Who has an interface: a kernel driver, a client, or nobody.
long MockUsbDevice::DriverCall(const UMockdevIoctlClient* client, unsigned interface, int code) {
  if (interface > 1) {
    return -EINVAL;
  }
  bool& bound = mState.driverBound[interface];
  const void*& claim = mClaims[interface];
  switch (static_cast<unsigned>(code)) {
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
      Kill(-ENOENT, [interface](const Urb& urb) {
        return urb.type != USBDEVFS_URB_TYPE_CONTROL && InterfaceOf(urb.endpoint) == interface;
      });
      return 0;
    case USBDEVFS_DISCONNECT:
      return std::exchange(bound, false) ? 0 : -ENODATA;
    case USBDEVFS_CONNECT:
      if (bound || claim != nullptr) {
        return -EBUSY;
      }
      bound = true;
      ++mState.connects[interface];
      return 1;
    default:
      return -ENOTTY;
  }
}

long MockUsbDevice::Submit(UMockdevIoctlClient* client) {
  UMockdevIoctlData& arg = *umockdev_ioctl_client_get_arg(client);
  const auto address = As<unsigned long>(arg);
  Urb urb;
  urb.client = client;
  urb.data.reset(umockdev_ioctl_data_resolve(&arg, 0, sizeof(usbdevfs_urb), nullptr));
  urb.type = Raw(*urb.data).type;
  urb.endpoint = Raw(*urb.data).endpoint;
  urb.length = Raw(*urb.data).buffer_length;
  if (urb.type == USBDEVFS_URB_TYPE_ISO) {
    // Once more, with its packets; the first answer is kept unless it is dropped.
    const auto packets = static_cast<std::size_t>(Raw(*urb.data).number_of_packets);
    umockdev_ioctl_data_reload(&arg, nullptr);
    As<unsigned long>(arg) = address;
    urb.data.reset(umockdev_ioctl_data_resolve(
        &arg, 0, sizeof(usbdevfs_urb) + packets * sizeof(usbdevfs_iso_packet_desc), nullptr));
    const std::span all = Packets(*urb.data);
    urb.length = std::accumulate(all.begin(), all.end(), 0, [](int sum, const usbdevfs_iso_packet_desc& packet) {
      return sum + static_cast<int>(packet.length);
    });
  }
  const std::size_t interface = InterfaceOf(urb.endpoint);
  if (urb.type != USBDEVFS_URB_TYPE_CONTROL && mState.driverBound[interface]) {
    return -EBUSY;
  }
  if (interface == 1 && mState.altSetting == 0) {
    return -ENOENT;
  }
  ++mState.submitted;
  const bool done = Serve(urb);
  (done ? mDone : mPending).push_back(std::move(urb));
  ServeWaiting();
  return 0;
}

bool MockUsbDevice::Serve(Urb& urb) {
  const bool reads = !IsIn(urb.endpoint) || urb.type == USBDEVFS_URB_TYPE_CONTROL;
  Bytes data;
  if (reads && urb.length > 0) {
    const ObjectPtr<UMockdevIoctlData> buffer(umockdev_ioctl_data_resolve(
        urb.data.get(), offsetof(usbdevfs_urb, buffer), static_cast<std::size_t>(urb.length), nullptr));
    data.assign(buffer->data, buffer->data + buffer->data_len);
  }
  if (urb.type == USBDEVFS_URB_TYPE_CONTROL) {
    return ServeControl(urb, data);
  }
  urb.moved = urb.length;
  if (!IsIn(urb.endpoint)) {
    if (urb.endpoint == 0x01 || urb.endpoint == 0x03) {
      mLoops[urb.endpoint | 0x80U].push_back(data);
    }
    mTaken[urb.endpoint] = std::move(data);
  }
  if (urb.type == USBDEVFS_URB_TYPE_ISO) {
    ServeIso(urb);
  }
  switch (urb.endpoint) {
    case 0x82:
      urb.in = Pattern(static_cast<std::size_t>(urb.length));
      return true;
    case 0x85:
      urb.moved = 0;
      urb.status = mHalted ? -EPIPE : 0;
      return true;
    case 0x81:
    case 0x83:
    case 0x84:
      return false;
    default:
      return true;
  }
}

bool MockUsbDevice::ServeControl(Urb& urb, const Bytes& data) {
  const std::uint8_t type = data[0];
  const std::uint8_t request = data[1];
  const std::size_t wLength = std::min<std::size_t>(data[6] + 256U * data[7], data.size() - kSetupBytes);
  const Bytes payload(data.begin() + kSetupBytes, data.end());
  Bytes answer;
  if (type == 0x80 && request == 6 && data[3] >= 1 && data[3] <= 3) {
    answer = data[3] == 1   ? DeviceDescriptor(0, kVendor, kProduct)
             : data[3] == 2 ? Bytes(kConfig.begin(), kConfig.end())
                            : StringDescriptor(data[2]);
  } else if (type == 0xC0 && request == kFetch) {
    answer = mTaken[0];
  } else if (type == 0x40 && request == kStore) {
    mTaken[0] = payload;
    urb.moved = static_cast<int>(wLength);
  } else if (request == kSilent) {
    return false;
  } else {
    urb.status = -EPIPE;
  }
  if (IsIn(type) && urb.status == 0) {
    answer.resize(std::min(answer.size(), wLength));
    urb.moved = static_cast<int>(answer.size());
    urb.in.assign(data.begin(), data.begin() + kSetupBytes);
    urb.in.insert(urb.in.end(), answer.begin(), answer.end());
  }
  return true;
}

void MockUsbDevice::ServeIso(Urb& urb) {
  urb.in = IsIn(urb.endpoint) ? Pattern(static_cast<std::size_t>(urb.length)) : Bytes();
  std::size_t index = 0;
  for (usbdevfs_iso_packet_desc& packet : Packets(*urb.data)) {
    const int status = mPacketStatuses.empty() ? 0 : mPacketStatuses[index++ % mPacketStatuses.size()];
    packet.status = static_cast<unsigned>(status);
    packet.actual_length = status == 0 ? packet.length : packet.length / 2;
  }
  urb.moved = 0;  // As the kernel has it: the packets say how much.
}

// IN transfers that wait for what an OUT transfer brought. One that has too little room babbles.
void MockUsbDevice::ServeWaiting() {
  for (auto urb = mPending.begin(); urb != mPending.end();) {
    std::list<Bytes>& loop = mLoops[urb->endpoint];
    if (urb->type == USBDEVFS_URB_TYPE_CONTROL || loop.empty()) {
      ++urb;
      continue;
    }
    urb->in = std::move(loop.front());
    loop.pop_front();
    urb->status = static_cast<int>(urb->in.size()) > urb->length ? -EOVERFLOW : 0;
    urb->in.resize(std::min(urb->in.size(), static_cast<std::size_t>(urb->length)));
    urb->moved = static_cast<int>(urb->in.size());
    mDone.splice(mDone.end(), mPending, urb++);
  }
}

std::size_t MockUsbDevice::Kill(int status, const std::function<bool(const Urb&)>& fits) {
  std::size_t killed = 0;
  for (auto urb = mPending.begin(); urb != mPending.end();) {
    const auto next = std::next(urb);
    if (fits(*urb)) {
      urb->status = status;
      urb->moved = 0;
      mDone.splice(mDone.end(), mPending, urb);
      ++killed;
    }
    urb = next;
  }
  return killed;
}

long MockUsbDevice::Reap(UMockdevIoctlClient* client) {
  const auto done = std::find_if(mDone.begin(), mDone.end(), [client](const Urb& urb) { return urb.client == client; });
  if (done == mDone.end()) {
    return mNode == umockdev_ioctl_client_get_devnode(client) ? -EAGAIN : -ENODEV;
  }
  UMockdevIoctlData& data = *done->data;
  Raw(data).status = done->status;
  Raw(data).actual_length = done->moved;
  if (!done->in.empty()) {
    const ObjectPtr<UMockdevIoctlData> buffer(umockdev_ioctl_data_resolve(
        &data, offsetof(usbdevfs_urb, buffer), static_cast<std::size_t>(done->length), nullptr));
    std::copy(done->in.begin(), done->in.end(), buffer->data);
  }
  UMockdevIoctlData* const arg = umockdev_ioctl_client_get_arg(client);
  const ObjectPtr<UMockdevIoctlData> place(umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr));
  umockdev_ioctl_data_set_ptr(place.get(), 0, &data);
  mDone.erase(done);
  return 0;
}

}  // namespace vel
