// What each request asks of the device, what it answers and what it reports.

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "RequestXfer.h"
#include "SessionFixture.h"
#include "protocol/IsoTable.h"
#include "support/Heap.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Bytes = std::vector<std::uint8_t>;

RecordingDeviceBase::Identity Real() {
  return {.address = 0x7F};
}

class Handler : public SessionFixture {};

// i32 result, then the data.
Bytes Answer(std::int32_t result, const Bytes& data = {}) {
  Bytes bytes(sizeof result);
  std::memcpy(bytes.data(), &result, sizeof result);
  bytes.insert(bytes.end(), data.begin(), data.end());
  return bytes;
}

TEST_F(Handler, RepliesHoldNoMoreThanTheBufferWhateverTheBackendClaims) {
  const CapturingLog log(OSKELO_LOG_OFF);
  const auto fill = [](int result) {
    return [result](std::span<std::uint8_t> buffer) {
      std::ranges::fill(buffer, std::uint8_t{0x5A});
      return result;
    };
  };
  const struct {
    std::uint32_t asked;
    int backend;
    std::int32_t result;
  } strings[] = {{0, 0, 0}, {4, 9, 4}, {256, 256, 256}, {257, 300, 256}, {0xFFFFFFFF, 2, 2}, {255, -9, -9}};
  for (const auto& [asked, backend, result] : strings) {
    SCOPED_TRACE(asked);
    io.AnswerData("GetStringDescriptor", fill(backend));
    const Bytes data(static_cast<std::size_t>(std::max(result, 0)), 0x5A);
    EXPECT_THAT(Ask(BuildStringRequest(kId, 2, 0x0409, asked)),
                IsReply(Command::kGetStringDescriptor, kId.reqId, kId.devId, Answer(result, data)));
  }
  for (const auto& [backend, result] : {std::pair{3, 3}, {0, 0}, {LIBUSB_ERROR_PIPE, -9}, {99, 4}}) {
    SCOPED_TRACE(backend);
    io.AnswerData("ControlTransfer", fill(backend));
    const Bytes data(static_cast<std::size_t>(std::max(result, 0)), 0x5A);
    EXPECT_THAT(Ask(BuildControlRequest(kId, {0xC0, 0x33, 0x1234, 0xABCD, 4}, 70'000, Bytes(4))),
                IsReply(Command::kControlTransfer, kId.reqId, kId.devId, Answer(result, data)));
    EXPECT_EQ(io.Calls().back(), "ControlTransfer 192 51 4660 43981 4 70000");
  }
}

TEST_F(Handler, TransfersAreGivenBackWithWhatTheBackendLeft) {
  io.HoldTransfers();
  Post(BuildTransferRequest(Command::kBulkTransfer, kId, 0x02, 7, 3, Bytes{1, 2, 3}));
  Post(BuildTransferRequest(Command::kInterruptTransfer, kId, 0x81, 8, 3, Bytes{9}));
  Post(BuildIsoRequest(kId, 0x83, 0xFFFFFFFF, std::array{2U, 1U}, {}));
  Post(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 10, 2, Bytes{9, 9}));
  ASSERT_TRUE(io.WaitForHeld(4));
  EXPECT_THAT(io.Calls(), ElementsAre("Init", "BulkTransfer 2 7 3", "InterruptTransfer 129 8 3",
                                      "IsochTransfer 131 4294967295 35", "BulkTransfer 129 10 2"));
  ASSERT_TRUE(io.Complete(8, {.status = kXferCompleted, .bytes = {{6, 7}}}));
  ASSERT_TRUE(io.CompleteNext({.status = kXferCompleted, .bytes = {}}));
  ASSERT_TRUE(io.CompleteNext({.status = kXferCompleted, .bytes = {{}}}));
  ASSERT_TRUE(io.CompleteNext({.status = kXferTimedOut, .bytes = {{1, 2}}}));  // A failure that kept its data.
  EXPECT_THAT(remote.Replies(),
              ElementsAre(IsInterruptReply(8, 0, ElementsAre(6, 7)), IsBulkReply(7, 0, ElementsAre(1, 2, 3)),
                          IsIsoReply(0xFFFFFFFF, 0, 2, IsEmpty()), IsBulkReply(10, kXferTimedOut, ElementsAre(1, 2))));
  EXPECT_THAT(remote.Replies(), ::testing::Each(::testing::Field(&Reply::devId, kId.devId)));
}

TEST(RequestXfer, ReplyTakesThePacketOfItsDataUnlessThatWouldHoldMuchInVain) {
  constexpr std::uint32_t kLength = 1U << 20U;
  for (const std::uint32_t moved : {kLength, 8U}) {
    std::unique_ptr<VelPacket> request;
    const XferPtr record = MakeRequestXfer(request, {.epAddr = 0x81, .length = kLength, .data = {}}, true);
    record->epAddr = 0x81;
    record->length = moved;
    const auto reply = TakeReplyPacket(*record, moved + kReplyRoom);
    EXPECT_EQ(reply != nullptr, moved == kLength);
  }
}

TEST_F(Handler, SaysWhatDataMovesAndHowLongAPictureTakes) {
  const CapturingLog log;
  const Bytes data = {1, 2, 0xAB};
  Ask(BuildTransferRequest(Command::kInterruptTransfer, kId, 0x02, 1, 3, data));  // Not shown.
  EXPECT_THAT(log.Messages("velPrintData"), IsEmpty());
  Ask(BuildTransferRequest(Command::kBulkTransfer, kId, 0x02, 2, 3, data));
  Ask(BuildTransferRequest(Command::kBulkTransfer, kId, 0x02, 3, 33, Bytes(33, 7)));
  Ask(BuildIsoRequest(kId, 0x03, 4, std::array{1U}, Bytes{9}));
  io.Answer("ControlTransfer", 2);
  Ask(BuildControlRequest(kId, {0xC0, 1, 0, 0, 2}, 0, Bytes(2)));
  std::string cut = "Debug:ret:";
  for (int i = 0; i < 32; ++i) {
    cut += "0x07 ";
  }
  std::string iso = "Debug:ret:0x10 0x00 0x00 0x00 0x01 0x00 0x00 0x00 ";
  iso += "0x00 0x00 0x00 0x00 0x00 0x00 0x00 0x00 0x09 ";
  EXPECT_THAT(log.Messages("velPrintData"), ElementsAre("Debug:ret:0x01 0x02 0xab ", cut, iso, "Debug:ret:0x00 0x00 "));
  Post(BuildPing(kId, 2, 77));  // A bulk reply.
  Post(BuildPing(kId, 4, 77));
  Post(BuildPing(kId, 4, 77));  // Once.
  Ask(BuildRequest(Command::kGetBusNumber, kId));
  EXPECT_THAT(log.Messages("Ping"),
              ElementsAre(::testing::StartsWith("Debug:[UVC tuning] streamid = 4 reply to ping")));
  EXPECT_EQ(log.Count("remote timestamp = 77"), 1U);
  EXPECT_EQ(log.Count("bad payload"), 0U);
}

TEST_F(Handler, LeanRepliesLeaveTheDataOfOutTransfersOut) {
  remote.WantLeanReplies();
  const Bytes data = {1, 2};
  EXPECT_THAT(Ask(BuildTransferRequest(Command::kBulkTransfer, kId, 0x02, 1, 2, data)), IsBulkReply(1, 0, IsEmpty()));
  EXPECT_THAT(Ask(BuildIsoRequest(kId, 0x03, 2, std::array{2U}, data)), IsIsoReply(2, 0, 1, IsEmpty()));
  EXPECT_THAT(Ask(BuildTransferRequest(Command::kBulkTransfer, kId, 0x82, 3, 2, data)), IsBulkReply(3, 0, data));
  io.Answer("InterruptTransfer", LIBUSB_ERROR_NO_DEVICE);
  EXPECT_THAT(Ask(BuildTransferRequest(Command::kInterruptTransfer, kId, 0x02, 4, 2, data)),
              IsInterruptReply(4, kXferError, IsEmpty()));
}

TEST(RealDevice, RefusedTransfersReturnTheRequestsBytesAndZerosForTheRest) {
  const CapturingLog log(OSKELO_LOG_OFF);
  TestedSession session(Real());
  for (const char* operation : {"BulkTransfer", "InterruptTransfer"}) {
    session.io.Answer(operation, LIBUSB_ERROR_NO_DEVICE);
  }
  test::FillFreshMemory(true);
  EXPECT_THAT(session.Ask(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 1, 4, Bytes{1, 2})),
              IsBulkReply(1, kXferError, ElementsAre(1, 2, 0, 0)));
  EXPECT_THAT(session.Ask(BuildTransferRequest(Command::kInterruptTransfer, kId, 0x01, 2, 2, Bytes{3, 4})),
              IsInterruptReply(2, kXferError, ElementsAre(3, 4)));
  test::FillFreshMemory(false);
  session.Ask(BuildIsoRequest(kId, 0x83, 3, std::array{2U, 1U}, {}));
  const Bytes table = session.io.Transfers().back().table;
  ASSERT_EQ(table.size(), 32U);
  EXPECT_EQ(LoadIsoRecord(table.data(), 1).length, 1U);
  session.Ask(BuildRequest(Command::kOpenUsbDev, kId));
  session.Ask(BuildControlRequest(kId, {0x80, 6, 0x0100, 0, 64}, 9, Bytes(64)));
  EXPECT_EQ(session.io.Calls().back(), "ControlTransfer 128 6 256 0 64 9") << "the policy answered for the device";
}

TEST(Events, AreReportedForEmulatedDevicesAlone) {
  const CapturingLog log;
  const std::string opened = "LOCAL_DEVICE_OPEN status=success, message=streamon camera success, success=true";
  const std::vector<std::string> all = {
      "LOCAL_CAMERA_CREATE status=error, message=create camera fail, success=false",
      "LOCAL_CAMERA_CREATE status=success, message=create camera success, success=true",  // After a failure too.
      opened, "LOCAL_CAMERA_DATA status=success, message=get camera data success, success=true", opened};
  for (const bool emulated : {false, true}) {
    TestedSession session(emulated ? RecordingDeviceBase::Identity{.address = 0x80} : Real());
    const auto read = [&session](std::uint32_t length) {
      session.Ask(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 1, length, {}));
    };
    session.io.Answer("OpenUsbDev", LIBUSB_ERROR_ACCESS);
    session.Ask(BuildRequest(Command::kOpenUsbDev, kId));
    read(1);  // Not streaming yet.
    session.Ask(BuildAltSettingRequest(kId, 1, 4));
    read(0);
    read(1);
    read(1);
    session.Ask(BuildAltSettingRequest(kId, 1, 4));
    session.io.Answer("SetInterfaceAltSetting", LIBUSB_ERROR_PIPE);
    session.Ask(BuildAltSettingRequest(kId, 1, 4));
    read(1);  // Not streaming any more.
    EXPECT_EQ(session.remote.Events(), emulated ? all : std::vector<std::string>());
  }
  EXPECT_EQ(log.Count("~devicehandler end"), 1U);
}

}  // namespace
}  // namespace vel
