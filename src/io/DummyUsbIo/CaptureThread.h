#ifndef VEL_IO_DUMMY_USB_IO_CAPTURE_THREAD_H
#define VEL_IO_DUMMY_USB_IO_CAPTURE_THREAD_H

#include <functional>
#include <memory>
#include <thread>

namespace vel {

// A thread for a call into the capture library, which may take its time, or not come back at all. One thread at a time.
class CaptureThread {
 public:
  CaptureThread() = default;
  CaptureThread(const CaptureThread&) = delete;
  CaptureThread& operator=(const CaptureThread&) = delete;
  ~CaptureThread() { Leave(); }

  // False when there is no thread to be had. `function` shares what it needs: it may outlive this object.
  bool Start(std::function<void()> function);
  // Whether the function has returned; true before Start.
  bool HasEnded() const;
  // Returns when the thread is gone, or after 1000 ms, or at once on the thread itself: it is left behind then, and the
  // module stays in memory, as the thread comes back into its code some day.
  void Leave();

 private:
  struct State;

  // Whether the function has returned, at the latest after that time.
  bool AwaitEnd() const;

  std::shared_ptr<State> mState;
  std::thread mThread;
};

}  // namespace vel

#endif
