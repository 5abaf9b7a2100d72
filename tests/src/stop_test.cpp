// Giving the device back, whatever is going on at that moment.
#include <algorithm>
#include <array>
#include <future>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "SessionFixture.h"

namespace vel {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

const std::vector<std::string> kGivenBack = {"AttachKernelDriver", "ResetDevice", "CloseUsbDev"};

class Stop : public SessionFixture {
 protected:
  // The calls without Init, and without those that make the device ready.
  std::vector<std::string> CallsAfterInit() const {
    std::vector<std::string> calls = io.Calls();
    calls.erase(calls.begin());
    return calls;
  }
};

TEST_F(Stop, IdleSessionGivesTheDeviceBackOnce) {
  EXPECT_EQ(driver->Close(0), 0);
  EXPECT_EQ(driver->Close(1), 0);
  EXPECT_THAT(CallsAfterInit(), ElementsAreArray(kGivenBack));
  driver.reset();
  EXPECT_TRUE(io.IsDestroyed());
  EXPECT_THAT(CallsAfterInit(), ElementsAreArray(kGivenBack));
}

TEST_F(Stop, FailuresOnTheWayDoNotKeepTheDevice) {
  for (const std::string& operation : kGivenBack) {
    io.Answer(operation, LIBUSB_ERROR_IO);
  }
  EXPECT_EQ(driver->Close(0), 0);
  EXPECT_THAT(CallsAfterInit(), ElementsAreArray(kGivenBack));
}

TEST_F(Stop, RequestsAfterwardsAreDroppedSilently) {
  driver->Close(0);
  const CapturingLog log;
  Post(BuildRequest(Command::kOpenUsbDev, kId));
  Post(BuildRequest(static_cast<Command>(0x7777), kId));
  driver.reset();
  EXPECT_EQ(log.Count("EventHandler cmd") + log.Count("unknown cmd"), 0U);
  EXPECT_THAT(CallsAfterInit(), ElementsAreArray(kGivenBack));
  EXPECT_THAT(remote.Replies(), IsEmpty());
}

TEST_F(Stop, RunningHandlerIsInterruptedByTheCloseAndStillAnswers) {
  io.Block("ControlTransfer");
  Post(BuildControlRequest(kId, {.bmRequestType = 0xC0}, 0));
  ASSERT_TRUE(io.WaitForCall("ControlTransfer 192 0 0 0 0 0"));
  driver->Close(0);
  EXPECT_THAT(CallsAfterInit(), ElementsAre("ControlTransfer 192 0 0 0 0 0", "AttachKernelDriver", "ResetDevice",
                                            "CloseUsbDev", "ControlTransfer done"));
  EXPECT_THAT(remote.Replies(), ElementsAre(IsStatusReply(Command::kControlTransfer, kId.reqId, kId.devId, 0)));
}

TEST_F(Stop, ThousandWaitingRequestsAreDropped) {
  io.Block("DetachKernelDriver");
  Post(BuildRequest(Command::kDetachKernelDriver, kId));
  ASSERT_TRUE(io.WaitForCall("DetachKernelDriver"));
  for (std::uint32_t i = 0; i < 1000; ++i) {
    Post(i % 2 == 0 ? BuildRequest(Command::kGetDeviceSpeed, kId)
                    : BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, i, 64, {}));
  }
  driver->Close(0);
  driver.reset();
  EXPECT_THAT(CallsAfterInit(), ElementsAre("DetachKernelDriver", "AttachKernelDriver", "ResetDevice", "CloseUsbDev",
                                            "DetachKernelDriver done"));
  EXPECT_THAT(remote.Replies(), SizeIs(1));
}

TEST_F(Stop, PendingTransfersAreCancelledWithoutAReply) {
  io.HoldTransfers();
  for (std::uint32_t stream = 0; stream < 100; ++stream) {
    Post(BuildTransferRequest(Command::kInterruptTransfer, kId, 0x81, stream, 8, {}));
  }
  ASSERT_TRUE(io.WaitForHeld(100));
  driver->Close(0);
  EXPECT_EQ(io.CompletedCount(), 100U);
  driver.reset();
  EXPECT_EQ(io.CompletedCount(), 100U);
  EXPECT_THAT(remote.Replies(), IsEmpty());
}

TEST_F(Stop, PendingTransfersAreAnsweredAsCancelledWhereTheRemoteSideWantsIt) {
  remote.AnswerFailedTransfers();
  io.HoldTransfers();
  Post(BuildTransferRequest(Command::kBulkTransfer, kId, 0x02, 1, 2, std::array<std::uint8_t, 2>{8, 9}));
  Post(BuildTransferRequest(Command::kInterruptTransfer, kId, 0x81, 2, 8, {}));
  Post(BuildIsoRequest(kId, 0x83, 3, std::array{4U, 4U}, {}));
  ASSERT_TRUE(io.WaitForHeld(3));
  driver->Close(0);
  EXPECT_THAT(remote.Replies(),
              ElementsAre(IsBulkReply(1, kXferCancelled, IsEmpty()), IsInterruptReply(2, kXferCancelled, IsEmpty()),
                          IsIsoReply(3, kXferCancelled, 0, IsEmpty())));
}

TEST_F(Stop, CompletionsOfTheBackendsThreadRaceWithItEachOnce) {
  remote.AnswerFailedTransfers();
  io.CompleteOnOwnThread();
  constexpr std::size_t kTransfers = 500;
  for (std::uint32_t stream = 0; stream < kTransfers; ++stream) {
    Post(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, stream, 64, {}));
  }
  ASSERT_TRUE(remote.WaitForReplies(kTransfers / 4));
  driver->Close(0);
  driver.reset();
  EXPECT_EQ(io.CompletedCount(), io.Transfers().size());
  const std::vector<Reply> replies = remote.Replies();
  EXPECT_EQ(replies.size(), io.Transfers().size());
  std::vector<std::vector<std::uint8_t>> streams;
  for (const Reply& reply : replies) {
    ASSERT_GE(reply.payload.size(), 8U);
    streams.emplace_back(reply.payload.begin(), reply.payload.begin() + 4);
  }
  std::sort(streams.begin(), streams.end());
  EXPECT_EQ(std::adjacent_find(streams.begin(), streams.end()), streams.end()) << "answered twice";
}

TEST_F(Stop, TwoThreadsMayStopAtOnceAndBothFindItStopped) {
  io.Block("ResetDevice");
  const std::shared_ptr<VirtUsb> session = Session();
  std::thread first([&] { EXPECT_EQ(session->Stop(), 0); });
  ASSERT_TRUE(io.WaitForCall("ResetDevice"));
  std::thread second([&] {
    EXPECT_EQ(session->Stop(), 0);
    EXPECT_THAT(io.Calls(), Contains("CloseUsbDev"));
  });
  EXPECT_FALSE(io.IsCalledSoon("CloseUsbDev"));
  io.Release("ResetDevice");
  first.join();
  second.join();
  EXPECT_THAT(CallsAfterInit(), ElementsAre("AttachKernelDriver", "ResetDevice", "ResetDevice done", "CloseUsbDev"));
}

TEST_F(Stop, LastReferenceMayGoOnAnotherThreadAfterTheDriver) {
  const CapturingLog log;
  remote.AnswerFailedTransfers();
  io.HoldTransfers();
  Post(BuildTransferRequest(Command::kInterruptTransfer, kId, 0x81, 1, 8, {}));
  ASSERT_TRUE(io.WaitForHeld(1));
  std::shared_ptr<DriverObj> session = driver->GetDriverObj();
  driver.reset();
  EXPECT_FALSE(io.IsDestroyed());
  EXPECT_EQ(session.use_count(), 1);
  std::thread last([moved = std::move(session)]() mutable { moved.reset(); });
  last.join();
  EXPECT_TRUE(io.IsDestroyed());
  EXPECT_THAT(remote.Replies(), ElementsAre(IsInterruptReply(1, kXferCancelled, IsEmpty())));
  EXPECT_EQ(log.Count("Debug:~devicehandler end"), 1U);
  EXPECT_THAT(log.Messages("~VirtUsb"),
              ElementsAre("Debug:operator dev is NULL", "Debug:handler stop", "Debug:handler reset"));
}

TEST_F(Stop, DriverMayBeDeletedWithoutCloseWhileRequestsWait) {
  io.Block("GetBusNumber");
  Post(BuildRequest(Command::kGetBusNumber, kId));
  ASSERT_TRUE(io.WaitForCall("GetBusNumber"));
  for (int i = 0; i < 1000; ++i) {
    Post(BuildRequest(Command::kGetDeviceSpeed, kId));
  }
  std::thread deleter([this] { driver.reset(); });
  io.Release("GetBusNumber");
  deleter.join();
  EXPECT_TRUE(io.IsDestroyed());
}

TEST_F(Stop, WaitsForTheReplyThatIsUnderWayAndSendsNoneAfterIt) {
  RecordingDeviceBase slow;
  ScriptedUsbIo slowIo(slow);
  std::promise<void> sending;
  std::promise<void> released;
  slow.OnSend([&](const Reply&) {
    sending.set_value();  // Throws when there is a second reply.
    released.get_future().wait();
  });
  VirtUsbDriver slowDriver(&slow, &ScriptedUsbIo::Create);
  ASSERT_EQ(slowDriver.Init(), 0);
  for (int i = 0; i < 3; ++i) {
    slowDriver.onEvent(BuildRequest(Command::kGetDeviceSpeed, kId));
  }
  sending.get_future().wait();
  std::size_t repliesAtClose = 99;
  std::thread closer([&] {
    slowDriver.Close(0);
    repliesAtClose = slow.ReplyCount();
  });
  ASSERT_TRUE(slowIo.WaitForCall("CloseUsbDev"));
  released.set_value();
  closer.join();
  EXPECT_EQ(repliesAtClose, 1U);
  EXPECT_EQ(slow.ReplyCount(), 1U);
}

// The three handlers that hold the session's mutex: stopping touches the device only when they are
// done with it.
struct LockedHandler {
  const char* name;
  const char* operation;
  const char* call;
  std::unique_ptr<VelPacket> (*request)();
};
void PrintTo(const LockedHandler& handler, std::ostream* out) {
  *out << handler.name;
}

class StopAndLockedHandler : public SessionFixture, public ::testing::WithParamInterface<LockedHandler> {};

TEST_P(StopAndLockedHandler, TakeTurns) {
  const LockedHandler& handler = GetParam();
  io.Block(handler.operation);
  Post(handler.request());
  ASSERT_TRUE(io.WaitForCall(handler.call));
  std::thread closer([this] { driver->Close(0); });
  EXPECT_FALSE(io.IsCalledSoon("AttachKernelDriver"));
  io.Release(handler.operation);
  closer.join();
  const std::vector<std::string> calls = io.Calls();
  const auto done = std::find(calls.begin(), calls.end(), std::string(handler.operation) + " done");
  const auto attach = std::find(calls.begin(), calls.end(), "AttachKernelDriver");
  ASSERT_NE(attach, calls.end());
  EXPECT_LT(done, attach);
}

INSTANTIATE_TEST_SUITE_P(
    Handlers, StopAndLockedHandler,
    ::testing::Values(LockedHandler{"Open", "OpenUsbDev", "OpenUsbDev",
                                    [] { return BuildRequest(Command::kOpenUsbDev, kId); }},
                      LockedHandler{"AltSetting", "SetInterfaceAltSetting", "SetInterfaceAltSetting 1 2",
                                    [] { return BuildAltSettingRequest(kId, 1, 2); }},
                      LockedHandler{"Isochronous", "IsochTransfer", "IsochTransfer 131 5 20",
                                    [] { return BuildIsoRequest(kId, 0x83, 5, std::array{4U}, {}); }}),
    [](const auto& test) { return test.param.name; });

// A request that is past the enabled flag when stopping begins, and gets the mutex only when the
// device is closed.
struct LateRequest {
  const char* name;
  const char* lineBeforeTheLock;
  const char* operation;
  std::unique_ptr<VelPacket> (*request)();
  Command command;
};
void PrintTo(const LateRequest& late, std::ostream* out) {
  *out << late.name;
}

class StopAndLateRequest : public SessionFixture, public ::testing::WithParamInterface<LateRequest> {};

TEST_P(StopAndLateRequest, NeverReopensTheDevice) {
  const LateRequest& late = GetParam();
  std::promise<void> beforeTheLock;
  const CapturingLog log(OSKELO_LOG_DEBUG, [&](const LogLine& line) {
    if (line.message.find(late.lineBeforeTheLock) != std::string::npos) {
      beforeTheLock.set_value();
      EXPECT_TRUE(io.WaitForCall("CloseUsbDev"));
    }
  });
  Post(late.request());
  beforeTheLock.get_future().wait();
  driver->Close(0);
  EXPECT_EQ(io.Calls().back(), "CloseUsbDev");
  EXPECT_THAT(io.Calls(), Not(Contains(::testing::StartsWith(late.operation))));
  EXPECT_THAT(remote.Replies(), ElementsAre(IsStatusReply(late.command, kId.reqId, kId.devId, LIBUSB_ERROR_NOT_FOUND)));
}

INSTANTIATE_TEST_SUITE_P(
    Requests, StopAndLateRequest,
    ::testing::Values(LateRequest{"Open", "onOpenUsbDev start", "OpenUsbDev",
                                  [] { return BuildRequest(Command::kOpenUsbDev, kId); }, Command::kOpenUsbDev},
                      LateRequest{"AltSetting", "interfaceNumber:1 ,alternateSetting:2", "SetInterfaceAltSetting",
                                  [] { return BuildAltSettingRequest(kId, 1, 2); }, Command::kSetInterfaceAltSetting}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace vel
