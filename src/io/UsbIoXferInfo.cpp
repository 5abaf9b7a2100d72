#include "io/UsbIoXferInfo.h"

#include <cstdlib>
#include <exception>

#include "base/VelLog.h"

namespace vel {

void ReplaceXferData(_UsbIoXferInfo& info, std::uint8_t* data, std::uint32_t length) {
  std::free(std::exchange(info.data, data));
  info.length = length;
}

void CompleteXfer(_UsbIoXferInfo* info) noexcept {
  if (info->callback == nullptr) {
    FreeXfer(info);
    return;
  }
  const std::uint32_t streamId = info->streamId;
  try {
    info->callback->UsbIoXferCb(info);
  } catch (const std::exception& error) {
    VEL_ERROR("completion of streamid[%u]: %s", streamId, error.what());
  }
}

void FailXfer(_UsbIoXferInfo* info, std::int32_t status) noexcept {
  info->status = status;
  ReplaceXferData(*info, nullptr, 0);
  CompleteXfer(info);
}

void FreeXfer(_UsbIoXferInfo* info) {
  std::free(info->data);
  std::free(info->reqBuf);
  std::free(info->isoDescCopy);
  std::free(info);
}

XferPtr MakeXfer() {
  return XferPtr(static_cast<_UsbIoXferInfo*>(std::calloc(1, sizeof(_UsbIoXferInfo))));
}

}  // namespace vel
