#ifndef VEL_POLICYS_UVC_ENCODER_H
#define VEL_POLICYS_UVC_ENCODER_H

#include <cstdint>
#include <memory>
#include <optional>
#include <thread>
#include <variant>

#include "base/LockOrder.h"
#include "base/ModuleExport.h"
#include "codec/FfmpegLog.h"
#include "codec/FfmpegPtr.h"
#include "codec/FrameBlocks.h"
#include "codec/ThinnedQueue.h"
#include "codec/UVCEncoderHandler.h"
#include "codec/UVCFrame.h"

namespace vel {

class IEncoder;
struct CameraFuns;

enum _UVC_ENCODER_TYPE : std::uint32_t {
  UVC_ENCODER_TYPE_H264 = 0,
  UVC_ENCODER_TYPE_H265 = 1,  // Refused.
};

// What pictures the encoder behind takes.
enum class EncoderType {
  kSoftware = 0,  // Planar 4:2:0. The one in use.
  kHardware = 1,  // NV12, for a hardware encoder.
};

// Turns YUYV frames into an H.264 elementary stream (Annex B): each frame gives one access unit with the same index.
// Bit rate, frame rate and distance of key frames follow from the picture's height.
class VEL_MODULE_EXPORT UVCEncoder {
 public:
  UVCEncoder();
  UVCEncoder(const UVCEncoder&) = delete;
  UVCEncoder& operator=(const UVCEncoder&) = delete;
  ~UVCEncoder();

  // Opens the codec and starts the worker. Size in pixels. The handler outlives the encoder's release; `camera` is kept
  // and not used. Returns 0, or -1 with an Error line; an encoder that was in use is released first. Any thread, but
  // not along with Release.
  int Init(_UVC_ENCODER_TYPE type, int width, int height, UVCEncoderHandler* handler, CameraFuns* camera);

  // Queues a frame for the worker, and thins the queue when it holds more than kFrameListLimit. Returns 0, and the
  // frame is the encoder's, or -1, and it stays the caller's: null, not initialised, or released. A frame that is too
  // short for a picture gives a synthetic one. Any thread; does not block.
  int EncodeAsync(UVC_FRAME* frame);
  // The same; `frame` is empty afterwards unless it failed.
  int EncodeAsync(UVCFramePtr& frame);
  // The same with a planar 4:2:0 picture of the encoder's size instead of a frame; its memory is read and not written.
  int EncodeAsync(FramePtr& picture, std::uint32_t index);

  // Encodes one picture on the calling thread, past the queue. `out` has width * height * 2 bytes; an access unit that
  // is larger, which only pictures of a few pixels have, is refused. Returns 0 and the size, or a negative code and 0.
  // Any thread.
  int Encode(const std::uint8_t* data, std::uint32_t length, std::uint8_t* out, std::uint32_t* outLength);

  // Ends the worker after the picture that it is at, frees what is queued, closes the codec. Returns 0, also without
  // Init. Any thread but the worker's.
  int Release();

  // For clients. `dstUV` may be null: then it is behind the luma. `src` has width * height * 2 bytes, the destination
  // width * height
  // * 3 / 2 in all. Chroma comes from the even rows. Any thread.
  static void YUYVToNV12(const std::uint8_t* src, std::uint8_t* dstY, std::uint8_t* dstUV, int width, int height);
  // The same sizes; chroma comes from the odd rows, other than above.
  static void YUYVToYUV420P(const std::uint8_t* src, std::uint8_t* dst, int width, int height);

  // Fills the frame's planes with the moving pattern of picture number `frame->pts`.
  static void SetDummyPicData(EncoderType type, AVFrame* frame);

 private:
  bool OpenEncoder(_UVC_ENCODER_TYPE type) VEL_REQUIRES(mCodecMutex);
  struct Input {
    std::uint32_t index;
    std::variant<UVCFramePtr, FramePtr> picture;  // Packed or planar.
  };
  template <class Picture>
  int Queue(Picture& picture, std::uint32_t index);
  int EncodePicture(const UVCFramePtr& frame) VEL_REQUIRES(mCodecMutex);
  int EncodePicture(const FramePtr& planes) VEL_REQUIRES(mCodecMutex);
  int EncodePicture(const std::uint8_t* data, std::uint32_t length) VEL_REQUIRES(mCodecMutex);
  void EncodeThread();
  void EncodeInput(Input& input);

  Mutex mCodecMutex VEL_LOCK_LEVEL(Work);
  std::unique_ptr<IEncoder> mEncoder VEL_GUARDED_BY(mCodecMutex);
  int mWidth VEL_GUARDED_BY(mCodecMutex) = 0;
  int mHeight VEL_GUARDED_BY(mCodecMutex) = 0;
  FramePtr mFrame VEL_GUARDED_BY(mCodecMutex);
  PacketPtr mPacket VEL_GUARDED_BY(mCodecMutex);
  std::optional<FfmpegLogRoute> mLogRoute;

  std::thread mThread;
  UVCEncoderHandler* mHandler = nullptr;
  CameraFuns* mCamera = nullptr;
  std::optional<FrameBlocks::User> mBlocks;
  ThinnedQueue<Input> mInputs{"encoder"};  // Open from Init to Release.
};

}  // namespace vel

#endif
