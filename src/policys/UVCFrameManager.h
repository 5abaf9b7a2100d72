#ifndef VEL_POLICYS_UVC_FRAME_MANAGER_H
#define VEL_POLICYS_UVC_FRAME_MANAGER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "base/LockOrder.h"
#include "base/ModuleExport.h"
#include "codec/FrameDump.h"
#include "codec/UVCDecoderHandler.h"
#include "codec/UVCEncoderHandler.h"
#include "codec/UVCFrame.h"
#include "policys/UVCEncoder.h"
#include "policys/UVCUtil.h"

namespace vel {

// Takes a producer's frames and keeps finished ones ready for the consumer: unchanged, decoded, encoded, or decoded and
// then encoded, by the types of the two sides. Init makes it ready, Release ends that; both may be repeated.
class VEL_MODULE_EXPORT UVCFrameManager : private UVCUtil, public UVCEncoderHandler, public UVCDecoderHandler {
 public:
  enum DumpType : std::uint8_t { kDumpEncoded = 0, kDumpRaw = 1 };

  UVCFrameManager(_UVC_FRAME_TYPE in, _UVC_FRAME_TYPE out);
  UVCFrameManager(const UVCFrameManager&) = delete;
  UVCFrameManager& operator=(const UVCFrameManager&) = delete;
  ~UVCFrameManager() override;

  // Called after each frame that became available, with none of the manager's locks held, on the thread that brought
  // it: decoder's, encoder's, or the producer's for one that goes through untouched. It must not release the manager.
  // Before Init.
  void SetFrameListener(std::function<void()> listener) { mListener = std::move(listener); }

  // Size in pixels; `camera` is passed on to the encoder. Returns 0, or -1 with an Error line, and is not ready then. A
  // manager that was ready is released first. Any thread.
  int Init(std::uint16_t width, std::uint16_t height, _UVC_FRAME_TYPE in, _UVC_FRAME_TYPE out, CameraFuns* camera);

  // Hands a frame in. Returns 0, and the frame is the manager's whatever becomes of it, or -1, and it stays the
  // caller's: null, or not ready. With equal types the very same record comes out. Any thread; decodes on it, does not
  // wait for anything else.
  int EnqueueFrame(UVC_FRAME* frame);

  // The oldest finished frame, which is the caller's (FreeUvcFrame; its data is a malloc block). Waits for it at most
  // `timeoutMs` milliseconds; null when none came, when not ready, or when released meanwhile. Any thread.
  UVC_FRAME* DequeueFrame(int timeoutMs);

  // Takes the block over. A length of 0 gives no frame.
  void OnFinishEncode(std::uint32_t index, std::uint8_t* data, std::uint32_t length, int result) override;
  // Copies the bytes.
  void OnFinishDecode(std::uint8_t* data, std::uint32_t length, std::int64_t index) override;
  // Encodes the picture as it is where that can be done; copies nothing.
  void OnFinishDecodePicture(const DecodedPicture& picture) override;

  // Starts writing the frames that come in (kDumpRaw), or those that were encoded (kDumpEncoded), to a file, which is
  // replaced. A null path does nothing. Any thread.
  void EnableDumpStream(const char* path, std::uint8_t type);
  void DisableDumpStream();
  // Appends to the dump of this type, if it is on. Any thread.
  void DumpStream(const std::uint8_t* data, std::uint32_t length, std::uint8_t type);

  // Wakes whoever waits for a frame, ends decoder and encoder after the picture that each is at, frees every frame,
  // closes the dumps. Any thread but those of decoder and encoder.
  void Release();

  // For clients: the operations on lists of UVCFrame.h. Return 0.
  static int FrameListFlush(UVCFrameList& list);
  static int FrameListResize(std::uint32_t cacheSize, UVCFrameList& list);

  // Adds a finished frame, which it takes over, for the consumer; thins the frames that wait when they are too many.
  // Not ready, it frees the frame. Returns 0. Any thread.
  int PushFrameToOutQ(UVC_FRAME* frame);

 private:
  struct Stream;

  std::unique_ptr<Stream> MakeStream(int width, int height, _UVC_FRAME_TYPE in, _UVC_FRAME_TYPE out,
                                     CameraFuns* camera);
  std::shared_ptr<Stream> CurrentStream();
  void TakeDecoded(Stream& stream, HeapBlock block, std::uint32_t length, std::int64_t index);
  void Finish(Stream& stream, UVCFramePtr frame);
  void ReplaceStream(std::shared_ptr<Stream> next) VEL_REQUIRES(mControlMutex);

  Mutex mControlMutex VEL_LOCK_LEVEL(Coders);  // Init against Release; held while coders open and end.
  Mutex mStreamMutex VEL_LOCK_LEVEL(Leaf);
  std::shared_ptr<Stream> mStream VEL_GUARDED_BY(mStreamMutex);  // Null: not ready.
  _UVC_FRAME_TYPE mInFrameType VEL_GUARDED_BY(mStreamMutex);
  _UVC_FRAME_TYPE mOutFrameType VEL_GUARDED_BY(mStreamMutex);
  std::function<void()> mListener;
  FrameDump mRawDump;
  FrameDump mEncodedDump;
};

}  // namespace vel

#endif
