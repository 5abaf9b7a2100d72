// Video through the pipeline at full speed, a broken frame now and then: MJPEG in, H.264 out.
#include <vector>

#include <gtest/gtest.h>

#include "policys/UVCFrameManager.h"
#include "soak/Soak.h"
#include "support/Scene.h"

namespace vel::test {
namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr int kWaitMs = 60000;  // Only a failure waits that long.

class CodecSoak final : public SoakSuite {
 public:
  CodecSoak() {
    const Scene scene(kWidth, kHeight);
    for (int i = 0; i < 50; ++i) {
      mJpegs.push_back(EncodeJpeg(scene.Draw(i), kWidth, kHeight));
    }
    EXPECT_EQ(mManager.Init(kWidth, kHeight, UVC_FRAME_TYPE_MJPEG, UVC_FRAME_TYPE_H264, nullptr), 0);
  }

  const char* Unit() const override { return "frames"; }

  void Round(SoakRun& run) override {
    for (const Bytes& jpeg : mJpegs) {
      // Nobody waits for a broken one, and the decoder takes no third while two wait: the next one is whole.
      const bool broken = !mBroken && run.OneIn(97);
      mBroken = broken;
      run.faults += broken ? 1 : 0;
      const std::span<const std::uint8_t> input(jpeg.data(), broken ? run.Pick(jpeg.size()) : jpeg.size());
      const std::uint32_t number = mNumber++;
      ASSERT_EQ(mManager.EnqueueFrame(MakeFrame(input, number).release()), 0);
      for (UVCFramePtr frame; !broken && (frame == nullptr || frame->index != number);) {
        frame.reset(mManager.DequeueFrame(kWaitMs));
        ASSERT_NE(frame, nullptr) << "frame " << number << " did not come out";
      }
      ++run.work;
    }
  }

 private:
  std::vector<Bytes> mJpegs;
  UVCFrameManager mManager{UVC_FRAME_TYPE_MJPEG, UVC_FRAME_TYPE_H264};
  std::uint32_t mNumber = 0;
  bool mBroken = false;
};

}  // namespace

std::unique_ptr<SoakSuite> MakeCodecSoak() {
  return std::make_unique<CodecSoak>();
}

}  // namespace vel::test
