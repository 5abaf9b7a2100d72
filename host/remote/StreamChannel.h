#ifndef VIRTUSB_HOST_REMOTE_STREAM_CHANNEL_H
#define VIRTUSB_HOST_REMOTE_STREAM_CHANNEL_H

#include <thread>

#include "remote/FdStream.h"
#include "remote/PacketChannel.h"
#include "vel/Mutex.h"

namespace vel {

// The channel to a device that is served over a byte stream (`virtusb serve`).
class StreamChannel final : public PacketChannel {
 public:
  // Takes both descriptors over; they may be two of one socket.
  StreamChannel(UniqueFd in, UniqueFd out);
  ~StreamChannel() override { Close(); }

  void Start(Receiver receiver) override;
  bool Send(std::unique_ptr<VelPacket> packet) override;
  void Close() override;

 private:
  void ReadUntilEnd(const Receiver& receiver);

  const UniqueFd mIn;
  const UniqueFd mOut;
  const StopSignal mStop;
  FdStream mStream;
  Mutex mReaderMutex;
  std::thread mReader VEL_GUARDED_BY(mReaderMutex);
};

}  // namespace vel

#endif
