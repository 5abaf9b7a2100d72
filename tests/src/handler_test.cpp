// What each request asks of the device, what it answers and what it logs.
#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "SessionFixture.h"

namespace vel {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

using Bytes = std::vector<std::uint8_t>;

class Handler : public SessionFixture {};

// i32 result, then the data.
Bytes Answer(std::int32_t result, const Bytes& data = {}) {
  Bytes bytes(sizeof result);
  std::memcpy(bytes.data(), &result, sizeof result);
  bytes.insert(bytes.end(), data.begin(), data.end());
  return bytes;
}

TEST_F(Handler, StatusCommandsAnswerWhatTheirOperationDid) {
  struct Row {
    Command command;
    std::string operation;
    Bytes payload;
    std::string arguments;
    std::int32_t result;
  };
  const Bytes twoNumbers = {2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
  const std::vector<Row> rows = {
      {Command::kGetDevicePortNumber, "GetDevicePortNumber", {}, "", 0xFF},
      {Command::kGetBusNumber, "GetBusNumber", {}, "", 200},
      {Command::kGetDeviceAddress, "GetDeviceAddress", {}, "", 0x85},
      {Command::kGetDeviceSpeed, "GetDeviceSpeed", {}, "", LIBUSB_SPEED_SUPER},
      {Command::kOpenUsbDev, "OpenUsbDev", {}, "", LIBUSB_ERROR_ACCESS},
      {Command::kCloseUsbDev, "CloseUsbDev", {}, "", LIBUSB_ERROR_NO_DEVICE},
      {Command::kResetDevice, "ResetDevice", {}, "", LIBUSB_ERROR_NOT_FOUND},
      {Command::kAttachKernelDriver, "AttachKernelDriver", {}, "", LIBUSB_ERROR_NOT_SUPPORTED},
      {Command::kDetachKernelDriver, "DetachKernelDriver", {}, "", LIBUSB_ERROR_BUSY},
      {Command::kClearHalt, "ClearHalt", {0x81, 0, 0, 0}, " 0", LIBUSB_ERROR_PIPE},
      {Command::kReleaseAllInterface, "ReleaseAllInterface", {}, "", LIBUSB_ERROR_IO},
      {Command::kClaimAllInterface, "ClaimAllInterface", {}, "", LIBUSB_ERROR_OTHER},
      {Command::kSetConfiguration, "SetConfiguration", twoNumbers, " 2", LIBUSB_ERROR_TIMEOUT},
      {Command::kSetInterfaceAltSetting, "SetInterfaceAltSetting", twoNumbers, " 2 -1", LIBUSB_ERROR_OVERFLOW},
      {Command::kCancelTransfer, "CancelTransfer", {0xFF, 0xFF, 0xFF, 0xFF}, " 4294967295", LIBUSB_ERROR_NO_MEM},
  };
  std::vector<std::string> calls = {"Init"};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.operation);
    const CapturingLog log(OSKELO_LOG_OFF);
    io.Answer(row.operation, row.result);
    EXPECT_THAT(Ask(BuildRequest(row.command, kId, row.payload)),
                IsStatusReply(row.command, kId.reqId, kId.devId, row.result));
    calls.push_back(row.operation + row.arguments);
    if (row.command == Command::kOpenUsbDev) {
      calls.emplace_back("GetConfigDesc");  // The policy looks at the device after a failure too.
    }
  }
  EXPECT_THAT(io.Calls(), ElementsAreArray(calls));
}

TEST_F(Handler, DeviceWithoutDescriptorsGetsNoReplyOrAHeaderOnly) {
  const CapturingLog log(OSKELO_LOG_ERROR);
  Post(BuildRequest(Command::kGetDeviceDesc, kId));
  EXPECT_THAT(Ask(BuildRequest(Command::kGetDeviceConfig, kId)),
              IsReply(Command::kGetDeviceConfig, kId.reqId, kId.devId, IsEmpty()));
  EXPECT_THAT(log.Messages(),
              ElementsAre("Error:Get device descriptor failed", "Error:FAIL 0", "Error:GetDeviceconfig: error"));
}

TEST_F(Handler, StringRepliesHoldNoMoreThanTheBufferWhateverTheBackendClaims) {
  struct Row {
    std::uint32_t asked;
    int passedOn;
    int backend;
    std::int32_t result;
  };
  for (const Row& row : {Row{0, 0, 0, 0}, Row{4, 4, 4, 4}, Row{4, 4, 9, 4}, Row{256, 256, 256, 256},
                         Row{257, 256, 300, 256}, Row{0xFFFFFFFF, 256, 2, 2}, Row{255, 255, -9, -9}}) {
    SCOPED_TRACE(row.asked);
    int room = -1;
    io.AnswerData("GetStringDescriptor", [&](std::span<std::uint8_t> buffer) {
      room = static_cast<int>(buffer.size());
      std::fill(buffer.begin(), buffer.end(), std::uint8_t{0x5A});
      return row.backend;
    });
    const Bytes data(static_cast<std::size_t>(std::max(row.result, 0)), 0x5A);
    EXPECT_THAT(Ask(BuildStringRequest(kId, 2, 0x0409, row.asked)),
                IsReply(Command::kGetStringDescriptor, kId.reqId, kId.devId, Answer(row.result, data)));
    EXPECT_EQ(room, row.passedOn);
  }
  EXPECT_THAT(io.Calls(), Contains("GetStringDescriptor 2 1033 256"));
}

TEST_F(Handler, ControlRepliesHoldWhatTheDeviceMoved) {
  const CapturingLog log(OSKELO_LOG_OFF);
  struct Row {
    int backend;
    Bytes expected;
  };
  for (const Row& row : {Row{3, Answer(3, {1, 2, 3})}, Row{0, Answer(0)}, Row{LIBUSB_ERROR_PIPE, Answer(-9)},
                         Row{4, Answer(4, {1, 2, 3, 0xEE})}, Row{99, Answer(4, {1, 2, 3, 0xEE})}}) {
    SCOPED_TRACE(row.backend);
    io.AnswerData("ControlTransfer", [&](std::span<std::uint8_t> data) {
      EXPECT_THAT(Bytes(data.begin(), data.end()), ElementsAre(0xEE, 0xEE, 0xEE, 0xEE));
      std::copy_n(std::array<std::uint8_t, 3>{1, 2, 3}.begin(), 3, data.begin());
      return row.backend;
    });
    const auto request = [] {
      return BuildControlRequest(kId, {0xC0, 0x33, 0x1234, 0xABCD, 4}, 70'000, Bytes{0xEE, 0xEE, 0xEE, 0xEE});
    };
    EXPECT_THAT(Ask(request()), IsReply(Command::kControlTransfer, kId.reqId, kId.devId, row.expected));
    EXPECT_EQ(io.Calls().back(), "ControlTransfer 192 51 4660 43981 4 70000");
  }
}

TEST_F(Handler, TransfersArriveWithTheirFieldsAndData) {
  io.HoldTransfers();
  Post(BuildTransferRequest(Command::kBulkTransfer, kId, 0x02, 7, 3, Bytes{1, 2, 3}));
  Post(BuildTransferRequest(Command::kInterruptTransfer, kId, 0x81, 8, 3, Bytes{9}));
  Post(BuildIsoRequest(kId, 0x83, 0xFFFFFFFF, std::array{2U, 1U}, {}));
  ASSERT_TRUE(io.WaitForHeld(3));
  EXPECT_THAT(io.Calls(), ElementsAre("Init", "BulkTransfer 2 7 3", "InterruptTransfer 129 8 3",
                                      "IsochTransfer 131 4294967295 35"));
  for (const ScriptedUsbIo::Submitted& transfer : io.Transfers()) {
    EXPECT_EQ(transfer.localXferId, transfer.streamId);
    EXPECT_THAT(transfer.isoDescCopy, IsEmpty()) << "kept for an emulated backend";
  }
  EXPECT_EQ(io.Transfers()[2].isoPacketNum, 2U);
  ASSERT_TRUE(io.Complete(8, {.status = kXferCompleted, .bytes = {{6, 7}}}));
  ASSERT_TRUE(io.CompleteNext({.status = kXferCompleted, .bytes = {}}));
  ASSERT_TRUE(io.CompleteNext({.status = kXferCompleted, .bytes = {{}}}));
  EXPECT_THAT(remote.Replies(),
              ElementsAre(IsInterruptReply(8, 0, ElementsAre(6, 7)), IsBulkReply(7, 0, ElementsAre(1, 2, 3)),
                          IsIsoReply(0xFFFFFFFF, 0, 2, IsEmpty())));
  for (const Reply& reply : remote.Replies()) {
    EXPECT_EQ(reply.devId, kId.devId);
  }
}

TEST_F(Handler, IsochronousReplyCanBeMeasuredByOnePing) {
  const CapturingLog log;
  Ask(BuildIsoRequest(kId, 0x83, 0x01020304, std::array{2U}, {}));
  auto swapped = BuildRequest(Command::kPing, kId, Bytes{1, 2, 3, 4, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88});
  swapped->MutableWire()[VelPacket::kByteOrderOffset] = 1;
  Post(std::move(swapped));
  Post(BuildPing(kId, 0x01020304, 5));  // Measured already.
  Post(BuildPing(kId, 77, 5));          // Never sent.
  Post(BuildRequest(Command::kPing, kId, Bytes(11)));
  Drain();
  EXPECT_THAT(log.Messages("Ping"),
              ElementsAre(AllOf(StartsWith("Debug:[UVC tuning] streamid = 16909060 reply to ping = "),
                                HasSubstr(", remote timestamp = 1234605616436508552"))));
  EXPECT_EQ(log.Count("Error:ping (0x0004): bad payload of 11 bytes, fields take 12"), 1U);
  EXPECT_THAT(remote.Replies(), SizeIs(2));
}

}  // namespace
}  // namespace vel
