// What the framework asks of a driver, and what the device layer does around the backend's calls.
#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "SessionFixture.h"
#include "io/NullUsbIo.h"
#include "support/Collected.h"
#include "support/DescriptorTree.h"
#include "support/VsBlock.h"
#include "uvc/UVCStreamCtrl.h"

namespace vel {
namespace {

using ::testing::ElementsAre;

class Framework : public SessionFixture {};

TEST_F(Framework, GetsTheAnswersItCountsOn) {
  EXPECT_STREQ(driver->GetTypeName(), "RawDrv");
  EXPECT_EQ(driver->GetState(), 0);
  EXPECT_EQ(driver->Activate(), 0);
  std::uint16_t out = 0;
  EXPECT_EQ(driver->Query(7, &out), -1);
  EXPECT_EQ(out, 5382);
  const auto object = std::make_shared<DriverObj>();
  EXPECT_EQ(driver->BindObject(object), 0);
  EXPECT_EQ(object.use_count(), 1);
  const auto answers = [](const DriverObj& of) {
    return std::tuple(of.GetDriverType(), of.GetFirstMatch(), of.GetSecondMatch(), std::string(of.GetTypeName()),
                      of.IsRedirected());
  };
  EXPECT_EQ(answers(*driver->GetDriverObj()), std::tuple(0x10, 0xFFFF, 0xFFFF, "virtlibusb", 1));
  EXPECT_EQ(answers(*object), std::tuple(0, 0, 0, "default", 0));
  const CapturingLog log;
  EXPECT_EQ(driver->OnEvent(9, 1, 2) + driver->OnPolicyChange(UINT64_MAX, 0), 0);
  EXPECT_THAT(log.Messages("OnEvent"), ElementsAre("Debug:unimplement"));
  EXPECT_THAT(log.Messages("OnPolicyChange"), ElementsAre("Debug:unimplement"));
}

TEST_F(Framework, HearsSynchronousRepliesFromTheSessionsThreadAndTransfersFromTheOneThatCompletes) {
  io.HoldTransfers();
  Collected<std::thread::id> senders;
  remote.OnSend([&senders](const Reply&) { senders.Add(std::this_thread::get_id()); });
  Ask(BuildRequest(Command::kGetBusNumber, kId));
  Ask(BuildRequest(Command::kGetDeviceSpeed, kId));
  Post(BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 1, 4, {}));
  ASSERT_TRUE(io.WaitForHeld(1));
  ASSERT_TRUE(io.CompleteNext({}));
  const auto threads = senders.Await(3);
  EXPECT_EQ(threads[0], threads[1]);
  EXPECT_NE(threads[0], std::this_thread::get_id());
  EXPECT_EQ(threads[2], std::this_thread::get_id());
}

class DescribedIo final : public NullUsbIo {
 public:
  libusb_device_descriptor* GetDeviceDesc() override { return &device; }
  std::uint8_t GetIoType() override { return kIoTypeEmulated; }
  libusb_device_descriptor device{};
};

TEST(Device, SaysPacketsOf64BytesButForOneOddPair) {
  const struct {
    std::uint8_t size;
    std::uint8_t configurations;
    std::uint8_t said;
  } cases[] = {{8, 64, 8}, {8, 1, 64}, {32, 64, 64}, {64, 1, 64}};
  RecordingDeviceBase remote;
  DescribedIo* io = nullptr;
  remote.SetBackend([&io](std::uint32_t) { return io = new DescribedIo; });
  // The factory of the scripted backend asks the device-base object for any backend.
  VirtUDevice device(&remote, &ScriptedUsbIo::Create);
  device.Init();
  for (const auto& each : cases) {
    io->device.bMaxPacketSize0 = each.size;
    io->device.bNumConfigurations = each.configurations;
    EXPECT_EQ(device.GetDevDescript()->bMaxPacketSize0, each.said) << int{each.size} << " " << int{each.configurations};
  }
}

TEST(Device, StreamBeginsAndEndsBehindTheBackendsChangeOfSetting) {
  DescriptorTree tree;
  const VsBlock block("yuyv 48");
  tree.BeCamera(block.bytes);
  RecordingDeviceBase remote;
  ScriptedUsbIo io(remote);
  io.Describe(&tree.config);
  io.HoldTransfers();
  VirtUDevice device(&remote, &ScriptedUsbIo::Create);
  device.Init();
  ASSERT_EQ(device.OpenUsbDev(), 0);
  UVCStreamCtrl ctrl{};
  ctrl.bFormatIndex = ctrl.bFrameIndex = 1;
  ctrl.dwMaxVideoFrameSize = 64;
  std::array<std::uint8_t, 34> commit{};
  std::memcpy(commit.data(), &ctrl, commit.size());
  device.ControlTransfer(0x21, 0x01, 0x0200, 3, commit.data(), commit.size(), 0);
  for (const std::uint32_t setting : {1U, 0U, 1U}) {
    device.SetInterfaceAltSetting(3, setting);
  }
  device.CloseUsbDev();
  std::vector<std::string> order;
  for (const std::string& call : io.Calls()) {
    const std::string name = call.substr(0, call.find(' '));
    if (name == "SetInterfaceAltSetting" || name == "IsochTransfer" || name == "CancelOwnTransfers" ||
        name == "CloseUsbDev") {
      order.push_back(name == "SetInterfaceAltSetting" ? call : name);
    }
  }
  EXPECT_THAT(order, ElementsAre("SetInterfaceAltSetting 3 1", "IsochTransfer", "SetInterfaceAltSetting 3 0",
                                 "CancelOwnTransfers", "SetInterfaceAltSetting 3 1", "IsochTransfer",
                                 "CancelOwnTransfers", "CloseUsbDev"));
}

}  // namespace
}  // namespace vel
