#include "virt_udevice.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "base/VelLog.h"
#include "io/NullUsbIo.h"
#include "protocol/Commands.h"
#include "protocol/IsoTable.h"
#include "protocol/Requests.h"
#include "protocol/VelPacket.h"
#include "vel/VelTracer.h"

namespace vel {
namespace {

// Of a reply, before its data: stream id, status, for an isochronous one the count of packets.
constexpr std::uint32_t kMostReplyFields = 12;

}  // namespace

VirtUDevice::VirtUDevice(VelDeviceBase* deviceBase, IoFactory factory)
    : mDeviceBase(deviceBase),
      mFactory(factory),
      mBudget(kMaxPendingBytes, kMaxPendingTransfers),
      mIo(std::make_unique<NullUsbIo>()),
      mPolicy(std::make_unique<RedirPolicy>(mIo.get())) {}

VirtUDevice::~VirtUDevice() {
  VEL_DEBUG("ENTER");
  mPolicy.reset();
  mIo.reset();  // Completes what is pending, into members that still live; mIo itself is null meanwhile.
}

void VirtUDevice::Init() {
  VEL_DEBUG(" enter");
  if (mDeviceBase == nullptr) {
    VEL_ERROR("devBase is null");
    return;
  }
  const bool emulated = mDeviceBase->IsEmulated();
  std::unique_ptr<IUsbIo> io(mFactory(emulated ? kIoTypeEmulated : kIoTypeLibusb, mDeviceBase));
  if (io == nullptr) {
    return;
  }
  mPolicy.reset();
  mIo = std::move(io);
  mEmulated = mIo->GetIoType() == kIoTypeEmulated;
  mIo->Init();
  mPolicy = std::make_unique<RedirPolicy>(mIo.get(), mDeviceBase->PayloadHeaderLengthCounts(),
                                          mDeviceBase->WantsNewestPictures());
}

int VirtUDevice::OpenUsbDev() {
  VEL_DEBUG("OpenUsbDev");
  const int ret = mIo->OpenUsbDev();
  if (ret != 0) {
    VEL_ERROR("libusb_open error: %i - %s [b=0x%02X,a=0x%02X,VID=0x%04X,PID=0x%04X]", ret, libusb_error_name(ret),
              mDeviceBase == nullptr ? 0U : unsigned{mDeviceBase->GetBusNumber()},
              mDeviceBase == nullptr ? 0U : unsigned{mDeviceBase->GetDeviceAddress()},
              mDeviceBase == nullptr ? 0U : unsigned{mDeviceBase->GetVendorId()},
              mDeviceBase == nullptr ? 0U : unsigned{mDeviceBase->GetProductId()});
    ReportEvent("CAMERA_CREATE", false, "create camera fail");
  }
  // Reported after a failure too: who reads the trace expects both.
  ReportEvent("CAMERA_CREATE", true, "create camera success");
  mPolicy->ProbePolicy(nullptr, nullptr);
  return ret;
}

int VirtUDevice::CloseUsbDev() {
  VEL_DEBUG("enter\n");
  mPolicy->Release();
  const int ret = mIo->CloseUsbDev();
  if (ret != 0) {
    VEL_ERROR("CloseUsbDev error:[b=0x%02X,a=0x%02X,VID=0x%04X,PID=0x%04X]",
              mDeviceBase == nullptr ? 0U : unsigned{mDeviceBase->GetBusNumber()},
              mDeviceBase == nullptr ? 0U : unsigned{mDeviceBase->GetDeviceAddress()},
              mDeviceBase == nullptr ? 0U : unsigned{mDeviceBase->GetVendorId()},
              mDeviceBase == nullptr ? 0U : unsigned{mDeviceBase->GetProductId()});
  }
  VEL_DEBUG("exit\n");
  return ret;
}

int VirtUDevice::ResetDevice() {
  VEL_DEBUG("enter\n");
  const int ret = mIo->ResetDevice();
  if (ret < 0) {
    VEL_ERROR("libusb_reset_device: error %s [%d]", libusb_error_name(ret), ret);
  }
  VEL_DEBUG("exit\n");
  return ret;
}

int VirtUDevice::AttachKernelDriver() {
  VEL_DEBUG("enter\n");
  const int ret = mIo->AttachKernelDriver();
  VEL_DEBUG("exit\n");
  return ret;
}

libusb_device_descriptor* VirtUDevice::GetDevDescript() {
  libusb_device_descriptor* desc = mIo->GetDeviceDesc();
  if (desc == nullptr) {
    VEL_ERROR("Get device descriptor failed");
    return nullptr;
  }
  // An odd pairing of two tests, but remote sides count on 64 for nearly every device.
  if (!(desc->bMaxPacketSize0 == 8 && desc->bNumConfigurations == 0x40)) {
    VEL_DEBUG("bMaxPacketSize0[%d]-[64]", int{desc->bMaxPacketSize0});
    desc->bMaxPacketSize0 = 64;
  }
  return desc;
}

libusb_config_descriptor* VirtUDevice::GetDeviceconfig() {
  libusb_config_descriptor* config = mIo->GetConfigDesc();
  if (config == nullptr) {
    VEL_ERROR("GetDeviceconfig: error");
  }
  return config;
}

int VirtUDevice::SetInterfaceAltSetting(std::uint32_t interfaceNumber, std::uint32_t altSetting) {
  mPolicy->SetInterface(interfaceNumber, altSetting);
  const int ret = mIo->SetInterfaceAltSetting(static_cast<int>(interfaceNumber), static_cast<int>(altSetting));
  mPolicy->SetInterfacePost(interfaceNumber, altSetting);
  const bool streaming = ret == 0 && altSetting != 0;
  mAwaitsFirstCameraData.store(streaming, std::memory_order_relaxed);
  if (streaming) {
    ReportEvent("DEVICE_OPEN", true, "streamon camera success");
  }
  return ret;
}

int VirtUDevice::CancelTransfer(std::uint32_t streamId) {
  return mPolicy->CancelTransfer(streamId) ? LIBUSB_SUCCESS : mIo->CancelTransfer(streamId);
}

int VirtUDevice::SetRedirPolicy(const char* policyText) {
  return mPolicy->SetPolicy(policyText);
}

int VirtUDevice::GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer,
                                     std::uint32_t length) {
  const std::uint32_t room = std::min(length, kStringBufferBytes);
  const int ret = mIo->GetStringDescriptor(index, langId, buffer, static_cast<int>(room));
  return std::min(ret, static_cast<int>(room));
}

int VirtUDevice::ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                                 std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength,
                                 std::uint32_t timeout) {
  if (mPolicy->PeekControlTransfer(bmRequestType, bRequest, wValue, wIndex, data, wLength) == 1) {
    const int ret = mPolicy->GetVirtControlData(bmRequestType, bRequest, wValue, wIndex, data, wLength);
    if (ret < 0) {
      VEL_ERROR("GetVirtControlData failed, ret[%d]", ret);
    }
    return ret;
  }
  const int ret = mIo->ControlTransfer(bmRequestType, bRequest, wValue, wIndex, data, wLength, timeout);
  if (ret < 0) {
    VEL_ERROR("ControlTransfer error ret[%d]", ret);
    return ret;
  }
  mPolicy->PeekControlTransferRet(bmRequestType, bRequest, wValue, wIndex, data, wLength);
  return std::min(ret, int{wLength});
}

XferPtr VirtUDevice::NewXfer(std::uint32_t xferType, std::uint8_t epAddr, std::uint32_t streamId, std::uint32_t length,
                             std::uint8_t* data, void* reqCtx) {
  auto* const context = static_cast<TransferContext*>(reqCtx);
  XferPtr info = context != nullptr && context->record != nullptr ? XferPtr(context->record) : MakeXfer();
  if (info == nullptr) {
    VEL_ERROR("no memory for transfer streamid[%u]", streamId);
    if (context != nullptr) {
      RefuseTransfer(xferType, *context);
    }
    std::free(data);
    std::free(reqCtx);
    return nullptr;
  }
  info->xferType = xferType;
  info->streamId = streamId;
  info->localXferId = streamId;
  info->epAddr = epAddr;
  info->reqBuf = reqCtx;
  info->length = length;
  info->data = data;
  info->callback = this;
  return info;
}

int VirtUDevice::SubmitBulkLike(std::uint32_t xferType, std::uint8_t epAddr, std::uint32_t streamId,
                                std::uint32_t length, std::uint8_t* data, void* reqCtx) {
  XferPtr info = NewXfer(xferType, epAddr, streamId, length, data, reqCtx);
  if (info == nullptr) {
    return LIBUSB_ERROR_NO_MEM;
  }
  return xferType == kXferBulk ? mIo->BulkTransfer(info.release()) : mIo->InterruptTransfer(info.release());
}

int VirtUDevice::BulkTransfer(std::uint8_t epAddr, std::uint32_t streamId, std::uint32_t length, std::uint8_t* data,
                              void* reqCtx) {
  const int ret = SubmitBulkLike(kXferBulk, epAddr, streamId, length, data, reqCtx);
  if (ret < 0) {
    VEL_ERROR("bulkTransfer error ret[%d] len[%u]", ret, length);
  } else {
    VEL_DEBUG("BulkTransfer finished ret[%d]", ret);
  }
  return ret;
}

int VirtUDevice::InterruptTransfer(std::uint8_t epAddr, std::uint32_t streamId, std::uint32_t length,
                                   std::uint8_t* data, void* reqCtx) {
  const int ret = SubmitBulkLike(kXferInterrupt, epAddr, streamId, length, data, reqCtx);
  if (ret < 0) {
    VEL_ERROR("Error submitting interrupt transfer, %d", ret);
  } else {
    VEL_DEBUG("InterruptTransfer finished ret[%d]", ret);
  }
  return ret;
}

int VirtUDevice::IsoTransfer(std::uint8_t epAddr, std::uint32_t streamId, std::uint32_t isoPacketNum,
                             std::uint32_t length, std::uint8_t* data, void* reqCtx) {
  VEL_DEBUG("IsoTransfer streamid[%x] epaddr[%x] len[%d]", streamId, unsigned{epAddr}, static_cast<int>(length));
  XferPtr info = NewXfer(kXferIsochronous, epAddr, streamId, length, data, reqCtx);
  if (info == nullptr) {
    return LIBUSB_ERROR_NO_MEM;
  }
  info->isoPacketNum = isoPacketNum;
  const std::uint64_t table = IsoTableSize(isoPacketNum);
  if (!mEmulated && table > 0 && table <= length) {
    info->isoDescCopy = std::malloc(table);
    if (info->isoDescCopy != nullptr) {
      info->isoDescLen = static_cast<std::uint32_t>(table);
      std::memcpy(info->isoDescCopy, data, table);
    }
  }
  const int ret =
      mPolicy->IsPolicyEndpoint(epAddr) ? mPolicy->DoTransfer(info.release()) : mIo->IsochTransfer(info.release());
  if (ret < 0) {
    VEL_ERROR("Error submitting iso transfer, %d", ret);
    return ret;
  }
  return 0;
}

void VirtUDevice::RefuseTransfer(std::uint32_t xferType, const TransferContext& context) noexcept {
  std::uint8_t none = 0;  // Empty and not null: a record without data would not be given back.
  _UsbIoXferInfo info{};
  info.xferType = xferType;
  info.streamId = context.streamId;
  info.status = kXferError;
  info.data = &none;
  Complete(info, context);
}

void VirtUDevice::UsbIoXferCb(_UsbIoXferInfo* info) noexcept {
  if (info == nullptr) {
    VEL_ERROR("Invalid CallbackArgs!");
    return;
  }
  const XferPtr owned(info);
  if (info->reqBuf != nullptr) {
    Complete(*info, *static_cast<const TransferContext*>(info->reqBuf));
  }
}

void VirtUDevice::Complete(_UsbIoXferInfo& info, const TransferContext& context) noexcept {
  try {
    if (context.deviceBase == nullptr) {
      VEL_DEBUG("nobody to answer");
    } else if (info.data != nullptr) {
      if (info.status != kXferCompleted && (info.reserved & kXferHoldsPart) == 0 && context.dataGiven < info.length) {
        // An untouched block goes back: what the request did not bring reads as zeros.
        std::memset(info.data + context.dataGiven, 0, info.length - context.dataGiven);
      }
      GivebackPackToRemote(info, context);
    } else if (context.deviceBase->AnswersFailedTransfers()) {
      info.length = 0;
      info.isoPacketNum = 0;
      GivebackPackToRemote(info, context);
    }
  } catch (const std::exception& error) {
    VEL_ERROR("no reply for transfer streamid[%u]: %s", info.streamId, error.what());
  }
  ReturnBudget(context);
}

void VirtUDevice::ReturnBudget(const TransferContext& context) {
  if (context.reserved > 0) {
    mBudget.ReturnTransfer(context.reserved);
  }
}

void VirtUDevice::GivebackPackToRemote(_UsbIoXferInfo& info, const TransferContext& context) {
  const bool carriesData =
      info.data != nullptr && info.length > 0 && (IsIn(info) || !context.deviceBase->WantsLeanReplies());
  const std::uint32_t capacity = (carriesData ? info.length : 0) + kReplyRoom;
  VEL_DEBUG("Give back pack total len: %d, streamId[%d], tranfer type[%d]", static_cast<int>(capacity),
            static_cast<int>(info.streamId), static_cast<int>(info.xferType));
  if (info.length > 0 && mAwaitsFirstCameraData.load(std::memory_order_relaxed) &&
      mAwaitsFirstCameraData.exchange(false, std::memory_order_relaxed)) {
    ReportEvent("CAMERA_DATA", true, "get camera data success");
  }
  auto reply = carriesData ? TakeReplyPacket(info, capacity) : nullptr;
  const bool inPlace = reply != nullptr;
  if (!inPlace) {
    reply = VelPacket::TryMake(capacity, kMostReplyFields + (carriesData ? info.length : 0));
  }
  if (reply == nullptr) {
    // What the data would have taken is more than there is: the transfer has failed then.
    VEL_ERROR("no memory for a reply of %u bytes", capacity);
    info.status = kXferError;
    info.length = 0;
    info.isoPacketNum = 0;
    reply = VelPacket::TryMake(kReplyRoom, kMostReplyFields);
    if (reply == nullptr) {
      throw std::bad_alloc();
    }
  }
  const std::uint16_t command = transfer_type_to_proto_type(static_cast<std::uint8_t>(info.xferType));
  reply->InitHeader(context.deviceBase->TakeReplyReqId(command, info.streamId), command, context.devId);
  reply->Append(&info.streamId, sizeof info.streamId);
  reply->Append(&info.status, sizeof info.status);
  if (info.xferType == kXferIsochronous) {
    reply->Append(&info.isoPacketNum, sizeof info.isoPacketNum);
    mPingClock.Sent(info.streamId);
  }
  if (inPlace) {
    reply->AppendInPlace(info.length);
  } else if (carriesData && info.length > 0) {
    reply->Append(info.data, info.length);
  }
  context.deviceBase->Send(std::move(reply), VelDeviceBase::kWaitUnbounded);
}

std::uint16_t VirtUDevice::transfer_type_to_proto_type(std::uint8_t xferType) {
  switch (xferType) {
    case kXferControl:
      return ReplyCode(Command::kControlTransfer);
    case kXferIsochronous:
      return ReplyCode(Command::kIsochTransfer);
    case kXferBulk:
      return ReplyCode(Command::kBulkTransfer);
    case kXferInterrupt:
      return ReplyCode(Command::kInterruptTransfer);
    default:
      VEL_ERROR("unsupport Transfer type[%d]", int{xferType});
      return 0xFFFF;
  }
}

void VirtUDevice::Ping(std::uint32_t streamId, std::uint64_t timestamp) {
  if (const auto elapsed = mPingClock.Arrived(streamId)) {
    VEL_DEBUG("[UVC tuning] streamid = %u reply to ping = %lld us, remote timestamp = %llu", streamId,
              static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(*elapsed).count()),
              static_cast<unsigned long long>(timestamp));
  }
}

void VirtUDevice::ReportEvent(const char* name, bool success, const char* message) noexcept {
  if (mDeviceBase == nullptr || !mEmulated) {
    return;
  }
  std::array<char, 64> event{};
  static_cast<void>(std::snprintf(event.data(), event.size(), "LOCAL_%s", name));
  const std::array attributes = {
      VelTraceAttribute{"status", success ? "success" : "error"},
      VelTraceAttribute{"message", message},
      VelTraceAttribute{"success", success ? "true" : "false"},
  };
  try {
    mDeviceBase->Trace(VelTracer::GetInstance().NewSpanId(), event.data(), attributes.data(), attributes.size());
  } catch (const std::exception& error) {  // A transfer is given back all the same.
    VEL_ERROR("%s is not reported: %s", event.data(), error.what());
  }
}

}  // namespace vel
