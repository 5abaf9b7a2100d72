#include "remote/StreamChannel.h"

#include <utility>

#include "remote/PacketFramer.h"

namespace vel {

StreamChannel::StreamChannel(std::unique_ptr<ByteStream> stream, std::string name, Contact contact)
    : mName(std::move(name)), mContact(std::move(contact)), mStream(std::move(stream)) {}

void StreamChannel::Start(Receiver receiver) {
  const MutexLock lock(mReaderMutex);
  mReader = std::thread([this, receiver = std::move(receiver)] { ReadUntilEnd(receiver); });
}

bool StreamChannel::Send(std::unique_ptr<VelPacket> packet) {
  return mStream->WriteAll(packet->Wire()) == ByteStream::Result::kOk;
}

void StreamChannel::Close() {
  mStream->Abort();
  const MutexLock lock(mReaderMutex);
  if (mReader.joinable()) {
    mReader.join();
  }
}

void StreamChannel::ReadUntilEnd(const Receiver& receiver) {
  PacketFramer framer(receiver.onPacket);
  std::size_t count = 0;
  ByteStream::Result result = ByteStream::Result::kOk;
  while ((result = mStream->Read(framer.Room(), count)) == ByteStream::Result::kOk && framer.Filled(count)) {
  }
  if (result == ByteStream::Result::kStopped || !receiver.onClosed) {
    return;
  }
  receiver.onClosed(mName + (!framer.Error().empty()                 ? " speaks something else: " + framer.Error()
                             : result == ByteStream::Result::kFailed ? ": " + mStream->Error()
                             : framer.InsidePacket()                 ? " ended in the middle of a packet"
                                                                     : " ended the connection"));
}

}  // namespace vel
