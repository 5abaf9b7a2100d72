#ifndef VEL_IO_LIBUSB_CONTEXT_H
#define VEL_IO_LIBUSB_CONTEXT_H

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "io/LibusbPtr.h"

namespace vel {

// A libusb context of its own, and the thread that handles its events.
class LibusbContext {
 public:
  LibusbContext() = default;
  LibusbContext(const LibusbContext&) = delete;
  LibusbContext& operator=(const LibusbContext&) = delete;
  // Ends the thread, then the context. Everything made from the context is gone by then.
  ~LibusbContext();

  // libusb's result. Asks for UsbDk where libusb has it.
  int Create();
  // Null before Create and after its failure.
  libusb_context* Get() const { return mContext.get(); }

  // Starts the event thread; false when there can be none. `onEnd` is called on that thread when it has handled its
  // last event, whatever ended it.
  bool StartThread(std::function<void()> onEnd);
  // Ends the event thread and waits for it: the length of the completion that it is in, if any. Not from the event
  // thread.
  void StopThread();
  // Whether the event thread is there to complete transfers. Turns false before `onEnd`. Any thread.
  bool ThreadHandlesEvents() const { return mThreadHandlesEvents; }

  // Handles events on the caller's thread, for at most `limit`; completions run in it. Any thread, also while another
  // one does the same. LIBUSB_ERROR_INTERRUPTED counts as success.
  int HandleEvents(std::chrono::milliseconds limit);

 private:
  void LibusbEventHandler(const std::function<void()>& onEnd);

  LibusbContextPtr mContext;
  std::atomic<bool> mRunning = true;
  std::atomic<bool> mThreadHandlesEvents = false;
  std::thread mThread;
};

}  // namespace vel

#endif
