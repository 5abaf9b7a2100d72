#ifndef VIRTUSB_TESTS_MOCKDEV_MOCK_CAMERA_H
#define VIRTUSB_TESTS_MOCKDEV_MOCK_CAMERA_H

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <umockdev.h>

#include "mockdev/MockPayloads.h"
#include "remote/FdStream.h"
#include "vel/Mutex.h"

namespace vel {

// A high-speed UVC camera on a mocked kernel: libusb is the real one, its system calls end here.
// Needs umockdev's preload library in this process. Interface 1 streams: isochronous from setting
// 1, or bulk from its only setting. Format 1 is YUYV and 2 MJPEG, frame 1 is 640x480 and 2 320x240.
//
// Its bus moves 8000 packets a second, and stands still while no transfer waits, so that nothing is
// lost because this process was kept from running. Any thread.
class MockCamera {
 public:
  using Bytes = std::vector<std::uint8_t>;
  static constexpr std::uint16_t kVendor = 0x1209;
  static constexpr std::uint16_t kProduct = 0x0002;
  static constexpr std::uint8_t kBus = 1;
  static constexpr std::uint8_t kAddress = 2;
  static constexpr std::uint8_t kEndpoint = 0x81;
  static constexpr std::uint32_t kPayload = 3060;       // Isochronous, header included.
  static constexpr std::uint32_t kBulkPayload = 16384;  // The same of bulk.
  static constexpr int kPacketsPerFrame = 267;          // 30 frames a second.

  struct Options {
    bool bulk = false;
    MockPayloads::Faults faults{};
  };

  explicit MockCamera(const Options& options);
  MockCamera(const MockCamera&) = delete;
  MockCamera& operator=(const MockCamera&) = delete;
  // Every file of it is closed by then.
  ~MockCamera();

  // What it shows, again and again.
  void Show(std::vector<Bytes> pictures) VEL_EXCLUDES(mMutex);
  // How many frames it sends from now on; the bus runs on without them.
  void Allow(int frames) VEL_EXCLUDES(mMutex);
  // The endpoint stalls until that is cleared.
  void Halt() VEL_EXCLUDES(mMutex);
  void Unplug() VEL_EXCLUDES(mMutex);

  // What it sent of each frame and what was not lost on the bus, in order.
  std::vector<Bytes> Sent() VEL_EXCLUDES(mMutex);
  struct State {
    int clearedHalts = 0;
    int underruns = 0;  // How often the bus had to wait for a transfer.
    std::size_t pending = 0;
  };
  State Look() VEL_EXCLUDES(mMutex);

 private:
  struct ObjectDeleter {
    void operator()(gpointer object) const { g_object_unref(object); }
  };
  template <class T>
  using ObjectPtr = std::unique_ptr<T, ObjectDeleter>;

  struct Urb {
    ObjectPtr<UMockdevIoctlData> data;  // The client's usbdevfs_urb.
    const void* client = nullptr;
    std::uint8_t type = 0;
    std::size_t length = 0;  // Of the buffer; isochronous: of all packets.
    int status = 0;          // As the kernel reports it.
    std::size_t moved = 0;
    Bytes in;  // What it brings; at its place in the buffer.
  };

  static gboolean OnIoctl(UMockdevIoctlBase* base, UMockdevIoctlClient* client, gpointer self);
  static void OnOpened(UMockdevIoctlBase* base, UMockdevIoctlClient* client, gpointer self);
  static void OnClosed(gpointer self, GObject* client);
  // Result of the call, or a negated errno.
  long Handle(UMockdevIoctlClient* client) VEL_REQUIRES(mMutex);
  long Submit(UMockdevIoctlClient* client) VEL_REQUIRES(mMutex);
  long Reap(UMockdevIoctlClient* client) VEL_REQUIRES(mMutex);
  void ServeControl(Urb& urb) VEL_REQUIRES(mMutex);
  void Agree() VEL_REQUIRES(mMutex);

  void RunBus() VEL_EXCLUDES(mMutex);
  bool IsReady() const VEL_REQUIRES(mMutex);
  // Completes the first transfer that waits.
  void ServeStream() VEL_REQUIRES(mMutex);
  std::size_t Kill(int status, std::uintptr_t only = 0) VEL_REQUIRES(mMutex);
  // Tells poll() and those who wait here.
  void Changed() VEL_REQUIRES(mMutex);

  const Options mOptions;
  const Bytes mConfig;
  Mutex mMutex;
  CondVar mChanged;
  bool mPlugged VEL_GUARDED_BY(mMutex) = true;
  bool mEnding VEL_GUARDED_BY(mMutex) = false;
  UniqueFd mFifo VEL_GUARDED_BY(mMutex);  // Full while nothing is done.
  bool mFull VEL_GUARDED_BY(mMutex) = false;
  int mOpenFiles VEL_GUARDED_BY(mMutex) = 0;
  State mState VEL_GUARDED_BY(mMutex);
  std::list<Urb> mPending VEL_GUARDED_BY(mMutex);  // Of the streaming endpoint.
  std::list<Urb> mDone VEL_GUARDED_BY(mMutex);

  Bytes mControl VEL_GUARDED_BY(mMutex) = Bytes(34);  // Probe and commit.
  int mSetting VEL_GUARDED_BY(mMutex) = 0;
  bool mHalted VEL_GUARDED_BY(mMutex) = false;
  MockPayloads mPayloads VEL_GUARDED_BY(mMutex);

  // Their threads use what is above.
  const ObjectPtr<UMockdevTestbed> mTestbed;
  const ObjectPtr<UMockdevIoctlBase> mHandler;
  std::thread mBus;
};

}  // namespace vel

#endif
