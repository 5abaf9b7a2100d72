#include "mockdev/MockUsbDevice.h"

#include <cerrno>
#include <utility>

namespace vel {
namespace {

// clang-format off
constexpr std::array<std::uint8_t, 99> kConfig = {
    9, 2, 99, 0, 2, 1, 0, 0x80, 50,
    9, 4, 0, 0, 7, 0xFF, 0, 0, 0,
    7, 5, 0x81, 3, 64, 0, 4,
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

}  // namespace

MockUsbDevice::MockUsbDevice()
    : MockUsb({.product = kProduct,
               .usbClass = 0,
               .config = {kConfig.begin(), kConfig.end()},
               .endpoint = 6,
               .lastSetting = 1,
               .halted = {0x85}}) {}

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

bool MockUsbDevice::Serve(Urb& urb, Bytes out) {
  if (urb.type == USBDEVFS_URB_TYPE_ISO) {
    ServeIso(urb);
  } else if (!urb.IsIn()) {
    urb.moved = urb.length;
  } else if (urb.endpoint == 0x81 || urb.endpoint == 0x82) {
    urb.in = Pattern(urb.length);
    urb.moved = urb.length;
  } else {
    return urb.endpoint == 0x85;
  }
  if (!urb.IsIn()) {
    mTaken[urb.endpoint] = std::move(out);
  }
  return true;
}

bool MockUsbDevice::ServeRequest(Urb& urb, std::span<const std::uint8_t> setup, Bytes out, Bytes& answer) {
  if (setup[0] == 0xC0 && setup[1] == kFetch) {
    answer = mTaken[0];
  } else if (setup[0] == 0x40 && setup[1] == kStore) {
    mTaken[0] = std::move(out);
  } else if (setup[1] == kSilent) {
    return false;
  } else {
    urb.status = -EPIPE;
  }
  return true;
}

void MockUsbDevice::ServeIso(Urb& urb) {
  urb.in = urb.IsIn() ? Pattern(urb.length) : Bytes();
  std::size_t index = 0;
  for (usbdevfs_iso_packet_desc& packet : urb.Packets()) {
    const int status = mPacketStatuses.empty() ? 0 : mPacketStatuses[index++ % mPacketStatuses.size()];
    packet.status = static_cast<unsigned>(status);
    packet.actual_length = status == 0 ? packet.length : packet.length / 2;
  }
}

}  // namespace vel
