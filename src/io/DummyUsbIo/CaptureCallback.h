#ifndef VEL_IO_DUMMY_USB_IO_CAPTURE_CALLBACK_H
#define VEL_IO_DUMMY_USB_IO_CAPTURE_CALLBACK_H

#include <string>

#include "oskelo/camera.h"

namespace vel {

// One device's registration with the capture library, which has one callback for each camera id. Devices may share an
// id, above all the empty one: then the one whose camera it is has the callback, and among those without a camera the
// first. Any thread.
class CaptureCallback {
 public:
  // `owns`: the library's camera of this id is the caller's.
  CaptureCallback(std::string id, bool owns, CamStreamCallback callback, void* context);
  CaptureCallback(const CaptureCallback&) = delete;
  CaptureCallback& operator=(const CaptureCallback&) = delete;
  ~CaptureCallback() { Unregister(); }

  // Does nothing while the callback is another device's. May be repeated. Where another thread is telling the library
  // about this id, that one sees to it.
  void Register();
  // When it returns, the callback is not running and will not be called again. Not from the callback.
  void Unregister();

 private:
  // False when the callback is not this device's, and no thread is about to make it so.
  bool Withdraw();
  static void Tell(const std::string& id);

  const std::string mId;
  const bool mOwns;
  const CamStreamCallback mCallback;
  void* const mContext;
};

}  // namespace vel

#endif
