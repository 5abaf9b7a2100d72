#ifndef OSKELO_CAMERA_TEST_SOURCE_H
#define OSKELO_CAMERA_TEST_SOURCE_H

#include "CameraSource.h"
#include "Pacer.h"

namespace oskelo {

// Colour bars with a bright line that moves through them, at 30 pictures per second.
class TestSource final : public CameraSource {
 public:
  TestSource();

  bool Select(const _CameraParam& param) override;
  bool Stream(PictureSink& sink) override;
  void Stop() override { mPacer.Stop(); }
  void Arm() override { mPacer.Arm(); }

 private:
  void Paint(std::span<std::uint8_t> picture, std::uint32_t number) const;

  _CameraParam mSelected{};
  Pacer mPacer;
};

}  // namespace oskelo

#endif
