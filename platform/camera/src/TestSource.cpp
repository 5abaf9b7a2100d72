#include "TestSource.h"

#include <array>
#include <cstring>

namespace oskelo {
namespace {

// 75 % colour bars in BT.601: white, yellow, cyan, green, magenta, red, blue, black; two pixels
// each.
constexpr std::array<std::array<std::uint8_t, 4>, 8> kBars = {{{180, 128, 180, 128},
                                                               {162, 44, 162, 142},
                                                               {131, 156, 131, 44},
                                                               {112, 72, 112, 58},
                                                               {84, 184, 84, 198},
                                                               {65, 100, 65, 212},
                                                               {35, 212, 35, 114},
                                                               {16, 128, 16, 128}}};
constexpr std::array<std::uint8_t, 4> kWhite = {235, 128, 235, 128};
constexpr std::uint32_t kLineRows = 8;
constexpr std::uint32_t kRowsPerPicture = 4;
constexpr std::chrono::nanoseconds kInterval(1'000'000'000 / 30);

}  // namespace

TestSource::TestSource() {
  mParams = {{.width = 640, .height = 480, .pixelFormat = CAM_FORMAT_YUYV, .reserved = 0},
             {.width = 1280, .height = 720, .pixelFormat = CAM_FORMAT_YUYV, .reserved = 0}};
  mSelected = mParams.front();
}

bool TestSource::Select(const _CameraParam& param) {
  mSelected = param;
  return true;
}

bool TestSource::Stream(PictureSink& sink) {
  std::vector<std::uint8_t> picture(std::size_t{2} * mSelected.width * mSelected.height);
  mPacer.Start();
  for (std::uint32_t number = 0; mPacer.WaitUntilDue(); ++number) {
    Paint(picture, number);
    sink.OnPicture(picture);
    mPacer.Advance(kInterval);
  }
  return true;
}

void TestSource::Paint(std::span<std::uint8_t> picture, std::uint32_t number) const {
  const std::size_t row = std::size_t{2} * mSelected.width;
  const auto fill = [&](std::size_t from, const auto& pixelsOf) {
    for (std::size_t x = 0; x < row; x += 4) {
      std::memcpy(&picture[from + x], pixelsOf(x).data(), 4);
    }
  };
  fill(0, [row](std::size_t x) { return kBars.at(x * kBars.size() / row); });
  for (std::size_t y = 1; y < mSelected.height; ++y) {
    std::memcpy(&picture[y * row], picture.data(), row);
  }
  for (std::uint32_t i = 0; i < kLineRows; ++i) {
    fill((number * kRowsPerPicture + i) % mSelected.height * row, [](std::size_t) { return kWhite; });
  }
}

}  // namespace oskelo
