// What the framework sees of a driver and its session.
#include <memory>

#include <gmock/gmock.h>

#include "SessionFixture.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class Driver : public SessionFixture {};

TEST_F(Driver, SlotsAnswerTheFramework) {
  std::uint16_t out = 0;
  EXPECT_EQ(driver->Query(12, &out), -1);
  EXPECT_EQ(out, 5382);
  EXPECT_STREQ(driver->GetTypeName(), "RawDrv");
  EXPECT_EQ(driver->GetState(), 0);
  EXPECT_EQ(driver->Activate(), 0);
  const auto bound = std::make_shared<DriverObj>();
  EXPECT_EQ(driver->BindObject(bound), 0);
  EXPECT_EQ(bound.use_count(), 1) << "the driver keeps what was bound";
}

TEST_F(Driver, SessionSaysWhatItServes) {
  const std::shared_ptr<VirtUsb> session = Session();
  ASSERT_NE(session, nullptr);
  EXPECT_EQ(session->GetDriverType(), 16);
  EXPECT_EQ(session->GetFirstMatch(), 0xFFFF);
  EXPECT_EQ(session->GetSecondMatch(), 0xFFFF);
  EXPECT_STREQ(session->GetTypeName(), "virtlibusb");
  EXPECT_EQ(session->IsRedirected(), 1);
  EXPECT_EQ(session->IsDeviceRedirected(), 1);
}

TEST(DriverObjDefaults, AreTheFrameworks) {
  const DriverObj object;
  EXPECT_EQ(object.GetDriverType() + object.GetFirstMatch() + object.GetSecondMatch(), 0);
  EXPECT_STREQ(object.GetTypeName(), "default");
  EXPECT_EQ(object.IsRedirected(), 0);
}

TEST_F(Driver, NotificationsAreLoggedOnceAndChangeNothing) {
  for (const std::uint64_t argument : {std::uint64_t{0}, ~std::uint64_t{0}}) {
    CapturingLog log;
    EXPECT_EQ(driver->OnEvent(static_cast<std::uint8_t>(argument), argument, argument), 0);
    EXPECT_EQ(driver->OnPolicyChange(argument, argument), 0);
    EXPECT_THAT(log.Messages("OnEvent"), ElementsAre("Debug:unimplement"));
    EXPECT_THAT(log.Messages("OnPolicyChange"), ElementsAre("Debug:unimplement"));
    EXPECT_THAT(log.Lines(), SizeIs(2));
    EXPECT_THAT(log.Lines()[0].device, ::testing::HasSubstr("devid:9 cid:4 0xff00:0xff06"));
  }
  EXPECT_THAT(Ask(BuildRequest(Command::kGetBusNumber, kId)),
              IsStatusReply(Command::kGetBusNumber, kId.reqId, kId.devId, 0));
}

TEST_F(Driver, NullPacketIsDropped) {
  Post(nullptr);
  EXPECT_EQ(Session()->EventHandler(nullptr), 0);
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
  EXPECT_THAT(log.Messages("Init"), ElementsAre("Debug: enter", "Error:new driver dev is NULL"));
  EXPECT_EQ(log.Count("[bus:(nil) devid:0 cid:0 0x0000:0x0000]Debug:virtusb driver construct"), 1U);
  EXPECT_EQ(log.Count("EventHandler"), 0U);
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
  VirtUsb session(nullptr, nullptr);
  EXPECT_EQ(session.IsRedirected(), 0);
  session.EventHandler(BuildRequest(Command::kOpenUsbDev, kId));
  session.EventHandler(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 4, 2, {}));
  EXPECT_EQ(session.Stop(), 0);
  EXPECT_THAT(log.Messages("VirtUsb"), ElementsAre("Error:operator dev is NULL"));
}

}  // namespace
}  // namespace vel
