#include "LibusbIoFixture.h"

namespace vel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Bytes = std::vector<std::uint8_t>;

class LibusbIoAccess : public LibusbIoTest {
 protected:
  // The calls of these functions, in order.
  std::vector<std::string> CallsOf(const std::set<std::string>& functions) {
    std::vector<std::string> calls = fake.Calls();
    std::erase_if(calls, [&](const std::string& call) { return !functions.contains(call.substr(0, call.find(' '))); });
    return calls;
  }

  void ExpectUnusable() {
    EXPECT_EQ(io->OpenUsbDev(), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(io->GetDeviceDesc(), nullptr);
    EXPECT_EQ(io->GetConfigDesc(), nullptr);
    EXPECT_EQ(io->GetBusNumber(), 0);
    EXPECT_EQ(io->GetDeviceAddress(), 0);
    EXPECT_EQ(io->GetDevicePortNumber(), 0);
    EXPECT_EQ(io->GetDeviceSpeed(), 0);
    EXPECT_EQ(io->GetIoHandler(), nullptr);
  }

  // A control request on its own thread.
  std::thread Control(int& result, std::uint8_t type, Bytes& data, std::uint32_t timeout = 0) {
    return std::thread([this, &result, type, &data, timeout] {
      result = io->ControlTransfer(type, 0x55, 0x1234, 0x5678, data.data(), static_cast<std::uint16_t>(data.size()),
                                   timeout);
    });
  }
};

TEST_F(LibusbIoAccess, FailedInitLeavesItUnusable) {
  fake.Answer("libusb_init", {LIBUSB_ERROR_OTHER});
  io->Init();
  EXPECT_TRUE(log.Has("LibusbIo.cpp Init: Error:initialize libusb failed"));
  ExpectUnusable();
}

TEST_F(LibusbIoAccess, FailedDeviceListLeavesItUnusable) {
  fake.Answer("libusb_get_device_list", {LIBUSB_ERROR_NO_MEM});
  io->Init();
  EXPECT_TRUE(log.Has("LibusbIo.cpp GetLibusbDev: Error:GetLibusbDev failed"));
  ExpectUnusable();
}

TEST_F(LibusbIoAccess, DeviceThatHasGoneIsNotFound) {
  device->address = 6;
  io->Init();
  EXPECT_TRUE(log.Has("LibusbIo.cpp GetLibusbDev: Error:GetLibusbDev failed"));
  log.Clear();
  ExpectUnusable();
  EXPECT_THAT(log.Lines(),
              ElementsAre("LibusbIo.cpp OpenUsbDev: Debug:OpenUsbDev",
                          "LibusbIo.cpp OpenUsbDev: Error:OpenUsbDev failed LIBUSB_ERROR_NOT_FOUND",
                          "LibusbIo.cpp GetDeviceDesc: Error:GetDevDescript failed LIBUSB_ERROR_NOT_FOUND",
                          "LibusbIo.cpp GetConfigDesc: Error:GetDeviceconfig failed LIBUSB_ERROR_NOT_FOUND",
                          "LibusbIo.cpp GetBusNumber: Error:GetBusNumber failed LIBUSB_ERROR_NOT_FOUND",
                          "LibusbIo.cpp GetDeviceAddress: Error:GetDeviceAddress failed LIBUSB_ERROR_NOT_FOUND",
                          "LibusbIo.cpp GetDevicePortNumber: Error:GetDevicePortNumber failed "
                          "LIBUSB_ERROR_NOT_FOUND",
                          "LibusbIo.cpp GetDeviceSpeed: Error:GetDeviceSpeed failed LIBUSB_ERROR_NOT_FOUND"));
}

TEST_F(LibusbIoAccess, MissingUsbDkIsNoFailure) {
  fake.Answer("libusb_set_option", {LIBUSB_ERROR_NOT_SUPPORTED});
  Open();
  EXPECT_THAT(CallsOf({"libusb_set_option"}), ElementsAre("libusb_set_option 1"));
}

TEST_F(LibusbIoAccess, TakesTheFirstDeviceAtBusAndAddress) {
  device->bus = 2;  // The address alone is not enough, nor is the bus.
  fake.AddDevice({.bus = 1, .address = 7});
  fake.AddDevice({.port = 3, .speed = LIBUSB_SPEED_SUPER});
  fake.AddDevice({.port = 4});
  io->Init();
  EXPECT_EQ(io->GetBusNumber(), 1);
  EXPECT_EQ(io->GetDeviceAddress(), 5);
  EXPECT_EQ(io->GetDevicePortNumber(), 3);
  EXPECT_EQ(io->GetDeviceSpeed(), LIBUSB_SPEED_SUPER);
  EXPECT_EQ(io->GetIoType(), 2);
}

TEST_F(LibusbIoAccess, SecondInitChangesNothing) {
  Open();
  io->Init();
  EXPECT_EQ(fake.Count("libusb_init"), 1U);
}

TEST_F(LibusbIoAccess, FailedOpenTellsTheDevice) {
  fake.Answer("libusb_open", {LIBUSB_ERROR_ACCESS});
  io->Init();
  log.Clear();
  EXPECT_EQ(io->OpenUsbDev(), LIBUSB_ERROR_ACCESS);
  EXPECT_TRUE(
      log.Has("LibusbIo.cpp OpenUsbDev: Error:libusb_open error: -3 - LIBUSB_ERROR_ACCESS "
              "[bus=0x01,port=0x02,address=0x05,VID=0x1D6B,PID=0x0104]"));
  EXPECT_EQ(io->OpenUsbDev(), 0);
}

TEST_F(LibusbIoAccess, OpensOnceAndClosesOnce) {
  Open();
  EXPECT_EQ(io->OpenUsbDev(), 0);
  EXPECT_EQ(fake.Count("libusb_open"), 1U);
  EXPECT_EQ(io->GetIoHandler(), &fake.handles.front());
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_EQ(io->GetIoHandler(), nullptr);
  log.Clear();
  EXPECT_EQ(io->CloseUsbDev(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_THAT(log.Lines(), ElementsAre("LibusbIo.cpp CloseUsbDev: Debug:enter",
                                       "LibusbIo.cpp CloseUsbDev: Error:CloseUsbDev "
                                       "[bus=0x01,port=0x02,address=0x05,VID=0x1D6B,PID=0x0104]",
                                       "LibusbIo.cpp CloseUsbDev: Debug:exit"));
  EXPECT_EQ(io->OpenUsbDev(), 0);
}

TEST_F(LibusbIoAccess, ClosedDeviceAnswersNotFound) {
  io->Init();
  std::uint8_t byte = 0;
  const struct {
    const char* name;
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
    log.Clear();
    EXPECT_EQ(operation(), LIBUSB_ERROR_NOT_FOUND) << name;
    EXPECT_THAT(log.Lines(), ElementsAre(std::string("LibusbIo.cpp ") + name + ": Error:" + name +
                                         " failed LIBUSB_ERROR_NOT_FOUND"));
  }
  EXPECT_EQ(io->ResetDevice(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(io->AttachKernelDriver(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(io->DetachKernelDriver(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_THAT(CallsOf({"libusb_reset_device", "libusb_clear_halt"}), IsEmpty());
}

TEST_F(LibusbIoAccess, DeviceDescriptorIsReadAnew) {
  device->descriptor.bMaxPacketSize0 = 8;
  io->Init();
  libusb_device_descriptor* descriptor = io->GetDeviceDesc();
  ASSERT_NE(descriptor, nullptr);
  descriptor->bMaxPacketSize0 = 64;
  EXPECT_EQ(io->GetDeviceDesc(), descriptor);
  EXPECT_EQ(descriptor->bMaxPacketSize0, 8);
  fake.Answer("libusb_get_device_descriptor", {LIBUSB_ERROR_IO});
  EXPECT_EQ(io->GetDeviceDesc(), nullptr);
  EXPECT_TRUE(
      log.Has("LibusbIo.cpp GetDeviceDesc: Error:libusb_get_device_descriptor: error "
              "LIBUSB_ERROR_IO [-1]"));
}

TEST_F(LibusbIoAccess, ConfigDescriptorsStayValidAndDoNotPileUp) {
  device->configs = {{1, {0, 1}}, {2, {0}}};
  Open();
  const libusb_config_descriptor* first = io->GetConfigDesc();
  ASSERT_NE(first, nullptr);
  for (int round = 0; round < 10; ++round) {
    ASSERT_EQ(io->SetConfiguration(2), 0);
    const libusb_config_descriptor* second = io->GetConfigDesc();
    EXPECT_EQ(second->bConfigurationValue, 2);
    ASSERT_EQ(io->SetConfiguration(1), 0);
    EXPECT_EQ(io->GetConfigDesc(), first);
  }
  EXPECT_EQ(first->bNumInterfaces, 2);
  EXPECT_EQ(first->interface[1].altsetting->extra[1], 1);
  EXPECT_EQ(fake.OpenConfigs(), 2);
}

TEST_F(LibusbIoAccess, ConfigsThatDifferDeepInsideAreTold) {
  io->Init();
  const libusb_config_descriptor* first = io->GetConfigDesc();
  device->configs = {{1, {3}}};  // The same but for an interface number.
  const libusb_config_descriptor* second = io->GetConfigDesc();
  ASSERT_NE(first, second);
  EXPECT_EQ(first->interface->altsetting->bInterfaceNumber, 0);
  EXPECT_EQ(second->interface->altsetting->bInterfaceNumber, 3);
}

TEST_F(LibusbIoAccess, UnconfiguredDeviceShowsItsFirstConfiguration) {
  device->active = -1;
  Open();
  ASSERT_NE(io->GetConfigDesc(), nullptr);
  EXPECT_THAT(CallsOf({"libusb_get_config_descriptor"}), ElementsAre("libusb_get_config_descriptor 0"));
  EXPECT_EQ(io->ClaimAllInterface(), 0);
  EXPECT_THAT(CallsOf({"libusb_claim_interface"}), IsEmpty());
}

TEST_F(LibusbIoAccess, ConfigDescriptorFailureIsTold) {
  io->Init();
  fake.Answer("libusb_get_active_config_descriptor", {LIBUSB_ERROR_IO});
  EXPECT_EQ(io->GetConfigDesc(), nullptr);
  EXPECT_TRUE(log.Has("LibusbIo.cpp GetConfigDesc: Error:GetDeviceconfig: error LIBUSB_ERROR_IO [-1]"));
  EXPECT_THAT(CallsOf({"libusb_get_config_descriptor"}), IsEmpty());
}

TEST_F(LibusbIoAccess, AllInterfacesAreVisitedAndTheFirstFailureReturned) {
  device->configs = {{1, {0, 3, 4}}};
  Open();
  const struct {
    const char* function;
    std::function<int()> operation;
    std::string line;
  } cases[] = {
      {"libusb_claim_interface", [&] { return io->ClaimAllInterface(); },
       "LibusbIo.cpp ClaimAllInterface: Error:claim_all_interface: error num -6"},
      {"libusb_release_interface", [&] { return io->ReleaseAllInterface(); },
       "LibusbIo.cpp ReleaseAllInterface: Error:config_release_all_interface: error num -6"},
      {"libusb_attach_kernel_driver", [&] { return io->AttachKernelDriver(); },
       "LibusbIo.cpp AttachKernelDriver: Error:libusb_attach_kernel_driver if3 = -6"},
  };
  for (const auto& [function, operation, line] : cases) {
    const std::size_t before = fake.Count(function);
    fake.Answer(function, {0, LIBUSB_ERROR_BUSY, LIBUSB_ERROR_NO_DEVICE});
    EXPECT_EQ(operation(), LIBUSB_ERROR_BUSY) << function;
    EXPECT_EQ(fake.Count(function), before + 3);
    EXPECT_TRUE(log.Has(line)) << line;
  }
  EXPECT_THAT(CallsOf({"libusb_claim_interface"}),
              ElementsAre("libusb_claim_interface 0", "libusb_claim_interface 3", "libusb_claim_interface 4"));
}

TEST_F(LibusbIoAccess, DetachesOnlyActiveDrivers) {
  device->configs = {{1, {0, 1, 2}}};
  device->kernelDrivers = {0, 2};
  Open();
  EXPECT_EQ(io->DetachKernelDriver(), 0);
  EXPECT_THAT(CallsOf({"libusb_detach_kernel_driver"}),
              ElementsAre("libusb_detach_kernel_driver 0", "libusb_detach_kernel_driver 2"));
  fake.Answer("libusb_detach_kernel_driver", {LIBUSB_ERROR_ACCESS});
  EXPECT_EQ(io->DetachKernelDriver(), LIBUSB_ERROR_ACCESS);
  EXPECT_TRUE(
      log.Has("LibusbIo.cpp DetachKernelDriver: Error:libusb_detach_kernel_driver = "
              "LIBUSB_ERROR_ACCESS [-3]"));
}

TEST_F(LibusbIoAccess, AttachReleasesAllFirstAndOutlivesAFailedRelease) {
  device->configs = {{1, {0, 1}}};
  Open();
  fake.Answer("libusb_release_interface", {LIBUSB_ERROR_NOT_FOUND});
  EXPECT_EQ(io->AttachKernelDriver(), 0);
  EXPECT_THAT(CallsOf({"libusb_release_interface", "libusb_attach_kernel_driver"}),
              ElementsAre("libusb_release_interface 0", "libusb_release_interface 1", "libusb_attach_kernel_driver 0",
                          "libusb_attach_kernel_driver 1"));
  EXPECT_TRUE(log.Has("LibusbIo.cpp AttachKernelDriver: Error:libusb_release_interface: error num 0 = -5"));
}

TEST_F(LibusbIoAccess, DeviceOperationsPassThrough) {
  Open();
  EXPECT_EQ(io->ClearHalt(0x81), 0);
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 4), 0);
  EXPECT_THAT(CallsOf({"libusb_clear_halt", "libusb_set_interface_alt_setting"}),
              ElementsAre("libusb_clear_halt 129", "libusb_set_interface_alt_setting 1 4"));
  fake.Answer("libusb_set_interface_alt_setting", {LIBUSB_ERROR_IO});
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 4), LIBUSB_ERROR_IO);
  EXPECT_TRUE(log.Has("LibusbIo.cpp SetInterfaceAltSetting: Error:Set interface altsetting get error num -1"));
  fake.Answer("libusb_reset_device", {LIBUSB_ERROR_NOT_FOUND});
  EXPECT_EQ(io->ResetDevice(), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_TRUE(log.Has("LibusbIo.cpp ResetDevice: Error:libusb_reset_device: error LIBUSB_ERROR_NOT_FOUND [-5]"));
}

TEST_F(LibusbIoAccess, SomeRequestsBecomeLibusbCalls) {
  Open();
  fake.SetImmediateResult({});
  EXPECT_EQ(io->ControlTransfer(0x23, 3, 4, 1, nullptr, 0, 0), 0);
  EXPECT_EQ(io->ControlTransfer(0x02, 1, 0, 0x0181, nullptr, 0, 0), 0);
  EXPECT_THAT(CallsOf({"libusb_reset_device", "libusb_clear_halt"}),
              ElementsAre("libusb_reset_device", "libusb_clear_halt 129"));
  EXPECT_EQ(fake.Count("libusb_submit_transfer"), 0U);
  EXPECT_EQ(io->ControlTransfer(0x23, 3, 8, 1, nullptr, 0, 0), 0);  // Another port feature.
  EXPECT_EQ(io->ControlTransfer(0x02, 1, 1, 0x81, nullptr, 0, 0), 0);
  EXPECT_EQ(io->ControlTransfer(0x00, 1, 0, 0x81, nullptr, 0, 0), 0);
  EXPECT_EQ(fake.Count("libusb_submit_transfer"), 3U);
  EXPECT_EQ(fake.Count("libusb_reset_device"), 1U);
}

TEST_F(LibusbIoAccess, ControlInFillsOnlyWhatArrived) {
  Open();
  fake.SetImmediateResult({.bytes = {1, 2, 3}});
  Bytes data = {9, 9, 9, 9};
  EXPECT_EQ(io->ControlTransfer(0xC0, 0x55, 0x1234, 0x5678, data.data(), 4, 250), 3);
  EXPECT_THAT(data, ElementsAre(1, 2, 3, 9));
  EXPECT_THAT(fake.LastSubmitted(), ElementsAre(0xC0, 0x55, 0x34, 0x12, 0x78, 0x56, 4, 0));
  EXPECT_EQ(fake.LastTimeout(), 250U);
}

TEST_F(LibusbIoAccess, ControlOutSendsItsData) {
  Open();
  fake.SetImmediateResult({});
  Bytes data = {7, 8};
  EXPECT_EQ(io->ControlTransfer(0x40, 0x55, 0x1234, 0x5678, data.data(), 2, 0), 2);
  EXPECT_THAT(fake.LastSubmitted(), ElementsAre(0x40, 0x55, 0x34, 0x12, 0x78, 0x56, 2, 0, 7, 8));
}

TEST_F(LibusbIoAccess, ControlStatusBecomesAnError) {
  Open();
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
    std::uint8_t byte = 9;
    EXPECT_EQ(io->ControlTransfer(0xC0, 1, 0, 0, &byte, 1, 0), error);
    EXPECT_EQ(byte, 9);
  }
  EXPECT_TRUE(log.Has("LibusbIo.cpp ControlTransfer: Error:libusb_control_transfer get error num -9"));
}

TEST_F(LibusbIoAccess, ControlThatCannotBeSentFails) {
  Open();
  std::uint8_t byte = 0;
  fake.Answer("libusb_alloc_transfer", {1});
  EXPECT_EQ(io->ControlTransfer(0xC0, 1, 0, 0, &byte, 1, 0), LIBUSB_ERROR_NO_MEM);
  fake.Answer("libusb_submit_transfer", {LIBUSB_ERROR_NO_DEVICE});
  EXPECT_EQ(io->ControlTransfer(0xC0, 1, 0, 0, &byte, 1, 0), LIBUSB_ERROR_NO_DEVICE);
  EXPECT_EQ(io->ControlTransfer(0xC0, 1, 0, 0, nullptr, 1, 0), LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(LibusbIoAccess, StringDescriptorIsTheStandardRequest) {
  Open();
  fake.SetImmediateResult({.bytes = {6, 3, 'a', 0, 'b', 0}});
  Bytes buffer(5, 9);
  EXPECT_EQ(io->GetStringDescriptor(2, 0x0409, buffer.data(), 4), 4);
  EXPECT_THAT(buffer, ElementsAre(6, 3, 'a', 0, 9));
  EXPECT_THAT(fake.LastSubmitted(), ElementsAre(0x80, 6, 2, 3, 0x09, 0x04, 4, 0));
  EXPECT_EQ(fake.LastTimeout(), 1000U);
}

TEST_F(LibusbIoAccess, StringLengthIsBroughtIntoRange) {
  Open();
  fake.SetImmediateResult({.bytes = Bytes(70000, 1)});
  Bytes buffer(70000);
  EXPECT_EQ(io->GetStringDescriptor(2, 0, buffer.data(), 70000), 65535);
  EXPECT_EQ(io->GetStringDescriptor(2, 0, buffer.data(), -1), 0);
}

}  // namespace
}  // namespace vel
