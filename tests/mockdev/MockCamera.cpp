#include "mockdev/MockCamera.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "mockdev/MockCameraDescriptors.h"
#include "mockdev/MockedUsbfs.h"

namespace vel {
namespace {

using Bytes = MockCamera::Bytes;

constexpr char kNode[] = "/dev/bus/usb/001/002";
constexpr char kSysPath[] = "/sys/devices/usb1/1-1";
constexpr std::array<std::uint8_t, 4096> kFifoFill{};
constexpr std::size_t kSetupBytes = 8;
constexpr std::chrono::microseconds kMicroframe{125};

UMockdevIoctlData* Buffer(UMockdevIoctlData& urb, std::size_t length) {
  return umockdev_ioctl_data_resolve(&urb, offsetof(usbdevfs_urb, buffer), length, nullptr);
}

}  // namespace

MockCamera::MockCamera(const Options& options)
    : mOptions(options),
      mConfig(MockCameraConfiguration(options.bulk)),
      mPayloads(options.faults, kPacketsPerFrame),
      mTestbed(umockdev_testbed_new()),
      mHandler(umockdev_ioctl_base_new()) {
  g_signal_connect(mHandler.get(), "handle-ioctl", G_CALLBACK(&MockCamera::OnIoctl), this);
  g_signal_connect(mHandler.get(), "client-connected", G_CALLBACK(&MockCamera::OnOpened), this);
  umockdev_testbed_attach_ioctl(mTestbed.get(), kNode, mHandler.get(), nullptr);
  Bytes descriptors = MockCameraDevice(0xEF);
  descriptors.insert(descriptors.end(), mConfig.begin(), mConfig.end());
  const Bytes hub = MockCameraDevice(9);
  const std::string text =
      DeviceText("/devices/usb1", 1, hub) + "\n" + DeviceText("/devices/usb1/1-1", kAddress, descriptors);
  if (umockdev_testbed_add_from_string(mTestbed.get(), text.c_str(), nullptr) == FALSE) {
    throw std::runtime_error("umockdev does not take the device");
  }
  const std::unique_ptr<gchar, decltype(&g_free)> root(umockdev_testbed_get_root_dir(mTestbed.get()), &g_free);
  const std::string fifo = std::string(root.get()) + kNode;
  unlink(fifo.c_str());
  const MutexLock lock(mMutex);
  mFifo = UniqueFd(mkfifo(fifo.c_str(), 0666) == 0 ? open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC) : -1);
  if (!mFifo.IsValid() || fcntl(mFifo.Get(), F_SETPIPE_SZ, int{kFifoFill.size()}) < 0) {
    throw std::runtime_error("no FIFO at " + fifo);
  }
  Changed();
  mBus = std::thread(&MockCamera::RunBus, this);
}

MockCamera::~MockCamera() {
  {
    MutexLock lock(mMutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (mOpenFiles > 0 && mChanged.WaitUntil(lock, deadline)) {
    }
    mEnding = true;
    mChanged.NotifyAll();
  }
  mBus.join();
}

void MockCamera::Show(std::vector<Bytes> pictures) {
  const MutexLock lock(mMutex);
  mPayloads.Show(std::move(pictures));
}

void MockCamera::Allow(int frames) {
  const MutexLock lock(mMutex);
  mPayloads.Allow(frames);
  mChanged.NotifyAll();
}

void MockCamera::Halt() {
  const MutexLock lock(mMutex);
  mHalted = true;
  Kill(-EPIPE);
  Changed();
}

void MockCamera::Unplug() {
  umockdev_testbed_detach_ioctl(mTestbed.get(), kNode, nullptr);
  {
    const MutexLock lock(mMutex);
    mPlugged = false;
    Kill(-ESHUTDOWN);
    Changed();
    mFifo = {};  // Left empty: whoever still has it open is told at once that the device is gone.
  }
  umockdev_testbed_uevent(mTestbed.get(), kSysPath, "remove");
  umockdev_testbed_remove_device(mTestbed.get(), kSysPath);
}

std::vector<Bytes> MockCamera::Sent() {
  const MutexLock lock(mMutex);
  return mPayloads.Sent();
}

MockCamera::State MockCamera::Look() {
  const MutexLock lock(mMutex);
  mState.pending = mPending.size();
  return mState;
}

void MockCamera::Changed() {
  const bool full = mDone.empty();
  if (mFifo.IsValid() && full != mFull) {
    std::array<std::uint8_t, kFifoFill.size()> drain{};
    const ssize_t count =
        full ? write(mFifo.Get(), kFifoFill.data(), kFifoFill.size()) : read(mFifo.Get(), drain.data(), drain.size());
    mFull = full && count > 0;
  }
  mChanged.NotifyAll();
}

void MockCamera::OnOpened(UMockdevIoctlBase* /*base*/, UMockdevIoctlClient* client, gpointer self) {
  auto& camera = *static_cast<MockCamera*>(self);
  const MutexLock lock(camera.mMutex);
  ++camera.mOpenFiles;
  g_object_weak_ref(G_OBJECT(client), &MockCamera::OnClosed, self);
}

void MockCamera::OnClosed(gpointer self, GObject* client) {
  auto& camera = *static_cast<MockCamera*>(self);
  const MutexLock lock(camera.mMutex);
  const auto isOfClient = [gone = static_cast<const void*>(client)](const Urb& urb) { return urb.client == gone; };
  camera.mPending.remove_if(isOfClient);
  camera.mDone.remove_if(isOfClient);
  --camera.mOpenFiles;
  camera.Changed();
}

gboolean MockCamera::OnIoctl(UMockdevIoctlBase* /*base*/, UMockdevIoctlClient* client, gpointer self) {
  auto& camera = *static_cast<MockCamera*>(self);
  const MutexLock lock(camera.mMutex);
  const long result = camera.Handle(client);
  camera.Changed();
  umockdev_ioctl_client_complete(client, result < 0 ? -1 : result, result < 0 ? static_cast<int>(-result) : 0);
  return TRUE;
}

long MockCamera::Handle(UMockdevIoctlClient* client) {
  UMockdevIoctlData& arg = *umockdev_ioctl_client_get_arg(client);
  const gulong request = umockdev_ioctl_client_get_request(client);
  if (request == USBDEVFS_REAPURBNDELAY) {
    return Reap(client);
  }
  if (!mPlugged) {
    return -ENODEV;
  }
  const auto argument = [&](std::size_t size) {
    return ObjectPtr<UMockdevIoctlData>(umockdev_ioctl_data_resolve(&arg, 0, size, nullptr));
  };
  switch (request) {
    case USBDEVFS_GET_CAPABILITIES:
      As<std::uint32_t>(*argument(sizeof(std::uint32_t))) =
          USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
      return 0;
    case USBDEVFS_SUBMITURB:
      return Submit(client);
    case USBDEVFS_DISCARDURB:
      return Kill(-ENOENT, As<unsigned long>(arg)) > 0 ? 0 : -EINVAL;
    case USBDEVFS_SETINTERFACE: {
      const auto& wanted = As<usbdevfs_setinterface>(*argument(sizeof(usbdevfs_setinterface)));
      if (wanted.interface > 1 || wanted.altsetting > (mOptions.bulk ? 0 : wanted.interface)) {
        return -EINVAL;
      }
      Kill(-ENOENT);
      mSetting = static_cast<int>(wanted.altsetting);
      return 0;
    }
    case USBDEVFS_CLEAR_HALT:
      mHalted = false;
      ++mState.clearedHalts;
      return 0;
    case USBDEVFS_GETDRIVER:
      return -ENODATA;  // No kernel driver is bound.
    case USBDEVFS_RELEASEINTERFACE:
      Kill(-ENOENT);
      return 0;
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_IOCTL:
    case USBDEVFS_RESET:
      return 0;
    default:
      return -ENOTTY;
  }
}

long MockCamera::Submit(UMockdevIoctlClient* client) {
  UMockdevIoctlData& arg = *umockdev_ioctl_client_get_arg(client);
  const auto address = As<unsigned long>(arg);
  Urb urb;
  urb.client = client;
  urb.data.reset(umockdev_ioctl_data_resolve(&arg, 0, sizeof(usbdevfs_urb), nullptr));
  urb.type = Raw(*urb.data).type;
  urb.length = static_cast<std::size_t>(Raw(*urb.data).buffer_length);
  if (urb.type == USBDEVFS_URB_TYPE_CONTROL) {
    ServeControl(urb);
    mDone.push_back(std::move(urb));
    return 0;
  }
  if (urb.type == USBDEVFS_URB_TYPE_ISO) {
    // Once more, with its packets; the first answer is kept unless it is dropped.
    const auto packets = static_cast<std::size_t>(Raw(*urb.data).number_of_packets);
    umockdev_ioctl_data_reload(&arg, nullptr);
    As<unsigned long>(arg) = address;
    urb.data.reset(umockdev_ioctl_data_resolve(
        &arg, 0, sizeof(usbdevfs_urb) + packets * sizeof(usbdevfs_iso_packet_desc), nullptr));
    const std::span all = Packets(*urb.data);
    urb.length =
        std::accumulate(all.begin(), all.end(), std::size_t{0},
                        [](std::size_t sum, const usbdevfs_iso_packet_desc& packet) { return sum + packet.length; });
  }
  if ((urb.type == USBDEVFS_URB_TYPE_BULK) != mOptions.bulk || (!mOptions.bulk && mSetting == 0)) {
    return -ENOENT;
  }
  urb.status = mHalted ? -EPIPE : 0;
  (mHalted ? mDone : mPending).push_back(std::move(urb));
  return 0;
}

void MockCamera::ServeControl(Urb& urb) {
  const ObjectPtr<UMockdevIoctlData> buffer(Buffer(*urb.data, urb.length));
  const Bytes data(buffer->data, buffer->data + buffer->data_len);
  const std::size_t room = data.size() - kSetupBytes;
  Bytes answer;
  if (data[0] == 0x80 && data[1] == 6 && data[3] == 2) {
    answer = mConfig;
  } else if (data[0] == 0xA1 && data[4] == 1) {
    answer = mControl;
  } else if (data[0] == 0x21 && data[4] == 1 && room <= mControl.size()) {
    std::copy(data.begin() + kSetupBytes, data.end(), mControl.begin());
    Agree();
    urb.moved = room;
    return;
  } else {
    urb.status = -EPIPE;
    return;
  }
  answer.resize(std::min(answer.size(), room));
  urb.moved = answer.size();
  urb.in.assign(data.begin(), data.begin() + kSetupBytes);
  urb.in.insert(urb.in.end(), answer.begin(), answer.end());
}

// The sizes of what the guest asks for (UVC 1.1, table 4-47).
void MockCamera::Agree() {
  const std::size_t frame = std::clamp<std::size_t>(mControl[3], 1, kMockCameraSizes.size()) - 1;
  const std::uint32_t size = 2U * static_cast<std::uint32_t>(kMockCameraSizes[frame][0] * kMockCameraSizes[frame][1]);
  const std::uint32_t payload = mOptions.bulk ? kBulkPayload : kPayload;
  std::memcpy(&mControl[18], &size, sizeof size);
  std::memcpy(&mControl[22], &payload, sizeof payload);
}

// Isochronous transfers move on without data, bulk ones wait for it.
bool MockCamera::IsReady() const {
  return !mPending.empty() && (!mOptions.bulk || mPayloads.IsBetweenFrames() || mPayloads.HasData());
}

void MockCamera::RunBus() {
  auto due = std::chrono::steady_clock::now();
  MutexLock lock(mMutex);
  while (!mEnding) {
    if (!IsReady()) {
      mState.underruns += mPending.empty() && mSetting != 0 ? 1 : 0;
      while (!mEnding && !IsReady()) {
        mChanged.Wait(lock);
      }
      due = std::max(due, std::chrono::steady_clock::now());
    }
    due += kMicroframe * (mOptions.bulk ? kPacketsPerFrame / 38 : 32);
    while (!mEnding && std::chrono::steady_clock::now() < due) {
      mChanged.WaitUntil(lock, due);
    }
    if (!mPending.empty()) {
      ServeStream();
      Changed();
    }
  }
}

void MockCamera::ServeStream() {
  Urb& urb = mPending.front();
  if (mOptions.bulk) {
    if (!mPayloads.HasData()) {
      mPayloads.SkipGap();
      return;
    }
    urb.in.resize(urb.length);
    urb.moved = static_cast<std::size_t>(mPayloads.Next(urb.in));
    urb.in.resize(urb.moved);
  } else {
    urb.in.resize(urb.length);
    std::size_t place = 0;
    for (usbdevfs_iso_packet_desc& packet : Packets(*urb.data)) {
      const int moved = mPayloads.Next(std::span(urb.in).subspan(place, packet.length));
      packet.status = static_cast<unsigned>(moved < 0 ? -EPROTO : 0);
      packet.actual_length = static_cast<unsigned>(std::max(moved, 0));
      place += packet.length;
    }
  }
  mDone.splice(mDone.end(), mPending, mPending.begin());
}

std::size_t MockCamera::Kill(int status, std::uintptr_t only) {
  std::size_t killed = 0;
  for (auto urb = mPending.begin(); urb != mPending.end();) {
    const auto next = std::next(urb);
    if (only == 0 || urb->data->client_addr == only) {
      urb->status = status;
      urb->moved = 0;
      mDone.splice(mDone.end(), mPending, urb);
      ++killed;
    }
    urb = next;
  }
  return killed;
}

long MockCamera::Reap(UMockdevIoctlClient* client) {
  const auto done = std::find_if(mDone.begin(), mDone.end(), [client](const Urb& urb) { return urb.client == client; });
  if (done == mDone.end()) {
    return mPlugged ? -EAGAIN : -ENODEV;
  }
  UMockdevIoctlData& data = *done->data;
  Raw(data).status = done->status;
  Raw(data).actual_length = static_cast<int>(done->moved);
  if (!done->in.empty()) {
    const ObjectPtr<UMockdevIoctlData> buffer(Buffer(data, done->length));
    std::ranges::copy(done->in, buffer->data);
  }
  UMockdevIoctlData* const arg = umockdev_ioctl_client_get_arg(client);
  const ObjectPtr<UMockdevIoctlData> place(umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr));
  umockdev_ioctl_data_set_ptr(place.get(), 0, &data);
  mDone.erase(done);
  return 0;
}

}  // namespace vel
