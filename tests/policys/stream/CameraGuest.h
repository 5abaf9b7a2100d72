#ifndef VIRTUSB_TESTS_POLICYS_STREAM_CAMERA_GUEST_H
#define VIRTUSB_TESTS_POLICYS_STREAM_CAMERA_GUEST_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "remote/ModuleChannel.h"
#include "remote/RemoteDevice.h"
#include "support/Collected.h"
#include "support/Limits.h"
#include "uvc/UVCStreamCtrl.h"

namespace vel::test {

using Bytes = std::vector<std::uint8_t>;

// A guest's camera driver at the far side of a module, by packets alone. One thread.
class CameraGuest {
 public:
  static constexpr std::uint8_t kEndpoint = 0x81;
  static constexpr std::uint16_t kInterface = 1;

  explicit CameraGuest(const DeviceIdentity& identity)
      : mRemote(std::make_unique<RemoteDevice>(
            std::make_unique<ModuleChannel>(ModuleLibrary::Load(VIRTUSB_MODULE), identity,
                                            ModuleSession::Answers{.failures = true}),
            1, kDeadline)) {}

  RemoteDevice& Remote() { return *mRemote; }

  void AllowTranscoding() { EXPECT_EQ(mRemote->SetRedirPolicy(Bytes{'v'}), 0); }
  void Open() {
    for (const Command command : {Command::kOpenUsbDev, Command::kDetachKernelDriver, Command::kClaimAllInterface}) {
      ASSERT_EQ(mRemote->Status(command), 0);
    }
  }
  // Probe and commit, as a driver does it. What was agreed on.
  UVCStreamCtrl Negotiate(std::uint8_t format, std::uint8_t frame) {
    constexpr std::uint16_t kSize = 26;
    UVCStreamCtrl ctrl{};
    ctrl.bFormatIndex = format;
    ctrl.bFrameIndex = frame;
    ctrl.dwFrameInterval = 333333;
    Bytes block(kSize);
    std::memcpy(block.data(), &ctrl, kSize);
    EXPECT_EQ(mRemote->ControlTransfer({0x21, 0x01, 0x0100, kInterface, kSize}, block).value, kSize);
    block = mRemote->ControlTransfer({0xA1, 0x81, 0x0100, kInterface, kSize}).data;
    EXPECT_EQ(block.size(), kSize);
    std::memcpy(&ctrl, block.data(), std::min<std::size_t>(block.size(), kSize));
    EXPECT_EQ(mRemote->ControlTransfer({0x21, 0x01, 0x0200, kInterface, kSize}, block).value, kSize);
    return ctrl;
  }
  void Start(std::uint32_t altSetting = 1) { EXPECT_EQ(mRemote->SetInterfaceAltSetting(kInterface, altSetting), 0); }
  void Stop() { Start(0); }

  // A read of one frame. Its packet is small: the answer is as large as the frame.
  std::uint32_t Read() {
    constexpr std::array<std::uint32_t, 1> kPackets = {1};
    ++mReads;
    return mRemote->SubmitIsoTransfer(kEndpoint, kPackets, {},
                                      [this](TransferReply reply) { mReplies.Add(std::move(reply)); });
  }
  // The next reply, of status -1 when none comes by the deadline.
  TransferReply Next() {
    std::optional<TransferReply> reply = mReplies.Next();
    mReads -= reply ? 1 : 0;
    return std::move(reply).value_or(TransferReply{.status = -1, .data = {}, .isoPackets = 0});
  }
  // The next frame, with `ahead` more reads under way, as drivers keep them. A read that no frame came for in time, on
  // a machine that has other things to do, is read again.
  Bytes Picture(int ahead = 3) {
    constexpr std::int32_t kTimedOut = 2;
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    TransferReply reply;
    do {
      while (mReads <= ahead) {
        Read();
      }
      reply = Next();
    } while (reply.status == kTimedOut && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(reply.status, 0);
    return std::move(reply.data);
  }
  // The replies to all reads under way.
  std::vector<TransferReply> Rest() {
    std::vector<TransferReply> rest;
    while (mReads > 0) {
      rest.push_back(Next());
      if (rest.back().status == -1) {
        break;
      }
    }
    return rest;
  }

 private:
  int mReads = 0;
  Collected<TransferReply> mReplies;
  const std::unique_ptr<RemoteDevice> mRemote;  // Last: its thread uses what is above.
};

}  // namespace vel::test

#endif
