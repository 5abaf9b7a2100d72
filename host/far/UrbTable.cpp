#include "far/UrbTable.h"

#include <utility>

namespace vel {

UrbTable::Added UrbTable::Add(UrbInFlight urb, std::uint32_t& unlink) {
  const std::uint32_t seqnum = urb.seqnum;
  mNewest = !mNewest || IsNewer(seqnum) ? seqnum : *mNewest;
  if (const auto early = mEarly.find(seqnum); early != mEarly.end()) {
    unlink = early->second;
    mEarly.erase(early);
    return Added::kTakenBack;
  }
  urb.cost = urb.length + urb.packets.size() * sizeof(UrbPacket);
  if (mUrbs.size() >= kMaxUrbs || mBytes + urb.cost > kMaxBytes || mUrbs.contains(seqnum)) {
    return Added::kRefused;
  }
  mBytes += urb.cost;
  mUrbs.emplace(seqnum, std::move(urb));
  return Added::kYes;
}

// The kernel sends submissions and unlinks from two lists, and an unlink can overtake its submission.
UrbTable::Unlinked UrbTable::Unlink(const UnlinkRequest& request) {
  if (UrbInFlight* urb = Find(request.target); urb != nullptr) {
    urb->unlink = request.seqnum;
    return Unlinked::kPending;
  }
  if ((mNewest && !IsNewer(request.target)) || mEarly.size() >= kMaxUrbs) {
    return Unlinked::kOver;
  }
  mEarly[request.target] = request.seqnum;
  return Unlinked::kEarly;
}

UrbInFlight* UrbTable::Find(std::uint32_t seqnum) {
  const auto found = mUrbs.find(seqnum);
  return found == mUrbs.end() ? nullptr : &found->second;
}

UrbInFlight* UrbTable::TakeStream(std::uint32_t streamId) {
  const auto found = mStreams.find(streamId);
  if (found == mStreams.end()) {
    return nullptr;
  }
  UrbInFlight* urb = Find(found->second);
  mStreams.erase(found);
  return urb;
}

void UrbTable::SetStreams(UrbInFlight& urb, std::uint32_t firstStream, std::uint32_t parts) {
  urb.firstStream = firstStream;
  urb.parts = parts;
  for (std::uint32_t i = 0; i < parts; ++i) {
    mStreams[firstStream + i] = urb.seqnum;
  }
}

void UrbTable::Remove(std::uint32_t seqnum) {
  const auto found = mUrbs.find(seqnum);
  if (found == mUrbs.end()) {
    return;
  }
  for (std::uint32_t i = 0; i < found->second.parts; ++i) {
    mStreams.erase(found->second.firstStream + i);
  }
  mBytes -= found->second.cost;
  mUrbs.erase(found);
}

void UrbTable::Clear() {
  mUrbs.clear();
  mBytes = 0;
  mStreams.clear();
  mEarly.clear();
  mNewest.reset();
}

std::vector<std::uint32_t> UrbTable::Numbers() const {
  std::vector<std::uint32_t> numbers;
  for (const auto& [seqnum, urb] : mUrbs) {
    numbers.push_back(seqnum);
  }
  return numbers;
}

bool UrbTable::IsNewer(std::uint32_t seqnum) const {
  return static_cast<std::int32_t>(seqnum - *mNewest) > 0;  // Numbers wrap around.
}

}  // namespace vel
