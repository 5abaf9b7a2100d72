#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "codec/FfmpegLog.h"
#include "codec/FrameBlocks.h"
#include "policys/Encoder/FFmpegEncoder.h"
#include "policys/UVCDecoder.h"
#include "policys/UVCEncoder.h"
#include "support/CapturingLog.h"
#include "support/Collected.h"
#include "support/Limits.h"
#include "support/Scene.h"
#include "vel/Processors.h"

namespace {

bool gHasOpenh264 = false;
std::vector<std::string> gOptions;

}  // namespace

// The linker sends the calls of this binary here. libopenh264 is libx264 under that name: it knows none of the other's
// options.
extern "C" {

const AVCodec* __real_avcodec_find_encoder_by_name(const char* name);
int __real_av_opt_set(void* object, const char* name, const char* value, int flags);

const AVCodec* __wrap_avcodec_find_encoder_by_name(const char* name) {
  const bool here = gHasOpenh264 && std::string_view(name) == "libopenh264";
  return __real_avcodec_find_encoder_by_name(here ? "libx264" : name);
}
int __wrap_av_opt_set(void* object, const char* name, const char* value, int flags) {
  gOptions.push_back(std::string(name) + "=" + value);
  return __real_av_opt_set(object, name, value, flags);
}
int __wrap_av_opt_set_int(void* /*object*/, const char* name, std::int64_t value, int /*flags*/) {
  gOptions.push_back(std::string(name) + "=" + std::to_string(value));
  return 0;
}

}  // extern "C"

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
  bool openh264 = false;
};

class EncoderStream : public testing::TestWithParam<Setting> {
 protected:
  EncoderStream() {
    gHasOpenh264 = GetParam().openh264;
    gOptions.clear();
  }
  ~EncoderStream() override { gHasOpenh264 = false; }
};

// What a receiver sees of six seconds of video: each unit is a picture at once, so that none waits for a later one.
TEST_P(EncoderStream, IsWhatAReceiverLikes) {
  const Setting& setting = GetParam();
  const Scene scene(setting.width, setting.height);
  const CapturingLog log(OSKELO_LOG_ERROR);
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
    EXPECT_EQ(std::ranges::count(nals, key ? 5 : 1), 1) << "picture " << i;
    EXPECT_TRUE(!key || (firstOf(7) < firstOf(8) && firstOf(8) < firstOf(5))) << "picture " << i;
    std::uint32_t decodedSize = 0;
    ASSERT_EQ(decoder.Decode(unit.data(), size, decoded.data(), &decodedSize), 1) << "picture " << i;
    ASSERT_EQ(decodedSize, decoded.size());
    psnr += LumaPsnr(picture, decoded) / frames;
  }
  EXPECT_GT(psnr, 36);
  EXPECT_THAT(log.Messages(), testing::IsEmpty());

  const double average = std::accumulate(sizes.begin(), sizes.end(), 0.0) / frames;
  EXPECT_LE(*std::max_element(sizes.begin(), sizes.end()), 12 * average);
  const int window = 4 * setting.framesPerSecond;
  for (int begin = setting.framesPerSecond; begin + window <= frames; ++begin) {
    const double bits = 8 * std::accumulate(sizes.begin() + begin, sizes.begin() + begin + window, 0.0);
    EXPECT_NEAR(bits / 4 / setting.bitRate, 1, 0.15) << "from picture " << begin;
  }
  if (setting.openh264) {
    EXPECT_LT(gOptions.size(), 5 + 2 * 30U) << "opened again where the quantiser stays";
    gOptions.resize(5);
    EXPECT_THAT(gOptions, testing::ElementsAre("preset=ultrafast", "profile=main", "tune=zerolatency",
                                               "allow_skip_frames=0", "rc_mode=quality"));
  }
}

INSTANTIATE_TEST_SUITE_P(EachSetting, EncoderStream,
                         testing::Values(Setting{"Height480", 640, 480, 800000, 15, 5},
                                         Setting{"Openh264", 640, 480, 800000, 15, 5, true},
                                         Setting{"Height720", 1280, 720, 1000000, 25, 25},
                                         Setting{"Height1080", 1920, 1080, 1500000, 25, 25}),
                         [](const auto& setting) { return setting.param.name; });

TEST(FFmpegEncoderTest, CutsLargePicturesIntoSlicesAndHoldsNoneBack) {
  UVCEncoder encoder;
  ASSERT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 3840, 2160, nullptr, nullptr), 0);
  const std::ptrdiff_t threads = std::min(UsableProcessors(), 4U);
  Bytes unit(std::size_t{3840} * 2160 * 2);
  for (const int type : {5, 1}) {
    std::uint32_t size = 0;
    ASSERT_EQ(encoder.Encode(nullptr, 0, unit.data(), &size), 0);
    EXPECT_EQ(std::ranges::count(NalTypes({unit.data(), size}), type), threads);
  }
}

TEST(FFmpegEncoderTest, LeavesLongGroupsToOpenh264AndShowsItsDiagnosisWhenAsked) {
  gHasOpenh264 = true;
  std::optional<FfmpegLogRoute> route(std::in_place);
  std::optional<FfmpegLogRoute> other(std::in_place);
  other.reset();  // Ends nothing for the first.
  for (const bool debug : {false, true}) {
    const CapturingLog log;
    FFmpegEncoder encoder(false);
    if (debug) {
      encoder.enableDebug();
    }
    EXPECT_EQ(encoder.open({.width = 64, .height = 64, .bitRate = 200000, .gopSize = 25, .timeBase = {1, 25}}), 0);
    EXPECT_EQ(encoder.Name(), "libopenh264");
    EXPECT_EQ(gOptions.back(), "rc_mode=bitrate");
    EXPECT_EQ(log.Count("[libx264 @") > 0, debug);
  }
  route.reset();
  const CapturingLog log;
  av_log(nullptr, AV_LOG_ERROR, "not for our log\n");
  EXPECT_EQ(log.Count("not for our log"), 0U);
  gHasOpenh264 = false;
}

// Holds the worker in its first delivery, so that what is queued meanwhile stays queued.
struct HeldDeliveries : UVCEncoderHandler {
  void OnFinishEncode(std::uint32_t index, std::uint8_t* data, std::uint32_t /*length*/, int /*result*/) override {
    const HeapBlock block(data);
    indices.Add(index);
    EXPECT_EQ(go.Await(1).size(), 1U);
  }
  Collected<std::uint32_t> indices;
  Collected<int> go;
};

TEST(FrameBlocks, AreKeptAndTakenAgainWhileSomebodyUsesThem) {
  constexpr std::size_t kSize = 1U << 20U;
  std::optional<FrameBlocks::User> first(std::in_place);
  std::optional<FrameBlocks::User> second(std::in_place);
  std::vector<HeapBlock> blocks;
  std::vector<const std::uint8_t*> given;
  for (std::size_t i = 0; i < 2 * FrameBlocks::kBlocksForUser + 1; ++i) {
    blocks.push_back(FrameBlocks::Take(kSize));
    given.push_back(blocks.back().get());
  }
  for (HeapBlock& block : blocks) {
    FrameBlocks::Give(std::move(block), kSize);
  }
  second.reset();  // Ends nothing for the first.
  EXPECT_NE(FrameBlocks::Take(kSize + 1).get(), given.back()) << "too small";
  for (std::size_t i = given.size() - 1; i > 0; --i) {  // The first gave way to the last.
    blocks[i] = FrameBlocks::Take(kSize);
    EXPECT_EQ(blocks[i].get(), given[i]);
  }
  EXPECT_NE(FrameBlocks::Take(kSize), nullptr) << "nothing of what gave way is left";
}

TEST(Encoder, ThinsItsQueueAndFreesItAtRelease) {
  HeldDeliveries held;
  UVCEncoder encoder;
  ASSERT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 64, 64, &held, nullptr), 0);
  for (std::uint32_t index = 0; index <= 5; ++index) {
    EXPECT_EQ(encoder.EncodeAsync(MakeFrame(Bytes(8192), index).release()), 0);
    held.indices.Await(1);
  }
  held.go.Add(1);
  // The fifth met four in the queue: the first of them and the last stay.
  EXPECT_EQ(held.indices.Await(4), (std::vector<std::uint32_t>{0, 1, 4, 5}));
  for (std::uint32_t index = 6; index <= 8; ++index) {
    EXPECT_EQ(encoder.EncodeAsync(MakeFrame(Bytes(8192), index).release()), 0);
  }
  EXPECT_EQ(encoder.Release(), 0);
  const UVCFramePtr late = MakeFrame(Bytes(100), 1);
  EXPECT_EQ(encoder.EncodeAsync(late.get()), -1) << "still ours";
}

// The picture that stands for none.
TEST(Encoder, PaintsForClients) {
  const Bytes planar = {52, 52, 9, 53, 53, 9, 2, 3, 9, 2, 3, 9};
  const Bytes interleaved = {52, 2, 52, 3, 9, 9, 53, 2, 53, 3, 9, 9};
  for (const EncoderType type : {EncoderType::kSoftware, EncoderType::kHardware}) {
    Bytes planes(24, 9);
    AVFrame frame{};
    frame.width = frame.height = 3;
    frame.pts = 90;
    const int strides[] = {4, type == EncoderType::kSoftware ? 3 : 6, 3};
    for (std::size_t plane = 0; plane < 3; ++plane) {
      frame.data[plane] = planes.data() + 6 * plane + (plane > 0 ? 6 : 0);
      frame.linesize[plane] = strides[plane];
    }
    UVCEncoder::SetDummyPicData(type, &frame);
    Bytes expected = {14, 15, 16, 9, 15, 16, 17, 9, 16, 17, 18, 9};
    std::ranges::copy(type == EncoderType::kSoftware ? planar : interleaved, std::back_inserter(expected));
    EXPECT_EQ(planes, expected);
  }
}

TEST(Encoder, RefusesWhatItCannotDo) {
  UVCEncoder encoder;
  std::uint32_t size = 7;
  EXPECT_EQ(encoder.Encode(nullptr, 0, nullptr, &size), -1);
  EXPECT_EQ(encoder.Init(UVC_ENCODER_TYPE_H265, 640, 480, nullptr, nullptr), -1);
  EXPECT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 641, 480, nullptr, nullptr), -1);
  EXPECT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 8194, 16, nullptr, nullptr), -1);
  // An access unit that is larger than its picture does not leave the block.
  ASSERT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 16, 16, nullptr, nullptr), 0);
  Bytes block(512);
  const int result = encoder.Encode(block.data(), 512, block.data(), &size);
  EXPECT_TRUE(result == 0 ? size <= block.size() : size == 0);
  EXPECT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, 64, 64, nullptr, nullptr), 0) << "released first";
}

}  // namespace
}  // namespace vel::test
