#ifndef VIRTUSB_TESTS_MOCKDEV_MOCK_USB_H
#define VIRTUSB_TESTS_MOCKDEV_MOCK_USB_H

#include <linux/usbdevice_fs.h>
#include <umockdev.h>

#include <array>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "remote/FdStream.h"
#include "vel/Mutex.h"

namespace vel {

using Bytes = std::vector<std::uint8_t>;

// A high-speed USB device with two interfaces on a mocked kernel: libusb is the real one, its system calls end here.
// Needs umockdev's preload library in this process; child processes see the same device. It is not plugged in at
// first; a kernel driver is bound to both interfaces when it is. What its endpoints do is a derived class's. The device
// node is a FIFO, so that poll() tells libusb whether a transfer is done, as the kernel's does. Any thread.
class MockUsb {
 public:
  static constexpr std::uint16_t kVendor = 0x1209;
  static constexpr std::uint8_t kBus = 1;
  static constexpr char kMaker[] = "Example Maker";
  static constexpr char kName[] = "Mocked Device";

  // What the kernel knows of the device.
  struct State {
    std::size_t openFiles = 0;
    std::size_t pending = 0;  // Transfers that were submitted and are not done.
    int resets = 0;
    std::array<bool, 2> driverBound{};  // By interface.
    unsigned altSetting = 0;            // Of interface 1.
    int configuration = 0;              // Any is taken.
  };

  MockUsb(const MockUsb&) = delete;
  MockUsb& operator=(const MockUsb&) = delete;
  virtual ~MockUsb() = default;

  // Whether the kernel tells programs when it is plugged in and out; it does at first.
  void Tell(bool tells) { mTells = tells; }
  // At a new address each time.
  void Plug() VEL_EXCLUDES(mMutex);
  // A second device that looks the same, and does nothing.
  void PlugTwin();
  void Unplug() VEL_EXCLUDES(mMutex);
  // Takes everybody's right to open it.
  void Forbid();
  std::uint8_t Address() const { return mAddress; }

  State Look() VEL_EXCLUDES(mMutex);
  // Wait until so many transfers are pending, or until every file of the device is closed. False when that does not
  // come.
  [[nodiscard]] bool AwaitPending(std::size_t count) VEL_EXCLUDES(mMutex);
  [[nodiscard]] bool AwaitClosed() VEL_EXCLUDES(mMutex);

 protected:
  struct ObjectDeleter {
    void operator()(gpointer object) const { g_object_unref(object); }
  };
  template <class T>
  using ObjectPtr = std::unique_ptr<T, ObjectDeleter>;

  struct Traits {
    std::uint16_t product = 0;
    std::uint8_t usbClass = 0;
    Bytes config;                     // One behind the other.
    std::uint8_t configurations = 1;  // How many those are.
    std::uint8_t endpoint = 0;        // The number of interface 1's endpoints.
    unsigned lastSetting = 0;         // Of interface 1.
    std::set<std::uint8_t> halted{};  // When it is plugged in.
  };

  struct Urb {
    ObjectPtr<UMockdevIoctlData> data;  // The client's usbdevfs_urb.
    const void* client = nullptr;
    std::uint8_t type = 0;
    std::uint8_t endpoint = 0;
    std::size_t length = 0;  // Of the buffer; isochronous: of all packets.
    int status = 0;          // As the kernel reports it.
    std::size_t moved = 0;   // Isochronous: 0, as the kernel has it: the packets say how much.
    Bytes in;                // What it brings; at its place in the buffer.

    bool IsIn() const { return (endpoint & 0x80U) != 0; }
    std::span<usbdevfs_iso_packet_desc> Packets() const;
  };

  // A derived class's destructor waits until every file is closed.
  explicit MockUsb(Traits traits);

  // What the device does with a transfer, `out` being what an OUT transfer brings. True when it is done.
  virtual bool Serve(Urb& urb, Bytes out) VEL_REQUIRES(mMutex) = 0;
  // The same for requests but those for descriptors; `answer` is what an IN request gets.
  virtual bool ServeRequest(Urb& urb, std::span<const std::uint8_t> setup, Bytes out, Bytes& answer)
      VEL_REQUIRES(mMutex) = 0;
  // Ends what is pending and fits. How many those were.
  std::size_t Kill(int status, const std::function<bool(const Urb&)>& fits) VEL_REQUIRES(mMutex);
  // Tells poll() and those who wait here.
  void Changed() VEL_REQUIRES(mMutex);

  Mutex mMutex;
  CondVar mChanged;
  State mState VEL_GUARDED_BY(mMutex);
  std::set<std::uint8_t> mHalted VEL_GUARDED_BY(mMutex);
  std::list<Urb> mPending VEL_GUARDED_BY(mMutex);
  std::list<Urb> mDone VEL_GUARDED_BY(mMutex);

 private:
  static gboolean OnIoctl(UMockdevIoctlBase* base, UMockdevIoctlClient* client, gpointer self);
  static void OnOpened(UMockdevIoctlBase* base, UMockdevIoctlClient* client, gpointer self);
  static void OnClosed(gpointer self, GObject* client);
  // Result of the call, or a negated errno.
  long Handle(UMockdevIoctlClient* client) VEL_REQUIRES(mMutex);
  long DriverCall(const UMockdevIoctlClient* client, unsigned interface, unsigned code) VEL_REQUIRES(mMutex);
  long SetConfiguration(int value) VEL_REQUIRES(mMutex);
  long SetInterface(const usbdevfs_setinterface& wanted) VEL_REQUIRES(mMutex);
  long Submit(UMockdevIoctlClient* client) VEL_REQUIRES(mMutex);
  bool ServeControl(Urb& urb, const Bytes& data) VEL_REQUIRES(mMutex);
  long Reap(UMockdevIoctlClient* client) VEL_REQUIRES(mMutex);
  bool Await(const std::function<bool(const State&)>& reached) VEL_EXCLUDES(mMutex);
  void KillInterface(unsigned interface) VEL_REQUIRES(mMutex);

  std::size_t InterfaceOf(std::uint8_t endpoint) const { return (endpoint & 0x0FU) == mTraits.endpoint ? 1 : 0; }
  Bytes Descriptor(std::uint8_t type, std::uint8_t index) const;
  std::string NodeFile() const;

  const Traits mTraits;
  bool mTells = true;
  std::uint8_t mAddress = 1;
  std::string mNode VEL_GUARDED_BY(mMutex);  // Of the device that is plugged in; empty when none is.
  UniqueFd mFifo VEL_GUARDED_BY(mMutex);     // Full while nothing is done.
  bool mFull VEL_GUARDED_BY(mMutex) = false;
  std::array<const void*, 2> mClaims VEL_GUARDED_BY(mMutex){};
  // Last: their thread uses what is above.
  const ObjectPtr<UMockdevTestbed> mTestbed;
  const ObjectPtr<UMockdevIoctlBase> mHandler;
};

}  // namespace vel

#endif
