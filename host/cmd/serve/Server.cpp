#include "cmd/serve/Server.h"

#include <chrono>
#include <cstddef>
#include <utility>

#include "protocol/Commands.h"
#include "remote/PacketFramer.h"
#include "remote/RequestBuilder.h"

namespace vel {
namespace {

// Requests of this program's own, whose replies are not passed on.
constexpr RequestId kOwnId{0xFE, 0xFE4CE000};
// One that changes nothing. Its reply comes when all requests before it have been handled.
constexpr Command kFence = Command::kGetBusNumber;
constexpr std::chrono::seconds kFenceTime{10};

}  // namespace

Server::Server(std::shared_ptr<ModuleLibrary> library, const DeviceIdentity& identity, ModuleSession::Answers answers,
               ByteStream& stream, DeviceTap& tap)
    : mLibrary(std::move(library)),
      mAnswers(answers),
      mStream(stream),
      mTap(tap),
      mWriter(stream, [this](ByteStream::Result result) { OnWriteFailed(result); }),
      mSession(NewSession(identity)) {}

std::unique_ptr<ModuleSession> Server::NewSession(const DeviceIdentity& identity) {
  ModuleSession::Options options;
  options.answers = mAnswers;
  options.onReply = [this](std::unique_ptr<VelPacket> packet) { OnReply(std::move(packet)); };
  return std::make_unique<ModuleSession>(mLibrary, identity, std::move(options));
}

Server::End Server::Run() {
  End end = ReadRequests();
  if (end == End::kRemoteDone) {
    Fence();
    mWriter.Flush();
  }
  {
    const MutexLock lock(mMutex);
    if (mWritten == ByteStream::Result::kFailed && end != End::kRemoteGone) {
      mError = kRepliesLost;
      end = End::kRemoteGone;
    } else if (mWritten == ByteStream::Result::kStopped && end == End::kRemoteDone) {
      end = End::kStopped;
    }
  }
  mStream.Abort();  // A reply that nobody reads must not hold the device.
  std::unique_ptr<ModuleSession> session;
  {
    const MutexLock lock(mSessionMutex);
    session = std::move(mSession);
  }
  session.reset();
  mTap.OnEnd();
  const MutexLock lock(mMutex);
  return mDeviceGone ? End::kDeviceGone : end;
}

void Server::DeviceLeft() {
  {
    const MutexLock lock(mMutex);
    mDeviceGone = true;
  }
  mStream.Abort();
}

void Server::Redirect(const DeviceIdentity& identity) {
  std::unique_ptr<ModuleSession> session = NewSession(identity);
  {
    const MutexLock lock(mSessionMutex);
    if (mSession != nullptr) {  // Otherwise Run is over.
      mSession.swap(session);
    }
  }
}

void Server::Post(std::unique_ptr<VelPacket> packet) {
  const MutexLock lock(mSessionMutex);
  mSession->Post(std::move(packet));
}

Server::End Server::ReadRequests() {
  PacketFramer framer([this](std::unique_ptr<VelPacket> packet) {
    mTap.OnRequest(*packet);
    Post(std::move(packet));
  });
  while (true) {
    std::size_t count = 0;
    switch (mStream.Read(framer.Room(), count)) {
      case ByteStream::Result::kOk:
        if (!framer.Filled(count)) {
          mError = framer.Error();
          return End::kRemoteGone;
        }
        break;
      case ByteStream::Result::kEnd:
        if (framer.InsidePacket()) {
          mError = "the remote side ended in the middle of a packet";
          return End::kRemoteGone;
        }
        return End::kRemoteDone;
      case ByteStream::Result::kStopped:
        return End::kStopped;
      case ByteStream::Result::kFailed:
        mError = "the remote side is gone";
        return End::kRemoteGone;
    }
  }
}

void Server::OnReply(std::unique_ptr<VelPacket> packet) {
  if (packet->GetDevId() == kOwnId.devId && packet->GetReqId() == kOwnId.reqId) {
    const MutexLock lock(mMutex);
    if (packet->GetCommand() == mAwaited) {
      mAwaited = 0;
      mAnswered.Raise();
      return;
    }
  }
  mTap.OnReply(*packet);
  mWriter.Write(std::move(packet));
}

void Server::OnWriteFailed(ByteStream::Result result) {
  {
    const MutexLock lock(mMutex);
    mWritten = result;
  }
  mStream.Abort();  // Who gets no replies is gone, even when its requests still come.
}

void Server::Fence() {
  {
    const MutexLock lock(mMutex);
    mAwaited = ReplyCode(kFence);
  }
  Post(BuildRequest(kFence, kOwnId));
  mStream.WaitFor(mAnswered.Fd(), kReadable, kFenceTime);
}

}  // namespace vel
