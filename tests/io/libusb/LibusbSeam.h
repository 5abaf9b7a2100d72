#ifndef TESTS_IO_LIBUSB_LIBUSB_SEAM_H
#define TESTS_IO_LIBUSB_LIBUSB_SEAM_H

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <libusb-1.0/libusb.h>

#include "vel/Mutex.h"

namespace vel {

// The function of libusb itself.
void* LibusbBehindSeam(const char* function);

// Stands in front of the libusb that this program is linked with: notes what is called, and lets a test do what no
// kernel can be made to do. Any thread.
class LibusbSeam {
 public:
  using Call = std::function<int()>;
  // Runs in place of a call, on its thread; may make it. Its result is the call's.
  using Hook = std::function<int(const Call&)>;

  static LibusbSeam& Get();
  // Replaces the hook of a function, named without "libusb_"; null: none.
  void Instead(const std::string& function, Hook hook) VEL_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    mHooks.insert_or_assign(function, std::move(hook));
  }
  // "claim_interface 0": the calls since this was asked last, but those that handle events.
  std::vector<std::string> TakeCalls() VEL_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    return std::exchange(mCalls, {});
  }
  void Reset() VEL_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    mHooks.clear();
    mCalls.clear();
  }
  // Ends the wait for events that a thread is in.
  void Interrupt() const { libusb_interrupt_event_handler(mContext); }

  // For the functions of libusb.
  int Run(const std::string& function, const std::string& noted, const Call& call) VEL_EXCLUDES(mMutex);
  void SetContext(libusb_context* context) { mContext = context; }

 private:
  Mutex mMutex;
  std::map<std::string, Hook> mHooks VEL_GUARDED_BY(mMutex);
  std::vector<std::string> mCalls VEL_GUARDED_BY(mMutex);
  libusb_context* mContext = nullptr;
};

}  // namespace vel

#endif
