#include "io/DummyUsbIo/DummyUvcIo.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <utility>

#include "base/VelLog.h"
#include "io/DummyUsbIo/ICameraFactory.h"
#include "io/DummyUsbIo/UvcConfigBuilder.h"

namespace vel {
namespace {

constexpr std::uint32_t kMjpegCapability = 1;
constexpr std::uint8_t kUncompressedFrame = 5;  // VS_FRAME_UNCOMPRESSED (UVC 1.1, table A-6)
constexpr std::uint8_t kStandardIn = 0x80;
constexpr std::uint8_t kGetDescriptor = 6;

// USB 2.00, miscellaneous class with interface association; vendor and product are the constructor's.
constexpr std::array<std::uint8_t, LIBUSB_DT_DEVICE_SIZE> kDeviceDesc = {
    0x12, 0x01, 0x00, 0x02, 0xEF, 0x02, 0x01, 0x40, 0x00, 0x00, 0x00, 0x00, 0x02, 0x27, 0x01, 0x01, 0x00, 0x01,
};

constexpr std::array<std::uint8_t, 4> kLanguages = {0x04, 0x03, 0x09, 0x04};

constexpr std::array<std::uint8_t, 34> kProductString = {0x22, 0x03, 'O', 0, 's', 0, 'k', 0, 'e', 0, 'l', 0,
                                                         'o',  0,    ' ', 0, 'C', 0, 'a', 0, 'm', 0, 'e', 0,
                                                         'r',  0,    'a', 0, ' ', 0, '#', 0, '0', 0};

bool IsRaw(const _CameraParam& param) {
  return param.pixelFormat == CAM_FORMAT_RAW || param.pixelFormat == CAM_FORMAT_YUYV;
}

bool IsMjpeg(const _CameraParam& param) {
  return param.pixelFormat == CAM_FORMAT_MJPEG;
}

unsigned ByteAt(const _UsbIoXferInfo& info, std::uint32_t i) {
  return info.data != nullptr && i < info.length ? info.data[i] : 0U;
}

}  // namespace

DummyUvcIo::DummyUvcIo(std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid, std::uint16_t pid,
                       std::string args)
    : mBusNumber(busNumber),
      mDeviceAddress(deviceAddress),
      mVendorId(vid),
      mProductId(pid),
      mCameraId(static_cast<std::uint8_t>((busNumber & 0x7FU) >> 4U)),
      mArgs(std::move(args)),
      mMjpegForVM(IsSupportMjpegForVM(vid, pid)),
      mCustomDevice(false),
      mCamera(ICameraFactory::CreateCamera(IsLocalCamera() ? kCameraLocal : kCameraSynthetic)),
      mSource(mCamera.get()) {
  if (IsLocalCamera()) {
    VEL_DEBUG("Dummy UVC use real video data, sourc cameraID[%d]", int{mCameraId});
  } else {
    VEL_DEBUG("Dummy UVC use dummy video data");
  }
}

DummyUvcIo::~DummyUvcIo() {
  {
    const MutexLock lock(mMutex);
    CloseSource();
    mCamera.reset();
  }
  mStreamContext.Close();
}

bool DummyUvcIo::IsLocalCamera() const {
  return mDeviceAddress == 0x80 || mDeviceAddress == 0x81;
}

bool DummyUvcIo::IsSupportMjpegForVM(std::uint16_t /*vid*/, std::uint16_t /*pid*/) {
  return false;
}

bool DummyUvcIo::IsCustomDevice(std::uint16_t /*vid*/, std::uint16_t /*pid*/, std::uint32_t& /*type*/) {
  return false;
}

void DummyUvcIo::Init() {
  VEL_DEBUG("");
}

std::uint32_t DummyUvcIo::GetIoCapability() {
  if (mSourceHasMjpeg) {
    mIoCapability |= kMjpegCapability;
  }
  return mIoCapability;
}

int DummyUvcIo::OpenUsbDev() {
  VEL_DEBUG("");
  const MutexLock lock(mMutex);
  if (mCamera == nullptr || mOpened) {
    return 0;
  }
  const int result = mCamera->Open(mArgs);
  if (result < 0) {
    VEL_ERROR("open camera failed, ret[%d]", result);
    return -1;
  }
  if (ReadCamParamList() < 0) {
    mCamera->Close();
    return -1;
  }
  CreateUvcDevice();
  mOpened = true;
  mStreamContext.Open();
  return 0;
}

void DummyUvcIo::CancelOpen() {
  if (mSource != nullptr) {
    mSource->CancelOpen();
  }
}

int DummyUvcIo::ReadCamParamList() {
  _CameraParam* list = nullptr;
  int size = 0;
  int result = mCamera->GetParamList(&list, &size);
  // The synthetic source gives the array away; the capture library keeps its own.
  const std::unique_ptr<_CameraParam[]> owned(IsLocalCamera() ? nullptr : list);
  if (result < 0) {
    VEL_ERROR("get param list failed, ret[%d], size[%d]", result, size);
    return -1;
  }
  result = ParseCamParamList(list, size);
  if (result < 0) {
    VEL_ERROR("Can not find any supported formats, ret[%d], size[%d]", result, size);
  }
  return result;
}

int DummyUvcIo::ParseCamParamList(const _CameraParam* list, int size) {
  VEL_DEBUG("size[%d]", size);
  const std::span<const _CameraParam> params(list, list == nullptr ? 0 : static_cast<std::size_t>(std::max(size, 0)));
  for (std::size_t i = 0; i < params.size(); ++i) {
    VEL_DEBUG("Camera source param[%d]: width[%d], height[%d], pixelFormat[%d]", static_cast<int>(i),
              static_cast<int>(params[i].width), static_cast<int>(params[i].height),
              static_cast<int>(params[i].pixelFormat));
  }
  mSourceHasMjpeg = std::any_of(params.begin(), params.end(), &IsMjpeg);
  mIoCapability = 0;
  mSupportedParams.clear();
  std::copy_if(params.begin(), params.end(), std::back_inserter(mSupportedParams), mSourceHasMjpeg ? &IsMjpeg : &IsRaw);
  if (mSupportedParams.empty()) {
    VEL_ERROR("Can not find any supported formats");
    return -1;
  }
  if (mSupportedParams.size() > UvcConfigBuilder::kMaxSizes) {
    VEL_WARN("only the first %d of %d formats are offered", static_cast<int>(UvcConfigBuilder::kMaxSizes),
             static_cast<int>(mSupportedParams.size()));
    mSupportedParams.resize(UvcConfigBuilder::kMaxSizes);
  }
  return 0;
}

void DummyUvcIo::CreateUvcDevice() {
  libusb_device_descriptor device = ReadDeviceDesc(kDeviceDesc);
  device.idVendor = mVendorId;
  device.idProduct = mProductId;
  UvcConfigBuilder builder(mMjpegForVM);
  builder.CreateConfigHeader();
  VEL_DEBUG("config total length[%d]", static_cast<int>(builder.TotalLength()));
  builder.CreateCtrlInterface();
  VEL_DEBUG("config total length[%d]", static_cast<int>(builder.TotalLength()));
  builder.CreateVsInterface(mSupportedParams);
  VEL_DEBUG("config total length[%d]", static_cast<int>(builder.TotalLength()));
  mFormerDescriptors.reset();
  mDescriptors = std::make_unique<Descriptors>(device, builder.Take());
  mControls.InitCtrlInfo(mDescriptors->config.Get());
}

void DummyUvcIo::DestroyUvcDevice() {
  mFormerDescriptors = std::move(mDescriptors);
}

int DummyUvcIo::CloseUsbDev() {
  {
    const MutexLock lock(mMutex);
    CloseSource();
  }
  mStreamContext.Close();
  return 0;
}

void DummyUvcIo::CloseSource() {
  if (mOpened) {
    mCamera->StreamOff();
    mCamera->Close();
    DestroyUvcDevice();
    mOpened = false;
  }
  mCaptureCallback.Unregister();
}

libusb_device_descriptor* DummyUvcIo::GetDeviceDesc() {
  const MutexLock lock(mMutex);
  return mDescriptors == nullptr ? nullptr : &mDescriptors->device;
}

libusb_config_descriptor* DummyUvcIo::GetConfigDesc() {
  const MutexLock lock(mMutex);
  return mDescriptors == nullptr ? nullptr : mDescriptors->config.Get();
}

int DummyUvcIo::GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer, int length) {
  const int copied = index == 0 ? CopyAnswer(kLanguages, buffer, length) : CopyAnswer(kProductString, buffer, length);
  VEL_DEBUG("strIndex[%d], langid[0x%x], len[%d], actlen[%d]", int{index}, unsigned{langId}, length, copied);
  return copied;
}

int DummyUvcIo::ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                                std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength,
                                std::uint32_t timeout) {
  VEL_DEBUG("wValue[0x%x], wIndex[0x%x], len[%d]", unsigned{wValue}, unsigned{wIndex}, int{wLength});
  const int answered = mControls.UvcParseCtrlCmd(bmRequestType, bRequest, wValue, wIndex, data, wLength, timeout);
  if (bmRequestType == kStandardIn && bRequest == kGetDescriptor && (wValue >> 8U) == LIBUSB_DT_STRING) {
    return GetStringDescriptor(static_cast<std::uint8_t>(wValue), wIndex, data, wLength);
  }
  return answered;
}

int DummyUvcIo::SetInterfaceAltSetting(int interfaceNumber, int altSetting) {
  VEL_DEBUG("interface num[%d], alternate_setting[%d]", interfaceNumber, altSetting);
  const MutexLock lock(mMutex);
  if (altSetting != 0) {
    StartSource();
  } else {
    StopSource();
  }
  return 0;
}

void DummyUvcIo::StartSource() {
  const auto frame = mControls.CurrentFrame();
  if (!mOpened || !frame) {
    VEL_ERROR("Stream On failed ret[%d]", LIBUSB_ERROR_NOT_FOUND);
    return;
  }
  const bool mjpeg = frame->bDescriptorSubtype != kUncompressedFrame || mSourceHasMjpeg;
  _CameraParam param{.width = frame->wWidth,
                     .height = frame->wHeight,
                     .pixelFormat = mjpeg ? CAM_FORMAT_MJPEG : CAM_FORMAT_YUYV,
                     .reserved = 0};
  VEL_DEBUG("Camera stream on, width: %d, height: %d, type: %d", int{frame->wWidth}, int{frame->wHeight},
            int{frame->bDescriptorSubtype});
  int result = mCamera->SetParam(&param);
  if (result < 0) {
    VEL_ERROR("SetParam failed ret[%d]", result);
  }
  result = mCamera->StreamOn();
  if (result < 0) {
    VEL_ERROR("Stream On failed ret[%d]", result);
  }
}

void DummyUvcIo::StopSource() {
  VEL_DEBUG("Camera stream off");
  const int result = mCamera == nullptr ? -1 : mCamera->StreamOff();
  if (result < 0) {
    VEL_ERROR("StreamOff ret[%d]", result);
  }
}

int DummyUvcIo::CancelTransfer(std::uint32_t localXferId) {
  mStreamContext.Cancel(localXferId);
  return 0;  // Also when it does not wait: no request of the camera fails.
}

int DummyUvcIo::BulkTransfer(_UsbIoXferInfo* info) {
  const XferGuard completesAsRefused(info);
  return 0;
}

int DummyUvcIo::InterruptTransfer(_UsbIoXferInfo* info) {
  return BulkTransfer(info);
}

int DummyUvcIo::IsochTransfer(_UsbIoXferInfo* info) {
  VEL_DEBUG("");
  if (info != nullptr) {
    info->status = kXferCompleted;
    info->owner = this;
    VEL_DEBUG("xferInfo data len: %d, data: %x, %x, %x, %x", static_cast<int>(info->length), ByteAt(*info, 0),
              ByteAt(*info, 1), ByteAt(*info, 2), ByteAt(*info, 3));
  }
  const auto frame = mControls.CurrentFrame();
  if (!mStreamContext.SetPending(info, frame ? frame->wWidth : 0, frame ? frame->wHeight : 0)) {
    return 0;
  }
  // From here on the record may be gone.
  mCaptureCallback.Register();
  if (info != nullptr && mSource != nullptr) {
    mSource->SetStreamCallback(this, info);  // The way of the synthetic source.
  }
  return 0;
}

void DummyUvcIo::CameraStreamCallbackQt(std::uint8_t* data, std::uint32_t length, void* context) {
  auto& stream = *static_cast<UvcStreamContext*>(context);
  const UvcStreamContext::FrameSize size = stream.Size();
  VEL_DEBUG("Camera frame data Len[%d] width[%d] height[%d]", static_cast<int>(length), size.width, size.height);
  stream.Deliver({data, length});
}

void DummyUvcIo::CameraStreamCb(std::uint8_t* data, std::uint32_t length, void* context) {
  VEL_DEBUG("Camera frame data Len[%d]", static_cast<int>(length));
  mStreamContext.Deliver({data, length}, context);
}

}  // namespace vel
