#include "remote/StreamChannel.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "remote/PacketFramer.h"

namespace vel {

StreamChannel::StreamChannel(UniqueFd in, UniqueFd out, std::string name, Contact contact)
    : mName(std::move(name)),
      mContact(std::move(contact)),
      mIn(std::move(in)),
      mOut(std::move(out)),
      mStream(mIn.Get(), mOut.Get(), mStop) {}

void StreamChannel::Start(Receiver receiver) {
  const MutexLock lock(mReaderMutex);
  mReader = std::thread([this, receiver = std::move(receiver)] { ReadUntilEnd(receiver); });
}

bool StreamChannel::Send(std::unique_ptr<VelPacket> packet) {
  return mStream.WriteAll(packet->Wire()) == FdStream::Result::kOk;
}

void StreamChannel::Close() {
  mStop.Raise();
  const MutexLock lock(mReaderMutex);
  if (mReader.joinable()) {
    mReader.join();
  }
}

void StreamChannel::ReadUntilEnd(const Receiver& receiver) {
  PacketFramer framer(receiver.onPacket);
  std::size_t count = 0;
  FdStream::Result result = FdStream::Result::kOk;
  while ((result = mStream.Read(framer.Room(), count)) == FdStream::Result::kOk && framer.Filled(count)) {
  }
  const int error = errno;
  if (result == FdStream::Result::kStopped || !receiver.onClosed) {
    return;
  }
  receiver.onClosed(mName + (!framer.Error().empty()               ? " speaks something else: " + framer.Error()
                             : result == FdStream::Result::kFailed ? std::string(": ") + std::strerror(error)
                             : framer.InsidePacket()               ? " ended in the middle of a packet"
                                                                   : " ended the connection"));
}

}  // namespace vel
