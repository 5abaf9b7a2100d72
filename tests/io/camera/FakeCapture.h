#ifndef VIRTUSB_TESTS_IO_CAMERA_FAKE_CAPTURE_H
#define VIRTUSB_TESTS_IO_CAMERA_FAKE_CAPTURE_H

#include <cstdint>
#include <string>
#include <vector>

#include "oskelo/camera.h"
#include "support/Limits.h"
#include "vel/Mutex.h"

namespace vel {

// The capture library of this executable: one camera, which does what the test says. Make one in
// each test. Any thread.
class FakeCapture {
 public:
  FakeCapture();
  FakeCapture(const FakeCapture&) = delete;
  FakeCapture& operator=(const FakeCapture&) = delete;
  ~FakeCapture();

  // Before the calls that they are about.
  std::vector<_CameraParam> params = {{640, 480, 2, 0}};
  int openResult = 0;
  int listResult = 0;
  int setParamResult = 0;
  // CamOpen does not return until released; CamClose does not help it.
  void BlockOpen();
  void ReleaseOpen();

  // Delivers a picture on this thread, as the library does. False when nobody is registered.
  bool Picture(std::vector<std::uint8_t> picture);
  // The running CamStreamOn returns -1.
  void Unplug();

  // "CamSetParam 640x480 2"; without CamSetStreamCallback and CamGetParamList.
  std::vector<std::string> Calls() const;
  [[nodiscard]] bool WaitForCall(const std::string& call) const;
  [[nodiscard]] bool WaitForStream() const;
  std::string RegisteredId() const;

  void Note(const std::string& call);
  int Open();
  int Stream();
  void StopStream();
  void Arm();
  void Register(const char* id, CamStreamCallback callback, void* context);

 private:
  mutable Mutex mMutex;
  mutable CondVar mChanged;
  std::vector<std::string> mCalls VEL_GUARDED_BY(mMutex);
  bool mOpenBlocked VEL_GUARDED_BY(mMutex) = false;
  bool mStreaming VEL_GUARDED_BY(mMutex) = false;
  bool mStopped VEL_GUARDED_BY(mMutex) = false;
  bool mUnplugged VEL_GUARDED_BY(mMutex) = false;
  std::string mRegisteredId VEL_GUARDED_BY(mMutex);
  CamStreamCallback mCallback VEL_GUARDED_BY(mMutex) = nullptr;
  void* mContext VEL_GUARDED_BY(mMutex) = nullptr;
  int mDelivering VEL_GUARDED_BY(mMutex) = 0;
};

}  // namespace vel

#endif
