#include "LibusbIoFixture.h"

namespace vel {
namespace {

using testing::ElementsAre;

class LibusbIoAccess : public LibusbIoTest {};

TEST_F(LibusbIoAccess, WithoutItsDeviceAnswersThatThereIsNone) {
  device->address = 6;
  for (const char* failing : {"libusb_init", "libusb_get_device_list", "none: the device has gone"}) {
    SCOPED_TRACE(failing);
    fake.Answer(failing, {LIBUSB_ERROR_NO_MEM});
    io = std::make_unique<LibusbIo>(&base);
    io->Init();
    EXPECT_EQ(io->OpenUsbDev(), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(io->GetDeviceDesc(), nullptr);
    EXPECT_EQ(io->GetConfigDesc(), nullptr);
    EXPECT_EQ(io->GetBusNumber() + io->GetDeviceAddress() + io->GetDevicePortNumber() + io->GetDeviceSpeed(), 0);
  }
}

TEST_F(LibusbIoAccess, TakesTheFirstDeviceAtBusAndAddress) {
  device->bus = 2;  // The address alone is not enough, nor is the bus.
  fake.devices.push_back({.address = 7});
  fake.devices.push_back({.port = 3});
  fake.devices.push_back({.port = 4});
  fake.Answer("libusb_set_option", {LIBUSB_ERROR_NOT_SUPPORTED});  // UsbDk that is missing is no failure.
  io->Init();
  io->Init();
  EXPECT_EQ(fake.Count("libusb_init"), 1U);
  EXPECT_THAT(fake.Acts(), ElementsAre("option " + std::to_string(LIBUSB_OPTION_USE_USBDK)));
  EXPECT_EQ(io->GetDevicePortNumber(), 3);
  fake.Answer("libusb_open", {LIBUSB_ERROR_ACCESS});
  EXPECT_EQ(io->OpenUsbDev(), LIBUSB_ERROR_ACCESS);
  EXPECT_EQ(io->OpenUsbDev(), 0);
  EXPECT_EQ(io->OpenUsbDev(), 0);
  EXPECT_EQ(fake.Count("libusb_open"), 2U);
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_EQ(io->CloseUsbDev(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(io->OpenUsbDev(), 0);
}

TEST_F(LibusbIoAccess, ClosedDeviceAnswersNotFound) {
  io->Init();
  std::uint8_t byte = 0;
  for (const int result :
       {io->ClearHalt(0x81), io->SetConfiguration(1), io->ClaimAllInterface(), io->ReleaseAllInterface(),
        io->SetInterfaceAltSetting(0, 1), io->GetStringDescriptor(1, 0x0409, &byte, 1),
        io->ControlTransfer(0x23, 3, 4, 0, nullptr, 0, 0), io->ResetDevice(), io->AttachKernelDriver(),
        io->DetachKernelDriver()}) {
    EXPECT_EQ(result, LIBUSB_ERROR_NOT_FOUND);
  }
}

TEST_F(LibusbIoAccess, EachOperationActsOnTheDeviceInItsOrder) {
  device->configs = {{1, {0, 3}}, {2, {5}}};
  Open();
  fake.Acts();
  fake.Answer("libusb_kernel_driver_active", {1, 0, 0});  // The last one is of the alternate setting.
  const std::pair<std::function<int()>, std::vector<std::string>> cases[] = {
      {[this] { return io->DetachKernelDriver(); }, {"detach 0"}},
      {[this] { return io->SetInterfaceAltSetting(3, 1); }, {"setting 3 1"}},
      {[this] { return io->ClaimAllInterface(); }, {"claim 0", "claim 3"}},
      {[this] { return io->ControlTransfer(0x02, 1, 0, 0x0185, nullptr, 0, 0); }, {"clear halt 133"}},
      {[this] { return io->ControlTransfer(0x23, 3, 4, 0, nullptr, 0, 0); }, {"reset"}},
      {[this] { return io->ReleaseAllInterface(); }, {"release 0", "release 3"}},
      {[this] { return io->SetConfiguration(2); }, {"configuration 2"}},
      {[this] { return io->CloseUsbDev(); }, {}},
      {[this] { return io->OpenUsbDev(); }, {}},
      // All is released first, and the configuration is the one that was found before this session.
      {[this] { return io->AttachKernelDriver(); }, {"release 5", "configuration 1", "attach 0", "attach 3"}},
      {[this] { return io->AttachKernelDriver(); }, {"release 0", "release 3", "attach 0", "attach 3"}},
      {[this] { return io->ResetDevice(); }, {"reset"}},
  };
  for (const auto& [operation, acts] : cases) {
    EXPECT_EQ(operation(), 0) << testing::PrintToString(acts);
    EXPECT_EQ(fake.Acts(), acts);
  }
}

TEST_F(LibusbIoAccess, ConfigDescriptorsStayValidAndDoNotPileUp) {
  device->configs = {{1, {0, 1}}, {2, {0}}};
  device->active = -1;  // Unconfigured: the first one is shown, and nothing is claimed.
  Open();
  const libusb_config_descriptor* first = io->GetConfigDesc();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(io->ClaimAllInterface(), 0);
  EXPECT_EQ(fake.Count("libusb_claim_interface"), 0U);
  for (int round = 0; round < 10; ++round) {
    ASSERT_EQ(io->SetConfiguration(2), 0);
    EXPECT_EQ(io->GetConfigDesc()->bConfigurationValue, 2);
    ASSERT_EQ(io->SetConfiguration(1), 0);
    EXPECT_EQ(io->GetConfigDesc(), first);
  }
  EXPECT_EQ(fake.openConfigs, 2);
  device->configs[0].second[1] = 3;  // The same but for an interface number.
  EXPECT_EQ(io->GetConfigDesc()->interface[1].altsetting->bInterfaceNumber, 3);
  EXPECT_EQ(first->interface[1].altsetting->bInterfaceNumber, 1);
}

}  // namespace
}  // namespace vel
