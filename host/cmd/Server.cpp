#include "cmd/Server.h"

#include <chrono>
#include <utility>
#include <vector>

#include "protocol/Commands.h"
#include "remote/PacketFramer.h"
#include "remote/RequestBuilder.h"

namespace vel {
namespace {

constexpr std::size_t kReadBytes = 256U << 10U;

// A request of this program's own behind the last one of the remote side. Its reply comes when all before it have been
// handled, and is not passed on.
constexpr Command kFenceCommand = Command::kGetBusNumber;
constexpr RequestId kFenceId{0xFE, 0xFE4CE000};
constexpr std::chrono::seconds kFenceTime{10};

bool IsFence(const VelPacket& packet) {
  return packet.GetCommand() == ReplyCode(kFenceCommand) && packet.GetDevId() == kFenceId.devId &&
         packet.GetReqId() == kFenceId.reqId;
}

}  // namespace

Server::Server(std::shared_ptr<ModuleLibrary> library, const DeviceIdentity& identity, bool answersFailures,
               FdStream& stream)
    : mLibrary(std::move(library)),
      mAnswersFailures(answersFailures),
      mStream(stream),
      mSession(NewSession(identity)) {}

std::unique_ptr<ModuleSession> Server::NewSession(const DeviceIdentity& identity) {
  ModuleSession::Options options;
  options.answersFailures = mAnswersFailures;
  options.onReply = [this](std::unique_ptr<VelPacket> packet) { OnReply(std::move(packet)); };
  return std::make_unique<ModuleSession>(mLibrary, identity, std::move(options));
}

Server::End Server::Run() {
  End end = ReadRequests();
  if (end == End::kRemoteDone) {
    AwaitLastReplies();
    const MutexLock lock(mMutex);
    if (mBroken) {
      mError = "the remote side went away before all replies were sent";
      end = End::kRemoteGone;
    }
  }
  mStream.Abort();  // A reply that nobody reads must not hold the device.
  std::unique_ptr<ModuleSession> session;
  {
    const MutexLock lock(mSessionMutex);
    session = std::move(mSession);
  }
  session.reset();
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
  PacketFramer framer([this](std::unique_ptr<VelPacket> packet) { Post(std::move(packet)); });
  std::vector<std::uint8_t> buffer(kReadBytes);
  while (true) {
    std::size_t count = 0;
    switch (mStream.Read(buffer, count)) {
      case FdStream::Result::kOk:
        if (!framer.Feed(std::span(buffer).first(count))) {
          mError = framer.Error();
          return End::kRemoteGone;
        }
        break;
      case FdStream::Result::kEnd:
        if (framer.InsidePacket()) {
          mError = "the remote side ended in the middle of a packet";
          return End::kRemoteGone;
        }
        return End::kRemoteDone;
      case FdStream::Result::kStopped:
        return End::kStopped;
      case FdStream::Result::kFailed:
        mError = "the remote side is gone";
        return End::kRemoteGone;
    }
  }
}

void Server::OnReply(std::unique_ptr<VelPacket> packet) {
  if (IsFence(*packet)) {
    const MutexLock lock(mMutex);
    if (mFenceIsOut) {
      mFenceIsBack = true;
      mChanged.NotifyAll();
      return;
    }
  }
  if (mStream.WriteAll(packet->Wire()) != FdStream::Result::kOk) {
    const MutexLock lock(mMutex);
    mBroken = true;
    mChanged.NotifyAll();
  }
}

void Server::AwaitLastReplies() {
  {
    const MutexLock lock(mMutex);
    mFenceIsOut = true;
  }
  Post(BuildRequest(kFenceCommand, kFenceId));
  const auto deadline = std::chrono::steady_clock::now() + kFenceTime;
  MutexLock lock(mMutex);
  while (!mFenceIsBack && !mBroken && mChanged.WaitUntil(lock, deadline)) {
  }
}

}  // namespace vel
