#include "io/DummyUsbIo/DummyUsbPrinter.h"

#include <array>

#include "base/VelLog.h"

namespace vel {
namespace {

constexpr std::array<std::uint8_t, LIBUSB_DT_DEVICE_SIZE> kDeviceDesc = {
    0x12, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x40, 0x67, 0x28, 0x12, 0x11, 0x00, 0x01, 0x01, 0x02, 0x03, 0x01,
};

constexpr std::array<std::uint8_t, 32> kConfigDesc = {
    0x09, 0x02, 0x20, 0x00, 0x01, 0x01, 0x00, 0xC0, 0x01,  // configuration, 32 bytes
    0x09, 0x04, 0x00, 0x00, 0x02, 0x07, 0x01, 0x02, 0x00,  // interface 0, printer, bidirectional
    0x07, 0x05, 0x01, 0x02, 0x40, 0x00, 0x00,              // bulk OUT 0x01
    0x07, 0x05, 0x82, 0x02, 0x40, 0x00, 0x00,              // bulk IN 0x82
};

// IEEE 1284 device id: its length in two bytes, big-endian, then the text.
constexpr std::array<std::uint8_t, 26> kDeviceId = {0x00, 0x1A, 'M', 'F', 'G', ':', 'D', 'V', '3', ';', 'C', 'M', 'D',
                                                    ':',  'P',  'D', 'F', ';', 'M', 'D', 'L', ':', 'V', 'T', 'L', ';'};

void LogRequest(std::uint16_t wValue, std::uint16_t wIndex, std::uint16_t wLength) {
  VEL_DEBUG("wValue[0x%x], wIndex[0x%x], len[%d]", unsigned{wValue}, unsigned{wIndex}, int{wLength});
}

void LogDeviceId(std::uint16_t wValue, std::uint16_t wIndex, std::uint16_t wLength) {
  VEL_DEBUG("printer deviceid  wValue[0x%x], wIndex[0x%x], len[%d]", unsigned{wValue}, unsigned{wIndex}, int{wLength});
}

constexpr std::array kAnswers = {
    CannedAnswer{.bmRequestType = 0xA1, .bRequest = 0, .answer = kDeviceId, .log = &LogDeviceId},
};

constexpr DummyUsbProfile kProfile{
    .deviceDesc = kDeviceDesc,
    .configDesc = kConfigDesc,
    .announcesRequestType = true,
    .answers = kAnswers,
    .logRequest = &LogRequest,
};

}  // namespace

DummyUsbPrinter::DummyUsbPrinter(std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid,
                                 std::uint16_t pid)
    : DummyUsbFamily(kProfile, busNumber, deviceAddress, vid, pid) {}

}  // namespace vel
