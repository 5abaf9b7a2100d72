#include "cmd/stream/PictureReader.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <utility>

namespace vel {
namespace {

// Longer than a read waits for its picture.
constexpr std::chrono::milliseconds kWithdrawTime{1000};

}  // namespace

struct PictureReader::Inbox {
  Mutex mutex;
  CondVar changed;
  bool stopped VEL_GUARDED_BY(mutex) = false;
  std::size_t inFlight VEL_GUARDED_BY(mutex) = 0;
  Clock::time_point last VEL_GUARDED_BY(mutex);  // Of the latest reply.
  std::deque<Arrival> arrivals VEL_GUARDED_BY(mutex);
};

PictureReader::PictureReader(RemoteDevice& remote, std::uint8_t endpoint, std::uint32_t room)
    : mRemote(remote), mEndpoint(endpoint), mRoom(room), mInbox(std::make_shared<Inbox>()) {}

PictureReader::~PictureReader() {
  Stop();
}

void PictureReader::Start() {
  for (int i = 0; i < kInFlight; ++i) {
    Submit();
  }
}

void PictureReader::Submit() {
  const auto take = [inbox = mInbox, sent = Clock::now()](TransferReply reply) {
    const MutexLock lock(inbox->mutex);
    const Clock::time_point now = Clock::now();
    const Clock::duration waited = now - std::max(sent, inbox->last);
    inbox->last = now;
    --inbox->inFlight;
    inbox->changed.NotifyAll();
    if (!inbox->stopped) {
      inbox->arrivals.push_back({.reply = std::move(reply), .time = now, .waited = waited});
    }
  };
  {
    const MutexLock lock(mInbox->mutex);
    ++mInbox->inFlight;
  }
  mStreamIds.push_front(mRemote.SubmitIsoTransfer(mEndpoint, std::span(&mRoom, 1), {}, take));
  mStreamIds.resize(std::min<std::size_t>(mStreamIds.size(), kInFlight));
}

std::optional<PictureReader::Arrival> PictureReader::Next(Clock::time_point deadline) {
  Arrival arrival;
  {
    MutexLock lock(mInbox->mutex);
    while (mInbox->arrivals.empty() && !mInbox->stopped && mInbox->changed.WaitUntil(lock, deadline)) {
    }
    if (mInbox->arrivals.empty() || mInbox->stopped) {
      return std::nullopt;
    }
    arrival = std::move(mInbox->arrivals.front());
    mInbox->arrivals.pop_front();
  }
  Submit();
  return arrival;
}

void PictureReader::Stop() {
  const MutexLock lock(mInbox->mutex);
  mInbox->stopped = true;
  mInbox->arrivals.clear();
  mInbox->changed.NotifyAll();
}

void PictureReader::Withdraw() {
  Stop();
  std::size_t left = 0;
  {
    const MutexLock lock(mInbox->mutex);
    left = mInbox->inFlight;
  }
  // Replies come in the order of their reads. The latest goes first, so that no other takes a picture meanwhile.
  for (std::size_t i = 0; i < std::min(left, mStreamIds.size()); ++i) {
    mRemote.CancelTransfer(mStreamIds[i]);
  }
  const Clock::time_point deadline = Clock::now() + kWithdrawTime;
  MutexLock lock(mInbox->mutex);
  while (mInbox->inFlight > 0 && mInbox->changed.WaitUntil(lock, deadline)) {
  }
}

bool PictureReader::IsStopped() const {
  const MutexLock lock(mInbox->mutex);
  return mInbox->stopped;
}

}  // namespace vel
