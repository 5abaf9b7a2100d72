#ifndef VIRTUSB_HOST_OBSERVE_OBSERVED_CHANNEL_H
#define VIRTUSB_HOST_OBSERVE_OBSERVED_CHANNEL_H

#include <memory>
#include <utility>

#include "observe/DeviceTap.h"
#include "remote/PacketChannel.h"

namespace vel {

// A channel whose packets a tap sees.
class ObservedChannel final : public PacketChannel {
 public:
  ObservedChannel(std::unique_ptr<PacketChannel> channel, std::shared_ptr<DeviceTap> tap)
      : mTap(std::move(tap)), mChannel(std::move(channel)) {}

  Contact GetContact() const override { return mChannel->GetContact(); }
  void Start(Receiver receiver) override {
    mChannel->Start({.onPacket =
                         [this, onPacket = std::move(receiver.onPacket)](std::unique_ptr<VelPacket> packet) {
                           mTap->OnReply(*packet);
                           onPacket(std::move(packet));
                         },
                     .onClosed = std::move(receiver.onClosed)});
  }
  bool Send(std::unique_ptr<VelPacket> packet) override {
    mTap->OnRequest(*packet);
    return mChannel->Send(std::move(packet));
  }
  void Close() override {
    mChannel->Close();
    mTap->OnEnd();
  }

 private:
  const std::shared_ptr<DeviceTap> mTap;
  const std::unique_ptr<PacketChannel> mChannel;  // Goes first: it calls the tap.
};

}  // namespace vel

#endif
