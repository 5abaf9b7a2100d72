#include "far/UsbipWire.h"

#include <algorithm>
#include <concepts>
#include <utility>

#include "protocol/Requests.h"

namespace vel {
namespace {

constexpr std::uint16_t kVersion = 0x0111;
constexpr std::uint32_t kCmdSubmit = 1;
constexpr std::uint32_t kCmdUnlink = 2;
constexpr std::uint32_t kRetSubmit = 3;
constexpr std::uint32_t kRetUnlink = 4;
constexpr std::uint32_t kNotIso = 0xFFFFFFFF;  // Some clients say so instead of 0.
constexpr std::uint32_t kMaxEndpoint = 15;
constexpr std::size_t kPacketRecordBytes = 16;
constexpr std::size_t kReadBytes = 256U << 10U;
constexpr std::size_t kPathBytes = 256;
constexpr std::uint16_t kReplyMask = 0x7FFF;  // A reply's code is its request's without the top bit.

// Bytes whose number the caller has looked at.
class BigReader {
 public:
  explicit BigReader(std::span<const std::uint8_t> bytes) : mAt(bytes.data()) {}
  std::uint8_t Byte() { return *mAt++; }
  std::uint32_t U32() {
    const std::uint32_t value =
        (std::uint32_t{mAt[0]} << 24U) | (std::uint32_t{mAt[1]} << 16U) | (std::uint32_t{mAt[2]} << 8U) | mAt[3];
    mAt += 4;
    return value;
  }
  std::uint16_t Little16() {
    const auto value = static_cast<std::uint16_t>(mAt[0] | (mAt[1] << 8U));
    mAt += 2;
    return value;
  }

 private:
  const std::uint8_t* mAt;
};

template <std::unsigned_integral T>
std::uint8_t* PutBig(std::uint8_t* at, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    at[i] = static_cast<std::uint8_t>(value >> (8U * (sizeof(T) - 1 - i)));
  }
  return at + sizeof(T);
}

template <std::unsigned_integral T>
void AppendBig(std::vector<std::uint8_t>& bytes, T value) {
  bytes.resize(bytes.size() + sizeof(T));
  PutBig(bytes.data() + bytes.size() - sizeof(T), value);
}

void AppendText(std::vector<std::uint8_t>& bytes, const std::string& text, std::size_t room) {
  const std::size_t end = bytes.size() + room;
  bytes.insert(bytes.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(std::min(text.size(), room - 1)));
  bytes.resize(end);
}

void AppendOperation(std::vector<std::uint8_t>& bytes, UsbipOperation request, std::uint32_t status) {
  AppendBig(bytes, kVersion);
  AppendBig(bytes, static_cast<std::uint16_t>(static_cast<std::uint16_t>(request) & kReplyMask));
  AppendBig(bytes, status);
}

void AppendDevice(std::vector<std::uint8_t>& bytes, const UsbipDeviceRecord& device) {
  AppendText(bytes, "/sys/devices/virtusb/" + device.busId, kPathBytes);
  AppendText(bytes, device.busId, kBusIdBytes);
  AppendBig(bytes, device.busNumber);
  AppendBig(bytes, device.deviceNumber);
  AppendBig(bytes, device.speed);
  AppendBig(bytes, device.vendorId);
  AppendBig(bytes, device.productId);
  AppendBig(bytes, device.bcdDevice);
  bytes.insert(bytes.end(),
               {device.deviceClass, device.deviceSubClass, device.deviceProtocol, device.configurationValue,
                device.configurations, static_cast<std::uint8_t>(device.interfaces.size())});
}

// What follows a CMD_SUBMIT's header: the data of an OUT URB, then a record for each isochronous packet.
struct Body {
  std::uint32_t data = 0;
  std::uint32_t packets = 0;
  std::size_t Size() const { return data + std::size_t{packets} * kPacketRecordBytes; }
};

}  // namespace

UsbipHeader WriteUrbReply(const UrbReply& reply) {
  UsbipHeader header{};
  std::uint8_t* at = PutBig(header.data(), kRetSubmit);
  at = PutBig(at, reply.seqnum) + 12;  // devid, direction and endpoint are the command's alone.
  at = PutBig(at, static_cast<std::uint32_t>(reply.status));
  at = PutBig(at, reply.actualLength) + 4;  // start_frame
  at = PutBig(at, static_cast<std::uint32_t>(reply.packets.size()));
  PutBig(at, static_cast<std::uint32_t>(
                 std::ranges::count_if(reply.packets, [](const UrbPacket& packet) { return packet.status != 0; })));
  return header;
}

UsbipHeader WriteUnlinkReply(std::uint32_t seqnum, std::int32_t status) {
  UsbipHeader header{};
  std::uint8_t* at = PutBig(header.data(), kRetUnlink);
  at = PutBig(at, seqnum) + 12;
  PutBig(at, static_cast<std::uint32_t>(status));
  return header;
}

void AppendPacketTable(std::vector<std::uint8_t>& bytes, std::span<const UrbPacket> packets) {
  bytes.resize(bytes.size() + packets.size() * kPacketRecordBytes);
  std::uint8_t* at = bytes.data() + bytes.size() - packets.size() * kPacketRecordBytes;
  for (const UrbPacket& packet : packets) {
    at = PutBig(at, packet.offset);
    at = PutBig(at, packet.length);
    at = PutBig(at, packet.actualLength);
    at = PutBig(at, static_cast<std::uint32_t>(packet.status));
  }
}

std::span<std::uint8_t> UsbipReader::Room() {
  if (mBegin > 0) {
    std::copy(mBuffer.begin() + static_cast<std::ptrdiff_t>(mBegin),
              mBuffer.begin() + static_cast<std::ptrdiff_t>(mEnd), mBuffer.begin());
    mEnd -= std::exchange(mBegin, 0);
  }
  if (mBuffer.size() == mEnd) {
    // No more than twice of what has come: a length alone costs nothing.
    mBuffer.resize(std::max(kReadBytes, std::min(mWanted, 2 * mEnd)));
  }
  return std::span(mBuffer).subspan(mEnd);
}

UsbipReader::Got UsbipReader::Fail(std::string error) {
  mError = std::move(error);
  return Got::kError;
}

UsbipReader::Got UsbipReader::Next(Urb& urb, UnlinkRequest& unlink) {
  if (!mError.empty()) {
    return Got::kError;
  }
  const std::span<const std::uint8_t> bytes = std::span<const std::uint8_t>(mBuffer).subspan(mBegin, mEnd - mBegin);
  if (bytes.size() < kUsbipHeaderBytes) {
    mWanted = kUsbipHeaderBytes;
    return Got::kNothing;
  }
  BigReader reader(bytes);
  const std::uint32_t command = reader.U32();
  if (command == kCmdSubmit) {
    return ReadUrb(bytes, urb);
  }
  if (command != kCmdUnlink) {
    return Fail("command " + std::to_string(command) + " is none of USB/IP");
  }
  unlink.seqnum = reader.U32();
  for (int i = 0; i < 3; ++i) {
    static_cast<void>(reader.U32());
  }
  unlink.target = reader.U32();
  mBegin += kUsbipHeaderBytes;
  return Got::kUnlink;
}

UsbipReader::Got UsbipReader::ReadUrb(std::span<const std::uint8_t> bytes, Urb& urb) {
  BigReader reader(bytes);
  static_cast<void>(reader.U32());
  urb.seqnum = reader.U32();
  static_cast<void>(reader.U32());  // The device: a connection has one.
  const std::uint32_t direction = reader.U32();
  const std::uint32_t endpoint = reader.U32();
  urb.flags = reader.U32();
  urb.length = reader.U32();
  static_cast<void>(reader.U32());  // start_frame
  std::uint32_t packets = reader.U32();
  packets = packets == kNotIso ? 0 : packets;
  urb.interval = reader.U32();
  if (direction > 1 || endpoint > kMaxEndpoint || urb.length > kMaxTransferBytes || packets > kMaxIsoPackets) {
    return Fail("a request of direction " + std::to_string(direction) + " on endpoint " + std::to_string(endpoint) +
                " with " + std::to_string(urb.length) + " bytes and " + std::to_string(packets) + " packets");
  }
  const Body body{direction == 0 ? urb.length : 0, packets};
  mWanted = kUsbipHeaderBytes + body.Size();
  if (bytes.size() < mWanted) {
    return Got::kNothing;
  }
  urb.endpoint = static_cast<std::uint8_t>(endpoint | (direction << 7U));
  urb.setup.bmRequestType = reader.Byte();
  urb.setup.bRequest = reader.Byte();
  urb.setup.wValue = reader.Little16();
  urb.setup.wIndex = reader.Little16();
  urb.setup.wLength = reader.Little16();
  urb.data = bytes.subspan(kUsbipHeaderBytes, body.data);
  urb.packets.resize(packets);
  BigReader table(bytes.subspan(kUsbipHeaderBytes + body.data));
  std::uint64_t total = 0;
  for (UrbPacket& packet : urb.packets) {
    packet = {.offset = table.U32(), .length = table.U32()};
    static_cast<void>(table.U32());
    static_cast<void>(table.U32());
    total += packet.length;
    if (std::uint64_t{packet.offset} + packet.length > urb.length || total > urb.length) {
      return Fail("an isochronous packet lies outside its request's data");
    }
  }
  mBegin += mWanted;
  return Got::kUrb;
}

std::optional<UsbipOperation> ReadOperation(std::span<const std::uint8_t, kOperationHeaderBytes> bytes) {
  const std::uint32_t request = BigReader(bytes).U32();
  for (const UsbipOperation operation : {UsbipOperation::kDeviceList, UsbipOperation::kImport}) {
    if (request == ((std::uint32_t{kVersion} << 16U) | static_cast<std::uint16_t>(operation))) {
      return operation;
    }
  }
  return std::nullopt;
}

std::string ReadBusId(std::span<const std::uint8_t, kBusIdBytes> bytes) {
  return {bytes.begin(), std::ranges::find(bytes, 0)};
}

std::vector<std::uint8_t> WriteDeviceList(std::span<const UsbipDeviceRecord> devices) {
  std::vector<std::uint8_t> bytes;
  AppendOperation(bytes, UsbipOperation::kDeviceList, 0);
  AppendBig(bytes, static_cast<std::uint32_t>(devices.size()));
  for (const UsbipDeviceRecord& device : devices) {
    AppendDevice(bytes, device);
    for (const auto& [usbClass, subClass, protocol] : device.interfaces) {
      bytes.insert(bytes.end(), {usbClass, subClass, protocol, 0});
    }
  }
  return bytes;
}

std::vector<std::uint8_t> WriteImportReply(const UsbipDeviceRecord* device, UsbipRefusal refusal) {
  std::vector<std::uint8_t> bytes;
  AppendOperation(bytes, UsbipOperation::kImport, device == nullptr ? static_cast<std::uint32_t>(refusal) : 0);
  if (device != nullptr) {
    AppendDevice(bytes, *device);
  }
  return bytes;
}

}  // namespace vel
