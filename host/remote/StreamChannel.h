#ifndef VIRTUSB_HOST_REMOTE_STREAM_CHANNEL_H
#define VIRTUSB_HOST_REMOTE_STREAM_CHANNEL_H

#include <memory>
#include <string>
#include <thread>

#include "remote/ByteStream.h"
#include "remote/PacketChannel.h"
#include "vel/Mutex.h"

namespace vel {

// The channel to a device that is served over a byte stream (`virtusb serve`).
class StreamChannel final : public PacketChannel {
 public:
  // `name` is the other side's, for messages. Closing the channel aborts the stream.
  explicit StreamChannel(std::unique_ptr<ByteStream> stream, std::string name = "the other side", Contact contact = {});
  ~StreamChannel() override { Close(); }

  Contact GetContact() const override { return mContact; }
  void Start(Receiver receiver) override;
  bool Send(std::unique_ptr<VelPacket> packet) override;
  void Close() override;

 private:
  void ReadUntilEnd(const Receiver& receiver);

  const std::string mName;
  const Contact mContact;
  const std::unique_ptr<ByteStream> mStream;
  Mutex mReaderMutex;
  std::thread mReader VEL_GUARDED_BY(mReaderMutex);
};

}  // namespace vel

#endif
