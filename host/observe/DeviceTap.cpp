#include "observe/DeviceTap.h"

#include <algorithm>
#include <utility>

#include "protocol/ByteReader.h"
#include "remote/CameraModel.h"
#include "remote/PacketChannel.h"

namespace vel {
namespace {

// More than any device has in flight; beyond, the older half is taken for never answered.
constexpr std::size_t kMaxInFlight = std::size_t{1} << 17U;

std::uint64_t KeyOf(std::uint16_t replyCode, std::uint32_t match) {
  return (std::uint64_t{replyCode} << 32U) | match;
}

// The first field of a transfer's reply.
std::uint32_t StreamOf(const VelPacket& reply) {
  return ByteReader(reply.PayloadBytes()).Host<std::uint32_t>();
}

bool AnswersFailures(const VelPacket& reply) {
  return (reply.Wire()[kServiceOffset] & kAnswersFailures) != 0;
}

}  // namespace

DeviceTap::DeviceTap(std::string device, CaptureFile* capture)
    : mDevice(std::move(device)),
      mCapture(capture),
      mInterface(capture == nullptr ? 0 : capture->AddInterface(mDevice)) {}

DeviceTap::Node DeviceTap::TakeNode() {
  Node node;
  const MutexLock lock(mMutex);
  if (!mSpare.empty()) {
    node = std::move(mSpare.back());
    mSpare.pop_back();
  } else {
    Table one;
    one.try_emplace(0);
    node = one.extract(one.begin());
  }
  node.mapped().id = ++mLastId;
  return node;
}

void DeviceTap::OnRequest(const VelPacket& request) {
  Node node = TakeNode();
  PendingUrb& urb = node.mapped();
  UsbEvent event;
  const bool isTraffic = ReadSubmission(request, urb, event);
  if (isTraffic) {
    urb.isPicture = urb.command == Command::kIsochTransfer && urb.endpoint == mCameraEndpoint;
    event.id = urb.id;
    if (mCapture != nullptr) {
      mCapture->Write(mInterface, event);
    }
    urb.begin = DeviceTally::Clock::now();
  }
  const MutexLock lock(mMutex);
  if (isTraffic || urb.command == Command::kCancelTransfer) {
    File(std::move(node));
  } else {
    mSpare.push_back(std::move(node));
  }
}

void DeviceTap::File(Node node) {
  const PendingUrb& urb = node.mapped();
  const CommandInfo& command = *FindCommand(static_cast<std::uint16_t>(urb.command));
  if (command.reply == ReplyKind::kSync) {
    mRequests.push_back(std::move(node));
  } else {
    node.key() = KeyOf(ReplyCode(urb.command), urb.match);
    auto filed = mTransfers.insert(std::move(node));
    if (!filed.inserted) {  // Two of one id: the later one's reply cannot be told from the earlier one's.
      std::swap(filed.position->second, filed.node.mapped());
      mTally.AddUnanswered(1);
      mSpare.push_back(std::move(filed.node));
    }
  }
  if (mTransfers.size() + mRequests.size() > kMaxInFlight) {
    ForgetOld();
  }
}

void DeviceTap::ForgetOld() {
  const std::uint64_t newest = mLastId - kMaxInFlight / 2;
  const std::size_t before = mTransfers.size() + mRequests.size();
  std::erase_if(mTransfers, [newest](const auto& each) { return each.second.id < newest; });
  while (!mRequests.empty() && mRequests.front().mapped().id < newest) {
    mRequests.pop_front();
  }
  mTally.AddUnanswered(before - mTransfers.size() - mRequests.size());
}

DeviceTap::Node DeviceTap::FindPending(const VelPacket& reply, const CommandInfo& command) {
  if (command.reply == ReplyKind::kAsync) {
    return mTransfers.extract(KeyOf(reply.GetCommand(), StreamOf(reply)));
  }
  const auto found = std::ranges::find_if(mRequests, [&](const Node& each) {
    return each.mapped().command == command.command && each.mapped().match == reply.GetReqId();
  });
  if (found == mRequests.end()) {
    return {};
  }
  // They are answered in their order: those in front will not be.
  mTally.AddUnanswered(static_cast<std::size_t>(found - mRequests.begin()));
  Node node = std::move(*found);
  for (auto each = mRequests.begin(); each != found; ++each) {
    mSpare.push_back(std::move(*each));
  }
  mRequests.erase(mRequests.begin(), found + 1);
  return node;
}

void DeviceTap::OnReply(const VelPacket& reply) {
  const CommandInfo* const command = FindCommand(static_cast<std::uint16_t>(reply.GetCommand() - 1));
  if (command == nullptr) {
    return;
  }
  if (command->command == Command::kGetDeviceConfig) {
    LookForCamera(reply);
  }
  const auto now = DeviceTally::Clock::now();
  Node node;
  {
    const MutexLock lock(mMutex);
    node = FindPending(reply, *command);
    if (node.empty()) {
      return;
    }
    if (command->command == Command::kCancelTransfer) {
      if (StreamOf(reply) == 0 && !AnswersFailures(reply)) {  // Its result.
        ForgetCancelled(node.mapped().length);
      }
      mSpare.push_back(std::move(node));
      return;
    }
  }
  std::vector<std::uint8_t> descriptors;
  const UsbEvent event = ReadCompletion(reply, node.mapped(), descriptors);
  if (mCapture != nullptr) {
    mCapture->Write(mInterface, event);
  }
  const MutexLock lock(mMutex);
  mTally.Add(node.mapped(), event, now);
  mSpare.push_back(std::move(node));
}

void DeviceTap::ForgetCancelled(std::uint32_t streamId) {
  for (const Command command : {Command::kBulkTransfer, Command::kInterruptTransfer, Command::kIsochTransfer}) {
    if (Node node = mTransfers.extract(KeyOf(ReplyCode(command), streamId))) {
      mTally.AddCancelled();
      mSpare.push_back(std::move(node));
    }
  }
}

void DeviceTap::OnEnd() {
  const MutexLock lock(mMutex);
  mTally.AddGone(mTransfers.size() + mRequests.size());
  mTransfers.clear();
  mRequests.clear();
}

void DeviceTap::OnLatePicture() {
  const MutexLock lock(mMutex);
  mTally.AddLate();
}

DeviceFigures DeviceTap::TakeFigures() {
  const MutexLock lock(mMutex);
  DeviceFigures figures = mTally.Take(DeviceTally::Clock::now());
  figures.device = mDevice;
  figures.inFlight = mTransfers.size() + mRequests.size();
  figures.isCamera = mCameraEndpoint >= 0;
  return figures;
}

void DeviceTap::LookForCamera(const VelPacket& configuration) {
  const auto config = ReadConfigModel(configuration.PayloadBytes());
  const auto camera = config ? ReadCameraModel(*config) : std::nullopt;
  mCameraEndpoint = camera ? camera->endpoint : -1;
}

}  // namespace vel
