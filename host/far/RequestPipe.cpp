#include "far/RequestPipe.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "protocol/ByteReader.h"

namespace vel {
namespace {

constexpr char kClosed[] = "the connection to the device is closed";

bool HasResult(Command command) {
  return command != Command::kGetDeviceDesc && command != Command::kGetDeviceConfig;
}

RequestPipe::Reply ReadReply(Command command, std::span<const std::uint8_t> payload) {
  if (!HasResult(command)) {
    return {0, payload};
  }
  ByteReader reader(payload);
  const auto value = static_cast<std::int32_t>(reader.Host<std::uint32_t>());
  return reader.Ok() ? RequestPipe::Reply{value, reader.Rest()} : RequestPipe::Reply{LIBUSB_ERROR_OTHER, {}};
}

void Fail(const RequestPipe::Done& done, std::int32_t error) {
  if (done) {
    done({error, {}});
  }
}

}  // namespace

void RequestPipe::Start(Receiver receiver) {
  mReceiver = std::move(receiver);
  mChannel->Start({[this](std::unique_ptr<VelPacket> packet) { OnPacket(std::move(packet)); },
                   [this](const std::string& why) { OnLost(why); }});
}

void RequestPipe::Ask(Command command, Done done, const Build& build) {
  Done refused;
  std::int32_t refusal = 0;
  bool sent = false;
  {
    const MutexLock sending(mSendMutex);
    RequestId id{0, kDevId};
    {
      const MutexLock lock(mMutex);
      refusal = !mWhyLost.empty() ? LIBUSB_ERROR_NO_DEVICE : mWaiting.size() >= kMaxWaiting ? LIBUSB_ERROR_NO_MEM : 0;
      if (refusal == 0) {
        id.reqId = mNextReqId++;
        mWaiting.push_back({command, id.reqId, std::move(done), Clock::now()});
      } else {
        refused = std::move(done);
      }
    }
    sent = refusal == 0 && mChannel->Send(build(id));
  }
  if (refusal != 0) {
    Fail(refused, refusal);
  } else if (!sent) {
    OnLost(kClosed);
  }
}

void RequestPipe::Ask(Command command, Done done) {
  Ask(command, std::move(done), [command](RequestId id) { return BuildRequest(command, id); });
}

void RequestPipe::Send(std::unique_ptr<VelPacket> packet) {
  bool sent = false;
  {
    const MutexLock sending(mSendMutex);
    sent = mChannel->Send(std::move(packet));
  }
  if (!sent) {
    OnLost(kClosed);
  }
}

void RequestPipe::Close() {
  mChannel->Close();
  OnLost(kClosed);
}

void RequestPipe::OnPacket(std::unique_ptr<VelPacket> packet) {
  const CommandInfo* command = FindCommand(static_cast<std::uint16_t>(packet->GetCommand() - 1));
  if (command == nullptr || packet->GetDevId() != kDevId) {
    return;
  }
  if ((packet->Wire()[kServiceOffset] & kAnswersFailures) != 0) {
    mAnswersFailures = true;
  }
  if (command->reply == ReplyKind::kAsync) {
    mReceiver.onTransfer(std::move(packet));
  } else if (command->reply == ReplyKind::kSync) {
    OnSyncReply(command->command, *packet);
  }
}

void RequestPipe::OnSyncReply(Command command, const VelPacket& packet) {
  std::deque<Waiting> over;
  {
    const MutexLock lock(mMutex);
    const auto found = std::ranges::find_if(
        mWaiting, [&](const Waiting& each) { return each.command == command && each.reqId == packet.GetReqId(); });
    if (found == mWaiting.end()) {
      return;  // Nobody asked.
    }
    std::move(mWaiting.begin(), found + 1, std::back_inserter(over));
    mWaiting.erase(mWaiting.begin(), found + 1);
  }
  const Waiting answered = std::move(over.back());
  over.pop_back();
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - answered.sent);
  mLeastRoundTrip = std::min(mLeastRoundTrip.load(), took);
  for (const Waiting& passed : over) {
    Fail(passed.done, LIBUSB_ERROR_OTHER);
  }
  const Reply reply = ReadReply(command, packet.PayloadBytes());
  if (answered.done) {
    answered.done(reply);
  }
  if (reply.value == LIBUSB_ERROR_NO_DEVICE) {
    OnLost(kPulledOut);
  }
}

std::string RequestPipe::WhyLost() {
  const MutexLock lock(mMutex);
  return mWhyLost;
}

void RequestPipe::OnLost(const std::string& why) {
  std::deque<Waiting> over;
  {
    const MutexLock lock(mMutex);
    if (!mWhyLost.empty()) {
      return;
    }
    mWhyLost = why;
    over.swap(mWaiting);
  }
  for (const Waiting& each : over) {
    Fail(each.done, LIBUSB_ERROR_NO_DEVICE);
  }
  if (mReceiver.onLost) {
    mReceiver.onLost(why);
  }
}

}  // namespace vel
