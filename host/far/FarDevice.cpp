#include "far/FarDevice.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "far/UrbMapper.h"
#include "protocol/Requests.h"

namespace vel {
namespace {

// With more packets an emulated device's 8-bit arithmetic writes the data over the table.
constexpr std::size_t kEmulatedMaxPackets = 15;

// For what a guest leaves behind to be sent to a far end that may not read any more.
constexpr std::chrono::seconds kLeaveTime{5};

constexpr std::chrono::microseconds kFrame{1000};
constexpr std::chrono::microseconds kMicroframe{125};

}  // namespace

FarDevice::FarDevice(std::unique_ptr<PacketChannel> channel, Options options)
    : mOptions(std::move(options)),
      mPipe(std::move(channel)),
      mFacts([this] {
        mPipe.Start({[this](std::unique_ptr<VelPacket> packet) { OnTransfer(std::move(packet)); },
                     [this](const std::string& why) { OnLost(why); }});
        return DeviceFacts::Ask(mPipe, mOptions.transcode, std::max(mOptions.replyTime, mPipe.StartTime()));
      }()),
      mRouter(mPipe, mFacts, mOptions.controlLimit),
      mMaxPackets(mFacts.IsEmulated() ? kEmulatedMaxPackets : kMaxIsoPackets) {
  if (const auto model = ReadCameraModel(mFacts.Config()); model && !model->modes.empty()) {
    FarCamera::Port& port = *this;
    mCamera = std::make_unique<FarCamera>(*model, port);
  }
  mReady = true;
}

FarDevice::~FarDevice() {
  Disconnect();
  mReady = false;
  WithinTime([this] { mPipe.Ask(Command::kCloseUsbDev); });
  mAlarms.Stop();
  mPipe.Close();
}

void FarDevice::WithinTime(const std::function<void()>& send) {
  const std::uint32_t ticket = ++mLeaving;
  mAlarms.At(Clock::now() + kLeaveTime, [this, ticket] {
    if (mLeaving == ticket) {
      mPipe.Close();
    }
  });
  send();
  ++mLeaving;
}

void FarDevice::Connect(UrbGuest& guest) {
  mRouter.Take();
  const MutexLock lock(mMutex);
  mGuest = &guest;
  ++mGeneration;
}

void FarDevice::Disconnect() {
  std::vector<std::uint32_t> streams;
  {
    MutexLock lock(mMutex);
    if (mGuest == nullptr) {
      return;
    }
    mGuest = nullptr;
    ++mGeneration;
    for (const std::uint32_t seqnum : mTable.Numbers()) {
      const UrbInFlight& urb = *mTable.Find(seqnum);
      for (std::uint32_t part = 0; part < urb.parts && urb.stage == UrbInFlight::Stage::kSent; ++part) {
        streams.push_back(urb.firstStream + part);
      }
    }
    mTable.Clear();
    mHeld.clear();
    while (mAnswering > 0) {
      mChanged.Wait(lock);
    }
  }
  WithinTime([&] {
    if (mCamera != nullptr) {
      mCamera->Stop();
    }
    std::ranges::for_each(streams, [this](std::uint32_t stream) { SendCancel(stream); });
    mRouter.GiveBack();
  });
}

void FarDevice::Submit(const Urb& urb) {
  if (mGone) {
    if (File(urb, Command::kControlTransfer, UrbInFlight::Stage::kHeld)) {
      AnswerNow(urb.seqnum, -ENODEV);
    }
  } else if ((urb.endpoint & ~kDirectionIn) == 0) {
    SubmitControl(urb);
  } else if (const auto type = mRouter.FindEndpoint(urb.endpoint)) {
    SubmitTransfer(urb, *type);
  } else if (File(urb, Command::kControlTransfer, UrbInFlight::Stage::kHeld)) {
    AnswerNow(urb.seqnum, -ENOENT);
  }
}

bool FarDevice::File(const Urb& urb, Command command, UrbInFlight::Stage stage) {
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
      guest->OnUnlinked(unlink, -ECONNRESET);
      return false;
    case UrbTable::Added::kRefused:
      guest->OnUrbDone(
          {.seqnum = urb.seqnum, .status = -ENOMEM, .actualLength = 0, .data = {}, .packets = urb.packets});
      return false;
  }
  return false;
}

void FarDevice::SubmitControl(const Urb& urb) {
  if (!File(urb, Command::kControlTransfer, UrbInFlight::Stage::kControl)) {
    return;
  }
  std::uint32_t generation = 0;
  {
    const MutexLock lock(mMutex);
    generation = mGeneration;
  }
  if (mCamera != nullptr) {
    mCamera->BeforeRequest(urb.setup, urb.data);
  }
  mRouter.Route(urb.setup, urb.data, urb.length,
                [this, generation, seqnum = urb.seqnum](const ControlRouter::Result& result) {
                  std::optional<Answer> answer;
                  {
                    const MutexLock lock(mMutex);
                    if (generation == mGeneration) {
                      answer = BeginAnswer(seqnum);
                    }
                  }
                  if (answer) {
                    answer->status = result.status;
                    answer->actualLength = result.moved;
                    EndAnswer(*answer, result.data);
                  }
                });
  if (mCamera != nullptr) {
    mCamera->AfterRequest(urb.setup);
  }
}

void FarDevice::SubmitTransfer(const Urb& urb, const EndpointType& type) {
  if ((type.command == Command::kIsochTransfer) == urb.packets.empty()) {
    if (File(urb, type.command, UrbInFlight::Stage::kHeld)) {
      AnswerNow(urb.seqnum, -EINVAL);
    }
    return;
  }
  if (mCamera != nullptr && mCamera->Streams(urb.endpoint)) {
    if (File(urb, type.command, UrbInFlight::Stage::kHeld)) {
      {
        const MutexLock lock(mMutex);
        mHeld.push_back(urb.seqnum);
      }
      mCamera->OnUrb();
    }
    return;
  }
  const bool paced = mFacts.IsEmulated() && type.command != Command::kBulkTransfer;
  if (!File(urb, type.command, paced ? UrbInFlight::Stage::kHeld : UrbInFlight::Stage::kSent)) {
    return;
  }
  const std::uint32_t most = 1 + static_cast<std::uint32_t>(urb.packets.size() / mMaxPackets + 1);
  const std::uint32_t first = mNextStream.fetch_add(most);
  auto requests = BuildUrbRequests(urb, type, mPipe.TransferId(), first, mMaxPackets);
  std::uint32_t generation = 0;
  {
    const MutexLock lock(mMutex);
    generation = mGeneration;
    UrbInFlight* filed = mTable.Find(urb.seqnum);
    if (filed == nullptr) {  // The device was lost meanwhile, and the URB answered.
      return;
    }
    mTable.SetStreams(*filed, first, static_cast<std::uint32_t>(requests.size()));
    if (paced) {
      filed->unsent.swap(requests);
    }
  }
  for (auto& request : requests) {
    mPipe.Send(std::move(request));
  }
  if (paced) {
    const Clock::time_point due = Schedule(urb);
    if (due <= Clock::now()) {
      SendDue(generation, urb.seqnum);
    } else {
      mAlarms.At(due, [this, generation, seqnum = urb.seqnum] { SendDue(generation, seqnum); });
    }
  }
}

FarDevice::Clock::time_point FarDevice::Schedule(const Urb& urb) {
  const std::size_t intervals = std::max<std::size_t>(urb.packets.size(), 1) * std::max<std::uint32_t>(urb.interval, 1);
  const auto busTime =
      (mFacts.Speed() >= LIBUSB_SPEED_HIGH ? kMicroframe : kFrame) * static_cast<std::int64_t>(intervals);
  const MutexLock lock(mMutex);
  Clock::time_point& next = mNextDue.at(urb.endpoint);
  const Clock::time_point due = std::max(next, Clock::now());
  next = due + busTime;
  if (UrbInFlight* filed = mTable.Find(urb.seqnum); filed != nullptr) {
    filed->busTime = busTime;
  }
  return due;
}

void FarDevice::SendDue(std::uint32_t generation, std::uint32_t seqnum) {
  const MutexLock sending(mPaceMutex);
  std::vector<std::unique_ptr<VelPacket>> requests;
  {
    const MutexLock lock(mMutex);
    UrbInFlight* urb = mTable.Find(seqnum);
    if (generation != mGeneration || urb == nullptr || urb->stage != UrbInFlight::Stage::kHeld) {
      return;
    }
    urb->stage = UrbInFlight::Stage::kSent;
    requests.swap(urb->unsent);
  }
  for (auto& request : requests) {
    mPipe.Send(std::move(request));
  }
}

void FarDevice::Unlink(const UnlinkRequest& request) {
  UrbGuest* guest = nullptr;
  std::uint32_t generation = 0;
  std::optional<std::int32_t> answer;
  std::vector<std::uint32_t> streams;
  {
    const MutexLock sending(mPaceMutex);
    const MutexLock lock(mMutex);
    guest = mGuest;
    generation = mGeneration;
    const UrbTable::Unlinked unlinked = mTable.Unlink(request);
    if (unlinked == UrbTable::Unlinked::kOver) {
      answer = 0;
    } else if (unlinked == UrbTable::Unlinked::kPending) {
      const UrbInFlight& urb = *mTable.Find(request.target);
      if (urb.stage == UrbInFlight::Stage::kHeld || urb.stage == UrbInFlight::Stage::kControl) {
        answer = -ECONNRESET;
        mNextDue.at(urb.endpoint) -= urb.busTime;  // Which it does not take any more.
        mTable.Remove(request.target);
      } else if (urb.stage == UrbInFlight::Stage::kSent) {
        for (std::uint32_t part = 0; part < urb.parts; ++part) {
          streams.push_back(urb.firstStream + part);
        }
      }
    }
  }
  if (answer) {
    guest->OnUnlinked(request.seqnum, *answer);
  }
  std::ranges::for_each(streams, [this](std::uint32_t stream) { SendCancel(stream); });
  if (!streams.empty()) {
    mAlarms.At(Clock::now() + mOptions.cancelLimit,
               [this, generation, seqnum = request.target] { GiveUp(generation, seqnum); });
  }
}

// A far end that does not answer cancelled transfers leaves a guest's driver waiting for ever.
void FarDevice::GiveUp(std::uint32_t generation, std::uint32_t seqnum) {
  std::optional<Answer> answer;
  {
    const MutexLock lock(mMutex);
    const UrbInFlight* urb = mTable.Find(seqnum);
    if (generation == mGeneration && urb != nullptr && urb->stage == UrbInFlight::Stage::kSent) {
      answer = BeginAnswer(seqnum);
    }
  }
  if (!answer) {
    return;
  }
  if (!mNotedSilence.exchange(true)) {
    Note("the far end does not answer cancelled transfers (it is to be started with --answer-failures)");
  }
  answer->status = -ECONNRESET;
  EndAnswer(*answer, {});
}

std::optional<FarDevice::Answer> FarDevice::BeginAnswer(std::uint32_t seqnum) {
  UrbInFlight* urb = mTable.Find(seqnum);
  if (urb == nullptr || urb->stage == UrbInFlight::Stage::kCompleting) {
    return std::nullopt;
  }
  urb->stage = UrbInFlight::Stage::kCompleting;
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

void FarDevice::EndAnswer(const Answer& answer, std::span<const std::uint8_t> data) {
  if (answer.unlink && answer.status == -ECONNRESET && answer.actualLength == 0) {
    answer.guest->OnUnlinked(*answer.unlink, -ECONNRESET);
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
  const MutexLock lock(mMutex);
  --mAnswering;
  mChanged.NotifyAll();
}

void FarDevice::AnswerNow(std::uint32_t seqnum, std::int32_t status) {
  std::optional<Answer> answer;
  {
    const MutexLock lock(mMutex);
    answer = BeginAnswer(seqnum);
  }
  if (answer) {
    answer->status = status;
    for (UrbPacket& packet : answer->packets) {
      packet.status = status;
    }
    EndAnswer(*answer, {});
  }
}

void FarDevice::OnTransfer(std::unique_ptr<VelPacket> packet) {
  const auto reply = mReady ? ReadTransferAnswer(*packet) : std::nullopt;
  if (!reply) {
    return;
  }
  if (mCamera != nullptr && mCamera->TakeReply(*reply, packet)) {
    return;
  }
  std::optional<Answer> answer;
  std::span<const std::uint8_t> data;
  {
    const MutexLock lock(mMutex);
    UrbInFlight* urb = mTable.TakeStream(reply->streamId);
    if (urb == nullptr || urb->stage != UrbInFlight::Stage::kSent) {
      return;  // Nobody asked, or nobody waits any more.
    }
    data = TakeAnswer(*urb, *reply, mMaxPackets);
    if (urb->partsDone < urb->parts) {
      return;
    }
    const bool joined = urb->parts > 1;
    answer = BeginAnswer(urb->seqnum);
    data = joined ? std::span<const std::uint8_t>(answer->data) : data;
  }
  EndAnswer(*answer, data);
  if (reply->status == LIBUSB_TRANSFER_NO_DEVICE) {
    OnLost("the device was pulled out");
  }
}

void FarDevice::OnLost(const std::string& why) {
  if (mGone.exchange(true)) {
    return;
  }
  std::vector<std::uint32_t> numbers;
  UrbGuest* guest = nullptr;
  {
    const MutexLock lock(mMutex);
    guest = mGuest;
    numbers = mTable.Numbers();
    mAnswering += guest == nullptr ? 0 : 1;
  }
  std::ranges::sort(numbers);
  std::ranges::for_each(numbers, [this](std::uint32_t seqnum) { AnswerNow(seqnum, -ENODEV); });
  if (mReady) {
    Note(why);
  }
  if (guest != nullptr) {
    guest->OnGone();
    const MutexLock lock(mMutex);
    --mAnswering;
    mChanged.NotifyAll();
  }
}

std::uint32_t FarDevice::NewStreamId() {
  return mNextStream.fetch_add(1);
}

void FarDevice::SendRead(std::uint8_t endpoint, std::uint32_t streamId, std::uint32_t room) {
  mPipe.Send(BuildIsoRequest(mPipe.TransferId(), endpoint, streamId, std::span(&room, 1), {}));
}

void FarDevice::CancelRead(std::uint32_t streamId) {
  SendCancel(streamId);
}

void FarDevice::Note(const std::string& line) {
  if (mOptions.note) {
    mOptions.note(line);
  }
}

void FarDevice::SendSetting(std::uint8_t interfaceNumber, std::uint8_t setting) {
  mPipe.Ask(Command::kSetInterfaceAltSetting, {},
            [&](RequestId id) { return BuildAltSettingRequest(id, interfaceNumber, setting); });
}

void FarDevice::SendCancel(std::uint32_t streamId) {
  mPipe.Ask(Command::kCancelTransfer, {},
            [streamId](RequestId id) { return BuildU32Request(Command::kCancelTransfer, id, streamId); });
}

bool FarDevice::AnswerHeld(const FarCamera::Fill& fill) {
  std::optional<Answer> answer;
  {
    const MutexLock lock(mMutex);
    while (!mHeld.empty() && !answer) {
      answer = BeginAnswer(mHeld.front());
      mHeld.pop_front();
    }
  }
  if (!answer) {
    return false;
  }
  const std::span<const std::uint8_t> data = fill(answer->packets, answer->length);
  answer->actualLength = static_cast<std::uint32_t>(data.size());
  EndAnswer(*answer, data);
  return true;
}

}  // namespace vel
