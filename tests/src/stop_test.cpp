// Giving the device back, whatever is going on at that moment.
#include <array>
#include <future>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "SessionFixture.h"
#include "io/NullUsbIo.h"

namespace vel {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

constexpr const char* kGivenBack[] = {"AttachKernelDriver", "ResetDevice", "CloseUsbDev"};

class Stop : public SessionFixture {
 protected:
  std::vector<std::string> CallsAfterInit() const {
    std::vector<std::string> calls = io.Calls();
    calls.erase(calls.begin());
    return calls;
  }
};

TEST_F(Stop, IdleSessionGivesTheDeviceBackOnceWhateverFails) {
  for (const char* operation : kGivenBack) {
    io.Answer(operation, LIBUSB_ERROR_IO);
  }
  EXPECT_EQ(driver->Close(0), 0);
  EXPECT_EQ(driver->Close(1), 0);
  Post(BuildRequest(Command::kOpenUsbDev, kId));  // Is dropped.
  driver.reset();
  EXPECT_TRUE(io.IsDestroyed());
  EXPECT_THAT(remote.Replies(), IsEmpty());
  EXPECT_THAT(CallsAfterInit(), ElementsAreArray(kGivenBack));
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

TEST_F(Stop, ThousandWaitingRequestsAreDroppedAlsoWithoutAClose) {
  io.Block("DetachKernelDriver");
  Post(BuildRequest(Command::kDetachKernelDriver, kId));
  ASSERT_TRUE(io.WaitForCall("DetachKernelDriver"));
  for (std::uint32_t i = 0; i < 1000; ++i) {
    Post(i % 2 == 0 ? BuildRequest(Command::kGetDeviceSpeed, kId)
                    : BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, i, 64, {}));
  }
  std::thread deleter([this] { driver.reset(); });
  io.Release("DetachKernelDriver");
  deleter.join();
  EXPECT_TRUE(io.IsDestroyed());
}

TEST_F(Stop, TwoThreadsMayStopAtOnceAndBothFindItStopped) {
  io.Block("ResetDevice");
  const std::shared_ptr<VirtUsb> session = Served();
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
}

TEST_F(Stop, WaitsForTheReplyThatIsUnderWayAndSendsNoneAfterIt) {
  std::promise<void> sending;
  std::promise<void> released;
  remote.OnSend([&](const Reply&) {
    sending.set_value();  // Throws when there is a second reply.
    released.get_future().wait();
  });
  for (int i = 0; i < 3; ++i) {
    Post(BuildRequest(Command::kGetDeviceSpeed, kId));
  }
  sending.get_future().wait();
  std::size_t repliesAtClose = 99;
  std::thread closer([&] {
    driver->Close(0);
    repliesAtClose = remote.ReplyCount();
  });
  ASSERT_TRUE(io.WaitForCall("CloseUsbDev"));
  released.set_value();
  closer.join();
  EXPECT_EQ(repliesAtClose, 1U);
  EXPECT_EQ(remote.ReplyCount(), 1U);
}

// Its transfer comes back whole when it is destroyed, as a camera's picture may.
class LateBackend final : public NullUsbIo {
 public:
  ~LateBackend() override {
    if (mInfo != nullptr) {
      CompleteXfer(mInfo);
    }
  }
  std::uint8_t GetIoType() override { return kIoTypeEmulated; }
  int SetInterfaceAltSetting(int, int) override { return 0; }
  int BulkTransfer(_UsbIoXferInfo* info) override {
    mInfo = info;
    return 0;
  }

 private:
  _UsbIoXferInfo* mInfo = nullptr;
};

TEST(Deletion, GivesBackWhatCompletesWhileTheBackendGoes) {
  const CapturingLog log(OSKELO_LOG_OFF);
  RecordingDeviceBase remote;
  auto driver = std::make_unique<VirtUsbDriver>(
      &remote, [](std::uint32_t, VelDeviceBase*) -> IUsbIo* { return new LateBackend; });
  driver->Init();
  driver->onEvent(BuildAltSettingRequest(kId, 1, 1));  // The first data is awaited.
  driver->onEvent(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 7, 2, std::array<std::uint8_t, 2>{1, 2}));
  driver->onEvent(BuildRequest(Command::kGetDeviceSpeed, kId));
  ASSERT_TRUE(remote.WaitForReplies(2));
  driver.reset();
  EXPECT_THAT(remote.Replies(), Contains(IsBulkReply(7, kXferCompleted, ElementsAre(1, 2))));
  EXPECT_THAT(remote.Events(), SizeIs(2)) << "the start and the first data";
}

// A request that is past the enabled flag when stopping begins, and gets the mutex only when the device is closed.
TEST_F(Stop, LateRequestNeverReopensTheDevice) {
  const struct {
    Command command;
    const char* lineBeforeTheLock;
    const char* operation;
    std::unique_ptr<VelPacket> (*request)();
  } cases[] = {
      {Command::kOpenUsbDev, "onOpenUsbDev start", "OpenUsbDev",
       [] { return BuildRequest(Command::kOpenUsbDev, kId); }},
      {Command::kSetInterfaceAltSetting, "interfaceNumber:1 ,alternateSetting:2", "SetInterfaceAltSetting",
       [] { return BuildAltSettingRequest(kId, 1, 2); }},
  };
  for (const auto& late : cases) {
    SCOPED_TRACE(late.operation);
    TestedSession session;
    std::promise<void> beforeTheLock;
    const CapturingLog log(OSKELO_LOG_DEBUG, [&](const LogLine& line) {
      if (line.message.find(late.lineBeforeTheLock) != std::string::npos) {
        beforeTheLock.set_value();
        EXPECT_TRUE(session.io.WaitForCall("CloseUsbDev"));
      }
    });
    session.Post(late.request());
    beforeTheLock.get_future().wait();
    session.driver->Close(0);
    EXPECT_EQ(session.io.Calls().back(), "CloseUsbDev");
    EXPECT_THAT(session.io.Calls(), Not(Contains(::testing::StartsWith(late.operation))));
    EXPECT_THAT(session.remote.Replies(),
                ElementsAre(IsStatusReply(late.command, kId.reqId, kId.devId, LIBUSB_ERROR_NOT_FOUND)));
  }
}

}  // namespace
}  // namespace vel
