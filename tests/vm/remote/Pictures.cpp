// Looks at what a guest's camera driver has recorded of the synthetic camera: YUYV, one picture behind the other.
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <vector>

#include "Checks.h"
#include "Commands.h"
#include "Pattern.h"
#include "picture/YuyvDecoder.h"
#include "policys/UVCEncoder.h"

namespace vel::vm {
namespace {

// The picture number n, which repeats after 256: bytes that count up, shifted by row and number in the first half of
// the picture, and by the number alone in the second.
std::uint8_t ByteOf(std::size_t at, std::size_t width, std::size_t height, unsigned n) {
  const std::size_t row = at / width;
  const std::size_t column = at % width;
  return static_cast<std::uint8_t>(row < height ? column + row + std::size_t{3} * n : column + std::size_t{5} * n + 64);
}

struct Pattern {
  std::uint8_t (*byteOf)(std::size_t at, std::size_t width, std::size_t height, unsigned n);
  unsigned period;
};
constexpr Pattern kSynthetic{ByteOf, 256};
constexpr Pattern kGradient{[](std::size_t at, std::size_t width, std::size_t, unsigned n) {
                              return GradientByte(at % (2 * width), at / (2 * width), n);
                            },
                            kGradients};

double SquareError(const Pattern& pattern, std::span<const std::uint8_t> picture, std::size_t step, std::size_t width,
                   unsigned n) {
  const std::size_t height = picture.size() / 2 / width;
  double sum = 0;
  std::size_t count = 0;
  for (std::size_t at = 0; at < picture.size(); at += step, ++count) {
    const double error = static_cast<double>(picture[at]) - pattern.byteOf(at, width, height, n);
    sum += error * error;
  }
  return sum / static_cast<double>(count);
}

unsigned NumberOf(const Pattern& pattern, std::span<const std::uint8_t> picture, std::size_t width) {
  unsigned best = 0;
  double least = std::numeric_limits<double>::max();
  for (unsigned n = 0; n < pattern.period; ++n) {
    if (const double error = SquareError(pattern, picture, 1021, width, n); error < least) {
      least = error;
      best = n;
    }
  }
  return best;
}

double Decibels(const Pattern& pattern, std::span<const std::uint8_t> picture, std::size_t width, unsigned n) {
  return 10 * std::log10(255.0 * 255.0 / SquareError(pattern, picture, 1, width, n));
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
    worst = std::min(worst, Decibels(kSynthetic, picture, width, n));
  }
  return worst;
}

// Each picture is another one than the one before, and has so many dB; with `all`, none is missing between them.
std::string Look(const Pattern& pattern, const std::string& file, std::size_t width, std::size_t height, double atLeast,
                 bool all) {
  std::ifstream stream(file, std::ios::binary);
  const std::vector<char> text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
  const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  const std::size_t size = 2 * width * height;
  Require(!bytes.empty() && bytes.size() % size == 0, std::to_string(bytes.size()) + " bytes are no whole pictures");
  unsigned missing = 0;
  std::optional<unsigned> previous;
  double worst = std::numeric_limits<double>::infinity();
  for (std::size_t at = 0; at < bytes.size(); at += size) {
    const auto picture = bytes.subspan(at, size);
    const unsigned n = NumberOf(pattern, picture, width);
    Require(n != previous, "pictures repeat");
    missing += previous ? (n + pattern.period - *previous - 1) % pattern.period : 0;
    previous = n;
    worst = std::min(worst, Decibels(pattern, picture, width, n));
  }
  std::array<char, 120> line{};
  static_cast<void>(std::snprintf(line.data(), line.size(), "%zux%zu: %zu pictures, the worst has %.1f dB, %u missing",
                                  width, height, bytes.size() / size, worst, missing));
  Require(worst >= atLeast && (!all || missing == 0), line.data());
  return line.data();
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
  return Look(kSynthetic, file, std::stoul(arguments[0]), std::stoul(arguments[1]), std::stod(arguments[2]), false);
}

std::string Gradients(const std::string& file, Arguments arguments) {
  constexpr double kExact = 1000;
  const double atLeast = std::stod(arguments[0]);
  return Look(kGradient, file, 640, 480, atLeast, atLeast >= kExact);
}

}  // namespace vel::vm
