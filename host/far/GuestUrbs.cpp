#include "far/GuestUrbs.h"

#include <algorithm>
#include <utility>

#include "remote/TransferAnswer.h"

namespace vel {
namespace {

using Stage = UrbInFlight::Stage;

void AddStreams(const UrbInFlight& urb, std::vector<std::uint32_t>& streams) {
  for (std::uint32_t part = 0; part < urb.parts && urb.stage == Stage::kSent; ++part) {
    streams.push_back(urb.firstStream + part);
  }
}

}  // namespace

void GuestUrbs::Connect(UrbGuest& guest) {
  const MutexLock lock(mMutex);
  mGuest = &guest;
  ++mGeneration;
}

std::optional<std::vector<std::uint32_t>> GuestUrbs::Disconnect() {
  MutexLock lock(mMutex);
  if (mGuest == nullptr) {
    return std::nullopt;
  }
  std::vector<std::uint32_t> streams;
  mGuest = nullptr;
  ++mGeneration;
  for (const std::uint32_t seqnum : mTable.Numbers()) {
    AddStreams(*mTable.Find(seqnum), streams);
  }
  mTable.Clear();
  mHeld.clear();
  while (mAnswering > 0) {
    mChanged.Wait(lock);
  }
  return streams;
}

std::uint32_t GuestUrbs::Generation() {
  const MutexLock lock(mMutex);
  return mGeneration;
}

bool GuestUrbs::File(const Urb& urb, Command command, UrbInFlight::Stage stage) {
  UrbInFlight filed;
  filed.seqnum = urb.seqnum;
  filed.stage = stage;
  filed.endpoint = urb.endpoint;
  filed.command = command;
  filed.flags = urb.flags;
  filed.length = urb.length;
  filed.packets = urb.packets;
  UrbGuest* guest = nullptr;
  UrbTable::Added added = UrbTable::Added::kYes;
  std::uint32_t unlink = 0;
  {
    const MutexLock lock(mMutex);
    added = mTable.Add(std::move(filed), unlink);
    guest = mGuest;
  }
  switch (added) {
    case UrbTable::Added::kYes:
      return true;
    case UrbTable::Added::kTakenBack:
      guest->OnUnlinked(unlink, -kGuestReset);
      return false;
    case UrbTable::Added::kRefused:
      guest->OnUrbDone(
          {.seqnum = urb.seqnum, .status = -kGuestNoMemory, .actualLength = 0, .data = {}, .packets = urb.packets});
      return false;
  }
  return false;
}

bool GuestUrbs::Hold(const Urb& urb, Command command) {
  if (!File(urb, command, Stage::kHeld)) {
    return false;
  }
  const MutexLock lock(mMutex);
  mHeld.push_back(urb.seqnum);
  return true;
}

void GuestUrbs::Refuse(const Urb& urb, std::int32_t status) {
  if (File(urb, Command::kControlTransfer, Stage::kHeld)) {
    AnswerNow(urb.seqnum, status);
  }
}

bool GuestUrbs::SetTransfers(std::uint32_t seqnum, std::uint32_t firstStream, std::uint32_t parts) {
  const MutexLock lock(mMutex);
  UrbInFlight* urb = mTable.Find(seqnum);
  if (urb != nullptr) {
    mTable.SetStreams(*urb, firstStream, parts);
  }
  return urb != nullptr;
}

bool GuestUrbs::KeepTransfers(std::uint32_t seqnum, std::uint32_t firstStream,
                              std::vector<std::unique_ptr<VelPacket>> requests, std::chrono::microseconds busTime) {
  const MutexLock lock(mMutex);
  UrbInFlight* urb = mTable.Find(seqnum);
  if (urb != nullptr) {
    mTable.SetStreams(*urb, firstStream, static_cast<std::uint32_t>(requests.size()));
    urb->unsent = std::move(requests);
    urb->busTime = busTime;
  }
  return urb != nullptr;
}

void GuestUrbs::SetAlarm(std::uint32_t seqnum, const Alarms::Ticket& alarm) {
  const MutexLock lock(mMutex);
  if (UrbInFlight* urb = mTable.Find(seqnum)) {
    urb->alarm = alarm;
  }
}

std::vector<std::unique_ptr<VelPacket>> GuestUrbs::TakeUnsent(std::uint32_t generation, std::uint32_t seqnum) {
  const MutexLock lock(mMutex);
  UrbInFlight* urb = mTable.Find(seqnum);
  if (generation != mGeneration || urb == nullptr || urb->stage != Stage::kHeld) {
    return {};
  }
  urb->stage = Stage::kSent;
  return std::move(urb->unsent);
}

GuestUrbs::Unlinked GuestUrbs::Unlink(const UnlinkRequest& request) {
  Unlinked result;
  const MutexLock lock(mMutex);
  result.generation = mGeneration;
  const UrbTable::Unlinked unlinked = mTable.Unlink(request);
  if (unlinked == UrbTable::Unlinked::kOver) {
    result.status = 0;
  } else if (unlinked == UrbTable::Unlinked::kPending) {
    const UrbInFlight& urb = *mTable.Find(request.target);
    AddStreams(urb, result.streams);
    if (urb.stage == Stage::kHeld || urb.stage == Stage::kControl) {
      result.status = -kGuestReset;
      result.endpoint = urb.endpoint;
      result.busTime = urb.busTime;
      result.alarm = urb.alarm;
      std::erase(mHeld, request.target);
      mTable.Remove(request.target);
    }
  }
  return result;
}

void GuestUrbs::TellUnlinked(std::uint32_t unlink, std::int32_t status) {
  UrbGuest* guest = nullptr;
  {
    const MutexLock lock(mMutex);
    guest = mGuest;
  }
  guest->OnUnlinked(unlink, status);
}

std::optional<GuestUrbs::Answer> GuestUrbs::Begin(std::uint32_t generation, std::uint32_t seqnum) {
  const MutexLock lock(mMutex);
  return generation == mGeneration ? BeginLocked(seqnum) : std::nullopt;
}

std::optional<GuestUrbs::Answer> GuestUrbs::BeginSent(std::uint32_t generation, std::uint32_t seqnum) {
  const MutexLock lock(mMutex);
  const UrbInFlight* urb = mTable.Find(seqnum);
  const bool sent = generation == mGeneration && urb != nullptr && urb->stage == Stage::kSent;
  return sent ? BeginLocked(seqnum) : std::nullopt;
}

std::optional<GuestUrbs::Answer> GuestUrbs::BeginHeld() {
  std::optional<Answer> answer;
  const MutexLock lock(mMutex);
  while (!mHeld.empty() && !answer) {
    answer = BeginLocked(mHeld.front());
    mHeld.pop_front();
  }
  return answer;
}

std::optional<GuestUrbs::Answer> GuestUrbs::BeginDone(const TransferAnswer& reply, std::size_t maxPackets,
                                                      std::span<const std::uint8_t>& data) {
  const MutexLock lock(mMutex);
  UrbInFlight* urb = mTable.TakeStream(reply.streamId);
  if (urb == nullptr || urb->stage != Stage::kSent) {
    return std::nullopt;  // Nobody asked, or nobody waits any more.
  }
  data = TakeAnswer(*urb, reply, maxPackets);
  if (urb->partsDone < urb->parts) {
    return std::nullopt;
  }
  const bool joined = urb->parts > 1;
  std::optional<Answer> answer = BeginLocked(urb->seqnum);
  data = joined ? std::span<const std::uint8_t>(answer->data) : data;
  return answer;
}

std::optional<GuestUrbs::Answer> GuestUrbs::BeginLocked(std::uint32_t seqnum) {
  UrbInFlight* urb = mTable.Find(seqnum);
  if (urb == nullptr || urb->stage == Stage::kCompleting) {
    return std::nullopt;
  }
  urb->stage = Stage::kCompleting;
  ++mAnswering;
  return Answer{.guest = mGuest,
                .seqnum = seqnum,
                .unlink = std::exchange(urb->unlink, std::nullopt),
                .status = urb->status,
                .actualLength = urb->actualLength,
                .length = urb->length,
                .packets = std::move(urb->packets),
                .data = std::move(urb->data)};
}

void GuestUrbs::End(const Answer& answer, std::span<const std::uint8_t> data) {
  if (answer.unlink && answer.status == -kGuestReset && answer.actualLength == 0) {
    answer.guest->OnUnlinked(*answer.unlink, -kGuestReset);
  } else {
    answer.guest->OnUrbDone({.seqnum = answer.seqnum,
                             .status = answer.status,
                             .actualLength = answer.actualLength,
                             .data = data,
                             .packets = answer.packets});
    if (answer.unlink) {
      answer.guest->OnUnlinked(*answer.unlink, 0);
    }
  }
  // An unlink that came during the call is answered behind it: the other way round, the kernel would see an answer to
  // a URB that it had given back.
  std::optional<std::uint32_t> late;
  {
    const MutexLock lock(mMutex);
    if (const UrbInFlight* urb = mTable.Find(answer.seqnum); urb != nullptr && mGuest == answer.guest) {
      late = urb->unlink;
      mTable.Remove(answer.seqnum);
    }
  }
  if (late) {
    answer.guest->OnUnlinked(*late, 0);
  }
  CountCallOver();
}

void GuestUrbs::AnswerNow(std::uint32_t seqnum, std::int32_t status) {
  std::optional<Answer> answer;
  {
    const MutexLock lock(mMutex);
    answer = BeginLocked(seqnum);
  }
  if (answer) {
    answer->status = status;
    for (UrbPacket& packet : answer->packets) {
      packet.status = status;
    }
    End(*answer, {});
  }
}

void GuestUrbs::Lose() {
  std::vector<std::uint32_t> numbers;
  UrbGuest* guest = nullptr;
  {
    const MutexLock lock(mMutex);
    guest = mGuest;
    numbers = mTable.Numbers();
    mAnswering += guest == nullptr ? 0 : 1;
  }
  std::ranges::sort(numbers);
  std::ranges::for_each(numbers, [this](std::uint32_t seqnum) { AnswerNow(seqnum, -kGuestNoDevice); });
  if (guest != nullptr) {
    guest->OnGone();
    CountCallOver();
  }
}

void GuestUrbs::CountCallOver() {
  const MutexLock lock(mMutex);
  --mAnswering;
  mChanged.NotifyAll();
}

}  // namespace vel
