// Looks at what a guest's camera driver has recorded of the synthetic camera: YUYV, one picture behind the other.
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>
#include <vector>

#include "Checks.h"
#include "Commands.h"
#include "far/YuyvDecoder.h"
#include "policys/UVCEncoder.h"

namespace vel::vm {
namespace {

// The picture number n, which repeats after 256: bytes that count up, shifted by row and number in the first half of
// the picture, and by the number alone in the second.
std::uint8_t ByteOf(std::size_t at, std::size_t width, std::size_t height, unsigned n) {
  const std::size_t row = at / width;
  const std::size_t column = at % width;
  return static_cast<std::uint8_t>(row < height ? column + row + 3 * n : column + 5 * n + 64);
}

double SquareError(std::span<const std::uint8_t> picture, std::size_t step, std::size_t width, unsigned n) {
  const std::size_t height = picture.size() / 2 / width;
  double sum = 0;
  std::size_t count = 0;
  for (std::size_t at = 0; at < picture.size(); at += step, ++count) {
    const double error = static_cast<double>(picture[at]) - ByteOf(at, width, height, n);
    sum += error * error;
  }
  return sum / static_cast<double>(count);
}

unsigned NumberOf(std::span<const std::uint8_t> picture, std::size_t width) {
  unsigned best = 0;
  double least = std::numeric_limits<double>::max();
  for (unsigned n = 0; n < 256; ++n) {
    if (const double error = SquareError(picture, 1021, width, n); error < least) {
      least = error;
      best = n;
    }
  }
  return best;
}

double Decibels(std::span<const std::uint8_t> picture, std::size_t width, unsigned n) {
  return 10 * std::log10(255.0 * 255.0 / SquareError(picture, 1, width, n));
}

// Encoding one by one calls no handler.
struct NoHandler final : UVCEncoderHandler {
  void OnFinishEncode(std::uint32_t, std::uint8_t*, std::uint32_t, int) override {}
};

// The worst of the pictures 0, step, 2 * step and so on.
double WorstEncoded(std::size_t width, std::size_t height, unsigned step) {
  constexpr unsigned kPictures = 40;
  std::vector<std::uint8_t> picture(2 * width * height);
  std::vector<std::uint8_t> encoded(picture.size());
  NoHandler handler;
  UVCEncoder encoder;
  const auto columns = static_cast<int>(width);
  const auto rows = static_cast<int>(height);
  Require(encoder.Init(UVC_ENCODER_TYPE_H264, columns, rows, &handler, nullptr) == 0, "no encoder");
  YuyvDecoder decoder(PictureFormat::kH264, columns, rows);
  double worst = std::numeric_limits<double>::infinity();
  for (unsigned n = 0; n < kPictures * step; n += step) {
    for (std::size_t at = 0; at < picture.size(); ++at) {
      picture[at] = ByteOf(at, width, height, n);
    }
    auto size = static_cast<std::uint32_t>(encoded.size());
    Require(encoder.Encode(picture.data(), static_cast<std::uint32_t>(picture.size()), encoded.data(), &size) == 0 &&
                decoder.Take(std::span(encoded).first(size)) && decoder.Write(picture),
            "the encoder gives no picture");
    worst = std::min(worst, Decibels(picture, width, n));
  }
  return worst;
}

}  // namespace

std::string Encoder(const std::string& width, Arguments arguments) {
  double worst = std::numeric_limits<double>::infinity();
  for (const unsigned step :
       {1U, 2U, 3U}) {  // A machine that is slow leaves pictures out, and more is new in the next.
    worst = std::min(worst, WorstEncoded(std::stoul(width), std::stoul(arguments[0]), step));
  }
  return std::to_string(worst);
}

std::string Pictures(const std::string& file, Arguments arguments) {
  const std::size_t width = std::stoul(arguments[0]);
  const std::size_t height = std::stoul(arguments[1]);
  const double atLeast = std::stod(arguments[2]);
  std::ifstream stream(file, std::ios::binary);
  const std::vector<char> text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
  const std::span<const std::uint8_t> all(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  const std::size_t size = 2 * width * height;
  Require(!all.empty() && all.size() % size == 0, std::to_string(all.size()) + " bytes are no whole pictures");
  std::set<unsigned> numbers;
  double worst = std::numeric_limits<double>::infinity();
  for (std::size_t at = 0; at < all.size(); at += size) {
    const auto picture = all.subspan(at, size);
    const unsigned n = NumberOf(picture, width);
    numbers.insert(n);
    worst = std::min(worst, Decibels(picture, width, n));
  }
  Require(worst >= atLeast, "a picture has " + std::to_string(worst) + " dB");
  Require(numbers.size() == all.size() / size, "pictures repeat");
  std::array<char, 80> line{};
  static_cast<void>(std::snprintf(line.data(), line.size(), "%zux%zu: %zu pictures, the worst has %.1f dB", width,
                                  height, numbers.size(), worst));
  return line.data();
}

}  // namespace vel::vm
