#include "far/ControlRouter.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "remote/TransferAnswer.h"

namespace vel {
namespace {

constexpr std::uint8_t kToDevice = LIBUSB_RECIPIENT_DEVICE;
constexpr std::uint8_t kToInterface = LIBUSB_RECIPIENT_INTERFACE;

}  // namespace

void ControlRouter::Take() {
  Select(0, mFacts.Config());
  mPipe.Ask(Command::kDetachKernelDriver);
  mPipe.Ask(Command::kClaimAllInterface);
}

void ControlRouter::GiveBack() {
  mPipe.Ask(Command::kReleaseAllInterface);
  mPipe.Ask(Command::kAttachKernelDriver);
}

void ControlRouter::Route(const ControlSetup& setup, std::span<const std::uint8_t> data, std::uint32_t length,
                          Done answer) {
  const auto known = mFacts.Answer(setup);
  if (known && mUnderWay == 0) {
    AnswerKnown(*known, setup, length, answer);
    return;
  }
  ++mUnderWay;
  Done done = [this, answer = std::move(answer)](const Result& result) {
    answer(result);
    --mUnderWay;
  };
  if (known) {  // Behind the ones before it, whose replies come before this one's: a guest counts on their order.
    mPipe.Ask(Command::kGetBusNumber, [known, setup, length, done = std::move(done)](const RequestPipe::Reply&) {
      AnswerKnown(*known, setup, length, done);
    });
  } else if (setup.bmRequestType == kToDevice && setup.bRequest == LIBUSB_REQUEST_SET_CONFIGURATION) {
    SetConfiguration(static_cast<std::uint8_t>(setup.wValue), std::move(done));
  } else if (setup.bmRequestType == kToInterface && setup.bRequest == LIBUSB_REQUEST_SET_INTERFACE) {
    SetInterface(static_cast<std::uint8_t>(setup.wIndex), static_cast<std::uint8_t>(setup.wValue), std::move(done));
  } else {
    PassOn(setup, data, length, std::move(done));
  }
}

void ControlRouter::AnswerKnown(std::span<const std::uint8_t> known, const ControlSetup& setup, std::uint32_t length,
                                const Done& done) {
  const auto bytes = known.first(std::min<std::size_t>(known.size(), length));
  done({known.empty() && setup.wLength > 0 ? -kGuestPipe : 0, static_cast<std::uint32_t>(bytes.size()), bytes});
}

std::optional<EndpointType> ControlRouter::FindEndpoint(std::uint8_t address) {
  const MutexLock lock(mMutex);
  return mEndpoints.Find(address);
}

void ControlRouter::Select(std::uint8_t value, ConfigModel config) {
  const MutexLock lock(mMutex);
  mConfiguration = value;
  mEndpoints.Select(std::move(config));
}

// All at once: one round trip. A guest that sets what is set already has reset its port, which nothing else tells.
void ControlRouter::SetConfiguration(std::uint8_t value, Done done) {
  bool again = false;
  {
    const MutexLock lock(mMutex);
    again = mConfiguration == value && value != 0;
  }
  struct Outcome {
    std::int32_t set = 0;
    std::int32_t claim = 0;
  };
  const auto outcome = std::make_shared<Outcome>();
  mPipe.Ask(Command::kReleaseAllInterface);
  if (again) {
    mPipe.Ask(Command::kResetDevice);
  }
  mPipe.Ask(
      Command::kSetConfiguration, [outcome](const RequestPipe::Reply& reply) { outcome->set = reply.value; },
      [value](RequestId id) { return BuildU32Request(Command::kSetConfiguration, id, value); });
  mPipe.Ask(Command::kDetachKernelDriver);
  mPipe.Ask(Command::kClaimAllInterface, [outcome](const RequestPipe::Reply& reply) { outcome->claim = reply.value; });
  mPipe.Ask(Command::kGetDeviceConfig, [this, outcome, value, done = std::move(done)](const RequestPipe::Reply& reply) {
    const std::int32_t failed = outcome->set < 0 ? outcome->set : value == 0 ? 0 : outcome->claim;
    if (failed >= 0) {
      auto config = ReadConfigModel(reply.data);
      Select(value, config ? *std::move(config) : mFacts.Config());
    }
    done({ErrnoOfResult(failed), 0, {}});
  });
}

void ControlRouter::SetInterface(std::uint8_t interfaceNumber, std::uint8_t setting, Done done) {
  mPipe.Ask(
      Command::kSetInterfaceAltSetting,
      [this, interfaceNumber, setting, done = std::move(done)](const RequestPipe::Reply& reply) {
        if (reply.value >= 0) {
          const MutexLock lock(mMutex);
          mEndpoints.SelectSetting(interfaceNumber, setting);
        }
        done({ErrnoOfResult(reply.value), 0, {}});
      },
      [&](RequestId id) { return BuildAltSettingRequest(id, interfaceNumber, setting); });
}

void ControlRouter::PassOn(const ControlSetup& setup, std::span<const std::uint8_t> data, std::uint32_t length,
                           Done done) {
  const bool in = (setup.bmRequestType & LIBUSB_ENDPOINT_IN) != 0;
  const std::size_t room = std::min<std::size_t>(setup.wLength, length);
  mPipe.Ask(
      Command::kControlTransfer,
      [in, room, done = std::move(done)](const RequestPipe::Reply& reply) {
        const std::size_t moved = std::min(room, static_cast<std::size_t>(std::max(reply.value, 0)));
        const auto bytes = in ? reply.data.first(std::min(moved, reply.data.size())) : std::span<const std::uint8_t>();
        done({ErrnoOfResult(reply.value), static_cast<std::uint32_t>(in ? bytes.size() : moved), bytes});
      },
      [&](RequestId id) {
        return BuildControlRequest(id, setup, static_cast<std::uint32_t>(mLimit.count()),
                                   in ? data.first(0) : data.first(std::min(room, data.size())));
      });
}

}  // namespace vel
