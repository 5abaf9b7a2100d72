// What the framework sees of a driver and its session: which thread, which order, how much may wait, and what happens
// without a device or a backend.
#include <algorithm>
#include <array>
#include <cstring>
#include <span>

#include <gmock/gmock.h>

#include "SessionFixture.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t kMiB = 1U << 20U;

class Session : public SessionFixture {
 protected:
  // Keeps the session's thread in a request until DetachKernelDriver is released.
  void Hold() {
    io.Block("DetachKernelDriver");
    Post(BuildRequest(Command::kDetachKernelDriver, kId));
    ASSERT_TRUE(io.WaitForCall("DetachKernelDriver"));
  }
};

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

TEST_F(Session, RequestsRunOneAfterTheOtherOnItsOwnThread) {
  TestedSession other;
  Hold();
  Post(BuildRequest(Command::kGetBusNumber, kId));
  EXPECT_FALSE(io.IsCalledSoon("GetBusNumber"));
  EXPECT_THAT(other.Ask(BuildRequest(Command::kGetBusNumber, kId)),  // Does not wait for this one.
              IsStatusReply(Command::kGetBusNumber, kId.reqId, kId.devId, 0));
  EXPECT_THAT(remote.Replies(), IsEmpty());
  io.Release("DetachKernelDriver");
  ASSERT_TRUE(remote.WaitForReplies(2));
  EXPECT_THAT(io.Calls(), ElementsAre("Init", "DetachKernelDriver", "DetachKernelDriver done", "GetBusNumber"));
}

TEST(PendingTransfers, AreBoundedAndOnesThatAreDoneMakeRoom) {
  const CapturingLog log(OSKELO_LOG_OFF);
  const struct {
    const char* what;
    std::unique_ptr<VelPacket> (*request)(std::uint32_t stream);
    std::uint32_t fit;
  } rows[] = {
      {"data", [](auto id) { return BuildTransferRequest(Command::kInterruptTransfer, kId, 0x81, id, 64 * kMiB, {}); },
       3},
      {"empty", [](auto id) { return BuildTransferRequest(Command::kInterruptTransfer, kId, 0x81, id, 0, {}); }, 16384},
      {"without packets", [](auto id) { return BuildIsoRequest(kId, 0x83, id, {}, {}); }, 16384},
      {"a buffer of the backend beside",
       [](auto id) { return BuildIsoRequest(kId, 0x83, id, std::array{40 * kMiB}, {}); }, 3},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    TestedSession session;
    session.io.HoldTransfers();
    for (std::uint32_t stream = 0; stream < row.fit; ++stream) {
      session.Post(row.request(stream));
    }
    EXPECT_EQ(session.Ask(row.request(99'999)).payload[4], kXferError);
    ASSERT_TRUE(session.io.WaitForHeld(row.fit));
    EXPECT_THAT(session.io.Transfers(), SizeIs(row.fit)) << "the refused one reached the backend";
    ASSERT_TRUE(session.io.Complete(1, {.status = kXferTimedOut, .bytes = {}}));
    session.Post(row.request(1));
    ASSERT_TRUE(session.io.WaitForHeld(row.fit));
    ASSERT_TRUE(session.io.Complete(2, {.status = kXferCompleted, .bytes = {{1, 2, 3}}}));
    for (const char* operation : {"InterruptTransfer", "IsochTransfer"}) {
      session.io.Answer(operation, LIBUSB_ERROR_NO_DEVICE);  // What the backend refuses makes room again too.
    }
    for (std::uint32_t stream = 0; stream < 2; ++stream) {
      session.Ask(row.request(stream));
    }
    EXPECT_THAT(session.io.Transfers(), SizeIs(row.fit + 3));
  }
}

TEST_F(Session, RequestsThatLoseTheirDataAreRefusedInTurnWhateverTheirDirection) {
  constexpr std::array<std::uint32_t, 3> kBulkOut = {0x01, 42, 60 * kMiB};
  constexpr std::array<std::uint32_t, 3> kBulkIn = {0x81, 43, 5};
  constexpr std::array<std::uint32_t, 4> kIsoIn = {0x83, 44, 1, 21};
  constexpr std::array<std::uint32_t, 3> kControlIn = {0x80, 9U << 16U, 0};
  const CapturingLog log(OSKELO_LOG_OFF);
  Hold();
  Post(LargeRequest(Command::kGetDevicePortNumber, 200 * kMiB));
  Post(LargeRequest(Command::kBulkTransfer, 60 * kMiB, kBulkOut));
  Post(LargeRequest(Command::kBulkTransfer, 60 * kMiB, kBulkIn));
  Post(LargeRequest(Command::kIsochTransfer, 60 * kMiB, kIsoIn));
  Post(LargeRequest(Command::kControlTransfer, 60 * kMiB, kControlIn));
  for (const bool lies : {false, true}) {
    auto request = LargeRequest(Command::kGetBusNumber, 60 * kMiB);  // Loses nothing that is read.
    if (lies) {                                                      // Counts less than its header.
      const std::uint32_t length = 3;
      std::memcpy(request->MutableWire().data() + VelPacket::kLengthOffset, &length, sizeof length);
    }
    Post(std::move(request));
  }
  io.Release("DetachKernelDriver");
  ASSERT_TRUE(remote.WaitForReplies(8));
  const auto status = [](Command command, std::int32_t result) {
    return IsStatusReply(command, kId.reqId, kId.devId, result);
  };
  EXPECT_THAT(remote.Replies(),
              ElementsAre(status(Command::kDetachKernelDriver, 0), status(Command::kGetDevicePortNumber, 0),
                          IsBulkReply(42, kXferError, IsEmpty()), IsBulkReply(43, kXferError, IsEmpty()),
                          IsIsoReply(44, kXferError, 0, IsEmpty()),
                          status(Command::kControlTransfer, LIBUSB_ERROR_INVALID_PARAM),
                          status(Command::kGetBusNumber, 0), status(Command::kGetBusNumber, 0)));
  EXPECT_THAT(io.Transfers(), IsEmpty());
  // All of it was given back: the same bytes may wait once more.
  Ask(LargeRequest(Command::kGetBusNumber, 250 * kMiB));
  EXPECT_THAT(Ask(LargeRequest(Command::kBulkTransfer, 250 * kMiB, kBulkIn)),
              IsBulkReply(43, kXferCompleted, SizeIs(5)));
}

TEST_F(Session, RequestsAreDroppedOnceTheRefusedOnesAreTooManyAsWell) {
  constexpr std::size_t kFlood = 100'000;  // Of some 300 bytes each.
  Hold();
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

TEST(Driver, WithoutADeviceCannotBeMadeAndDoesNothing) {
  const CapturingLog log(OSKELO_LOG_OFF);
  VirtUsbDriver driver(nullptr);
  EXPECT_EQ(driver.Init(), -1);
  EXPECT_EQ(driver.GetDriverObj(), nullptr);
  EXPECT_EQ(driver.onEvent(BuildRequest(Command::kOpenUsbDev, kId)), 0);
  EXPECT_EQ(driver.Close(0), 0);
}

TEST(Driver, WithoutABackendAnswersThatTheDeviceIsNotOpen) {
  const CapturingLog log(OSKELO_LOG_OFF);
  RecordingDeviceBase remote;  // No backend is prepared for it, the factory returns null.
  VirtUsbDriver driver(&remote, &ScriptedUsbIo::Create);
  ASSERT_EQ(driver.Init(), 0);
  driver.onEvent(nullptr);
  driver.onEvent(BuildRequest(Command::kOpenUsbDev, kId));
  driver.onEvent(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 4, 2, {}));
  driver.onEvent(BuildRequest(Command::kGetDeviceDesc, kId));  // Has no answer without a descriptor.
  driver.onEvent(BuildRequest(Command::kGetDeviceConfig, kId));
  ASSERT_TRUE(remote.WaitForReplies(3));
  driver.Close(0);
  EXPECT_THAT(remote.Replies(), ElementsAre(IsStatusReply(Command::kOpenUsbDev, kId.reqId, kId.devId, -5),
                                            IsBulkReply(4, kXferError, ElementsAre(0, 0)),
                                            IsReply(Command::kGetDeviceConfig, kId.reqId, kId.devId, IsEmpty())));
}

}  // namespace
}  // namespace vel
