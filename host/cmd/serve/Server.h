#ifndef VIRTUSB_HOST_CMD_SERVE_SERVER_H
#define VIRTUSB_HOST_CMD_SERVE_SERVER_H

#include <cstdint>
#include <memory>
#include <string>

#include "observe/DeviceTap.h"
#include "protocol/Commands.h"
#include "remote/ByteStream.h"
#include "remote/ModuleSession.h"
#include "remote/PacketWriter.h"
#include "vel/Mutex.h"

namespace vel {

// Carries the packets of one redirected device over one byte stream, from the first packet to the stream's end, and
// gives the device back then. Run by one thread; DeviceLeft and Redirect come from another.
class Server {
 public:
  enum class End {
    kRemoteDone,  // The remote side ended its requests; all of them were answered.
    kRemoteGone,  // It went away, or sent something that is no packet: Error() says which.
    kDeviceGone,
    kStopped,
  };

  static constexpr char kRepliesLost[] = "the remote side went away before all replies were sent";

  Server(std::shared_ptr<ModuleLibrary> library, const DeviceIdentity& identity, ModuleSession::Answers answers,
         ByteStream& stream, DeviceTap& tap);

  End Run();
  const std::string& Error() const { return mError; }

  // Ends Run: the device was unplugged.
  void DeviceLeft();
  // Goes on with the device at another place: unplugged, and plugged in again. The remote side finds it closed.
  void Redirect(const DeviceIdentity& identity);

 private:
  std::unique_ptr<ModuleSession> NewSession(const DeviceIdentity& identity);
  void Post(std::unique_ptr<VelPacket> packet);
  void OnReply(std::unique_ptr<VelPacket> packet);
  void OnWriteFailed(ByteStream::Result result);
  End ReadRequests();
  // Waits until all requests were handled, no longer than the remote side is there.
  void Fence();

  const std::shared_ptr<ModuleLibrary> mLibrary;
  const ModuleSession::Answers mAnswers;
  ByteStream& mStream;
  DeviceTap& mTap;
  PacketWriter mWriter;
  std::string mError;
  const StopSignal mAnswered;  // Raised by the fence's reply.
  Mutex mMutex;
  std::uint16_t mAwaited VEL_GUARDED_BY(mMutex) = 0;                             // That reply; 0 while none is awaited.
  ByteStream::Result mWritten VEL_GUARDED_BY(mMutex) = ByteStream::Result::kOk;  // Of the reply that could not be sent.
  bool mDeviceGone VEL_GUARDED_BY(mMutex) = false;
  Mutex mSessionMutex;  // Posting, and exchanging the session. Nothing else is taken with it held.
  std::unique_ptr<ModuleSession> mSession VEL_GUARDED_BY(mSessionMutex);
};

}  // namespace vel

#endif
