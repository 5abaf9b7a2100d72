#include "io/UsbIoXferInfo.h"

#include <cstdlib>

namespace vel {

void ReplaceXferData(_UsbIoXferInfo& info, std::uint8_t* data, std::uint32_t length) {
  std::free(std::exchange(info.data, data));
  info.length = length;
}

void CompleteXfer(_UsbIoXferInfo* info) {
  if (info->callback == nullptr) {
    FreeXfer(info);
    return;
  }
  info->callback->UsbIoXferCb(info);
}

void FailXfer(_UsbIoXferInfo* info, std::int32_t status) {
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
