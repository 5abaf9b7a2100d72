#include "far/FarDevice.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <utility>

#include "protocol/Requests.h"
#include "remote/TransferAnswer.h"

namespace vel {
namespace {

// With more packets an emulated device's 8-bit arithmetic writes the data over the table.
constexpr std::size_t kEmulatedMaxPackets = 15;

// For what a guest leaves behind to be sent to a far end that may not read any more.
constexpr std::chrono::seconds kLeaveTime{5};

constexpr std::chrono::microseconds kFrame{1000};
constexpr std::chrono::microseconds kMicroframe{125};
// 2^(bInterval - 1) for the largest bInterval (USB 2.0, table 9-13). A guest may ask for any.
constexpr std::uint32_t kMaxInterval = 32768;

}  // namespace

FarDevice::FarDevice(std::unique_ptr<PacketChannel> channel, Options options)
    : mOptions(std::move(options)),
      mPipe(std::move(channel)),
      mCutOff([this] {  // Closes nothing that has not started.
        mPipe.Start({[this](std::unique_ptr<VelPacket> packet) { OnTransfer(std::move(packet)); },
                     [this](const std::string& why) { OnLost(why); }});
        return CutOffAtStop(StopWatcher::kGrace);
      }()),
      mFacts([this] {
        const auto cutOff = CutOffAtStop({});
        return DeviceFacts::Ask(mPipe, mOptions.transcode, std::max(mOptions.replyTime, mPipe.StartTime()));
      }()),
      mRouter(mPipe, mFacts, mOptions.controlLimit),
      mMaxPackets(mFacts.IsEmulated() ? kEmulatedMaxPackets : kMaxIsoPackets) {
  if (const auto model = ReadCameraModel(mFacts.Config()); model && !model->modes.empty()) {
    FarCamera::Port& port = *this;
    mCamera = std::make_unique<FarCamera>(*model, port);
  }
  mReady = true;
  TellGone();  // It may have gone before.
  if (!mPipe.AnswersFailures()) {
    Note("the far end does not say that it answers failed and cancelled transfers (start it with --answer-failures)");
  }
}

FarDevice::~FarDevice() {
  Disconnect();
  mReady = false;
  WithinTime([this] { mPipe.Ask(Command::kCloseUsbDev); });
  mAlarms.Stop();
  mLimits.Stop();
  mPipe.Close();
  mCutOff.reset();
}

std::unique_ptr<StopWatcher> FarDevice::CutOffAtStop(std::chrono::milliseconds grace) {
  if (mOptions.stop == nullptr) {
    return nullptr;
  }
  return std::make_unique<StopWatcher>(
      *mOptions.stop, [this] { mPipe.Close(); }, grace);
}

void FarDevice::WithinTime(const std::function<void()>& send) {
  const std::uint32_t ticket = ++mLeaving;
  mLimits.At(Clock::now() + kLeaveTime, [this, ticket] {
    if (mLeaving == ticket) {
      mPipe.Close();
    }
  });
  send();
  ++mLeaving;
}

void FarDevice::Connect(UrbGuest& guest) {
  mRouter.Take();
  mUrbs.Connect(guest);
}

void FarDevice::Disconnect() {
  const auto streams = mUrbs.Disconnect();
  if (!streams) {
    return;
  }
  mAlarms.CancelAll();
  WithinTime([&] {
    if (mCamera != nullptr) {
      mCamera->Stop();
    }
    std::ranges::for_each(*streams, [this](std::uint32_t stream) { SendCancel(stream); });
    mRouter.GiveBack();
  });
}

void FarDevice::Submit(const Urb& urb) {
  if (mGone) {
    mUrbs.Refuse(urb, -kGuestNoDevice);
  } else if ((urb.endpoint & ~kDirectionIn) == 0) {
    SubmitControl(urb);
  } else if (const auto type = mRouter.FindEndpoint(urb.endpoint)) {
    SubmitTransfer(urb, *type);
  } else {
    mUrbs.Refuse(urb, -kGuestNoEntry);
  }
}

void FarDevice::SubmitControl(const Urb& urb) {
  if (!mUrbs.File(urb, Command::kControlTransfer, UrbInFlight::Stage::kControl)) {
    return;
  }
  if (mCamera != nullptr) {
    mCamera->BeforeRequest(urb.setup, urb.data);
  }
  mRouter.Route(urb.setup, urb.data, urb.length,
                [this, generation = mUrbs.Generation(), seqnum = urb.seqnum](const ControlRouter::Result& result) {
                  if (auto answer = mUrbs.Begin(generation, seqnum)) {
                    answer->status = result.status;
                    answer->actualLength = result.moved;
                    mUrbs.End(*answer, result.data);
                  }
                });
  if (mCamera != nullptr) {
    mCamera->AfterRequest(urb.setup);
  }
}

void FarDevice::SubmitTransfer(const Urb& urb, const EndpointType& type) {
  if ((type.command == Command::kIsochTransfer) == urb.packets.empty()) {
    mUrbs.Refuse(urb, -kGuestInvalid);
    return;
  }
  if (mCamera != nullptr && mCamera->Streams(urb.endpoint)) {
    if (mUrbs.Hold(urb, type.command)) {
      mCamera->OnUrb();
    }
    return;
  }
  const bool paced = mFacts.IsEmulated() && type.command != Command::kBulkTransfer;
  if (!mUrbs.File(urb, type.command, paced ? UrbInFlight::Stage::kHeld : UrbInFlight::Stage::kSent)) {
    return;
  }
  const std::uint32_t most = 1 + static_cast<std::uint32_t>(urb.packets.size() / mMaxPackets + 1);
  const std::uint32_t first = mNextStream.fetch_add(most);
  auto requests = BuildUrbRequests(urb, type, mPipe.TransferId(), first, mMaxPackets);
  if (paced) {
    SubmitPaced(urb, first, std::move(requests));
  } else if (mUrbs.SetTransfers(urb.seqnum, first, static_cast<std::uint32_t>(requests.size()))) {
    Send(std::move(requests));
  }
}

void FarDevice::SubmitPaced(const Urb& urb, std::uint32_t firstStream,
                            std::vector<std::unique_ptr<VelPacket>> requests) {
  const std::size_t intervals =
      std::max<std::size_t>(urb.packets.size(), 1) * std::clamp<std::uint32_t>(urb.interval, 1, kMaxInterval);
  const auto busTime =
      (mFacts.Speed() >= LIBUSB_SPEED_HIGH ? kMicroframe : kFrame) * static_cast<std::int64_t>(intervals);
  if (!mUrbs.KeepTransfers(urb.seqnum, firstStream, std::move(requests), busTime)) {
    return;
  }
  Clock::time_point due;
  {
    const MutexLock lock(mPaceMutex);
    Clock::time_point& next = mNextDue.at(urb.endpoint);
    due = std::max(next, Clock::now());
    next = due + busTime;
  }
  const std::uint32_t generation = mUrbs.Generation();
  if (due <= Clock::now()) {
    SendDue(generation, urb.seqnum);
  } else {
    mUrbs.SetAlarm(urb.seqnum,
                   mAlarms.At(due, [this, generation, seqnum = urb.seqnum] { SendDue(generation, seqnum); }));
  }
}

void FarDevice::SendDue(std::uint32_t generation, std::uint32_t seqnum) {
  const MutexLock sending(mPaceMutex);
  Send(mUrbs.TakeUnsent(generation, seqnum));
}

void FarDevice::Send(std::vector<std::unique_ptr<VelPacket>> requests) {
  for (auto& request : requests) {
    mPipe.Send(std::move(request));
  }
}

void FarDevice::Unlink(const UnlinkRequest& request) {
  GuestUrbs::Unlinked unlinked;
  {
    const MutexLock sending(mPaceMutex);
    unlinked = mUrbs.Unlink(request);
    mNextDue.at(unlinked.endpoint) -= unlinked.busTime;
  }
  if (unlinked.alarm) {
    mAlarms.Cancel(*unlinked.alarm);
  }
  if (unlinked.status) {
    mUrbs.TellUnlinked(request.seqnum, *unlinked.status);
  }
  std::ranges::for_each(unlinked.streams, [this](std::uint32_t stream) { SendCancel(stream); });
  if (!unlinked.streams.empty()) {
    mLimits.At(Clock::now() + mOptions.cancelLimit,
               [this, generation = unlinked.generation, seqnum = request.target] { GiveUp(generation, seqnum); });
  }
}

// A far end that does not answer cancelled transfers leaves a guest's driver waiting for ever.
void FarDevice::GiveUp(std::uint32_t generation, std::uint32_t seqnum) {
  auto answer = mUrbs.BeginSent(generation, seqnum);
  if (!answer) {
    return;
  }
  answer->status = -kGuestReset;
  mUrbs.End(*answer, {});
}

void FarDevice::OnTransfer(std::unique_ptr<VelPacket> packet) {
  const auto reply = mReady ? ReadTransferAnswer(*packet) : std::nullopt;
  if (!reply || (mCamera != nullptr && mCamera->TakeReply(*reply, packet))) {
    return;
  }
  std::span<const std::uint8_t> data;
  const auto answer = mUrbs.BeginDone(*reply, mMaxPackets, data);
  if (!answer) {
    return;
  }
  mUrbs.End(*answer, data);
  if (reply->status == LIBUSB_TRANSFER_NO_DEVICE) {
    OnLost(kPulledOut);
  }
}

void FarDevice::OnLost(const std::string& why) {
  if (mGone.exchange(true)) {
    return;
  }
  if (mReady) {
    Note(why);
    mLimits.At(Clock::now(), [this] { mPipe.Close(); });  // Nobody holds it any more, however long others stay.
  }
  mUrbs.Lose();
  TellGone();
}

// Whoever holds the device has it from when it is ready.
void FarDevice::TellGone() {
  if (mReady && mGone && mOptions.onGone && !mGoneIsTold.exchange(true)) {
    mOptions.onGone();
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

void FarDevice::OnLatePicture() {
  if (mOptions.onLatePicture) {
    mOptions.onLatePicture();
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
  auto answer = mUrbs.BeginHeld();
  if (!answer) {
    return false;
  }
  const std::span<const std::uint8_t> data = fill(answer->packets, answer->length);
  answer->actualLength = static_cast<std::uint32_t>(data.size());
  mUrbs.End(*answer, data);
  return true;
}

}  // namespace vel
