#include "remote/RemoteDevice.h"

#include <algorithm>
#include <utility>

#include "protocol/ByteReader.h"
#include "protocol/Commands.h"
#include "remote/StopWatcher.h"
#include "remote/TransferAnswer.h"

namespace vel {
namespace {

constexpr std::chrono::milliseconds kTimeToClose{500};

std::uint64_t KeyOf(std::uint16_t replyCommand, std::uint32_t id) {
  return (std::uint64_t{replyCommand} << 32U) | id;
}

std::vector<std::uint8_t> ToVector(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

}  // namespace

RemoteDevice::RemoteDevice(std::unique_ptr<PacketChannel> channel, std::uint32_t devId,
                           std::chrono::milliseconds replyTime)
    : mChannel(std::move(channel)), mDevId(devId), mReplyTime(replyTime), mContact(mChannel->GetContact()) {
  mChannel->Start({.onPacket = [this](std::unique_ptr<VelPacket> packet) { OnPacket(std::move(packet)); },
                   .onClosed = [this](const std::string& why) { OnClosed(why); }});
}

RemoteDevice::~RemoteDevice() {
  mChannel->Close();
}

void RemoteDevice::Interrupt() {
  {
    const MutexLock lock(mMutex);
    mInterrupted = true;
  }
  OnClosed("");
  mChannel->Close();
}

void RemoteDevice::OnClosed(const std::string& why) {
  std::unordered_map<Key, TransferDone> pending;
  {
    const MutexLock lock(mMutex);
    mClosed = true;
    mWhyClosed = why;
    pending.swap(mTransfers);
    mChanged.NotifyAll();
  }
  for (const auto& [key, done] : pending) {
    done({.status = kNoDevice, .data = {}});
  }
}

void RemoteDevice::ThrowGone() const {
  if (mInterrupted) {
    throw Interrupted();
  }
  throw RemoteError("the device is gone" + (mWhyClosed.empty() ? "" : ": " + mWhyClosed) +
                    (mContact.advice.empty() ? "" : "; " + mContact.advice));
}

std::string RemoteDevice::SilenceText(const std::string& what, std::chrono::milliseconds waiting) const {
  return "no reply to " + what + " within " + std::to_string(waiting.count()) + " ms" +
         (mUnasked == 0 ? "" : ", but " + std::to_string(mUnasked) + " packets that answer nothing") +
         (mContact.advice.empty() ? "" : "; " + mContact.advice);
}

std::chrono::milliseconds RemoteDevice::TimeToReply() {
  const MutexLock lock(mMutex);
  return mAnswered ? mReplyTime : std::max(mReplyTime, mContact.startTime);
}

void RemoteDevice::OnPacket(std::unique_ptr<VelPacket> packet) {
  const CommandInfo* request = FindCommand(static_cast<std::uint16_t>(packet->GetCommand() - 1));
  if (request == nullptr || request->reply != ReplyKind::kAsync) {
    const MutexLock lock(mMutex);
    mAnswered = true;
    const auto found = mSync.find(KeyOf(packet->GetCommand(), packet->GetReqId()));
    if (found != mSync.end()) {
      found->second = ToVector(packet->PayloadBytes());
      mChanged.NotifyAll();
    } else {
      ++mUnasked;
    }
    return;
  }
  const std::optional<TransferAnswer> answer = ReadTransferAnswer(*packet);
  if (!answer) {
    return;
  }
  TransferDone done;
  {
    const MutexLock lock(mMutex);
    mAnswered = true;
    const auto found = mTransfers.find(KeyOf(packet->GetCommand(), answer->streamId));
    if (found == mTransfers.end()) {
      ++mUnasked;
      return;
    }
    done = std::move(found->second);
    mTransfers.erase(found);
  }
  done({.status = answer->status, .data = ToVector(answer->data), .isoPackets = answer->isoPackets});
}

std::vector<std::uint8_t> RemoteDevice::Exchange(Command command,
                                                 const std::function<std::unique_ptr<VelPacket>(RequestId)>& build) {
  RequestId id{0, mDevId};
  Key key = 0;
  {
    const MutexLock lock(mMutex);
    constexpr std::size_t kReqIds = 256;
    if (mSync.size() >= kReqIds) {
      throw RemoteError("more requests wait for a reply than there are request ids");
    }
    do {
      id.reqId = mNextReqId++;
      key = KeyOf(ReplyCode(command), id.reqId);
    } while (mSync.contains(key));
    mSync.emplace(key, std::nullopt);
  }
  const std::chrono::milliseconds waiting = TimeToReply();
  const bool sent = mChannel->Send(build(id));
  // What cannot be sent any more is explained by the close that follows.
  const Clock::time_point deadline = Clock::now() + (sent ? waiting : kTimeToClose);
  MutexLock lock(mMutex);
  while (!mClosed && !(sent && mSync[key].has_value()) && mChanged.WaitUntil(lock, deadline)) {
  }
  std::optional<std::vector<std::uint8_t>> reply = std::move(mSync[key]);
  mSync.erase(key);
  if (!reply || mInterrupted) {
    if (!sent || mClosed) {
      ThrowGone();
    }
    const std::string name(FindCommand(static_cast<std::uint16_t>(command))->name);
    throw RemoteError(SilenceText("\"" + name + "\"", waiting));
  }
  return *std::move(reply);
}

RemoteDevice::Result RemoteDevice::ExchangeResult(Command command,
                                                  const std::function<std::unique_ptr<VelPacket>(RequestId)>& build) {
  const std::vector<std::uint8_t> payload = Exchange(command, build);
  ByteReader reader(payload);
  Result result;
  result.value = static_cast<std::int32_t>(reader.Host<std::uint32_t>());
  if (!reader.Ok()) {
    throw RemoteError("the reply to \"" + std::string(FindCommand(static_cast<std::uint16_t>(command))->name) +
                      "\" holds no result");
  }
  result.data = ToVector(reader.Rest());
  return result;
}

std::int32_t RemoteDevice::ExchangeStatus(Command command,
                                          const std::function<std::unique_ptr<VelPacket>(RequestId)>& build) {
  return ExchangeResult(command, build).value;
}

std::int32_t RemoteDevice::Status(Command command) {
  return ExchangeStatus(command, [&](RequestId id) { return BuildRequest(command, id); });
}

std::int32_t RemoteDevice::SetConfiguration(std::uint32_t configuration) {
  return ExchangeStatus(Command::kSetConfiguration,
                        [&](RequestId id) { return BuildU32Request(Command::kSetConfiguration, id, configuration); });
}

std::int32_t RemoteDevice::SetInterfaceAltSetting(std::uint32_t interfaceNumber, std::uint32_t altSetting) {
  return ExchangeStatus(Command::kSetInterfaceAltSetting,
                        [&](RequestId id) { return BuildAltSettingRequest(id, interfaceNumber, altSetting); });
}

std::int32_t RemoteDevice::SetRedirPolicy(std::span<const std::uint8_t> text) {
  return ExchangeStatus(Command::kSetRedirPolicy, [&](RequestId id) { return BuildPolicyRequest(id, text); });
}

std::int32_t RemoteDevice::CancelTransfer(std::uint32_t streamId) {
  return ExchangeStatus(Command::kCancelTransfer,
                        [&](RequestId id) { return BuildU32Request(Command::kCancelTransfer, id, streamId); });
}

std::vector<std::uint8_t> RemoteDevice::GetDeviceDescriptor() {
  return Exchange(Command::kGetDeviceDesc, [](RequestId id) { return BuildRequest(Command::kGetDeviceDesc, id); });
}

std::vector<std::uint8_t> RemoteDevice::GetConfiguration() {
  return Exchange(Command::kGetDeviceConfig, [](RequestId id) { return BuildRequest(Command::kGetDeviceConfig, id); });
}

RemoteDevice::Result RemoteDevice::GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint32_t length) {
  return ExchangeResult(Command::kGetStringDescriptor,
                        [&](RequestId id) { return BuildStringRequest(id, index, langId, length); });
}

RemoteDevice::Result RemoteDevice::ControlTransfer(const ControlSetup& setup, std::span<const std::uint8_t> data,
                                                   std::uint32_t timeoutMs) {
  return ExchangeResult(Command::kControlTransfer,
                        [&](RequestId id) { return BuildControlRequest(id, setup, timeoutMs, data); });
}

void RemoteDevice::Ping(std::uint32_t streamId, std::uint64_t timestamp) {
  mChannel->Send(BuildPing({0, mDevId}, streamId, timestamp));
}

std::uint32_t RemoteDevice::Submit(Command command, TransferDone done,
                                   const std::function<std::unique_ptr<VelPacket>(std::uint32_t)>& build) {
  std::uint32_t streamId = 0;
  {
    const MutexLock lock(mMutex);
    if (mClosed) {
      ThrowGone();
    }
    streamId = mNextStreamId++;
    mTransfers[KeyOf(ReplyCode(command), streamId)] = std::move(done);
  }
  if (!mChannel->Send(build(streamId))) {
    const MutexLock lock(mMutex);
    mTransfers.erase(KeyOf(ReplyCode(command), streamId));
    ThrowGone();
  }
  return streamId;
}

std::uint32_t RemoteDevice::SubmitTransfer(Command command, std::uint8_t endpoint, std::uint32_t length,
                                           std::span<const std::uint8_t> data, TransferDone done) {
  return Submit(command, std::move(done), [&](std::uint32_t streamId) {
    return BuildTransferRequest(command, {0, mDevId}, endpoint, streamId, length, data);
  });
}

std::uint32_t RemoteDevice::SubmitIsoTransfer(std::uint8_t endpoint, std::span<const std::uint32_t> lengths,
                                              std::span<const std::uint8_t> payload, TransferDone done) {
  return Submit(Command::kIsochTransfer, std::move(done), [&](std::uint32_t streamId) {
    return BuildIsoRequest({0, mDevId}, endpoint, streamId, lengths, payload);
  });
}

TransferReply RemoteDevice::Await(Command command, const std::function<std::uint32_t(TransferDone)>& submit) {
  // Shared with the callback, which may come after this call gave up. Guarded by mMutex.
  const auto slot = std::make_shared<std::optional<TransferReply>>();
  const std::uint32_t streamId = submit([this, slot](TransferReply reply) {
    const MutexLock lock(mMutex);
    *slot = std::move(reply);
    mChanged.NotifyAll();
  });
  const Clock::time_point deadline = Clock::now() + mReplyTime;
  MutexLock lock(mMutex);
  while (!slot->has_value() && !mClosed && mChanged.WaitUntil(lock, deadline)) {
  }
  if (!slot->has_value() || (mClosed && (*slot)->status == kNoDevice)) {
    mTransfers.erase(KeyOf(ReplyCode(command), streamId));
    if (mClosed) {
      ThrowGone();
    }
    throw RemoteError(SilenceText("a transfer", mReplyTime));
  }
  return *std::move(*slot);
}

TransferReply RemoteDevice::Transfer(Command command, std::uint8_t endpoint, std::uint32_t length,
                                     std::span<const std::uint8_t> data) {
  return Await(command,
               [&](TransferDone done) { return SubmitTransfer(command, endpoint, length, data, std::move(done)); });
}

TransferReply RemoteDevice::IsoTransfer(std::uint8_t endpoint, std::span<const std::uint32_t> lengths,
                                        std::span<const std::uint8_t> payload) {
  return Await(Command::kIsochTransfer,
               [&](TransferDone done) { return SubmitIsoTransfer(endpoint, lengths, payload, std::move(done)); });
}

}  // namespace vel
