// The records of USB/IP (the kernel's Documentation/usb/usbip_protocol.rst), read and written as values. Every number
// is big-endian on the wire but the setup packet's. Pure: no thread, no descriptor, nothing kept.
#ifndef VIRTUSB_HOST_FAR_USBIP_WIRE_H
#define VIRTUSB_HOST_FAR_USBIP_WIRE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "remote/RequestBuilder.h"

namespace vel {

// Bits of a URB's transfer flags that matter here (linux/usb.h).
inline constexpr std::uint32_t kUrbShortNotOk = 0x0001;
inline constexpr std::uint32_t kUrbZeroPacket = 0x0040;

struct UrbPacket {
  std::uint32_t offset = 0;  // In the URB's buffer, as the guest laid it out.
  std::uint32_t length = 0;
  std::uint32_t actualLength = 0;
  std::int32_t status = 0;  // 0 or a negative errno.
};

// CMD_SUBMIT: one request of a guest's driver.
struct Urb {
  std::uint32_t seqnum = 0;
  std::uint8_t endpoint = 0;  // Number, with the direction in bit 7.
  std::uint32_t flags = 0;
  std::uint32_t length = 0;    // Of the guest's buffer, bytes.
  std::uint32_t interval = 0;  // Frames, or microframes from high speed on.
  ControlSetup setup{};
  std::vector<UrbPacket> packets{};      // Of an isochronous URB.
  std::span<const std::uint8_t> data{};  // OUT only; points into the reader's buffer.

  bool IsIn() const { return (endpoint & 0x80U) != 0; }
};

// CMD_UNLINK.
struct UnlinkRequest {
  std::uint32_t seqnum = 0;
  std::uint32_t target = 0;  // The URB that the guest wants back.
};

// RET_SUBMIT.
struct UrbReply {
  std::uint32_t seqnum = 0;
  std::int32_t status = 0;  // 0 or a negative errno.
  std::uint32_t actualLength = 0;
  std::span<const std::uint8_t> data{};  // Of an IN URB: actualLength bytes, an isochronous one's packed.
  std::span<const UrbPacket> packets{};
};

inline constexpr std::size_t kUsbipHeaderBytes = 48;
using UsbipHeader = std::array<std::uint8_t, kUsbipHeaderBytes>;

// The header of a RET_SUBMIT; data and packet table follow it.
UsbipHeader WriteUrbReply(const UrbReply& reply);
// `status`: -ECONNRESET for a URB that was taken back, 0 for one that had been answered.
UsbipHeader WriteUnlinkReply(std::uint32_t seqnum, std::int32_t status);
void AppendPacketTable(std::vector<std::uint8_t>& bytes, std::span<const UrbPacket> packets);

// Cuts what a guest sends on a device's connection into commands. Bytes are read into Room() and counted by Filled();
// Next() then gives the commands that are whole. One thread.
class UsbipReader {
 public:
  enum class Got { kNothing, kUrb, kUnlink, kError };

  // Not empty. What Next() gave before is not valid any more.
  std::span<std::uint8_t> Room();
  void Filled(std::size_t count) { mEnd += count; }
  // The next whole command, in `urb` or `unlink`. kError is final; Error() says why.
  Got Next(Urb& urb, UnlinkRequest& unlink);
  const std::string& Error() const { return mError; }

 private:
  Got Fail(std::string error);
  Got ReadUrb(std::span<const std::uint8_t> header, Urb& urb);

  std::vector<std::uint8_t> mBuffer;
  std::size_t mBegin = 0;  // Of what is not taken yet.
  std::size_t mEnd = 0;
  std::size_t mWanted = kUsbipHeaderBytes;  // Bytes of the command that mBegin begins.
  std::string mError;
};

// What a client sees of a device before it takes it.
struct UsbipDeviceRecord {
  std::string busId;  // At most 31 bytes.
  std::uint32_t busNumber = 1;
  std::uint32_t deviceNumber = 1;
  std::uint32_t speed = 0;  // enum usb_device_speed of the kernel.
  std::uint16_t vendorId = 0;
  std::uint16_t productId = 0;
  std::uint16_t bcdDevice = 0;
  std::uint8_t deviceClass = 0;
  std::uint8_t deviceSubClass = 0;
  std::uint8_t deviceProtocol = 0;
  std::uint8_t configurationValue = 0;
  std::uint8_t configurations = 0;
  std::vector<std::array<std::uint8_t, 3>> interfaces{};  // Class, subclass, protocol.
};

// The requests that a client begins a connection with.
enum class UsbipOperation : std::uint16_t { kDeviceList = 0x8005, kImport = 0x8003 };

// Why a device is not to be had (ST_* of the protocol).
enum class UsbipRefusal : std::uint32_t { kBusy = 2, kError = 3, kNoDevice = 4 };

inline constexpr std::size_t kOperationHeaderBytes = 8;
inline constexpr std::size_t kBusIdBytes = 32;

// Nothing for bytes that are no request of this version of the protocol.
std::optional<UsbipOperation> ReadOperation(std::span<const std::uint8_t, kOperationHeaderBytes> bytes);
// The text before the first 0.
std::string ReadBusId(std::span<const std::uint8_t, kBusIdBytes> bytes);
std::vector<std::uint8_t> WriteDeviceList(std::span<const UsbipDeviceRecord> devices);
// Without a device: a refusal.
std::vector<std::uint8_t> WriteImportReply(const UsbipDeviceRecord* device,
                                           UsbipRefusal refusal = UsbipRefusal::kNoDevice);

}  // namespace vel

#endif
