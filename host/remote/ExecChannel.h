#ifndef VIRTUSB_HOST_REMOTE_EXEC_CHANNEL_H
#define VIRTUSB_HOST_REMOTE_EXEC_CHANNEL_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "remote/ChildProcess.h"
#include "remote/FdStream.h"
#include "remote/StreamChannel.h"

namespace vel {

// The channel to a device whose packets a program carries on its standard input and output. The program runs as long
// as the channel is there.
class ExecChannel final : public PacketChannel {
 public:
  // Throws std::runtime_error when the program cannot be run. Once `stop` is raised, it has little time to end.
  ExecChannel(std::vector<std::string> words, std::string name, Contact contact, const StopSignal& stop)
      : mChild(std::move(words), stop),
        mStream(std::make_unique<FdStream>(mChild.TakeOutput(), mChild.TakeInput()), std::move(name),
                std::move(contact)) {}

  Contact GetContact() const override { return mStream.GetContact(); }
  void Start(Receiver receiver) override {
    mStream.Start({.onPacket = std::move(receiver.onPacket),
                   .onClosed = [this, told = std::move(receiver.onClosed)](const std::string& why) {
                     const auto end = mChild.AwaitEnd(kTimeToEnd);
                     told(end ? why + " (" + *end + ")" : why);
                   }});
  }
  bool Send(std::unique_ptr<VelPacket> packet) override { return mStream.Send(std::move(packet)); }
  void Close() override { mStream.Close(); }

 private:
  // A program that has closed its output is about to end.
  static constexpr std::chrono::milliseconds kTimeToEnd{200};

  ChildProcess mChild;
  StreamChannel mStream;  // Goes first, and with it the program's input.
};

}  // namespace vel

#endif
