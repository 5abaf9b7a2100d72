// What the stream command says: while it runs, and at the end.
#ifndef VIRTUSB_HOST_CMD_STREAM_STREAM_REPORT_H
#define VIRTUSB_HOST_CMD_STREAM_STREAM_REPORT_H

#include <string>

#include <nlohmann/json.hpp>

#include "cmd/stream/GuestCamera.h"
#include "cmd/stream/StreamStatistics.h"

namespace vel {

// What was streamed, and where to.
struct StreamResult {
  std::string camera;
  GuestCamera::Stream stream;
  PictureFormat format = PictureFormat::kOther;  // In which the pictures came.
  StreamFigures figures;
  bool interrupted = false;
  bool moduleHere = true;  // In this process.
  std::string file;        // Empty: not asked for.
  std::string snapshot;    // The same.
};

std::string StreamText(const StreamResult& result);
nlohmann::ordered_json StreamJson(const StreamResult& result);

// A line on standard error that follows a running stream: on a terminal one that is written over, elsewhere a new one
// each time. One thread.
class LiveLine {
 public:
  LiveLine();
  LiveLine(const LiveLine&) = delete;
  LiveLine& operator=(const LiveLine&) = delete;
  // Leaves the terminal's line empty.
  ~LiveLine();

  // When the next one is due.
  StreamStatistics::Clock::time_point Due() const { return mDue; }
  void Show(const StreamFigures& figures);

 private:
  const bool mTerminal;
  StreamStatistics::Clock::time_point mDue;
  StreamFigures mLast;
};

}  // namespace vel

#endif
