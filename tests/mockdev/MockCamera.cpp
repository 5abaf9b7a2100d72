#include "mockdev/MockCamera.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace vel {
namespace {

constexpr std::uint8_t kEndpoint = 0x81;
constexpr std::uint32_t kPayload = 3060;       // Isochronous, header included.
constexpr std::uint32_t kBulkPayload = 16384;  // The same of bulk.
constexpr int kPacketsPerFrame = 267;          // 30 frames a second.
constexpr std::chrono::microseconds kMicroframe{125};
// Width and height of the frames of both formats, pixels.
constexpr std::array<std::array<std::uint16_t, 2>, 2> kSizes = {{{640, 480}, {320, 240}}};

constexpr std::uint8_t Low(std::size_t value) {
  return static_cast<std::uint8_t>(value);
}
constexpr std::uint8_t High(std::size_t value) {
  return static_cast<std::uint8_t>(value >> 8U);
}

void Append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

// clang-format off
Bytes StreamingBlock() {
  Bytes block = {15, 0x24, 1, 2, 0, 0, kEndpoint, 0, 2, 0, 0, 0, 1, 0, 0};
  for (std::uint8_t format = 1; format <= 2; ++format) {
    Append(block, format == 1 ? Bytes{27, 0x24, 4, 1, 2, 'Y', 'U', 'Y', '2', 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38,
                                      0x9B, 0x71, 16, 1, 0, 0, 0, 0}
                              : Bytes{11, 0x24, 6, 2, 2, 0, 1, 0, 0, 0, 0});
    for (std::uint8_t frame = 1; frame <= kSizes.size(); ++frame) {
      const auto [width, height] = kSizes[frame - 1U];
      Append(block, {30, 0x24, Low(format == 1 ? 5 : 7), frame, 0, Low(width), High(width), Low(height), High(height),
                     0, 0, 0, 1, 0, 0, 0, 1, 0, 0x60, 9, 0, 0x15, 0x16, 5, 0, 1, 0x15, 0x16, 5, 0});
    }
    Append(block, {6, 0x24, 13, 1, 1, 4});
  }
  block[4] = Low(block.size());
  block[5] = High(block.size());
  return block;
}

Bytes Configuration(bool bulk) {
  Bytes bytes = {9, 2, 0, 0, 2, 1, 0, 0x80, 250,
                 8, 11, 0, 2, 14, 3, 0, 0,
                 9, 4, 0, 0, 0, 14, 1, 0, 0,
                 13, 0x24, 1, 0, 1, 13, 0, 0, 0, 0, 0, 1, 1,
                 9, 4, 1, 0, Low(bulk ? 1 : 0), 14, 2, 0, 0};
  Append(bytes, StreamingBlock());
  // Isochronous: 3 packets of 1024 bytes in a microframe.
  Append(bytes, bulk ? Bytes{7, 5, kEndpoint, 2, 0x00, 0x02, 0}
                     : Bytes{9, 4, 1, 1, 1, 14, 2, 0, 0, 7, 5, kEndpoint, 5, 0x00, 0x14, 1});
  bytes[2] = Low(bytes.size());
  bytes[3] = High(bytes.size());
  return bytes;
}
// clang-format on

}  // namespace

MockCamera::MockCamera(const Options& options)
    : MockUsb({.product = kProduct,
               .usbClass = 0xEF,
               .config = Configuration(options.bulk),
               .endpoint = kEndpoint & 0x0FU,
               .lastSetting = options.bulk ? 0U : 1U}),
      mBulk(options.bulk),
      mPayloads(options.faults, kPacketsPerFrame) {
  Plug();
  mBus = std::thread(&MockCamera::RunBus, this);
}

MockCamera::~MockCamera() {
  static_cast<void>(AwaitClosed());
  {
    const MutexLock lock(mMutex);
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
  mHalted = {kEndpoint};
  Kill(-EPIPE, [](const Urb&) { return true; });
  Changed();
}

std::vector<Bytes> MockCamera::Sent() {
  const MutexLock lock(mMutex);
  return mPayloads.Sent();
}

bool MockCamera::Serve(Urb& /*urb*/, Bytes /*out*/) {
  return false;
}

// Probe and commit control: what the guest asks for, with its sizes (UVC 1.1, table 4-47).
bool MockCamera::ServeRequest(Urb& urb, std::span<const std::uint8_t> setup, Bytes out, Bytes& answer) {
  if (setup[0] == 0xA1 && setup[4] == 1) {
    answer = mControl;
  } else if (setup[0] == 0x21 && setup[4] == 1 && out.size() <= mControl.size()) {
    std::ranges::copy(out, mControl.begin());
    const auto [width, height] = kSizes[std::clamp<std::size_t>(mControl[3], 1, kSizes.size()) - 1];
    const std::uint32_t size = 2U * width * height;
    std::memcpy(&mControl[18], &size, sizeof size);
    std::memcpy(&mControl[22], mBulk ? &kBulkPayload : &kPayload, sizeof kPayload);
  } else {
    urb.status = -EPIPE;
  }
  return true;
}

bool MockCamera::IsReady() const {
  return !mPending.empty() && (!mBulk || mPayloads.IsBetweenFrames() || mPayloads.HasData());
}

void MockCamera::RunBus() {
  auto due = std::chrono::steady_clock::now();
  MutexLock lock(mMutex);
  while (!mEnding) {
    if (!IsReady()) {
      while (!mEnding && !IsReady()) {
        mChanged.Wait(lock);
      }
      due = std::max(due, std::chrono::steady_clock::now());
    }
    due += kMicroframe * (mBulk ? kPacketsPerFrame / 38 : 32);
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
  if (mBulk && !mPayloads.HasData()) {
    mPayloads.SkipGap();
    return;
  }
  urb.in.resize(urb.length);
  if (mBulk) {
    urb.moved = static_cast<std::size_t>(mPayloads.Next(urb.in));
    urb.in.resize(urb.moved);
  } else {
    std::size_t place = 0;
    for (usbdevfs_iso_packet_desc& packet : urb.Packets()) {
      const int moved = mPayloads.Next(std::span(urb.in).subspan(place, packet.length));
      packet.status = static_cast<unsigned>(moved < 0 ? -EPROTO : 0);
      packet.actual_length = static_cast<unsigned>(std::max(moved, 0));
      place += packet.length;
    }
  }
  mDone.splice(mDone.end(), mPending, mPending.begin());
}

}  // namespace vel
