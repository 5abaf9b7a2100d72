#include "io/DummyUsbIo/DummyUsbFamily.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/VelLog.h"
#include "protocol/IsoTable.h"

namespace vel {
namespace {

constexpr std::uint16_t kLanguageValue = 0x0300;

constexpr std::array<std::uint8_t, 4> kLanguages = {0x04, 0x03, 0x09, 0x04};

constexpr std::array<std::uint8_t, 22> kProductString = {0x16, 0x03, 'U', 0,   'S', 0,   'B', 0,   ' ', 0,   'C',
                                                         0,    'a',  0,   'm', 0,   'e', 0,   'r', 0,   'a', 0};

constexpr bool Matches(int wanted, unsigned value) {
  return wanted == CannedAnswer::kAny || static_cast<unsigned>(wanted) == value;
}

}  // namespace

DummyUsbFamily::DummyUsbFamily(const DummyUsbProfile& profile, std::uint8_t busNumber, std::uint8_t deviceAddress,
                               std::uint16_t vid, std::uint16_t pid)
    : mProfile(profile), mBusNumber(busNumber), mDeviceAddress(deviceAddress), mVendorId(vid), mProductId(pid) {}

DummyUsbFamily::~DummyUsbFamily() {
  mPending.CancelAll();
}

void DummyUsbFamily::Init() {
  VEL_DEBUG("%04x:%04x", unsigned{mVendorId}, unsigned{mProductId});
  CreateCompositeDevice();
}

void DummyUsbFamily::CreateCompositeDevice() {
  mDeviceDesc = std::make_unique<libusb_device_descriptor>(ReadDeviceDesc(mProfile.deviceDesc));
  mConfigDesc = std::make_unique<ConfigDescTree>(mProfile.configDesc);
}

libusb_device_descriptor* DummyUsbFamily::GetDeviceDesc() {
  return mDeviceDesc.get();
}

libusb_config_descriptor* DummyUsbFamily::GetConfigDesc() {
  return mConfigDesc == nullptr ? nullptr : mConfigDesc->Get();
}

void* DummyUsbFamily::GetIoHandler() {
  VEL_DEBUG("");
  return nullptr;
}

int DummyUsbFamily::OpenUsbDev() {
  VEL_DEBUG("");
  return 0;
}

int DummyUsbFamily::CloseUsbDev() {
  VEL_DEBUG("");
  mPending.CancelAll();
  return 0;
}

int DummyUsbFamily::ResetDevice() {
  VEL_DEBUG("");
  return 0;
}

int DummyUsbFamily::AttachKernelDriver() {
  VEL_DEBUG("");
  return 0;
}

int DummyUsbFamily::DetachKernelDriver() {
  VEL_DEBUG("");
  return 0;
}

int DummyUsbFamily::ClearHalt(int /*endpoint*/) {
  VEL_DEBUG("");
  return 0;
}

int DummyUsbFamily::ReleaseAllInterface() {
  VEL_DEBUG("");
  return 0;
}

int DummyUsbFamily::SetConfiguration(int /*configuration*/) {
  VEL_DEBUG("");
  return 0;
}

int DummyUsbFamily::ClaimAllInterface() {
  VEL_DEBUG("");
  return 0;
}

int DummyUsbFamily::SetInterfaceAltSetting(int interfaceNumber, int altSetting) {
  VEL_DEBUG("interface num[%d], alternate_setting[%d]", interfaceNumber, altSetting);
  // The wording is the camera's; the family has no camera to open or close.
  if (altSetting == 0) {
    VEL_ERROR("need close camera");
  } else {
    VEL_ERROR("need open camera");
  }
  return 0;
}

int DummyUsbFamily::CancelTransfer(std::uint32_t localXferId) {
  VEL_DEBUG("");
  mPending.Cancel(localXferId);
  return 0;  // Also when nothing was pending: no request of the family fails.
}

int DummyUsbFamily::GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer, int length) {
  VEL_DEBUG("strIndex[%d], langid[0x%x], len[%d]", int{index}, unsigned{langId}, length);
  return CopyAnswer(kProductString, buffer, length);
}

void DummyUsbFamily::HandleUsbRequest(std::uint8_t bmRequestType) {
  const int type = (bmRequestType >> 5) & 3;
  if (type == 0) {
    VEL_DEBUG("standard req type");
  } else if (type == 1) {
    VEL_DEBUG("class req type");
  } else {
    std::printf("Unable to handle request of type %d\n", type);
  }
}

int DummyUsbFamily::ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                                    std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength,
                                    std::uint32_t /*timeout*/) {
  if (mProfile.announcesRequestType) {
    HandleUsbRequest(bmRequestType);
  }
  if (mProfile.logRequest != nullptr) {
    mProfile.logRequest(wValue, wIndex, wLength);
  }
  if (mProfile.answersLanguage && wValue == kLanguageValue) {
    return CopyAnswer(kLanguages, data, wLength);
  }
  for (const CannedAnswer& canned : mProfile.answers) {
    if (Matches(canned.bmRequestType, bmRequestType) && Matches(canned.bRequest, bRequest) &&
        Matches(canned.wValue, wValue) && Matches(canned.wIndex, wIndex)) {
      if (canned.log != nullptr) {
        canned.log(wValue, wIndex, wLength);
      }
      return CopyAnswer(canned.answer, data, wLength);
    }
  }
  if (wValue >= mProfile.firstStringValue && wValue <= mProfile.lastStringValue) {
    return GetStringDescriptor(1, 1, data, wLength);
  }
  return wLength;
}

int DummyUsbFamily::BulkTransfer(_UsbIoXferInfo* info) {
  if (info == nullptr) {
    return 0;
  }
  info->owner = this;
  if (IsIn(*info) && info->data != nullptr) {
    FillPattern({info->data, info->length});
  }
  CompleteXfer(info);
  return 0;
}

int DummyUsbFamily::InterruptTransfer(_UsbIoXferInfo* info) {
  if (info == nullptr || mProfile.interrupt == DummyUsbProfile::Interrupt::kAnswers) {
    return BulkTransfer(info);
  }
  XferGuard guard(info);
  info->owner = this;
  if (!mPending.Add(info)) {
    return LIBUSB_ERROR_NO_MEM;
  }
  static_cast<void>(guard.Release());  // It is the list's, and may be gone.
  return 0;
}

int DummyUsbFamily::IsochTransfer(_UsbIoXferInfo* info) {
  if (info == nullptr) {
    return 0;
  }
  XferGuard guard(info);
  info->owner = this;
  if (!FillIsochTable(*info)) {
    return LIBUSB_ERROR_INVALID_PARAM;
  }
  info->status = kXferCompleted;
  CompleteXfer(guard.Release());
  return 0;
}

// Every packet moved whole. False when the table does not fit the data, or without memory.
bool DummyUsbFamily::FillIsochTable(_UsbIoXferInfo& info) {
  const std::uint64_t table = IsoTableSize(info.isoPacketNum);
  if (info.data == nullptr || table > info.length) {
    return false;
  }
  std::uint64_t payload = 0;
  for (std::uint32_t i = 0; i < info.isoPacketNum; ++i) {
    IsoPacketRecord record = LoadIsoRecord(info.data, i);
    record.actual_length = record.length;
    record.status = kXferCompleted;
    record.offset = static_cast<std::uint32_t>(table + payload);
    StoreIsoRecord(info.data, i, record);
    payload += record.length;
  }
  if (payload > INT32_MAX - table) {
    return false;
  }
  return !IsIn(info) || FillIsochIn(info, static_cast<std::uint32_t>(payload));
}

bool DummyUsbFamily::FillIsochIn(_UsbIoXferInfo& info, std::uint32_t payload) {
  const auto table = static_cast<std::uint32_t>(IsoTableSize(info.isoPacketNum));
  // The header's size has 8 bits, so that from 16 packets on the data starts inside the table: an inherited limit that
  // remote sides know. The block holds all that is written.
  const auto headerSize = static_cast<std::uint8_t>(table);
  const std::uint32_t length = headerSize + payload;
  auto* answer = static_cast<std::uint8_t*>(std::malloc(std::max({table, length, 1U})));
  if (answer == nullptr) {
    return false;
  }
  std::memcpy(answer, info.data, table);
  FillPattern({answer + headerSize, payload});
  ReplaceXferData(info, answer, length);
  return true;
}

}  // namespace vel
