// An FFmpeg with libopenh264, which here is libx264 under that name: it knows none of the other's options.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "codec/FfmpegLog.h"
#include "policys/Encoder/FFmpegEncoder.h"
#include "support/CapturingLog.h"
#include "support/Scene.h"

namespace {

bool gHasOpenh264 = false;
std::vector<std::string> gOptions;

}  // namespace

// The linker sends the calls of this binary here.
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

constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr int kPerSecond = 15;
constexpr std::int64_t kBitRate = 200000;

class Openh264 : public testing::Test {
 protected:
  Openh264() { gHasOpenh264 = true; }
  ~Openh264() override { gHasOpenh264 = false; }

  // The bytes of each access unit. Every picture gives one.
  static std::vector<std::size_t> Encode(FFmpegEncoder& encoder, int gopSize, int pictures) {
    const EncoderParam param = {.width = kWidth,
                                .height = kHeight,
                                .bitRate = kBitRate,
                                .gopSize = gopSize,
                                .timeBase = {1, kPerSecond},
                                .frameRate = {kPerSecond, 1}};
    gOptions.clear();
    EXPECT_EQ(encoder.open(param), 0);
    const FramePtr frame(av_frame_alloc());
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = kWidth;
    frame->height = kHeight;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    const PacketPtr packet(av_packet_alloc());
    const Scene scene(kWidth, kHeight);
    std::vector<std::size_t> sizes;
    for (int i = 0; i < pictures; ++i) {
      EXPECT_EQ(av_frame_make_writable(frame.get()), 0);
      const Bytes yuyv = scene.Draw(i);
      for (int at = 0; at < kWidth * kHeight; ++at) {
        frame->data[0][at / kWidth * frame->linesize[0] + at % kWidth] = yuyv[static_cast<std::size_t>(2 * at)];
      }
      frame->pts = i;
      EXPECT_EQ(encoder.encode(frame.get(), packet.get()), 0) << "picture " << i;
      EXPECT_EQ((packet->flags & AV_PKT_FLAG_KEY) != 0, i % gopSize == 0) << "picture " << i;
      sizes.push_back(static_cast<std::size_t>(packet->size));
      av_packet_unref(packet.get());
    }
    encoder.close();
    EXPECT_LT(encoder.encode(frame.get(), packet.get()), 0) << "closed";
    return sizes;
  }
};

TEST_F(Openh264, HoldsTheRateWithAQuantiserForEachShortGroup) {
  constexpr int kGop = 5;
  constexpr int kWindow = 4 * kPerSecond;
  FFmpegEncoder encoder(false);
  const std::vector<std::size_t> sizes = Encode(encoder, kGop, 10 * kPerSecond);
  EXPECT_EQ(encoder.Name(), "libopenh264");
  EXPECT_THAT(std::vector(gOptions.begin(), gOptions.begin() + 5),
              testing::ElementsAre("preset=ultrafast", "profile=main", "tune=zerolatency", "allow_skip_frames=0",
                                   "rc_mode=quality"));
  EXPECT_LT(gOptions.size(), 5 + 2 * 30U) << "opened again where the quantiser stays";
  for (auto begin = sizes.begin() + 2 * kPerSecond; sizes.end() - begin >= kWindow; ++begin) {
    double bits = 0;
    std::for_each(begin, begin + kWindow, [&bits](std::size_t size) { bits += 8.0 * static_cast<double>(size); });
    EXPECT_NEAR(bits / 4 / kBitRate, 1, 0.15) << "from picture " << begin - sizes.begin();
  }
}

TEST_F(Openh264, HoldsLongGroupsItselfAndShowsItsDiagnosisWhenAsked) {
  const FfmpegLogRoute route;
  for (const bool debug : {false, true}) {
    const CapturingLog log;
    FFmpegEncoder encoder(false);
    if (debug) {
      encoder.enableDebug();
    }
    Encode(encoder, 25, 2);
    EXPECT_EQ(gOptions.back(), "rc_mode=bitrate");
    EXPECT_EQ(log.Count("[libx264 @") > 0, debug);
  }
}

}  // namespace
}  // namespace vel::test
