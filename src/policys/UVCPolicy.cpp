#include "policys/UVCPolicy.h"

#include <fstream>
#include <iostream>
#include <string>

#include "base/VelLog.h"
#include "policys/UVCUtil.h"

namespace vel {

UVCPolicy::UVCPolicy(IUsbIo* io, std::uint32_t heightLimit, std::int8_t /*unused*/, std::uint8_t transcode,
                     bool headerLengthCounts, bool newestPictures)
    : mIo(*io),
      mHeightLimit(heightLimit),
      mTranscode(transcode),
      mHeaderLengthCounts(headerLengthCounts),
      mNewestPictures(newestPictures) {}

UVCPolicy::~UVCPolicy() {
  VEL_DEBUG("~UVCPolicy");
}

void UVCPolicy::ParseDescriptors(const libusb_config_descriptor* config) {
  mNegotiation.ParseDescriptors(config);
}

void UVCPolicy::ParseDescriptors(std::span<const std::uint8_t> block) {
  mNegotiation.ParseDescriptors(block);
}

std::optional<std::uint32_t> UVCPolicy::RewriteDescriptors(std::span<std::uint8_t> block) const {
  if (mHeightLimit == 0) {
    return std::nullopt;
  }
  const std::uint32_t length = UVCUtil::FilterFrameDescriptors(block, mHeightLimit);
  return length == block.size() ? std::nullopt : std::optional(length);
}

int UVCPolicy::SetInterface(std::uint32_t /*interfaceNumber*/, std::uint32_t /*altSetting*/) {
  return 0;
}

int UVCPolicy::SetInterfacePost(std::uint32_t interfaceNumber, std::uint32_t altSetting) {
  const auto number = static_cast<int>(interfaceNumber);
  const auto setting = static_cast<int>(altSetting);
  if (altSetting != 0) {
    VEL_DEBUG("start stream, ifnum:%d, setting:%d\n", number, setting);
    StartStream(altSetting);
  } else {
    VEL_DEBUG("stop stream, ifnum:%d, setting:%d\n", number, setting);
    StopStream();
  }
  return 0;
}

int UVCPolicy::PeekClassControlTransfer(const UVCClassRequest& request) {
  mNegotiation.SeeRequest(request);
  return 0;
}

int UVCPolicy::PeekClassControlTransferRet(const UVCClassRequest& request) {
  mNegotiation.SeeAnswer(request);
  return 0;
}

int UVCPolicy::DoTransfer(_UsbIoXferInfo* info) {
  VEL_DEBUG("ENTER");
  const std::shared_ptr<UVCStream> stream = CurrentStream();
  return stream != nullptr && stream->Answer(info) ? 0 : mIo.IsochTransfer(info);
}

bool UVCPolicy::CancelTransfer(std::uint32_t localXferId) {
  const std::shared_ptr<UVCStream> stream = CurrentStream();
  return stream != nullptr && stream->Cancel(localXferId);
}

void UVCPolicy::Release() {
  VEL_DEBUG("Release");
  StopStream();
}

UVCStream::Format UVCPolicy::StreamFormat() const {
  const UVCFrameDesc& frame = *mNegotiation.Frame();
  UVCStream::Format format{
      .width = frame.wWidth, .height = frame.wHeight, .in = UVC_FRAME_TYPE_MJPEG, .out = UVC_FRAME_TYPE_MJPEG};
  // The encoder takes YUYV: other uncompressed formats go through as they are.
  if (mNegotiation.IsYuyv() && mTranscode != 0) {
    const bool jpegSource = mIo.GetIoType() == kIoTypeEmulated && mIo.GetIoCapability() == 1;
    format.in = jpegSource ? UVC_FRAME_TYPE_MJPEG : UVC_FRAME_TYPE_YUYV;
    format.out = mNegotiation.IsH265() ? UVC_FRAME_TYPE_H265 : UVC_FRAME_TYPE_H264;
  }
  return format;
}

UVCCameraReader::Source UVCPolicy::StreamSource(std::uint32_t altSetting) const {
  using Kind = UVCCameraReader::Kind;
  const UVCStreamCtrl& ctrl = mNegotiation.StreamCtrl();
  const Kind real = mNegotiation.IsOverBulk() ? Kind::kBulk : Kind::kIsochronous;
  return {.kind = mIo.GetIoType() == kIoTypeEmulated ? Kind::kWholeFrame : real,
          .endpoint = mNegotiation.Endpoint(),
          .frameSize = ctrl.dwMaxVideoFrameSize,
          .payloadSize = mNegotiation.PayloadSize(altSetting),
          .pictureSize = mNegotiation.PictureSize(),
          .headerLengthCounts = mHeaderLengthCounts,
          .newestPictures = mNewestPictures};
}

int UVCPolicy::StartStream(std::uint32_t altSetting) {
  VEL_DEBUG("StartStream");
  const MutexLock control(mControlMutex);
  EndStream();  // Of a setting selected before this one.
  const UVCCameraReader::Source source = StreamSource(altSetting);
  if (mNegotiation.Frame() == nullptr || !IsFrameSizeUsable(mNegotiation.StreamCtrl()) ||
      !UVCCameraReader::IsUsable(source)) {
    VEL_ERROR("Invalid frame type!");
    return -1;
  }
  const auto stream = std::make_shared<UVCStream>(mIo, StreamFormat(), source);
  if (!stream->Init()) {
    return -1;
  }
  {
    const MutexLock lock(mStreamMutex);
    mStream = stream;
  }
  return stream->Start();
}

void UVCPolicy::StopStream() {
  const MutexLock control(mControlMutex);
  EndStream();
}

// Calls that still have the stream find it stopped.
void UVCPolicy::EndStream() {
  std::shared_ptr<UVCStream> stream;
  {
    const MutexLock lock(mStreamMutex);
    stream.swap(mStream);
  }
  if (stream != nullptr) {
    VEL_DEBUG("StopStream");
    stream->Stop();
  }
}

std::shared_ptr<UVCStream> UVCPolicy::CurrentStream() {
  const MutexLock lock(mStreamMutex);
  return mStream;
}

int UVCPolicy::SaveFrame(const std::uint8_t* buffer, int length, int index) {
  std::ofstream file(std::to_string(index) + ".data", std::ios::binary);
  if (!file) {
    std::cout << "New file open error." << std::endl;
  }
  for (int i = 0; file && i < length; ++i) {
    file.put(static_cast<char>(buffer[i]));
  }
  return 0;
}

}  // namespace vel
