#ifndef VIRTUSB_HOST_REMOTE_STREAM_CHANNEL_H
#define VIRTUSB_HOST_REMOTE_STREAM_CHANNEL_H

#include <string>
#include <thread>

#include "remote/FdStream.h"
#include "remote/PacketChannel.h"
#include "vel/Mutex.h"

namespace vel {

// The channel to a device that is served over a byte stream (`virtusb serve`).
class StreamChannel final : public PacketChannel {
 public:
  // Takes both descriptors over; they may be two of one socket. `name` is the other side's, for messages.
  StreamChannel(UniqueFd in, UniqueFd out, std::string name = "the other side", Contact contact = {});
  ~StreamChannel() override { Close(); }

  Contact GetContact() const override { return mContact; }
  void Start(Receiver receiver) override;
  bool Send(std::unique_ptr<VelPacket> packet) override;
  void Close() override;

 private:
  void ReadUntilEnd(const Receiver& receiver);

  const std::string mName;
  const Contact mContact;
  const UniqueFd mIn;
  const UniqueFd mOut;
  const StopSignal mStop;
  FdStream mStream;
  Mutex mReaderMutex;
  std::thread mReader VEL_GUARDED_BY(mReaderMutex);
};

}  // namespace vel

#endif
