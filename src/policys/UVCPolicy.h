#ifndef VEL_POLICYS_UVC_POLICY_H
#define VEL_POLICYS_UVC_POLICY_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "base/LockOrder.h"
#include "io/IUsbIo.h"
#include "policys/stream/UVCNegotiation.h"
#include "policys/stream/UVCStream.h"

namespace vel {

// The policy of a camera: takes its streaming endpoint over. Learns from the requests that pass by what was negotiated,
// reads the camera itself while an alternate setting other than 0 is selected, and answers each of the remote side's
// reads with a whole frame, transcoded if it is to be.
//
// Loop thread, but for what says otherwise. `io` outlives the policy.
class UVCPolicy {
 public:
  // `heightLimit`: frames that are taller (pixels) are hidden from the remote side; 0 hides none. `unused` is ignored.
  // `transcode`: raw pictures go out as H.264. `headerLengthCounts`: see UVCPayloadHeader::SizeOf.
  // `newestPictures`: see UVCStreamTally.
  UVCPolicy(IUsbIo* io, std::uint32_t heightLimit, std::int8_t unused, std::uint8_t transcode,
            bool headerLengthCounts = false, bool newestPictures = false);
  UVCPolicy(const UVCPolicy&) = delete;
  UVCPolicy& operator=(const UVCPolicy&) = delete;
  ~UVCPolicy();

  // The camera's configuration, or a raw block of its streaming interface. Before anything else.
  void ParseDescriptors(const libusb_config_descriptor* config);
  void ParseDescriptors(std::span<const std::uint8_t> block);

  // 0xFF when there is none.
  std::uint8_t GetVSInterface() const { return mNegotiation.Interface(); }
  std::uint8_t GetVSEndpoint() const { return mNegotiation.Endpoint(); }

  // Takes the tall frames out of the block of a streaming interface, in place. Its new length, or nothing when it is as
  // it was.
  std::optional<std::uint32_t> RewriteDescriptors(std::span<std::uint8_t> block) const;

  // Around the selection of an alternate setting of the streaming interface. Return 0.
  int SetInterface(std::uint32_t interfaceNumber, std::uint32_t altSetting);
  int SetInterfacePost(std::uint32_t interfaceNumber, std::uint32_t altSetting);

  // A control request on its way to the device, and its answer on the way back, which may be changed. Return 0.
  int PeekClassControlTransfer(const UVCClassRequest& request);
  int PeekClassControlTransferRet(const UVCClassRequest& request);

  // A remote read of the streaming endpoint, which completes exactly once: with a frame, or as the backend sees to it
  // while no stream runs. Returns 0, or what the backend says.
  int DoTransfer(_UsbIoXferInfo* info);
  // Completes a read that waits for its turn as cancelled; false when there is none.
  bool CancelTransfer(std::uint32_t localXferId);

  // Ends the stream. Any thread.
  void Release();

  // Given, and called by nothing: writes the bytes to the file "<index>.data". Returns 0 also when it cannot be opened,
  // which it says on standard output.
  static int SaveFrame(const std::uint8_t* buffer, int length, int index);

 private:
  int StartStream(std::uint32_t altSetting);
  void StopStream();
  void EndStream() VEL_REQUIRES(mControlMutex);
  std::shared_ptr<UVCStream> CurrentStream();
  UVCStream::Format StreamFormat() const;
  UVCCameraReader::Source StreamSource(std::uint32_t altSetting) const;

  IUsbIo& mIo;
  const std::uint32_t mHeightLimit;
  const std::uint8_t mTranscode;
  const bool mHeaderLengthCounts;
  const bool mNewestPictures;
  UVCNegotiation mNegotiation;
  Mutex mControlMutex VEL_LOCK_LEVEL(Control);  // Start against stop: held while a stream begins or ends.
  Mutex mStreamMutex VEL_LOCK_LEVEL(Leaf);
  std::shared_ptr<UVCStream> mStream VEL_GUARDED_BY(mStreamMutex);  // Null: idle.
};

}  // namespace vel

#endif
