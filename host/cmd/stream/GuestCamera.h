#ifndef VIRTUSB_HOST_CMD_STREAM_GUEST_CAMERA_H
#define VIRTUSB_HOST_CMD_STREAM_GUEST_CAMERA_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cmd/stream/PictureSize.h"
#include "remote/CameraModel.h"
#include "remote/RemoteDevice.h"

namespace vel {

// A guest's camera driver, played over packets: makes the camera its own, agrees with it on a picture, starts and stops
// the stream. One thread. Everything throws RemoteError when the device does not answer, or refuses.
//
// What is not given back by GiveBack, the end of the channel gives back.
class GuestCamera {
 public:
  // What the camera has agreed to.
  struct Stream {
    CameraMode mode;
    std::uint32_t interval = 0;      // Between two pictures, 100 ns; 0 where the camera does not say.
    std::uint32_t pictureBytes = 0;  // At most, before any transcoding.
    std::uint32_t payloadBytes = 0;  // In a (micro)frame, at most.
  };

  // Opens the device and enumerates it. With `transcode`, raw pictures are to come as H.264. `remote` outlives it.
  GuestCamera(RemoteDevice& remote, bool transcode);

  // Product and ids, as the device says them.
  const std::string& Name() const { return mName; }

  // Agrees on a picture of this size, or of the camera's own choice. A size may be there in several formats: taken is
  // YUYV for transcoding, and otherwise the one that the camera names first. Throws std::runtime_error with what there
  // is for a size that is not.
  Stream Negotiate(const std::optional<PictureSize>& size);
  // The endpoint that Start makes readable.
  std::uint8_t Endpoint() const { return mModel.endpoint; }
  void Start(const Stream& stream);
  void Stop();

  // Asks the device whether it is there; one that does not answer takes a second.
  enum class Presence { kThere, kSilent, kGone };
  Presence Ask();

  // Hands the device back to this machine.
  void GiveBack();

 private:
  const CameraMode& Choose(const std::optional<PictureSize>& size) const;
  std::vector<std::uint8_t> Control(std::uint8_t request, std::uint8_t selector, std::span<const std::uint8_t> data);

  RemoteDevice& mRemote;
  const bool mTranscode;
  std::string mName;
  CameraModel mModel;
};

}  // namespace vel

#endif
