#include "LibusbIoFixture.h"

namespace vel {
namespace {

using testing::ElementsAre;

class LibusbIoAccess : public LibusbIoTest {};

TEST_F(LibusbIoAccess, WithoutItsDeviceAnswersThatThereIsNone) {
  const std::uint8_t address = device.Address();
  for (const auto& [failing, bus, at] :
       {std::tuple<const char*, std::uint8_t, std::uint8_t>{"init", MockUsb::kBus, address},
        {"get_device_list", MockUsb::kBus, address},
        {"none: another bus", 2, address},
        {"none: another address", MockUsb::kBus, 99}}) {
    SCOPED_TRACE(failing);
    seam.Instead(failing, [](const auto&) { return LIBUSB_ERROR_NO_MEM; });
    RecordingDeviceBase other{{.bus = bus, .address = at}};
    LibusbIo none(&other);
    none.Init();
    EXPECT_EQ(none.OpenUsbDev(), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(none.GetDeviceDesc(), nullptr);
    EXPECT_EQ(none.GetConfigDesc(), nullptr);
    EXPECT_EQ(none.GetBusNumber() + none.GetDeviceAddress() + none.GetDevicePortNumber() + none.GetDeviceSpeed(), 0);
    seam.Instead(failing, nullptr);
  }
}

TEST_F(LibusbIoAccess, OpensAndClosesOnce) {
  io->Init();
  io->Init();
  EXPECT_THAT(seam.TakeCalls(),
              ElementsAre("init", "set_option " + std::to_string(LIBUSB_OPTION_USE_USBDK), "get_device_list"));
  EXPECT_THAT(
      (std::vector<int>{io->GetBusNumber(), io->GetDeviceAddress(), io->GetDevicePortNumber(), io->GetDeviceSpeed()}),
      ElementsAre(MockUsb::kBus, device.Address(), 1, LIBUSB_SPEED_HIGH));
  seam.Instead("open", [](const auto&) { return LIBUSB_ERROR_ACCESS; });
  EXPECT_EQ(io->OpenUsbDev(), LIBUSB_ERROR_ACCESS);
  seam.Instead("open", nullptr);
  EXPECT_EQ(io->OpenUsbDev(), 0);
  EXPECT_EQ(io->OpenUsbDev(), 0);
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_EQ(io->CloseUsbDev(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_THAT(seam.TakeCalls(), ElementsAre("open", "open", "close"));
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
  io->Init();
  seam.TakeCalls();
  const std::pair<std::function<int()>, std::vector<std::string>> cases[] = {
      {[this] { return io->OpenUsbDev(); }, {"open"}},
      {[this] { return io->DetachKernelDriver(); }, {"detach_kernel_driver 0", "detach_kernel_driver 1"}},
      {[this] { return io->DetachKernelDriver(); }, {}},
      {[this] { return io->ClaimAllInterface(); }, {"claim_interface 0", "claim_interface 1"}},
      {[this] { return io->SetInterfaceAltSetting(1, 1); }, {"set_interface_alt_setting 1 1"}},
      {[this] { return io->ControlTransfer(0x02, 1, 0, 0x0185, nullptr, 0, 0); }, {"clear_halt 133"}},
      {[this] { return io->ControlTransfer(0x23, 3, 4, 0, nullptr, 0, 0); }, {"reset_device"}},
      {[this] { return io->ReleaseAllInterface(); }, {"release_interface 0", "release_interface 1"}},
      {[this] { return io->SetConfiguration(2); }, {"set_configuration 2"}},
      {[this] { return io->CloseUsbDev(); }, {"close"}},
      {[this] { return io->OpenUsbDev(); }, {"open"}},
      // All is released first, and the configuration is the one that was found before this session.
      {[this] { return io->AttachKernelDriver(); },
       {"release_interface 1", "set_configuration 1", "attach_kernel_driver 0", "attach_kernel_driver 1"}},
      {[this] { return io->AttachKernelDriver(); },
       {"release_interface 0", "release_interface 1", "attach_kernel_driver 0", "attach_kernel_driver 1"}},
      {[this] { return io->ResetDevice(); }, {"reset_device"}},
  };
  for (const auto& [operation, calls] : cases) {
    EXPECT_EQ(operation(), 0) << testing::PrintToString(calls);
    EXPECT_EQ(seam.TakeCalls(), calls);
  }
  // A step that fails is the result, and the others are made.
  seam.Instead("attach_kernel_driver", [](const auto&) { return LIBUSB_ERROR_IO; });
  EXPECT_EQ(io->AttachKernelDriver(), LIBUSB_ERROR_IO);
  EXPECT_EQ(seam.TakeCalls().back(), "attach_kernel_driver 1");
}

TEST_F(LibusbIoAccess, ConfigDescriptorsStayValidAndDoNotPileUp) {
  io->Init();
  ASSERT_EQ(io->OpenUsbDev(), 0);
  ASSERT_EQ(io->DetachKernelDriver(), 0);
  ASSERT_EQ(io->SetConfiguration(0), 0);  // Unconfigured: the first one is shown, and nothing is claimed.
  libusb_config_descriptor* first = io->GetConfigDesc();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(io->ClaimAllInterface(), 0);
  EXPECT_THAT(seam.TakeCalls(), testing::Not(testing::Contains(testing::StartsWith("claim"))));
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(io->SetConfiguration(2), 0);
    EXPECT_EQ(io->GetConfigDesc()->bConfigurationValue, 2);
    ASSERT_EQ(io->SetConfiguration(1), 0);
    EXPECT_EQ(io->GetConfigDesc(), first);
  }
  // The same but for an interface number.
  const_cast<libusb_interface_descriptor*>(first->interface[1].altsetting)->bInterfaceNumber = 3;
  EXPECT_EQ(io->GetConfigDesc()->interface[1].altsetting->bInterfaceNumber, 1);
  EXPECT_EQ(first->interface[1].altsetting->bInterfaceNumber, 3);
}

}  // namespace
}  // namespace vel
