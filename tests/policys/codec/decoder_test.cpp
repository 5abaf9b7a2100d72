#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "EncodedFrames.h"
#include "JpegWriter.h"
#include "Scene.h"
#include "policys/UVCDecoder.h"
#include "policys/UVCEncoder.h"
#include "support/CapturingLog.h"

namespace vel::test {
namespace {

// A malloc block of exactly the bytes, so that a read behind them is seen.
HeapBlock Exact(const Bytes& bytes) {
  HeapBlock block(static_cast<std::uint8_t*>(std::malloc(bytes.size())));
  std::memcpy(block.get(), bytes.data(), bytes.size());
  return block;
}

class DecoderTest : public testing::Test {
 protected:
  void Open(_UVC_DECODER_TYPE type = UVC_DECODER_TYPE_MJPEG,
            _UVC_DECODER_OUTPUT_FORMAT format = UVC_DECODER_OUTPUT_YUYV, int width = 64, int height = 64) {
    ASSERT_EQ(mDecoder.Init(type, format, width, height, &mDeliveries), 0);
  }
  int Send(const Bytes& frame, std::uint32_t index = 0) {
    return mDecoder.DecodeAsync(Exact(frame).release(), static_cast<std::uint32_t>(frame.size()), index);
  }

  Deliveries mDeliveries;
  UVCDecoder mDecoder;
};

TEST_F(DecoderTest, DecodesWhatCamerasSend) {
  const std::vector<JpegWriter> variants = {
      {.lumaSampling = {2, 1}},
      {.lumaSampling = {2, 2}},
      {.lumaSampling = {1, 1}},
      {.restartInterval = 3},
      {.huffmanTables = false},
      {.width = 160, .height = 96, .restartInterval = 1, .huffmanTables = false},  // Larger than negotiated.
      {.width = 8, .height = 8},
      {.width = 33, .height = 17, .lumaSampling = {2, 2}},  // Odd.
      {.width = 31, .height = 31, .lumaSampling = {1, 1}},
      {.width = 1, .height = 1},
  };
  Open();
  std::uint32_t index = 4000000000;
  for (const JpegWriter& variant : variants) {
    ASSERT_EQ(Send(variant.Write(), index), 0);
    const std::vector<Delivered> pictures = mDeliveries.frames.Await(1);
    ASSERT_EQ(pictures.size(), 1U);
    EXPECT_EQ(pictures[0].index, index++);
    EXPECT_EQ(pictures[0].bytes, variant.Yuyv()) << variant.width << "x" << variant.height;
    mDeliveries.frames.Take();
  }
}

TEST_F(DecoderTest, UnknownPixelFormatIsBlackWhateverWasThereBefore) {
  const CapturingLog log;
  Open();
  ASSERT_EQ(Send(JpegWriter{.width = 64, .height = 64}.Write(), 1), 0);
  ASSERT_EQ(Send(JpegWriter{.width = 64, .height = 64, .grey = true}.Write(), 2), 0);
  Bytes black;
  for (int i = 0; i < 64 * 64; ++i) {
    black.insert(black.end(), {16, 128});
  }
  EXPECT_EQ(mDeliveries.frames.Await(2).at(1).bytes, black);
  EXPECT_EQ(log.Count("Error:mjpeg decoder  unknow format = 8 "), 1U);
}

// Whatever is broken costs its own frame alone, with a line; what comes out is a whole picture.
TEST_F(DecoderTest, BrokenFramesCostOnlyThemselves) {
  Open(UVC_DECODER_TYPE_MJPEG, UVC_DECODER_OUTPUT_YUYV, 64, 48);
  const Scene scene(64, 48);
  const JpegWriter whole{.width = 64, .height = 48};
  const Bytes good = whole.Write();
  const Bytes natural = EncodeJpeg(scene.Draw(0), 64, 48);
  std::vector<Bytes> broken = {{0}, {0xFF}, {0xFF, 0xD8}, {0xFF, 0xD8, 0xFF, 0xD9}, Bytes(1000, 0xFF), Bytes(1000, 0)};
  for (std::size_t length = 10; length + 60 < natural.size(); length += natural.size() / 16) {
    broken.emplace_back(natural.begin(), natural.begin() + static_cast<std::ptrdiff_t>(length));
  }
  for (std::size_t at = 2; at < 40; ++at) {
    broken.push_back(natural);
    broken.back()[at] ^= 0xFF;
  }
  // Sizes that nobody has memory for.
  broken.push_back(JpegWriter{.width = 8193, .height = 8}.Write());
  std::size_t delivered = 0;
  for (std::size_t i = 0; i < broken.size(); ++i) {
    const CapturingLog log(OSKELO_LOG_ERROR);
    const bool refused = Send(broken[i], 1) != 0;
    ASSERT_EQ(Send(good, 2), 0) << "after " << i;
    while (true) {
      const std::vector<Delivered> pictures = mDeliveries.frames.Await(++delivered);
      ASSERT_EQ(pictures.size(), delivered) << "after " << i;
      if (pictures.back().index == 2) {
        EXPECT_EQ(pictures.back().bytes, whole.Yuyv()) << "after " << i;
        break;
      }
      EXPECT_FALSE(refused);
    }
    EXPECT_TRUE(!refused || log.Count("Do async decode fail (") == 1) << i;
  }
}

TEST_F(DecoderTest, DecodesCameraH264InBothFormats) {
  const Scene scene(96, 64);
  UVCEncoder encoder;
  ASSERT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 96, 64, nullptr, nullptr), 0);
  UVCDecoder planar;
  ASSERT_EQ(planar.Init(UVC_DECODER_TYPE_H264, UVC_DECODER_OUTPUT_I420, 96, 64, nullptr), 0);
  Open(UVC_DECODER_TYPE_H264, UVC_DECODER_OUTPUT_YUYV, 96, 64);
  for (std::uint32_t i = 0; i < 8; ++i) {
    const Bytes picture = scene.Draw(static_cast<int>(i));
    Bytes unit(picture.size());
    std::uint32_t size = 0;
    ASSERT_EQ(encoder.Encode(picture.data(), 96 * 64 * 2, unit.data(), &size), 0);
    unit.resize(size);
    ASSERT_EQ(Send(unit, i), 0);
    const std::vector<Delivered> decoded = mDeliveries.frames.Await(i + 1);
    ASSERT_EQ(decoded.size(), i + 1);  // No picture is held back.
    EXPECT_EQ(decoded[i].index, i);
    EXPECT_GT(LumaPsnr(decoded[i].bytes, picture), 30);
    Bytes i420(96 * 64 * 2);
    ASSERT_EQ(planar.Decode(unit.data(), static_cast<std::uint32_t>(unit.size()), i420.data(), &size), 1);
    ASSERT_EQ(size, 96U * 64 * 3 / 2);
    const std::uint8_t* const planes[3] = {i420.data(), i420.data() + 96 * 64, i420.data() + 96 * 64 * 5 / 4};
    const int lineSizes[3] = {96, 48, 48};
    Bytes yuyv(96 * 64 * 2);
    UVCDecoder::YUV420PToYUV422(planes, lineSizes, yuyv.data(), 96, 64);
    EXPECT_EQ(yuyv, decoded[i].bytes);
  }
}

TEST_F(DecoderTest, RefusesWhatItCannotDo) {
  const CapturingLog log;
  std::uint32_t size = 0;
  std::array<std::uint8_t, 64> block{};
  EXPECT_EQ(mDecoder.DecodeAsync(block.data(), 64, 0), -1);  // Not taken: not initialised.
  EXPECT_EQ(mDecoder.GetOutputData(block.data(), &size), -1);
  EXPECT_EQ(mDecoder.Init(static_cast<_UVC_DECODER_TYPE>(2), UVC_DECODER_OUTPUT_YUYV, 8, 8, nullptr), -1);
  Open();
  EXPECT_EQ(mDecoder.Init(UVC_DECODER_TYPE_MJPEG, UVC_DECODER_OUTPUT_YUYV, 8, 8, nullptr), -1);
  EXPECT_EQ(mDecoder.DecodeAsync(block.data(), 0, 0), -1);
  EXPECT_EQ(mDecoder.Decode(block.data(), 0, block.data(), &size), -1);
  Bytes out(64 * 64 * 2);  // What was negotiated.
  for (const JpegWriter& picture : {JpegWriter{.width = 72, .height = 64}, JpegWriter{.width = 64, .height = 64}}) {
    const Bytes frame = picture.Write();
    EXPECT_EQ(mDecoder.Decode(frame.data(), static_cast<std::uint32_t>(frame.size()), out.data(), &size),
              picture.width == 64 ? 1 : -1);
  }
  EXPECT_EQ(log.Count("Error:a picture of 72x64 does not fit 64x64"), 1U);
  EXPECT_EQ(mDecoder.Release(), 0);
  EXPECT_EQ(mDecoder.Release(), 0);
  EXPECT_EQ(log.Count("UVC decode thread exit"), 1U);
  for (const auto format : {UVC_DECODER_OUTPUT_I420, static_cast<_UVC_DECODER_OUTPUT_FORMAT>(9)}) {
    Open(UVC_DECODER_TYPE_MJPEG, format);
    const Bytes frame = JpegWriter{}.Write();
    EXPECT_EQ(mDecoder.Decode(frame.data(), static_cast<std::uint32_t>(frame.size()), out.data(), &size), -1);
    mDecoder.Release();
  }
}

}  // namespace
}  // namespace vel::test
