#include "cmd/serve/Reception.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include "remote/FdStream.h"
#include "remote/TlsContext.h"
#include "remote/TlsStream.h"

namespace vel {

using Clock = std::chrono::steady_clock;

// One that has not spoken yet.
struct Reception::Arrival {
  std::string name;
  Clock::time_point deadline;
  RawFd fd = kNoFd;
  std::unique_ptr<ByteStream> stream;
  TlsStream* shaking = nullptr;  // The stream, until it knows who is there.
  short events = kReadable;      // That it waits for.
};

Reception::Reception(const Listener& listener, std::string tlsFolder, const StopSignal& stop, Note note, Limits limits)
    : mListener(listener),
      mTlsFolder(std::move(tlsFolder)),
      mStop(stop),
      mNote(std::move(note)),
      mLimits(limits),
      mThread([this] { Run(); }) {}

Reception::~Reception() {
  mEnd.Raise();
  mThread.join();
}

std::optional<Reception::Visitor> Reception::Next() {
  MutexLock lock(mMutex);
  while (mWaiting.empty() && !mIsOver) {
    mChanged.Wait(lock);
  }
  if (mIsOver) {
    return std::nullopt;
  }
  Visitor next = std::move(mWaiting.front());
  mWaiting.pop_front();
  return next;
}

bool Reception::OthersWait() {
  const MutexLock lock(mMutex);
  return !mWaiting.empty();
}

void Reception::Run() {
  constexpr std::size_t kOthers = 3;  // Descriptors in front of those of the arrivals.
  std::vector<Arrival> arrivals;
  std::vector<PollFd> descriptors;
  arrivals.reserve(kMaxArriving);
  descriptors.reserve(kOthers + kMaxArriving);
  while (true) {
    const RawFd newcomers = arrivals.size() < kMaxArriving ? mListener.Fd() : kNoFd;
    descriptors.assign({{mStop.Fd(), kReadable, 0}, {mEnd.Fd(), kReadable, 0}, {newcomers, kReadable, 0}});
    int limit = -1;
    for (const Arrival& arrival : arrivals) {
      descriptors.push_back({arrival.fd, arrival.events, 0});
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(arrival.deadline - Clock::now()).count();
      limit = static_cast<int>(std::max<long long>(0, limit < 0 ? left : std::min<long long>(left, limit)));
    }
    if (Poll(descriptors, limit) < 0 && LastFdError() == kErrorInterrupted) {
      continue;
    }
    if (descriptors[0].revents != 0 || descriptors[1].revents != 0) {
      break;
    }
    for (std::size_t i = arrivals.size(); i-- > 0;) {
      Arrival& arrival = arrivals[i];
      bool stays = false;
      try {
        const bool moved = descriptors[kOthers + i].revents != 0;
        if (moved && HasSpoken(arrival)) {
          Queue(std::move(arrival));
        } else if (Clock::now() >= arrival.deadline) {
          const auto seconds = std::chrono::ceil<std::chrono::seconds>(mLimits.toSpeak).count();
          Refuse(arrival, (arrival.shaking != nullptr ? "it has not finished the TLS handshake within "
                                                      : "it has sent nothing within ") +
                              std::to_string(seconds) + " s");
        } else {
          stays = true;
        }
      } catch (const std::exception& error) {
        Refuse(arrival, error.what());
      }
      if (!stays) {
        arrivals.erase(arrivals.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
    if (descriptors[2].revents != 0) {
      if (std::optional<Arrival> arrival = Admit()) {
        arrivals.push_back(std::move(*arrival));
      }
    }
  }
  const MutexLock lock(mMutex);
  mIsOver = true;
  mChanged.NotifyAll();
}

std::optional<Reception::Arrival> Reception::Admit() const {
  Arrival arrival;
  try {
    UniqueFd socket = mListener.TryAccept(arrival.name);
    if (!socket.IsValid()) {
      return std::nullopt;
    }
    arrival.deadline = Clock::now() + mLimits.toSpeak;
    arrival.fd = socket.Get();
    if (mTlsFolder.empty()) {
      arrival.stream = std::make_unique<FdStream>(std::move(socket), UniqueFd(), &mStop);
    } else {
      auto stream =
          std::make_unique<TlsStream>(TlsContext(mTlsFolder, TlsContext::Side::kServer), std::move(socket), &mStop);
      arrival.shaking = stream.get();
      arrival.stream = std::move(stream);
    }
    return arrival;
  } catch (const std::exception& error) {
    Refuse(arrival, error.what());
    return std::nullopt;
  }
}

bool Reception::HasSpoken(Arrival& arrival) const {
  if (arrival.shaking != nullptr) {
    const TlsStream::Shaken shaken = arrival.shaking->Handshake();
    arrival.events = shaken == TlsStream::Shaken::kWantsToWrite ? kWritable : kReadable;
    if (shaken != TlsStream::Shaken::kDone) {
      return false;
    }
    arrival.name += " (" + arrival.shaking->Peer() + ")";
    if (std::exchange(arrival.shaking, nullptr)->HasBytes()) {
      return true;
    }
  }
  char byte = 0;
  const std::ptrdiff_t count = PeekNow(arrival.fd, &byte, 1);
  if (const int error = count < 0 ? LastFdError() : 0;
      error != 0 && error != kErrorWouldWait && error != kErrorInterrupted) {
    throw std::runtime_error("it is gone: " + FdErrorText(error));
  }
  if (count == 0) {
    throw std::runtime_error("it left without a word");
  }
  return count > 0;
}

void Reception::Refuse(const Arrival& arrival, const std::string& why) const {
  mNote(arrival.name + ": refused, " + why);
}

void Reception::Queue(Arrival arrival) {
  arrival.stream->SetPatience({mLimits.stuck, [this] { return OthersWait(); }});
  {
    const MutexLock lock(mMutex);
    if (mWaiting.size() < kMaxWaiting) {
      mWaiting.push_back({std::move(arrival.name), std::move(arrival.stream)});
      mChanged.NotifyAll();
      return;
    }
  }
  Refuse(arrival, std::to_string(kMaxWaiting) + " others wait already");
}

}  // namespace vel
