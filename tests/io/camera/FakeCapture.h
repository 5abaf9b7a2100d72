#ifndef VIRTUSB_TESTS_IO_CAMERA_FAKE_CAPTURE_H
#define VIRTUSB_TESTS_IO_CAMERA_FAKE_CAPTURE_H

#include <functional>
#include <string>
#include <vector>

#include "oskelo/camera.h"
#include "support/Limits.h"
#include "vel/Mutex.h"

namespace vel {

// The capture library of this executable: one camera, which does what the test says. Make one in each test. Any thread.
struct FakeCapture {
  FakeCapture();
  FakeCapture(const FakeCapture&) = delete;
  FakeCapture& operator=(const FakeCapture&) = delete;
  ~FakeCapture();

  // While blocked, CamOpen does not return; CamClose does not help it.
  void BlockOpen(bool blocked);
  // Delivers a picture on this thread, as the library does. False when nobody is registered.
  bool Picture(std::string picture);
  // "CamSetParam 640x480 2"; without CamSetStreamCallback and CamGetParamList.
  std::vector<std::string> Calls();
  [[nodiscard]] bool WaitForStream();

  // Before the calls that they are about.
  std::vector<_CameraParam> params = {{640, 480, 2, 0}, {1280, 720, 2, 0}};
  int openResult = 0;
  int listResult = 0;
  std::function<void()> beforeClear;  // Called once, before a callback is taken away.

  // The library's side.
  Mutex mutex;
  CondVar changed;
  std::vector<std::string> calls;
  int workers = 0;
  bool openBlocked = false;
  bool streaming = false;
  bool stopped = false;
  CamStreamCallback callback = nullptr;
  void* context = nullptr;
  int delivering = 0;
};

}  // namespace vel

#endif
