#include "cmd/stream/GuestCamera.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "cmd/console/Format.h"
#include "cmd/describe/Enumeration.h"

namespace vel {
namespace {

// Requests and selectors of a streaming interface (UVC 1.5, tables ).
constexpr std::uint8_t kSetCur = 0x01;
constexpr std::uint8_t kGetCur = 0x81;
constexpr std::uint8_t kProbe = 1;
constexpr std::uint8_t kCommit = 2;
constexpr std::uint16_t kKeepInterval = 1;  // bmHint: dwFrameInterval stays as asked.

// Fields of the probe and commit controls (UVC 1.5, table 4-75).
constexpr std::size_t kFormatIndex = 2;
constexpr std::size_t kFrameIndex = 3;
constexpr std::size_t kFrameInterval = 4;
constexpr std::size_t kMaxVideoFrameSize = 18;
constexpr std::size_t kMaxPayloadTransferSize = 22;
constexpr std::size_t kShortestControl = 26;

// Any text has raw pictures transcoded.
constexpr std::string_view kPolicy = "{\"video\":\"h264\"}";

std::uint32_t U32(std::span<const std::uint8_t> control, std::size_t offset) {
  return control[offset] | (std::uint32_t{control[offset + 1]} << 8U) | (std::uint32_t{control[offset + 2]} << 16U) |
         (std::uint32_t{control[offset + 3]} << 24U);
}

void PutU32(std::span<std::uint8_t> control, std::size_t offset, std::uint32_t value) {
  for (std::size_t i = 0; i < 4; ++i) {
    control[offset + i] = static_cast<std::uint8_t>(value >> (8U * i));
  }
}

std::span<const std::uint8_t> AsBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

void Require(std::int32_t result, const char* what) {
  if (result < 0) {
    throw RemoteError(Format("the camera %s: %s", what, libusb_strerror(result)));
  }
}

// The smallest setting that carries the payloads is the best one, or the largest where none says that it does.
bool IsBetter(const CameraSetting& one, const CameraSetting& other, std::uint32_t payloadBytes) {
  const bool oneCarries = one.bytesPerInterval >= payloadBytes;
  const bool otherCarries = other.bytesPerInterval >= payloadBytes;
  if (oneCarries != otherCarries) {
    return oneCarries;
  }
  return oneCarries ? one.bytesPerInterval < other.bytesPerInterval : one.bytesPerInterval > other.bytesPerInterval;
}

}  // namespace

GuestCamera::GuestCamera(RemoteDevice& remote, bool transcode) : mRemote(remote), mTranscode(transcode) {
  if (transcode) {
    Require(mRemote.SetRedirPolicy(AsBytes(kPolicy)), "takes no policy");
  }
  const Enumeration found = Enumerate(mRemote);
  const auto model = found.config ? ReadCameraModel(*found.config) : std::nullopt;
  if (!model || model->modes.empty()) {
    throw RemoteError("the device is no camera that streams (\"virtusb describe\" shows what it is)");
  }
  mModel = *model;
  const auto product = found.strings.find(found.device.iProduct);
  mName = Format("%s%s%04x:%04x", product == found.strings.end() ? "" : product->second.c_str(),
                 product == found.strings.end() ? "" : ", ", unsigned{found.device.idVendor},
                 unsigned{found.device.idProduct});
  mRemote.Status(Command::kDetachKernelDriver);  // Where there is none it fails, and claiming does not.
  Require(mRemote.Status(Command::kClaimAllInterface), "cannot be claimed");
}

const CameraMode& GuestCamera::Choose(const std::optional<PictureSize>& size) const {
  const CameraMode* chosen = nullptr;
  std::vector<std::string> sizes;
  for (const CameraMode& mode : mModel.modes) {
    const PictureSize offered{mode.width, mode.height};
    if (std::ranges::find(sizes, offered.Text()) == sizes.end()) {
      sizes.push_back(offered.Text());
    }
    if (size ? *size != offered : !mode.isDefault) {
      continue;
    }
    const bool better = mTranscode && mode.format == PictureFormat::kYuyv;
    if (chosen == nullptr || (better && chosen->format != PictureFormat::kYuyv)) {
      chosen = &mode;
    }
  }
  if (chosen != nullptr) {
    return *chosen;
  }
  if (!size) {
    return mModel.modes.front();
  }
  std::string list;
  for (const std::string& each : sizes) {
    list += (list.empty() ? "" : ", ") + each;
  }
  throw std::runtime_error("the camera has no pictures of " + size->Text() + ": give one of " + list);
}

std::vector<std::uint8_t> GuestCamera::Control(std::uint8_t request, std::uint8_t selector,
                                               std::span<const std::uint8_t> data) {
  const ControlSetup setup{.bmRequestType = static_cast<std::uint8_t>(request == kGetCur ? 0xA1 : 0x21),
                           .bRequest = request,
                           .wValue = static_cast<std::uint16_t>(selector << 8U),
                           .wIndex = mModel.interfaceNumber,
                           .wLength = mModel.controlLength};
  RemoteDevice::Result result = mRemote.ControlTransfer(setup, data);
  Require(result.value, selector == kProbe ? "refuses to negotiate" : "refuses what it agreed to");
  return std::move(result.data);
}

GuestCamera::Stream GuestCamera::Negotiate(const std::optional<PictureSize>& size) {
  const CameraMode& mode = Choose(size);
  std::vector<std::uint8_t> asked(mModel.controlLength);
  asked[0] = kKeepInterval;
  asked[kFormatIndex] = mode.formatIndex;
  asked[kFrameIndex] = mode.frameIndex;
  PutU32(asked, kFrameInterval, mode.interval);
  Control(kSetCur, kProbe, asked);
  const std::vector<std::uint8_t> agreed = Control(kGetCur, kProbe, {});
  if (agreed.size() < kShortestControl || agreed[kFormatIndex] != mode.formatIndex ||
      agreed[kFrameIndex] != mode.frameIndex) {
    throw RemoteError("the camera does not agree to " + PictureSize{mode.width, mode.height}.Text() +
                      ", which it offers");
  }
  Control(kSetCur, kCommit, agreed);
  return {.mode = mode,
          .interval = U32(agreed, kFrameInterval),
          .pictureBytes = U32(agreed, kMaxVideoFrameSize),
          .payloadBytes = U32(agreed, kMaxPayloadTransferSize)};
}

void GuestCamera::Start(const Stream& stream) {
  const auto chosen =
      std::ranges::min_element(mModel.settings, [&stream](const CameraSetting& one, const CameraSetting& other) {
        return IsBetter(one, other, stream.payloadBytes);
      });
  if (chosen != mModel.settings.end()) {
    Require(mRemote.SetInterfaceAltSetting(mModel.interfaceNumber, chosen->number), "does not start");
    return;
  }
  // A camera that streams over bulk has no such setting, and its refusal says nothing: the request is what tells the
  // module to start.
  mRemote.SetInterfaceAltSetting(mModel.interfaceNumber, 1);
}

void GuestCamera::Stop() {
  mRemote.SetInterfaceAltSetting(mModel.interfaceNumber, 0);
}

GuestCamera::Presence GuestCamera::Ask() {
  constexpr ControlSetup kGetStatus{.bmRequestType = 0x80, .bRequest = 0, .wValue = 0, .wIndex = 0, .wLength = 2};
  const std::int32_t answer = mRemote.ControlTransfer(kGetStatus).value;
  return answer == LIBUSB_ERROR_NO_DEVICE ? Presence::kGone
         : answer == LIBUSB_ERROR_TIMEOUT ? Presence::kSilent
                                          : Presence::kThere;
}

void GuestCamera::GiveBack() {
  mRemote.Status(Command::kReleaseAllInterface);
  mRemote.Status(Command::kAttachKernelDriver);
  mRemote.Status(Command::kCloseUsbDev);
}

}  // namespace vel
