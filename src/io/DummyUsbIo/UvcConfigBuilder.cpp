#include "io/DummyUsbIo/UvcConfigBuilder.h"

#include <algorithm>
#include <array>
#include <utility>

#include "uvc/UvcCodes.h"

namespace vel {
namespace {

// clang-format off
constexpr std::array<std::uint8_t, 9> kConfigHeader = {
    0x09, 0x02, 0x00, 0x00, 0x02, 0x01, 0x00, 0x80, 0xFA,  // two interfaces, bus powered, 500 mA
};
constexpr std::array<std::uint8_t, 8> kInterfaceAssociation = {
    0x08, 0x0B, 0x00, 0x02, 0x0E, 0x03, 0x00, 0x01,  // interfaces 0 and 1: video interface collection
};
constexpr std::array<std::uint8_t, 7> kEndpoint = {
    0x07, 0x05, 0x81, 0x01, 0x00, 0x14, 0x01,  // isochronous IN 0x81, wMaxPacketSize 0x1400
};

// Camera terminal 1 -> processing unit 2 -> extension unit 3 -> output terminal 5.
constexpr std::array<std::uint8_t, 77> kControlBlock = {
    0x0D, 0x24, 0x01, 0x00, 0x01, 0x4D, 0x00, 0xC0, 0xE1, 0xE4, 0x00, 0x01, 0x01,  // header: 1.00, 77 bytes, 15 MHz, streaming interface 1
    0x09, 0x24, 0x03, 0x05, 0x01, 0x01, 0x00, 0x03, 0x00,  // output terminal 5: USB streaming
    0x1A, 0x24, 0x06, 0x03,  // extension unit 3
    0x8C, 0xA7, 0x29, 0x12, 0xB4, 0x47, 0x94, 0x40, 0xB0, 0xCE, 0xDB, 0x07, 0x38, 0x6F, 0xB9, 0x38,
    0x08, 0x01, 0x02, 0x01, 0x00, 0x00,
    0x12, 0x24, 0x02, 0x01, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,  // camera terminal 1
    0x0B, 0x24, 0x05, 0x02, 0x01, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,  // processing unit 2
};

// Endpoint 0x81, terminal 5, still capture method 2; a control byte for each format. Its length is written last.
constexpr std::array<std::uint8_t, 14> kInputHeader = {
    0x0E, 0x24, 0x01, 0x01, 0x00, 0x00, 0x81, 0x00, 0x05, 0x02, 0x00, 0x00, 0x01, 0x00,
};
constexpr std::array<std::uint8_t, 15> kInputHeaderOfTwo = {
    0x0F, 0x24, 0x01, 0x02, 0x00, 0x00, 0x81, 0x00, 0x05, 0x02, 0x00, 0x00, 0x01, 0x00, 0x00,
};

constexpr std::array<std::uint8_t, 11> kMjpegFormat = {
    0x0B, 0x24, 0x06, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,  // default frame 1
};
constexpr std::array<std::uint8_t, 30> kMjpegFrame = {
    0x1E, 0x24, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x30, 0x28, 0xCC, 0x08, 0x30, 0x28, 0xCC, 0x08,  // 147597360 bit/s
    0x4D, 0x62, 0x09, 0x00,  // 614989 bytes
    0x15, 0x16, 0x05, 0x00, 0x01, 0x15, 0x16, 0x05, 0x00,  // one interval: 333333
};
constexpr std::array<std::uint8_t, 10> kStillImage = {
    0x0A, 0x24, 0x03, 0x00, 0x01, 0x80, 0x02, 0xE0, 0x01, 0x00,  // 640x480
};
constexpr std::array<std::uint8_t, 6> kColorMatching = {0x06, 0x24, 0x0D, 0x01, 0x01, 0x04};

constexpr std::array<std::uint8_t, 30> kYuy2Frame = {
    0x1E, 0x24, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0xCA, 0x08, 0x00, 0x00, 0xCA, 0x08,  // 147456000 bit/s
    0x00, 0x60, 0x09, 0x00,  // 614400 bytes
    0x15, 0x16, 0x05, 0x00, 0x01, 0x15, 0x16, 0x05, 0x00,  // one interval: 333333
};
// clang-format on

constexpr std::array<std::uint8_t, 27> MakeYuy2Format() {
  std::array<std::uint8_t, 27> format = {0x1B, 0x24, kVsFormatUncompressed};
  std::ranges::copy(kGuidYuy2, format.begin() + kGuidFormatAt);
  format[21] = 16;  // bBitsPerPixel
  format[22] = 1;   // bDefaultFrameIndex
  return format;
}
constexpr std::array<std::uint8_t, 27> kYuy2Format = MakeYuy2Format();

constexpr std::uint8_t kProductString = 1;
constexpr std::uint8_t kLastAltSetting = 4;

// Places in descriptors.
constexpr std::size_t kConfigLength = 2;
constexpr std::size_t kInputHeaderLength = 4;
constexpr std::size_t kFormatIndex = 3;
constexpr std::size_t kFormatFrames = 4;
constexpr std::size_t kFrameIndex = 3;
constexpr std::size_t kFrameWidth = 5;
constexpr std::size_t kFrameHeight = 7;

}  // namespace

void UvcConfigBuilder::CreateConfigHeader() {
  Append(kConfigHeader);
  Append(kInterfaceAssociation);
}

void UvcConfigBuilder::CreateCtrlInterface() {
  AppendInterface(0, 0, 0, kUvcVideoControl);
  AppendCtrlIfInfo();
}

void UvcConfigBuilder::AppendCtrlIfInfo() {
  Append(kControlBlock);
}

void UvcConfigBuilder::CreateVsInterface(std::span<const _CameraParam> sizes) {
  AppendInterface(1, 0, 0, kUvcVideoStreaming);
  AppendVsIfInfo(sizes);
  // The same endpoint in each: a host may take any of them to start the stream.
  for (std::uint8_t altSetting = 1; altSetting <= kLastAltSetting; ++altSetting) {
    AppendInterface(1, altSetting, 1, kUvcVideoStreaming);
    Append(kEndpoint);
  }
}

void UvcConfigBuilder::AppendVsIfInfo(std::span<const _CameraParam> sizes) {
  const std::size_t start = mBytes.size();
  std::uint8_t formatIndex = 1;
  if (mOffersMjpeg) {
    Append(kInputHeaderOfTwo);
    AppendFormat(kMjpegFormat, kMjpegFrame, formatIndex++, sizes);
    Append(kStillImage);
    Append(kColorMatching);
  } else {
    Append(kInputHeader);
  }
  AppendFormat(kYuy2Format, kYuy2Frame, formatIndex, sizes);
  Store16(start + kInputHeaderLength, mBytes.size() - start);
}

void UvcConfigBuilder::AppendFormat(std::span<const std::uint8_t> format, std::span<const std::uint8_t> frame,
                                    std::uint8_t formatIndex, std::span<const _CameraParam> sizes) {
  const std::size_t start = mBytes.size();
  Append(format);
  mBytes[start + kFormatIndex] = formatIndex;
  mBytes[start + kFormatFrames] = static_cast<std::uint8_t>(sizes.size());
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    const std::size_t at = mBytes.size();
    Append(frame);
    mBytes[at + kFrameIndex] = static_cast<std::uint8_t>(i + 1);
    Store16(at + kFrameWidth, sizes[i].width);
    Store16(at + kFrameHeight, sizes[i].height);
  }
}

void UvcConfigBuilder::AppendInterface(std::uint8_t number, std::uint8_t altSetting, std::uint8_t endpoints,
                                       std::uint8_t subclass) {
  Append(std::to_array<std::uint8_t>(
      {0x09, 0x04, number, altSetting, endpoints, kUvcClassVideo, subclass, 0x00, kProductString}));
}

void UvcConfigBuilder::Append(std::span<const std::uint8_t> bytes) {
  mBytes.insert(mBytes.end(), bytes.begin(), bytes.end());
}

void UvcConfigBuilder::Store16(std::size_t position, std::size_t value) {
  mBytes[position] = static_cast<std::uint8_t>(value);
  mBytes[position + 1] = static_cast<std::uint8_t>(value >> 8U);
}

std::vector<std::uint8_t> UvcConfigBuilder::Take() {
  Store16(kConfigLength, mBytes.size());
  return std::move(mBytes);
}

}  // namespace vel
