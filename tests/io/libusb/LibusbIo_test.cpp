#include "LibusbIoFixture.h"

namespace vel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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
  EXPECT_EQ(log.Count("Error:initialize libusb failed"), 1U);
  EXPECT_EQ(log.Count("Error:GetLibusbDev failed"), 2U);
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
  EXPECT_THAT(fake.Calls({"libusb_set_option"}), ElementsAre("libusb_set_option 1"));
  EXPECT_EQ(io->GetBusNumber(), 1);
  EXPECT_EQ(io->GetDeviceAddress(), 5);
  EXPECT_EQ(io->GetDevicePortNumber(), 3);
  EXPECT_EQ(io->GetDeviceSpeed(), LIBUSB_SPEED_SUPER);
  EXPECT_EQ(io->GetIoType(), 2);
}

TEST_F(LibusbIoAccess, OpensOnceAndClosesOnce) {
  fake.Answer("libusb_open", {LIBUSB_ERROR_ACCESS});
  io->Init();
  EXPECT_EQ(io->OpenUsbDev(), LIBUSB_ERROR_ACCESS);
  EXPECT_EQ(log.Count("Error:libusb_open error: -3 - LIBUSB_ERROR_ACCESS "
                      "[bus=0x01,port=0x02,address=0x05,VID=0x1D6B,PID=0x0104]"),
            1U);
  EXPECT_EQ(io->OpenUsbDev(), 0);
  EXPECT_EQ(io->OpenUsbDev(), 0);
  EXPECT_EQ(fake.Count("libusb_open"), 2U);
  EXPECT_EQ(io->CloseUsbDev(), 0);
  log.Clear();
  EXPECT_EQ(io->CloseUsbDev(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_THAT(log.Messages("CloseUsbDev"),
              ElementsAre("Debug:enter", "Error:CloseUsbDev [bus=0x01,port=0x02,address=0x05,VID=0x1D6B,PID=0x0104]",
                          "Debug:exit"));
  EXPECT_EQ(io->OpenUsbDev(), 0);
}

TEST_F(LibusbIoAccess, ClosedDeviceAnswersNotFound) {
  io->Init();
  std::uint8_t byte = 0;
  const struct {
    std::string name;
    std::function<int()> operation;
  } cases[] = {
      {"ClearHalt", [&] { return io->ClearHalt(0x81); }},
      {"SetConfiguration", [&] { return io->SetConfiguration(1); }},
      {"ClaimAllInterface", [&] { return io->ClaimAllInterface(); }},
      {"ReleaseAllInterface", [&] { return io->ReleaseAllInterface(); }},
      {"SetInterfaceAltSetting", [&] { return io->SetInterfaceAltSetting(0, 1); }},
      {"GetStringDescriptor", [&] { return io->GetStringDescriptor(1, 0x0409, &byte, 1); }},
      {"ControlTransfer", [&] { return io->ControlTransfer(0x23, 3, 4, 0, nullptr, 0, 0); }},
  };
  for (const auto& [name, operation] : cases) {
    EXPECT_EQ(operation(), LIBUSB_ERROR_NOT_FOUND) << name;
    EXPECT_THAT(log.Messages(name), ElementsAre("Error:" + name + " failed LIBUSB_ERROR_NOT_FOUND"));
  }
  EXPECT_EQ(io->ResetDevice(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(io->AttachKernelDriver(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(io->DetachKernelDriver(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_THAT(fake.Calls({"libusb_reset_device", "libusb_clear_halt"}), IsEmpty());
}

TEST_F(LibusbIoAccess, ConfigDescriptorsStayValidAndDoNotPileUp) {
  device->configs = {{1, {0, 1}}, {2, {0}}};
  Open();
  const libusb_config_descriptor* first = io->GetConfigDesc();
  ASSERT_NE(first, nullptr);
  for (int round = 0; round < 10; ++round) {
    ASSERT_EQ(io->SetConfiguration(2), 0);
    EXPECT_EQ(io->GetConfigDesc()->bConfigurationValue, 2);
    ASSERT_EQ(io->SetConfiguration(1), 0);
    EXPECT_EQ(io->GetConfigDesc(), first);
  }
  EXPECT_EQ(first->interface[1].altsetting->extra[1], 1);
  EXPECT_EQ(fake.openConfigs, 2);
  device->configs[0].second[1] = 3;  // The same but for an interface number.
  const libusb_config_descriptor* changed = io->GetConfigDesc();
  EXPECT_EQ(first->interface[1].altsetting->bInterfaceNumber, 1);
  EXPECT_EQ(changed->interface[1].altsetting->bInterfaceNumber, 3);
}

TEST_F(LibusbIoAccess, UnconfiguredDeviceShowsItsFirstConfiguration) {
  device->active = -1;
  Open();
  ASSERT_NE(io->GetConfigDesc(), nullptr);
  EXPECT_THAT(fake.Calls({"libusb_get_config_descriptor"}), ElementsAre("libusb_get_config_descriptor 0"));
  EXPECT_EQ(io->ClaimAllInterface(), 0);
  EXPECT_EQ(fake.Count("libusb_claim_interface"), 0U);
}

TEST_F(LibusbIoAccess, AllInterfacesAreVisitedAndTheFirstFailureReturned) {
  device->configs = {{1, {0, 3, 4}}};
  device->kernelDrivers = {0, 4};
  Open();
  const struct {
    std::string function;
    int (LibusbIo::*operation)();
    std::vector<std::string> calls;
  } cases[] = {
      {"claim_interface", &LibusbIo::ClaimAllInterface, {"claim 0", "claim 3", "claim 4"}},
      {"release_interface", &LibusbIo::ReleaseAllInterface, {"release 0", "release 3", "release 4"}},
      {"detach_kernel_driver", &LibusbIo::DetachKernelDriver, {"detach 0", "detach 4"}},
      // A driver may want several interfaces at once, so all are released before the first is attached.
      {"attach_kernel_driver",
       &LibusbIo::AttachKernelDriver,
       {"release 0", "release 3", "release 4", "attach 0", "attach 3", "attach 4"}},
  };
  for (const auto& [function, operation, calls] : cases) {
    SCOPED_TRACE(function);
    fake.calls.clear();
    fake.Answer("libusb_" + function, {0, LIBUSB_ERROR_BUSY, LIBUSB_ERROR_NO_DEVICE});
    EXPECT_EQ((*io.*operation)(), LIBUSB_ERROR_BUSY);
    std::vector<std::string> seen;
    for (const auto& [name, number] : fake.calls) {
      if (name.ends_with("_interface") || name.ends_with("tach_kernel_driver")) {
        const std::size_t verb = std::string("libusb_").size();
        seen.push_back(name.substr(verb, name.find('_', verb) - verb) + ' ' + number);
      }
    }
    EXPECT_EQ(seen, calls);
  }
  EXPECT_GE(log.Count("Error:"), 4U);
}

TEST_F(LibusbIoAccess, OperationsReachTheLibraryAndSomeRequestsBecomeItsCalls) {
  Open();
  fake.SetImmediateResult({});
  EXPECT_EQ(io->ClearHalt(0x82), 0);
  fake.Answer("libusb_set_interface_alt_setting", {LIBUSB_ERROR_IO});
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 4), LIBUSB_ERROR_IO);
  fake.Answer("libusb_reset_device", {LIBUSB_ERROR_IO});
  EXPECT_EQ(io->ResetDevice(), LIBUSB_ERROR_IO);
  EXPECT_EQ(log.Count("Error:"), 2U);
  EXPECT_EQ(io->ControlTransfer(0x23, 3, 4, 1, nullptr, 0, 0), 0);
  EXPECT_EQ(io->ControlTransfer(0x02, 1, 0, 0x0181, nullptr, 0, 0), 0);
  EXPECT_THAT(fake.Calls({"libusb_reset_device", "libusb_clear_halt", "libusb_set_interface_alt_setting"}),
              ElementsAre("libusb_clear_halt 130", "libusb_set_interface_alt_setting 1 4", "libusb_reset_device",
                          "libusb_reset_device", "libusb_clear_halt 129"));
  EXPECT_EQ(fake.Count("libusb_submit_transfer"), 0U);
  EXPECT_EQ(io->ControlTransfer(0x23, 3, 8, 1, nullptr, 0, 0), 0);  // Another port feature.
  EXPECT_EQ(io->ControlTransfer(0x02, 1, 1, 0x81, nullptr, 0, 0), 0);
  EXPECT_EQ(io->ControlTransfer(0x00, 1, 0, 0x81, nullptr, 0, 0), 0);
  EXPECT_EQ(fake.Count("libusb_submit_transfer"), 3U);
}

TEST_F(LibusbIoAccess, ControlTransfersMoveTheirData) {
  Open();
  fake.SetImmediateResult({.bytes = {1, 2, 3}});
  Bytes data = {9, 9, 9, 9};
  EXPECT_EQ(io->ControlTransfer(0xC0, 0x55, 0x1234, 0x5678, data.data(), 4, 250), 3);
  EXPECT_THAT(data, ElementsAre(1, 2, 3, 9));
  EXPECT_THAT(fake.LastSubmitted(), ElementsAre(0xC0, 0x55, 0x34, 0x12, 0x78, 0x56, 4, 0));
  EXPECT_EQ(io->ControlTransfer(0x40, 0x55, 0x1234, 0x5678, data.data(), 2, 0), 2);
  EXPECT_THAT(fake.LastSubmitted(), ElementsAre(0x40, 0x55, 0x34, 0x12, 0x78, 0x56, 2, 0, 1, 2));
  EXPECT_EQ(io->GetStringDescriptor(2, 0x0409, data.data(), 4), 3);
  EXPECT_THAT(fake.LastSubmitted(), ElementsAre(0x80, 6, 2, 3, 0x09, 0x04, 4, 0));
  EXPECT_THAT(
      fake.Calls({"libusb_submit_transfer"}),
      ElementsAre(testing::EndsWith("timeout 250"), testing::EndsWith("timeout 0"), testing::EndsWith("timeout 1000")));

  fake.SetImmediateResult({.bytes = Bytes(70000, 1)});  // Lengths are brought into range.
  Bytes large(70000);
  EXPECT_EQ(io->GetStringDescriptor(2, 0, large.data(), 70000), 65535);
  EXPECT_EQ(io->GetStringDescriptor(2, 0, large.data(), -1), 0);
}

TEST_F(LibusbIoAccess, FailedControlTransferIsAnErrorAndWritesNothing) {
  Open();
  std::uint8_t byte = 9;
  const std::pair<libusb_transfer_status, int> cases[] = {
      {LIBUSB_TRANSFER_ERROR, LIBUSB_ERROR_IO},
      {LIBUSB_TRANSFER_TIMED_OUT, LIBUSB_ERROR_TIMEOUT},
      {LIBUSB_TRANSFER_CANCELLED, LIBUSB_ERROR_IO},
      {LIBUSB_TRANSFER_STALL, LIBUSB_ERROR_PIPE},
      {LIBUSB_TRANSFER_NO_DEVICE, LIBUSB_ERROR_NO_DEVICE},
      {LIBUSB_TRANSFER_OVERFLOW, LIBUSB_ERROR_OVERFLOW},
  };
  for (const auto& [status, error] : cases) {
    fake.SetImmediateResult({.status = status, .bytes = {1}});
    EXPECT_EQ(ReadByte(byte), error);
  }
  fake.Answer("libusb_alloc_transfer", {1});
  EXPECT_EQ(ReadByte(byte), LIBUSB_ERROR_NO_MEM);
  fake.Answer("libusb_submit_transfer", {LIBUSB_ERROR_NO_DEVICE});
  EXPECT_EQ(ReadByte(byte), LIBUSB_ERROR_NO_DEVICE);
  EXPECT_EQ(io->ControlTransfer(0xC0, 1, 0, 0, nullptr, 1, 0), LIBUSB_ERROR_INVALID_PARAM);
  EXPECT_EQ(byte, 9);
  EXPECT_EQ(log.Count("Error:libusb_control_transfer get error num -9"), 1U);
}

}  // namespace
}  // namespace vel
