#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "policys/JpegWriter.h"
#include "policys/UVCDecoder.h"
#include "policys/UVCEncoder.h"
#include "support/CapturingLog.h"
#include "support/Collected.h"
#include "support/Heap.h"
#include "support/Scene.h"

namespace vel::test {
namespace {

// A malloc block of exactly the bytes, so that a read behind them is seen.
HeapBlock Exact(const Bytes& bytes) {
  HeapBlock block(static_cast<std::uint8_t*>(std::malloc(bytes.size())));
  std::memcpy(block.get(), bytes.data(), bytes.size());
  return block;
}

struct Delivered {
  std::int64_t index;
  Bytes bytes;
};

struct Deliveries : UVCDecoderHandler {
  void OnFinishDecode(std::uint8_t* data, std::uint32_t length, std::int64_t index) override {
    frames.Add({index, {data, data + length}});
  }
  Collected<Delivered> frames;
};

class Decoder : public testing::Test {
 protected:
  void Open(_UVC_DECODER_TYPE type = UVC_DECODER_TYPE_MJPEG,
            _UVC_DECODER_OUTPUT_FORMAT format = UVC_DECODER_OUTPUT_YUYV, int width = 64, int height = 64) {
    ASSERT_EQ(mDecoder.Init(type, format, width, height, &mDeliveries), 0);
  }
  int Send(const Bytes& frame, std::uint32_t index = 0) {
    HeapBlock block = Exact(frame);
    const int result = mDecoder.DecodeAsync(block, static_cast<std::uint32_t>(frame.size()), index);
    EXPECT_EQ(block, nullptr) << "taken, also where it fails";
    return result;
  }

  Deliveries mDeliveries;
  UVCDecoder mDecoder;
};

TEST_F(Decoder, DecodesWhatCamerasSend) {
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

TEST_F(Decoder, UnknownPixelFormatIsBlackWhateverWasThereBefore) {
  const CapturingLog log;
  Open();
  ASSERT_EQ(Send(JpegWriter{.width = 64, .height = 64}.Write(), 1), 0);
  ASSERT_EQ(Send(JpegWriter{.width = 64, .height = 64, .grey = true}.Write(), 2), 0);
  Bytes black;
  Bytes planes(std::size_t{64} * 64, 16);
  planes.resize(2 * planes.size(), 128);
  for (int i = 0; i < 64 * 64; ++i) {
    black.insert(black.end(), {16, 128});
  }
  EXPECT_EQ(mDeliveries.frames.Await(2).at(1).bytes, black);
  EXPECT_EQ(log.Count("Error:mjpeg decoder  unknow format = 8 "), 1U);
  EXPECT_EQ(log.Count("Debug:decode success, frame size[8192]"), 2U);
  UVCDecoder planar;
  ASSERT_EQ(planar.Init(UVC_DECODER_TYPE_MJPEG, UVC_DECODER_OUTPUT_I420, 64, 64, nullptr), 0);
  const Bytes grey = JpegWriter{.width = 64, .height = 64, .grey = true}.Write();
  std::uint32_t size = 7;
  EXPECT_EQ(planar.Decode(grey.data(), static_cast<std::uint32_t>(grey.size()), black.data(), &size), -1);
  EXPECT_EQ(black, planes);
  EXPECT_EQ(size, 7U);
  EXPECT_EQ(log.Count("Error:Unsupport yuv format when use this codec"), 1U);
}

TEST_F(Decoder, KeepsWhatDecodesOfADamagedPictureAndShowsNoOtherMemory) {
  test::FillFreshMemory(true);
  const CapturingLog log;
  const JpegWriter whole{.width = 64, .height = 64};
  Bytes cut = whole.Write();
  cut.erase(cut.end() - 20, cut.end());
  Open();
  ASSERT_EQ(Send(cut), 0);
  const std::vector<Delivered> pictures = mDeliveries.frames.Await(1);
  test::FillFreshMemory(false);
  ASSERT_EQ(pictures.size(), 1U);
  const Bytes expected = whole.Yuyv();
  ASSERT_EQ(pictures[0].bytes.size(), expected.size());
  std::size_t kept = 0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const std::uint8_t byte = pictures[0].bytes[i];
    kept += byte == expected[i] ? 1U : 0U;
    ASSERT_TRUE(byte == expected[i] || byte == 0) << i;
  }
  EXPECT_GT(kept, expected.size() * 3 / 4);
  EXPECT_EQ(log.Count("Error:[mjpeg @ "), 1U);
}

// Planar where asked for, and the last picture again for clients.
TEST_F(Decoder, GivesH264AsPlanesAndTheLastPictureAgain) {
  constexpr std::size_t kPixels = std::size_t{96} * 64;
  const Bytes picture = Scene(96, 64).Draw(0);
  UVCEncoder encoder;
  ASSERT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 96, 64, nullptr, nullptr), 0);
  Bytes unit(picture.size());
  std::uint32_t unitSize = 0;
  ASSERT_EQ(encoder.Encode(picture.data(), 2 * kPixels, unit.data(), &unitSize), 0);
  Bytes planes(2 * kPixels);
  Bytes yuyv(2 * kPixels);
  for (const _UVC_DECODER_OUTPUT_FORMAT format : {UVC_DECODER_OUTPUT_I420, UVC_DECODER_OUTPUT_YUYV}) {
    UVCDecoder decoder;
    std::uint32_t size = 0;
    Bytes again(2 * kPixels);
    ASSERT_EQ(decoder.Init(UVC_DECODER_TYPE_H264, format, 96, 64, nullptr), 0);
    EXPECT_EQ(decoder.GetOutputData(again.data(), &size), -1) << "nothing decoded yet";
    Bytes& out = format == UVC_DECODER_OUTPUT_I420 ? planes : yuyv;
    ASSERT_EQ(decoder.Decode(unit.data(), unitSize, out.data(), &size), 1);
    EXPECT_EQ(size, format == UVC_DECODER_OUTPUT_I420 ? kPixels * 3 / 2 : 2 * kPixels);
    EXPECT_EQ(decoder.GetOutputData(again.data(), &size), 0);
    EXPECT_EQ(again, out);
  }
  const std::uint8_t* const parts[3] = {planes.data(), planes.data() + kPixels, planes.data() + kPixels * 5 / 4};
  const int strides[3] = {96, 48, 48};
  Bytes converted(2 * kPixels);
  UVCDecoder::YUV420PToYUV422(parts, strides, converted.data(), 96, 64);
  EXPECT_EQ(converted, yuyv);
}

TEST_F(Decoder, RefusesWhatItCannotDo) {
  const CapturingLog log;
  std::uint32_t size = 0;
  std::array<std::uint8_t, 64> block{};
  EXPECT_EQ(mDecoder.DecodeAsync(block.data(), 64, 0), -1);  // Not taken: not initialised.
  Open();
  EXPECT_EQ(mDecoder.Init(UVC_DECODER_TYPE_MJPEG, UVC_DECODER_OUTPUT_YUYV, 8, 8, nullptr), -1);
  EXPECT_EQ(mDecoder.DecodeAsync(block.data(), 0, 0), -1);
  EXPECT_NE(Send(Bytes(1000, 0xFF)), 0);
  EXPECT_EQ(log.Count("Do async decode fail ("), 1U);
  Bytes out(std::size_t{64} * 64 * 2);  // What was negotiated.
  for (const JpegWriter& picture : {JpegWriter{.width = 72, .height = 64}, JpegWriter{.width = 64, .height = 64}}) {
    const Bytes frame = picture.Write();
    EXPECT_EQ(mDecoder.Decode(frame.data(), static_cast<std::uint32_t>(frame.size()), out.data(), &size),
              picture.width == 64 ? 1 : -1);
  }
  EXPECT_EQ(log.Count("Error:a picture of 72x64 does not fit 64x64"), 1U);
  const Bytes large = JpegWriter{.width = 128, .height = 64}.Write();
  EXPECT_EQ(mDecoder.Decode(large.data(), static_cast<std::uint32_t>(large.size()), out.data(), &size), -1);
  EXPECT_EQ(mDecoder.GetOutputData(out.data(), &size), -1) << "not what Decode refused";
  EXPECT_EQ(mDecoder.Release(), 0);
  EXPECT_EQ(mDecoder.Release(), 0);
  Open();
  EXPECT_EQ(mDecoder.GetOutputData(out.data(), &size), -1) << "from the start";
}

}  // namespace
}  // namespace vel::test
