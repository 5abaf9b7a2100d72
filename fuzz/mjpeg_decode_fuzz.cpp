// A broken camera frame into the decoder, on both of its ways, and a good one behind it. Input: the frame.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Require.h"
#include "codec/UVCFrame.h"
#include "oskelo/log.h"
#include "policys/JpegWriter.h"
#include "policys/UVCDecoder.h"
#include "support/Collected.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int kWidth = 64;
constexpr int kHeight = 64;
constexpr std::int64_t kGoodIndex = 7;

const test::JpegWriter kGood{.width = 16, .height = 8};

struct Pictures final : UVCDecoderHandler {
  void OnFinishDecode(std::uint8_t* data, std::uint32_t length, std::int64_t index) override {
    constexpr std::uint32_t kMost = 2U * kMaxPictureSide * kMaxPictureSide;
    Require(length > 0 && length <= kMost, "a picture has a size, and a bounded one");
    const Bytes whole(data, data + length);  // Every byte is there.
    if (index == kGoodIndex) {
      Require(whole == kGood.Yuyv(), "a good frame after a broken one is as it should be");
      good.Add(1);
    }
  }
  Collected<int> good;
};

// A malloc block of exactly these bytes.
std::uint8_t* Block(const std::uint8_t* data, std::size_t size) {
  auto* block = static_cast<std::uint8_t*>(std::malloc(size));
  std::memcpy(block, data, size);
  return block;
}

void DecodeHere(const std::uint8_t* data, std::size_t size) {
  UVCDecoder decoder;
  Require(decoder.Init(UVC_DECODER_TYPE_MJPEG, UVC_DECODER_OUTPUT_YUYV, kWidth, kHeight, nullptr) == 0, "opens");
  Bytes out(std::size_t{kWidth} * kHeight * 2);
  std::uint32_t outSize = 0;
  if (decoder.Decode(data, static_cast<std::uint32_t>(size), out.data(), &outSize) == 1) {
    Require(outSize > 0 && outSize <= out.size(), "a picture fits what was negotiated");
  }
}

void DecodeOnWorker(const std::uint8_t* data, std::size_t size, const Bytes& good) {
  Pictures pictures;
  UVCDecoder decoder;
  Require(decoder.Init(UVC_DECODER_TYPE_MJPEG, UVC_DECODER_OUTPUT_YUYV, kWidth, kHeight, &pictures) == 0, "opens");
  decoder.DecodeAsync(Block(data, size), static_cast<std::uint32_t>(size), 1);
  Require(
      decoder.DecodeAsync(Block(good.data(), good.size()), static_cast<std::uint32_t>(good.size()), kGoodIndex) == 0,
      "a good frame is taken");
  Require(pictures.good.Await(1).size() == 1, "a good frame comes");
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  if (size == 0) {
    return 0;
  }
  static const vel::Bytes good = vel::kGood.Write();
  vel::DecodeHere(data, size);
  vel::DecodeOnWorker(data, size, good);
  return 0;
}
