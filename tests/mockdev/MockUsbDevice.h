#ifndef VIRTUSB_TESTS_MOCKDEV_MOCK_USB_DEVICE_H
#define VIRTUSB_TESTS_MOCKDEV_MOCK_USB_DEVICE_H

#include <array>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <umockdev.h>

#include "remote/FdStream.h"
#include "vel/Mutex.h"

namespace vel {

using Bytes = std::vector<std::uint8_t>;

// A high-speed USB device on a mocked kernel: libusb is the real one, its system calls end here.
// Needs umockdev's preload library in this process; child processes see the same device. It is not
// plugged in at first.
//
//   0x01 and 0x81 bulk, 0x03 and 0x83 interrupt   each IN transfer brings what one OUT transfer
//   took, and waits for it 0x82 bulk IN    Pattern()                     0x02 bulk OUT   takes
//   anything 0x84 bulk IN    never has anything            0x85 bulk IN    halted until that is
//   cleared 0x86, 0x06 isochronous, in setting 1 of interface 1           packets end as
//   SetPacketStatuses says
//
// A kernel driver is bound to both interfaces when the device is plugged in. The device node is a
// FIFO, so that poll() tells libusb whether a transfer is done, as the kernel's does. Any thread.
class MockUsbDevice {
 public:
  static constexpr std::uint16_t kVendor = 0x1209;
  static constexpr std::uint16_t kProduct = 0x0001;
  static constexpr std::uint8_t kBus = 1;
  static constexpr char kMaker[] = "Example Maker";
  static constexpr char kName[] = "Mocked Device";
  // Vendor requests. Fetch brings what store took, silent is never answered.
  enum Request : std::uint8_t { kStore = 1, kFetch = 1, kStall = 2, kSilent = 3 };

  // What the kernel knows of the device.
  struct State {
    std::size_t openFiles = 0;
    std::size_t pending = 0;    // Transfers that were submitted and are not done.
    std::size_t submitted = 0;  // In all.
    int resets = 0;
    std::array<int, 2> connects{};  // How often a driver was bound again, by interface.
    std::array<bool, 2> driverBound{};
    std::array<bool, 2> claimed{};
    int altSetting = 0;  // Of interface 1.
  };

  MockUsbDevice();
  MockUsbDevice(const MockUsbDevice&) = delete;
  MockUsbDevice& operator=(const MockUsbDevice&) = delete;
  // Every file of it is closed by then.
  ~MockUsbDevice();

  // At a new address each time.
  void Plug() VEL_EXCLUDES(mMutex);
  void Unplug() VEL_EXCLUDES(mMutex);
  // Takes everybody's right to open it.
  void Forbid();
  std::uint8_t Address() const { return mAddress; }

  // Kernel's status of each isochronous packet (0 or a negated errno), in turn. A packet that fails
  // is half empty.
  void SetPacketStatuses(std::vector<int> statuses) VEL_EXCLUDES(mMutex);
  // What an OUT endpoint took last.
  Bytes Taken(std::uint8_t endpoint) VEL_EXCLUDES(mMutex);
  static Bytes Pattern(std::size_t length);

  State Look() VEL_EXCLUDES(mMutex);
  // Waits for a state. False when it does not come.
  [[nodiscard]] bool Await(const std::function<bool(const State&)>& reached) VEL_EXCLUDES(mMutex);

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
    std::uint8_t endpoint = 0;
    int length = 0;  // Of the buffer; isochronous: of all packets.
    int status = 0;  // As the kernel reports it.
    int moved = 0;
    Bytes in;  // What it brings; at its place in the buffer.
  };

  static gboolean OnIoctl(UMockdevIoctlBase* base, UMockdevIoctlClient* client, gpointer self);
  static void OnOpened(UMockdevIoctlBase* base, UMockdevIoctlClient* client, gpointer self);
  static void OnClosed(gpointer self, GObject* client);
  // Result of the call, or a negated errno.
  long Handle(UMockdevIoctlClient* client) VEL_REQUIRES(mMutex);
  long Submit(UMockdevIoctlClient* client) VEL_REQUIRES(mMutex);
  long Reap(UMockdevIoctlClient* client) VEL_REQUIRES(mMutex);
  long DriverCall(const UMockdevIoctlClient* client, unsigned interface, int code) VEL_REQUIRES(mMutex);
  // True when the device is done with the transfer.
  bool Serve(Urb& urb) VEL_REQUIRES(mMutex);
  bool ServeControl(Urb& urb, const Bytes& data) VEL_REQUIRES(mMutex);
  void ServeIso(Urb& urb) VEL_REQUIRES(mMutex);
  void ServeWaiting() VEL_REQUIRES(mMutex);
  // Ends what is pending and fits.
  std::size_t Kill(int status, const std::function<bool(const Urb&)>& fits) VEL_REQUIRES(mMutex);
  // Tells poll() and those who wait here.
  void Changed() VEL_REQUIRES(mMutex);

  std::string NodeFile() const;

  std::uint8_t mAddress = 1;
  Mutex mMutex;
  CondVar mChanged;
  std::string mNode VEL_GUARDED_BY(mMutex);  // Of the device that is plugged in; empty when none is.
  UniqueFd mFifo VEL_GUARDED_BY(mMutex);     // Full while nothing is done.
  bool mFull VEL_GUARDED_BY(mMutex) = false;
  State mState VEL_GUARDED_BY(mMutex);
  std::array<const void*, 2> mClaims VEL_GUARDED_BY(mMutex){};
  bool mHalted VEL_GUARDED_BY(mMutex) = true;
  std::vector<int> mPacketStatuses VEL_GUARDED_BY(mMutex);
  std::map<std::uint8_t, std::list<Bytes>> mLoops VEL_GUARDED_BY(mMutex);  // By IN endpoint.
  std::map<std::uint8_t, Bytes> mTaken VEL_GUARDED_BY(mMutex);
  std::list<Urb> mPending VEL_GUARDED_BY(mMutex);
  std::list<Urb> mDone VEL_GUARDED_BY(mMutex);
  // Last: their thread uses what is above.
  const ObjectPtr<UMockdevTestbed> mTestbed;
  const ObjectPtr<UMockdevIoctlBase> mHandler;
};

}  // namespace vel

#endif
