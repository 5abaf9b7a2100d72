#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "EncodedFrames.h"
#include "Scene.h"
#include "platform/Event.h"
#include "policys/Encoder/FFmpegEncoder.h"
#include "policys/FfmpegPtr.h"
#include "policys/UVCDecoder.h"
#include "policys/UVCEncoder.h"
#include "support/CapturingLog.h"

namespace vel::test {
namespace {

// The types of an access unit's NAL units, in order (ITU-T H.264, table 7-1).
std::vector<int> NalTypes(std::span<const std::uint8_t> unit) {
  std::vector<int> types;
  for (std::size_t i = 0; i + 3 < unit.size(); ++i) {
    if (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1) {
      types.push_back(unit[i + 3] & 0x1F);
    }
  }
  return types;
}

struct Setting {
  const char* name;
  int width;
  int height;
  int bitRate;  // Bit/s.
  int framesPerSecond;
  int gopSize;
};

class EncoderStreamTest : public testing::TestWithParam<Setting> {};

// What a receiver sees of six seconds of video: each unit is a picture at once, so that none waits for a later one.
TEST_P(EncoderStreamTest, IsWhatAReceiverLikes) {
  const Setting& setting = GetParam();
  const Scene scene(setting.width, setting.height);
  UVCEncoder encoder;
  ASSERT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, setting.width, setting.height, nullptr, nullptr), 0);
  UVCDecoder decoder;
  ASSERT_EQ(decoder.Init(UVC_DECODER_TYPE_H264, UVC_DECODER_OUTPUT_YUYV, setting.width, setting.height, nullptr), 0);

  // The instrumented build is there for memory and threads; rates need not be seen again.
  const int frames = setting.framesPerSecond * (kSanitized ? 1 : 6);
  Bytes picture = scene.Draw(0);
  Bytes unit(picture.size());
  Bytes decoded(picture.size());
  std::vector<double> sizes;
  double psnr = 0;
  for (int i = 0; i < frames; ++i) {
    scene.Draw(i, picture);
    std::uint32_t size = 0;
    ASSERT_EQ(encoder.Encode(picture.data(), static_cast<std::uint32_t>(picture.size()), unit.data(), &size), 0);
    sizes.push_back(size);
    const std::vector<int> nals = NalTypes({unit.data(), size});
    const auto firstOf = [&nals](int type) { return std::find(nals.begin(), nals.end(), type) - nals.begin(); };
    const bool key = firstOf(5) < static_cast<std::ptrdiff_t>(nals.size());
    EXPECT_EQ(key, i % setting.gopSize == 0) << "picture " << i;
    EXPECT_TRUE(!key || (firstOf(7) < firstOf(8) && firstOf(8) < firstOf(5))) << "picture " << i;
    std::uint32_t decodedSize = 0;
    ASSERT_EQ(decoder.Decode(unit.data(), size, decoded.data(), &decodedSize), 1) << "picture " << i;
    ASSERT_EQ(decodedSize, decoded.size());
    psnr += LumaPsnr(picture, decoded) / frames;
  }
  EXPECT_GT(psnr, 36);

  const double average = std::accumulate(sizes.begin(), sizes.end(), 0.0) / frames;
  EXPECT_LE(*std::max_element(sizes.begin(), sizes.end()), 12 * average);
  const int window = 4 * setting.framesPerSecond;
  for (int begin = setting.framesPerSecond; begin + window <= frames; ++begin) {
    const double bits = 8 * std::accumulate(sizes.begin() + begin, sizes.begin() + begin + window, 0.0);
    EXPECT_NEAR(bits / 4 / setting.bitRate, 1, 0.15) << "from picture " << begin;
  }
}

INSTANTIATE_TEST_SUITE_P(EachSetting, EncoderStreamTest,
                         testing::Values(Setting{"Height480", 640, 480, 800000, 15, 5},
                                         Setting{"Height720", 1280, 720, 1000000, 25, 25},
                                         Setting{"Height1080", 1920, 1080, 1500000, 25, 25}),
                         [](const auto& setting) { return setting.param.name; });

// A file's worth of frames through the queue, no faster than they are encoded.
TEST(EncoderTest, EachQueuedFrameGivesOneUnitWithItsIndex) {
  const Scene scene(320, 240);
  Deliveries deliveries;
  UVCEncoder encoder;
  ASSERT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 320, 240, &deliveries, nullptr), 0);
  for (std::uint32_t i = 0; i < 30; ++i) {
    // A short frame gives a picture too.
    UVCFramePtr frame = MakeFrame(i % 10 == 3 ? Bytes(100) : scene.Draw(static_cast<int>(i)), 1000 + 7 * i);
    ASSERT_EQ(encoder.EncodeAsync(frame.release()), 0);
    const std::vector<Delivered> units = deliveries.frames.Await(i + 1);
    ASSERT_EQ(units.size(), i + 1);
    EXPECT_EQ(units[i].index, 1000 + 7 * i);
  }
  EXPECT_EQ(encoder.Release(), 0);
  UVCFramePtr late = MakeFrame(Bytes(100), 1);
  EXPECT_EQ(encoder.EncodeAsync(late.get()), -1);  // Still ours.
}

// Holds the worker in its first delivery, so that what is queued meanwhile stays queued.
struct HeldDeliveries : Deliveries {
  void OnFinishEncode(std::uint32_t index, std::uint8_t* data, std::uint32_t length, int result) override {
    Deliveries::OnFinishEncode(index, data, length, result);
    EXPECT_TRUE(go.Wait());
  }
  Event go;
};

TEST(EncoderTest, ThinsItsQueueAndFreesItAtRelease) {
  HeldDeliveries held;
  UVCEncoder encoder;
  ASSERT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 64, 64, &held, nullptr), 0);
  const auto queue = [&encoder](std::uint32_t index) {
    EXPECT_EQ(encoder.EncodeAsync(MakeFrame(Bytes(8192), index).release()), 0);
  };
  queue(0);
  held.frames.Await(1);
  for (std::uint32_t index = 1; index <= 5; ++index) {
    queue(index);  // The fifth meets four: the first of them and the last stay.
  }
  held.go.Set();
  std::vector<std::int64_t> indices;
  for (const Delivered& unit : held.frames.Await(4)) {
    indices.push_back(unit.index);
  }
  EXPECT_EQ(indices, (std::vector<std::int64_t>{0, 1, 4, 5}));
  for (std::uint32_t index = 6; index <= 8; ++index) {
    queue(index);
  }
  EXPECT_EQ(encoder.Release(), 0);
  EXPECT_EQ(encoder.Release(), 0);
}

TEST(EncoderTest, RefusesWhatItCannotDo) {
  UVCEncoder encoder;
  std::uint32_t size = 7;
  EXPECT_EQ(encoder.Encode(nullptr, 0, nullptr, &size), -1);
  EXPECT_EQ(size, 0U);
  EXPECT_EQ(encoder.Init(UVC_ENCODER_TYPE_H265, 640, 480, nullptr, nullptr), -1);
  EXPECT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 0, 480, nullptr, nullptr), -1);
  EXPECT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 641, 480, nullptr, nullptr), -1);
  EXPECT_EQ(encoder.EncodeAsync(nullptr), -1);
  // An access unit that is larger than its picture does not leave the block.
  ASSERT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 16, 16, nullptr, nullptr), 0);
  Bytes block(16 * 16 * 2);
  const int result = encoder.Encode(block.data(), 512, block.data(), &size);
  EXPECT_TRUE(result == 0 ? size <= block.size() : size == 0);
}

TEST(EncoderTest, SyntheticPictureFollowsItsFormula) {
  for (const bool planar : {false, true}) {
    const FramePtr frame(av_frame_alloc());
    frame->format = planar ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_NV12;
    frame->width = 6;
    frame->height = 4;
    ASSERT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    frame->pts = 100;
    UVCEncoder::SetDummyPicData(planar ? EncoderType::kSoftware : EncoderType::kHardware, frame.get());
    const auto at = [&frame](int plane, int x, int y) { return frame->data[plane][y * frame->linesize[plane] + x]; };
    EXPECT_EQ(at(0, 5, 3), (5 + 3 + 300) % 256);
    EXPECT_EQ(planar ? at(1, 2, 1) : at(1, 4, 1), (128 + 1 + 200) % 256);
    EXPECT_EQ(planar ? at(2, 2, 1) : at(1, 5, 1), (64 + 2 + 500) % 256);
  }
}

TEST(EncoderTest, SaysWhichEncoderItUses) {
  const CapturingLog log;
  FFmpegEncoder encoder(true);
  EncoderParam param{
      .width = 64, .height = 64, .bitRate = 100000, .gopSize = 5, .timeBase = {1, 15}, .frameRate = {15, 1}};
  ASSERT_EQ(encoder.open(param), 0);
  const bool first = avcodec_find_encoder_by_name("libopenh264") != nullptr;
  EXPECT_EQ(encoder.Name(), first ? "libopenh264" : "libx264");
  EXPECT_EQ(log.Count("Warn:FFmpeg has no libopenh264, using libx264"), first ? 0U : 1U);
  encoder.close();
  EXPECT_LT(encoder.encode(nullptr, nullptr), 0);
}

}  // namespace
}  // namespace vel::test
