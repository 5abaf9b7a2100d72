// No memory and no thread: what was asked is answered or dropped, and nothing ends. And what is done with the memory.

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "entry.h"
#include "protocol/ByteReader.h"
#include "remote/RequestBuilder.h"
#include "support/CameraStart.h"
#include "support/CapturingLog.h"
#include "support/Collected.h"
#include "support/FailingMemory.h"
#include "support/FakeDeviceBase.h"
#include "support/Heap.h"
#include "support/Limits.h"
#include "support/NoThreads.h"
#include "vel/VelDriver.h"

namespace vel {
namespace {

using test::FailMemoryOfOthersAfter;

class Device final : public FakeDeviceBase {
 public:
  explicit Device(std::uint16_t productId) : FakeDeviceBase({.productId = productId}) {}
  int Send(std::unique_ptr<VelPacket> packet, std::uint32_t) override {
    const test::HealthyMemory healthy;
    if (packet->GetDevId() == mRound) {
      ByteReader reader(packet->PayloadBytes());
      replies.Add(reader.Host<std::uint32_t>());
    }
    return 0;
  }
  void Begin(std::uint32_t round) {
    mRound = round;
    replies.Take();
  }

  Collected<std::uint32_t> replies;  // Of this round: what each begins with.

 private:
  std::atomic<std::uint32_t> mRound{0};
};

constexpr std::size_t kDataBytes = 60000;  // What is lost of it is seen among the rest.

std::unique_ptr<VelPacket> Request(Command command, RequestId id) {
  switch (command) {
    case Command::kBulkTransfer:
    case Command::kInterruptTransfer:
      return BuildTransferRequest(command, id, 0x01, id.devId, kDataBytes, std::vector<std::uint8_t>(kDataBytes));
    case Command::kIsochTransfer:
      return BuildIsoRequest(id, 0x83, id.devId, std::array{3U}, {});
    case Command::kControlTransfer:
      return BuildControlRequest(id, {0x80, 6, 0x0300, 0, 255}, 0);
    case Command::kSetRedirPolicy:
      return BuildPolicyRequest(id, std::vector<std::uint8_t>(64, 'x'));
    default:
      return BuildRequest(command, id, std::vector<std::uint8_t>(8));
  }
}

class Memory : public ::testing::Test {
 protected:
  const CapturingLog mLog{OSKELO_LOG_OFF};
  Device mDevice{0xFF01};  // A keyboard, on which interrupt transfers stay pending.
};

// The first: what the others leave could be room enough.
TEST_F(Memory, WhatTransfersHaveFreedStaysForTheNext) {
  if (test::HeapRoom() == 0 || kSanitized) {
    GTEST_SKIP() << "another allocator";
  }
  const std::unique_ptr<VelDriver> driver(virtusb_open(&mDevice));
  const std::size_t before = test::HeapRoom();
  std::vector<std::vector<std::uint8_t>> blocks(64, std::vector<std::uint8_t>(kDataBytes));
  const std::size_t room = test::HeapRoom();
  blocks.clear();
  EXPECT_GT(room, before);
  EXPECT_GE(test::HeapRoom(), room);
}

TEST_F(Memory, WithoutItARequestIsRefusedAndTheNextIsCarriedOut) {
  const std::unique_ptr<VelDriver> driver(virtusb_open(&mDevice));
  const std::size_t before = test::HeapBytes();
  std::uint32_t round = 0;
  std::uint32_t failures = 0;  // A status is answered without any allocation.
  for (const CommandInfo& command : kCommands) {
    SCOPED_TRACE(command.name);
    // A keyboard's interrupt transfers are answered by their cancel, a descriptor that cannot be sent is not.
    const bool answered = command.reply != ReplyKind::kNone && command.command != Command::kInterruptTransfer;
    const bool refused = answered && command.command != Command::kGetDeviceDesc;
    for (const std::uint32_t fail : {1U, 2U}) {  // The request; its refusal too.
      std::uint32_t succeed = 0;
      std::uint32_t left = 0;
      while (left < fail && ++succeed < 100) {
        mDevice.Begin(++round);
        FailMemoryOfOthersAfter(succeed - 1, fail);
        driver->onEvent(Request(command.command, {.reqId = 1, .devId = round}));
        for (int i = 0; i < 2; ++i) {
          driver->onEvent(BuildRequest(Command::kGetDeviceSpeed, {.reqId = 1, .devId = round}));
        }
        const std::size_t least = fail == 1 && refused ? 3 : fail == 1 || answered ? 2 : 1;
        ASSERT_EQ(mDevice.replies.Await(least).size(), least) << succeed - 1 << " succeed, " << fail << " fail";
        left = FailMemoryOfOthersAfter(0, 0);
      }
      EXPECT_EQ(left, fail) << "not all allocations failed";
      failures += succeed - 1;
    }
  }
  EXPECT_GT(failures, 16U);
  driver->Close(0);
  EXPECT_LT(test::HeapBytes(), before + kDataBytes);
}

// The camera's threads get none either.
TEST_F(Memory, WithoutItACameraAnswersAndEndsItsStream) {
  std::uint32_t left = 0;
  for (std::uint32_t succeed = 0; left == 0 && succeed < 1000; ++succeed) {
    Device camera(0xFFFE);
    camera.AnswerFailedTransfers();
    camera.Begin(1);
    const std::unique_ptr<VelDriver> driver(virtusb_open(&camera));
    FailMemoryOfOthersAfter(succeed, 1);
    for (auto& request : test::CameraStart({.reqId = 1, .devId = 1})) {
      driver->onEvent(std::move(request));
    }
    for (const std::uint32_t streamId : {100U, 101U}) {
      driver->onEvent(BuildIsoRequest({.reqId = 1, .devId = 1}, 0x81, streamId, std::array{1U}, {}));
    }
    const auto first = camera.replies.Await(3);
    // All went well, but for the control request's reply, which is its length.
    const std::size_t least = std::ranges::count(first, 0U) == 2 ? 5 : 3;
    ASSERT_EQ(camera.replies.Await(least).size(), least) << succeed << " succeed";
    left = FailMemoryOfOthersAfter(0, 0);
    driver->Close(0);
    EXPECT_LE(camera.replies.Take().size(), 5U);
  }
  EXPECT_EQ(left, 1U);
}

// The framework's thread is a new one, this one's allocations always work.
TEST_F(Memory, WithoutItAPacketIsDroppedAndADriverIsNotMade) {
  int failed = 0;
  for (std::uint32_t succeed = 0, left = 0; left == 0 && succeed < 1000; ++succeed) {
    std::unique_ptr<VelDriver> driver;
    FailMemoryOfOthersAfter(succeed, 1);
    std::thread([&] { driver.reset(virtusb_open(&mDevice)); }).join();
    left = FailMemoryOfOthersAfter(0, 0);
    failed += driver == nullptr ? 1 : 0;
  }
  EXPECT_GT(failed, 3);
  const std::unique_ptr<VelDriver> driver(virtusb_open(&mDevice));
  for (std::uint32_t succeed = 0; succeed < 8; ++succeed) {
    mDevice.Begin(1);
    auto request = BuildRequest(Command::kGetDeviceSpeed, {.reqId = 1, .devId = 0});
    FailMemoryOfOthersAfter(succeed, 1);
    std::thread([&] { driver->onEvent(std::move(request)); }).join();
    FailMemoryOfOthersAfter(0, 0);
    driver->onEvent(BuildRequest(Command::kGetDeviceSpeed, {.reqId = 1, .devId = 1}));
    ASSERT_EQ(mDevice.replies.Await(1).size(), 1U);
  }
  driver->Close(0);
}

TEST_F(Memory, WithoutItAPacketTakesNothingOrNoMore) {
  FailMemoryOfOthersAfter(1, 2);
  std::thread([] {
    VelPacket full(VelPacket::kHeaderSize + 4);
    EXPECT_EQ(full.Append("abcd", 4) + full.Append("efgh", 4), 0);
    EXPECT_EQ(full.Wire().size(), full.GetCapacity());
    VelPacket none(100);
    EXPECT_EQ(none.InitHeader(1, 2, 3), -1);
    EXPECT_EQ(none.Append("", 0), -1);
  }).join();
  EXPECT_EQ(FailMemoryOfOthersAfter(0, 0), 0U);
}

TEST_F(Memory, WithoutAThreadADriverIsNotMade) {
  if (!test::NoThreads::kPossible) {
    GTEST_SKIP() << "nothing here keeps a thread from being made";
  }
  {
    const test::NoThreads none;
    EXPECT_EQ(virtusb_open(&mDevice), nullptr);
  }
  EXPECT_NE(std::unique_ptr<VelDriver>(virtusb_open(&mDevice)), nullptr);
}

}  // namespace
}  // namespace vel
