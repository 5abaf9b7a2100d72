// Traffic as Linux's usbmon writes it (Documentation/usb/usbmon.rst; link type 220), in blocks of pcapng. Pure.
#ifndef VIRTUSB_HOST_OBSERVE_USBMON_RECORD_H
#define VIRTUSB_HOST_OBSERVE_USBMON_RECORD_H

#include <array>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace vel {

enum class UsbTransferType : std::uint8_t { kIsochronous = 0, kInterrupt = 1, kControl = 2, kBulk = 3 };

// In front of each record, in the byte order that the section says.
struct UsbmonHeader {
  std::uint64_t id;    // The same in a submission and its completion.
  std::uint8_t event;  // 'S' or 'C'.
  UsbTransferType type;
  std::uint8_t endpoint;  // With the direction in bit 7.
  std::uint8_t device;
  std::uint16_t bus;
  std::uint8_t setupFlag;  // 0: `setup` counts.
  std::uint8_t dataFlag;   // 0: there is data, or none to have; '<' and '>': it goes the other way.
  std::int64_t seconds;
  std::int32_t microseconds;
  std::int32_t status;                // A negative errno.
  std::uint32_t length;               // Asked for, or moved.
  std::uint32_t captured;             // What follows the header: descriptors and data.
  std::array<std::uint8_t, 8> setup;  // For isochronous: packets that failed, and how many there are.
  std::int32_t interval;
  std::int32_t startFrame;
  std::uint32_t flags;
  std::uint32_t descriptors;
};
static_assert(sizeof(UsbmonHeader) == 64 && offsetof(UsbmonHeader, bus) == 12 && offsetof(UsbmonHeader, status) == 28 &&
              offsetof(UsbmonHeader, setup) == 40 && offsetof(UsbmonHeader, descriptors) == 60);

// One for each isochronous packet, behind the header.
struct UsbmonIsoDescriptor {
  std::int32_t status;   // A negative errno.
  std::uint32_t offset;  // Of its bytes, from the first descriptor's end.
  std::uint32_t length;  // Asked for, or moved.
  std::uint32_t padding;
};
static_assert(sizeof(UsbmonIsoDescriptor) == 16);
static_assert(std::endian::native == std::endian::little, "records are copied as they lie");

// What a submission has for a status, and its packets.
inline constexpr std::int32_t kInProgress = -115;  // -EINPROGRESS
inline constexpr std::int32_t kNotReached = -18;   // -EXDEV

// One record: what is in it points to where it was read.
struct UsbEvent {
  std::uint64_t id = 0;
  bool isCompletion = false;
  UsbTransferType type = UsbTransferType::kControl;
  std::uint8_t endpoint = 0;
  std::int32_t status = kInProgress;
  std::uint32_t length = 0;
  std::array<std::uint8_t, 8> setup{};  // Of a control submission.
  std::span<const UsbmonIsoDescriptor> packets;
  std::span<const std::uint8_t> data;  // What goes this way.
};

// Since 1970, by which all records of a file are ordered.
using CaptureTime = std::chrono::microseconds;

// Readers take no longer record; data beyond is cut, whatever is asked for.
inline constexpr std::uint32_t kSnapLength = 262144;

// How much of a transfer's data is written where nobody says: more would cost a fast device a good part of its speed.
inline constexpr std::uint32_t kCaptureBytes = 1024;

// What a file begins with, what names a device, and what counts its records at the end. Each device has a bus of its
// own.
void AppendFileHeader(std::vector<std::uint8_t>& out);
void AppendInterface(std::vector<std::uint8_t>& out, std::string_view name);
void AppendInterfaceStatistics(std::vector<std::uint8_t>& out, std::uint32_t interface, CaptureTime time,
                               std::uint64_t received, std::uint64_t dropped);

// How many bytes an event's block takes, with at most `dataLimit` of its data, unless it is a control request; no more
// than kSnapLength and 35.
std::size_t EventBlockSize(const UsbEvent& event, std::uint32_t dataLimit);
// Writes it; `out` has that size.
void WriteEventBlock(std::span<std::uint8_t> out, const UsbEvent& event, std::uint32_t interface, CaptureTime time,
                     std::uint32_t dataLimit);

// Blocks of which only the first `written` bytes reached a file: up to where they are whole, and the records behind.
struct PcapngCut {
  std::size_t bytes = 0;
  std::uint64_t recordsBehind = 0;
};
PcapngCut CutPcapng(std::span<const std::uint8_t> blocks, std::size_t written);

}  // namespace vel

#endif
