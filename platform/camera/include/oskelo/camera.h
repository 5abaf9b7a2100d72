// The client's camera capture library: pictures from capture devices and from anything FFmpeg
// reads.
//
// A camera is named by its id:
//   "/dev/videoN"   a capture device (Linux)
//   "test"          a moving test picture, 640x480 and 1280x720, 30 pictures per second
//   anything else   a file or an address that FFmpeg reads, in a loop and at its own rate
//   ""              the default source, see CamSetDefaultSource
//
// Every call may be made from any thread. Results are 0 or more, or negative on failure; each
// failure is logged as one Error line that says what is wrong with which camera. A null id is the
// empty one.
#ifndef OSKELO_CAMERA_H
#define OSKELO_CAMERA_H

#include <stdint.h>  // NOLINT(modernize-deprecated-headers): a C header

#include "oskelo/oskelo_camera_export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Values of _CameraParam::pixelFormat.
enum CamPixelFormat {
  CAM_FORMAT_RAW = 1,   // Some uncompressed format; this library offers none.
  CAM_FORMAT_YUYV = 2,  // Two bytes per pixel, rows without padding.
  CAM_FORMAT_MJPEG = 3  // One JPEG picture each.
};

// One kind of picture that a camera delivers.
typedef struct _CameraParam {
  uint32_t width;   // Pixels, 1 to 8192; even for YUYV.
  uint32_t height;  // Pixels, 1 to 8192.
  uint32_t pixelFormat;
  uint32_t reserved;  // 0
} _CameraParam;

// Cameras still to be named: the empty id stands for what CamSetDefaultSource was given last; else
// for what this environment variable names; else for the first capture device there is.
#define OSKELO_CAMERA_SOURCE_VARIABLE "VEL_CAMERA_SOURCE"
// Null or "" takes the choice back. Cameras that are open stay with what they have.
OSKELO_CAMERA_EXPORT void CamSetDefaultSource(const char* source);

// Opens a camera; it stays open until CamClose. Fails when it is open already, is not there, or has
// no picture to give within 2.5 seconds.
OSKELO_CAMERA_EXPORT int CamOpen(const char* id);

// Ends whatever is under way for the camera, an opening included, and closes it. When it returns,
// the callback is not running and will not be called again. Called from the callback it does not
// wait: the camera closes when the callback has returned.
OSKELO_CAMERA_EXPORT int CamClose(const char* id);

// What the camera delivers, in its own order. The array belongs to the library and is valid until
// CamClose.
OSKELO_CAMERA_EXPORT int CamGetParamList(const char* id, _CameraParam** list, int* count);

// Chooses one of the camera's kinds of picture for the next stream; the first of the list is chosen
// at first. Fails for one that the list does not have, and while the camera streams. Lets a stream
// start again after CamStreamOff, whatever it returns.
OSKELO_CAMERA_EXPORT int CamSetParam(const char* id, _CameraParam* param);

// Captures on the calling thread until CamStreamOff or CamClose (returns 0) or until the camera
// fails, for example because it was unplugged (negative). Returns 0 at once after a CamStreamOff
// that no CamSetParam followed, so that a stream which was ended before its thread got here does
// not begin.
OSKELO_CAMERA_EXPORT int CamStreamOn(const char* id);

// Ends the stream. When it returns, the callback is not running and will not be called by that
// stream again. Called from the callback it does not wait.
OSKELO_CAMERA_EXPORT int CamStreamOff(const char* id);

// Gets one picture; `data` is valid during the call. The thread of CamStreamOn.
typedef void (*CamStreamCallback)(unsigned char* data, unsigned int length, void* context);

// Whom the open camera's pictures go to from now on; null for nobody, then pictures are dropped.
// When it returns, the callback before is not running (unless this is called from it, or sets the
// same one again) and will not be called again. Without effect for a camera that is not open.
OSKELO_CAMERA_EXPORT void CamSetStreamCallback(const char* id, CamStreamCallback callback, void* context);

// A thread for one function that may need this library's own kind of thread.
typedef struct CamWorker CamWorker;

// A worker that will call `function` with `context`; `parent` is null. Null when there is no
// function.
OSKELO_CAMERA_EXPORT CamWorker* CreatQtWorker(void* parent, void (*function)(void*), void* context);
// Calls the function, once, on the worker's thread. Negative when no thread can be had or it was
// started before.
OSKELO_CAMERA_EXPORT int StartQtWroker(CamWorker* worker);
// Gives the worker back when its function has returned, so that no code of the caller's runs on its
// thread any more. CamClose ends a CamOpen that the function is in. Not on the worker's own thread.
OSKELO_CAMERA_EXPORT void QuitQtWroker(CamWorker* worker);

#ifdef __cplusplus
}
#endif

#endif
