#ifndef VIRTUSB_HOST_CMD_SERVE_RECEPTION_H
#define VIRTUSB_HOST_CMD_SERVE_RECEPTION_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "cmd/serve/Listener.h"
#include "remote/ByteStream.h"
#include "vel/Mutex.h"

namespace vel {

// Takes remote sides in while another one is served, on a thread of its own. Each has a time to show who it is, with
// TLS, and to send its first byte. Only then it waits for its turn: who is slow, silent or not entitled holds up
// nobody.
class Reception {
 public:
  struct Limits {
    std::chrono::milliseconds toSpeak{10000};  // From the connection on.
    std::chrono::milliseconds stuck{10000};    // Of a write without progress while another remote side waits.
  };
  struct Visitor {
    std::string name;  // For people; with TLS also whose certificate it has.
    std::unique_ptr<ByteStream> stream;
  };
  using Note = std::function<void(const std::string&)>;

  // At one time.
  static constexpr std::size_t kMaxArriving = 16;
  static constexpr std::size_t kMaxWaiting = 16;

  // Without a folder (of TlsContext) there is no TLS; it is read for each connection, so that new certificates need no
  // new service. `note` gets a line for each that is refused. Listener and signal outlive it.
  Reception(const Listener& listener, std::string tlsFolder, const StopSignal& stop, Note note, Limits limits);
  Reception(const Reception&) = delete;
  Reception& operator=(const Reception&) = delete;
  ~Reception();

  // Waits for the next one, in the order in which they spoke. None once stopped. Its stream ends before the reception.
  std::optional<Visitor> Next() VEL_EXCLUDES(mMutex);

 private:
  struct Arrival;

  void Run();
  std::optional<Arrival> Admit() const;
  // Whether it has said enough to wait for its turn. Throws std::runtime_error with why it never will.
  bool HasSpoken(Arrival& arrival) const;
  void Refuse(const Arrival& arrival, const std::string& why) const;
  void Queue(Arrival arrival) VEL_EXCLUDES(mMutex);
  bool OthersWait() VEL_EXCLUDES(mMutex);

  const Listener& mListener;
  const std::string mTlsFolder;
  const StopSignal& mStop;
  const Note mNote;
  const Limits mLimits;
  const StopSignal mEnd;
  Mutex mMutex;
  CondVar mChanged;
  std::deque<Visitor> mWaiting VEL_GUARDED_BY(mMutex);
  bool mIsOver VEL_GUARDED_BY(mMutex) = false;
  std::thread mThread;
};

}  // namespace vel

#endif
