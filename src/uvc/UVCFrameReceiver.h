#ifndef VEL_UVC_UVC_FRAME_RECEIVER_H
#define VEL_UVC_UVC_FRAME_RECEIVER_H

#include <cstdint>
#include <span>

namespace vel {

// Owns the blocks that the frames of a stream are assembled in, and takes the frames. Called on the thread, and under
// the locks, of whoever feeds the assembler; must not call it back.
class UVCFrameReceiver {
 public:
  // The block for the next frame, of the negotiated size; it may be the one handed out before when that was not taken
  // as a frame. An empty one (no memory) costs that frame.
  virtual std::span<std::uint8_t> NextBlock() = 0;

  // A whole frame, never empty: the head of the block handed out last, which the assembler has done with.
  virtual void TakeFrame(std::span<std::uint8_t> frame) = 0;

  virtual ~UVCFrameReceiver() = default;

 protected:
  UVCFrameReceiver() = default;
  UVCFrameReceiver(const UVCFrameReceiver&) = default;
  UVCFrameReceiver& operator=(const UVCFrameReceiver&) = default;
};

}  // namespace vel

#endif
