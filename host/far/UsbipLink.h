#ifndef VIRTUSB_HOST_FAR_USBIP_LINK_H
#define VIRTUSB_HOST_FAR_USBIP_LINK_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "far/FarDevice.h"
#include "far/UrbGuest.h"
#include "remote/FdStream.h"
#include "vel/Mutex.h"

namespace vel {

// One device on its connection to a guest's kernel: commands in, answers out. Run has a thread; answers are written by
// whichever thread has one, and those that come while another thread writes go out with its next write.
class UsbipLink final : private UrbGuest {
 public:
  enum class End {
    kGuestLeft,
    kMalformed,  // Error() says what.
    kFailed,     // This side, for want of memory or a thread. Error() says what.
    kDeviceGone,
    kStopped,
  };

  // The connection stays the caller's, and both outlive the link. `stop` ends Run.
  UsbipLink(RawFd fd, FarDevice& device, const StopSignal& stop);

  // Carries the connection from its first command on; the device has no guest any more when it returns. Once.
  End Run();
  const std::string& Error() const { return mError; }

 private:
  // More than this, and who answers waits for the guest to read.
  static constexpr std::size_t kMaxWaiting = 4U << 20U;

  End ReadCommands();
  void OnUrbDone(const UrbReply& reply) override;
  void OnUnlinked(std::uint32_t seqnum, std::int32_t status) override;
  void OnGone() override;
  void Write(std::span<const std::uint8_t> head, std::span<const std::uint8_t> data, std::span<const UrbPacket> packets)
      VEL_EXCLUDES(mMutex);

  FarDevice& mDevice;
  FdStream mStream;
  const StopSignal& mStop;
  std::string mError;
  Mutex mMutex;
  CondVar mChanged;
  bool mWriting VEL_GUARDED_BY(mMutex) = false;
  bool mBroken VEL_GUARDED_BY(mMutex) = false;
  std::vector<std::uint8_t> mWaiting VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
