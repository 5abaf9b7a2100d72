// What the framework sees of a driver and its session: which thread, which order, how much may wait, and what happens
// without a device or a backend.
#include <algorithm>
#include <array>
#include <span>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "SessionFixture.h"

namespace vel {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t kMiB = 1U << 20U;

class Session : public SessionFixture {};

// A request whose payload takes memory only where it is touched.
std::unique_ptr<VelPacket> LargeRequest(Command command, std::uint32_t payloadBytes,
                                        std::span<const std::uint32_t> fields = {}) {
  const auto header = BuildRequest(command, kId);
  auto request =
      VelPacket::ForReceived(header->Wire().first<VelPacket::kHeaderSize>(), VelPacket::kHeaderSize + payloadBytes);
  std::ranges::copy(std::as_bytes(fields),
                    std::as_writable_bytes(request->MutableWire()).begin() + VelPacket::kHeaderSize);
  return request;
}

TEST_F(Session, RequestsRunInOrderOnOneThreadEachAfterTheOneBeforeIsDone) {
  io.Block("ResetDevice");
  for (const Command command : {Command::kResetDevice, Command::kGetBusNumber, Command::kDetachKernelDriver}) {
    Post(BuildRequest(command, kId));
  }
  ASSERT_TRUE(io.WaitForCall("ResetDevice"));
  EXPECT_FALSE(io.IsCalledSoon("GetBusNumber"));
  EXPECT_THAT(remote.Replies(), IsEmpty());
  io.Release("ResetDevice");
  ASSERT_TRUE(remote.WaitForReplies(3));
  EXPECT_THAT(io.Calls(), ElementsAre("Init", "ResetDevice", "ResetDevice done", "GetBusNumber", "DetachKernelDriver"));
  const std::thread::id loop = remote.Replies()[0].thread;
  EXPECT_NE(loop, std::this_thread::get_id());
  EXPECT_THAT(remote.Replies(), Each(::testing::Field(&Reply::thread, loop)));
  EXPECT_THAT(remote.Replies(), ElementsAre(IsStatusReply(Command::kResetDevice, kId.reqId, kId.devId, 0),
                                            IsStatusReply(Command::kGetBusNumber, kId.reqId, kId.devId, 0),
                                            IsStatusReply(Command::kDetachKernelDriver, kId.reqId, kId.devId, 0)));
}

TEST_F(Session, TwoSessionsDoNotWaitForEachOther) {
  TestedSession other;
  other.io.Answer("GetDevicePortNumber", 7);
  io.Block("ResetDevice");
  Post(BuildRequest(Command::kResetDevice, kId));
  ASSERT_TRUE(io.WaitForCall("ResetDevice"));
  EXPECT_THAT(other.Ask(BuildRequest(Command::kGetDevicePortNumber, {.reqId = 1, .devId = 2})),
              IsStatusReply(Command::kGetDevicePortNumber, 1, 2, 7));
  EXPECT_THAT(remote.Replies(), IsEmpty());
  io.Release("ResetDevice");
  EXPECT_TRUE(remote.WaitForReplies(1));
}

TEST_F(Session, TransfersOf256MiBMayWaitAndOnesThatAreDoneMakeRoom) {
  io.HoldTransfers();
  for (std::uint32_t stream = 1; stream <= 4; ++stream) {
    Post(BuildTransferRequest(Command::kInterruptTransfer, kId, 0x81, stream, 64 * kMiB, {}));
  }
  ASSERT_TRUE(io.WaitForHeld(4));
  EXPECT_THAT(Ask(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 5, 1, {})),
              IsBulkReply(5, kXferError, IsEmpty()));
  EXPECT_THAT(io.Transfers(), SizeIs(4)) << "the refused one reached the backend";
  ASSERT_TRUE(io.Complete(2, {.status = kXferTimedOut, .bytes = {}}));
  Post(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 6, 64 * kMiB, {}));
  ASSERT_TRUE(io.WaitForHeld(4));
  EXPECT_THAT(Ask(BuildIsoRequest(kId, 0x83, 7, std::array{1U}, {})), IsIsoReply(7, kXferError, 0, IsEmpty()));
  ASSERT_TRUE(io.Complete(6, {.status = kXferCompleted, .bytes = {{1, 2, 3}}}));
  io.Answer("BulkTransfer", LIBUSB_ERROR_NO_DEVICE);  // What the backend refuses makes room again too.
  for (std::uint32_t stream = 0; stream < 2; ++stream) {
    Ask(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, stream, 64 * kMiB, {}));
  }
  EXPECT_THAT(io.Transfers(), SizeIs(7));
}

TEST_F(Session, WaitingRequestsBeyond256MiBLoseTheirDataAndAreRefusedInTurn) {
  io.Block("ResetDevice");
  Post(BuildRequest(Command::kResetDevice, kId));
  ASSERT_TRUE(io.WaitForCall("ResetDevice"));
  constexpr std::array<std::uint32_t, 3> kBulkOut = {0x01, 42, 60 * kMiB};
  for (int i = 0; i < 4; ++i) {
    Post(LargeRequest(Command::kGetDevicePortNumber, 60 * kMiB));
  }
  Post(LargeRequest(Command::kBulkTransfer, 60 * kMiB, kBulkOut));
  Post(LargeRequest(Command::kGetBusNumber, 60 * kMiB));
  io.Release("ResetDevice");
  ASSERT_TRUE(remote.WaitForReplies(7));
  EXPECT_THAT(remote.Replies()[5], IsBulkReply(42, kXferError, IsEmpty()));
  EXPECT_THAT(remote.Replies()[6], IsStatusReply(Command::kGetBusNumber, kId.reqId, kId.devId, 0));
  // All of it was given back to the queue: the same bytes may wait once more.
  constexpr std::array<std::uint32_t, 3> kSmallBulkOut = {0x01, 43, 4};
  Post(LargeRequest(Command::kGetBusNumber, 250 * kMiB));
  Drain();
  Post(LargeRequest(Command::kBulkTransfer, 250 * kMiB, kSmallBulkOut));
  ASSERT_TRUE(remote.WaitForReplies(10));
  EXPECT_THAT(remote.Replies()[9], IsBulkReply(43, kXferCompleted, SizeIs(4)));
}

TEST_F(Session, HeadersThatCountLessThanThemselvesAreAnsweredInAFullQueueToo) {
  io.Block("ResetDevice");
  Post(BuildRequest(Command::kResetDevice, kId));
  ASSERT_TRUE(io.WaitForCall("ResetDevice"));
  Post(LargeRequest(Command::kGetBusNumber, 256 * kMiB - 600));  // Room for one more, not for two.
  for (int i = 0; i < 2; ++i) {
    auto request = BuildRequest(Command::kGetDeviceSpeed, kId);
    request->MutableWire()[VelPacket::kLengthOffset] = 3;
    Post(std::move(request));
  }
  io.Release("ResetDevice");
  ASSERT_TRUE(remote.WaitForReplies(4));
  EXPECT_THAT(remote.Replies()[3], IsStatusReply(Command::kGetDeviceSpeed, kId.reqId, kId.devId, 0));
}

TEST_F(Session, RequestsAreDroppedOnceTheRefusedOnesAreTooManyAsWell) {
  constexpr std::size_t kFlood = 1'000'000;  // Of some 300 bytes each.
  if (kSanitized) {
    GTEST_SKIP() << "a million waiting requests take too much memory in an instrumented build";
  }
  io.Block("DetachKernelDriver");
  Post(BuildRequest(Command::kDetachKernelDriver, kId));
  ASSERT_TRUE(io.WaitForCall("DetachKernelDriver"));
  Post(LargeRequest(Command::kGetBusNumber, 256 * kMiB - 4096));
  const CapturingLog log(OSKELO_LOG_ERROR);
  for (std::size_t i = 0; i < kFlood && log.Count("too many requests wait") == 0; i += 1000) {
    for (int j = 0; j < 1000; ++j) {
      Post(BuildRequest(Command::kPing, kId));
    }
  }
  EXPECT_GT(log.Count("too many requests wait, one is dropped: cmd[4]"), 0U);
  driver->Close(0);
}

TEST_F(Session, NeitherNotificationsNorNullPacketsDisturbTheSession) {
  EXPECT_EQ(driver->OnEvent(0xFF, ~std::uint64_t{0}, 0), 0);
  EXPECT_EQ(driver->OnPolicyChange(~std::uint64_t{0}, 0), 0);
  const auto bound = std::make_shared<DriverObj>();
  EXPECT_EQ(driver->BindObject(bound), 0);
  EXPECT_EQ(bound.use_count(), 1) << "the driver keeps what was bound";
  Post(nullptr);
  EXPECT_EQ(Served()->EventHandler(nullptr), 0);
  Drain();
  EXPECT_THAT(remote.Replies(), SizeIs(1));
}

TEST(DriverWithoutDevice, CannotBeMadeAndDoesNothing) {
  CapturingLog log;
  VirtUsbDriver driver(nullptr);
  EXPECT_EQ(driver.Init(), -1);
  EXPECT_EQ(driver.GetDriverObj(), nullptr);
  EXPECT_EQ(driver.onEvent(BuildRequest(Command::kOpenUsbDev, kId)), 0);
  EXPECT_EQ(driver.Close(0), 0);
  EXPECT_EQ(log.Count("Error:new driver dev is NULL"), 1U);
}

TEST(DriverWithoutBackend, AnswersThatTheDeviceIsNotOpen) {
  const CapturingLog log(OSKELO_LOG_OFF);
  RecordingDeviceBase remote;  // No backend is prepared for it, the factory returns null.
  VirtUsbDriver driver(&remote, &ScriptedUsbIo::Create);
  ASSERT_EQ(driver.Init(), 0);
  driver.onEvent(BuildRequest(Command::kOpenUsbDev, kId));
  driver.onEvent(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 4, 2, {}));
  driver.onEvent(BuildRequest(Command::kGetDeviceConfig, kId));
  ASSERT_TRUE(remote.WaitForReplies(3));
  driver.Close(0);
  EXPECT_THAT(remote.Replies(), ElementsAre(IsStatusReply(Command::kOpenUsbDev, kId.reqId, kId.devId, -5),
                                            IsBulkReply(4, kXferError, ElementsAre(0, 0)),
                                            IsReply(Command::kGetDeviceConfig, kId.reqId, kId.devId, IsEmpty())));
}

TEST(SessionWithoutDevice, IsBuiltAllTheSame) {
  const CapturingLog log;
  const auto session = std::make_unique<VirtUsb>(nullptr, nullptr);
  EXPECT_EQ(session->IsRedirected(), 0);
  session->EventHandler(BuildRequest(Command::kOpenUsbDev, kId));
  session->EventHandler(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 4, 2, {}));
  EXPECT_EQ(session->Stop(), 0);
  EXPECT_THAT(log.Messages("VirtUsb"), ElementsAre("Error:operator dev is NULL"));
}

}  // namespace
}  // namespace vel
