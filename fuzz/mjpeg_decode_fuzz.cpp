// A broken camera frame into the decoder, on both of its ways, and a good one behind it. Input: the frame.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Require.h"
#include "codec/UVCFrame.h"
#include "oskelo/log.h"
#include "policys/UVCDecoder.h"
#include "vel/Mutex.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int kWidth = 64;
constexpr int kHeight = 64;
constexpr std::int64_t kGoodIndex = 7;

// A picture of 16x8 in 4:2:2: two flat blocks of luma, one of each chroma. Between head and rest
// are 64 quantisers, all 8.
constexpr std::uint8_t kGoodHead[] = {0xFF, 0xD8, 0xFF, 0xDB, 0x00, 0x43, 0x00};
constexpr std::uint8_t kGoodRest[] = {
    0xFF, 0xC0, 0x00, 0x11, 0x08, 0x00, 0x08, 0x00, 0x10, 0x03, 0x01, 0x21, 0x00, 0x02, 0x11, 0x00, 0x03,
    0x11, 0x00, 0xFF, 0xC4, 0x00, 0x1F, 0x00, 0x00, 0x01, 0x05, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A,
    0x0B, 0xFF, 0xC4, 0x00, 0x17, 0x10, 0x00, 0x02, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03, 0x00, 0xFF, 0xDA, 0x00, 0x0C, 0x03, 0x01, 0x00, 0x02,
    0x00, 0x03, 0x00, 0x00, 0x3F, 0x00, 0xF2, 0x7A, 0xBB, 0x59, 0x55, 0xD7, 0x57, 0xFF, 0xD9};
constexpr std::array<std::uint8_t, 4> kGoodStart = {40, 107, 40, 174};
constexpr std::array<std::uint8_t, 4> kGoodEnd = {53, 107, 53, 174};
constexpr std::size_t kGoodBytes = std::size_t{16} * 8 * 2;

Bytes GoodFrame() {
  Bytes frame(std::begin(kGoodHead), std::end(kGoodHead));
  frame.insert(frame.end(), 64, 8);
  frame.insert(frame.end(), std::begin(kGoodRest), std::end(kGoodRest));
  return frame;
}

bool IsGoodPicture(const std::uint8_t* data, std::size_t length) {
  return length == kGoodBytes && std::equal(kGoodStart.begin(), kGoodStart.end(), data) &&
         std::equal(kGoodEnd.begin(), kGoodEnd.end(), data + length - kGoodEnd.size());
}

class Pictures final : public UVCDecoderHandler {
 public:
  void OnFinishDecode(std::uint8_t* data, std::uint32_t length, std::int64_t index) override {
    constexpr std::uint32_t kMost = 2U * kMaxPictureSide * kMaxPictureSide;
    Require(length > 0 && length <= kMost, "a picture has a size, and a bounded one");
    const Bytes whole(data, data + length);  // Every byte is there.
    const MutexLock lock(mMutex);
    if (index == kGoodIndex) {
      Require(IsGoodPicture(whole.data(), whole.size()), "a good frame after a broken one is as it should be");
      mGoodCame = true;
      mCame.NotifyOne();
    }
  }
  void AwaitGood() {
    MutexLock lock(mMutex);
    while (!mGoodCame) {
      mCame.Wait(lock);
    }
  }

 private:
  Mutex mMutex;
  CondVar mCame;
  bool mGoodCame VEL_GUARDED_BY(mMutex) = false;
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
  pictures.AwaitGood();
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  if (size == 0) {
    return 0;
  }
  static const vel::Bytes good = vel::GoodFrame();
  vel::DecodeHere(data, size);
  vel::DecodeOnWorker(data, size, good);
  return 0;
}
