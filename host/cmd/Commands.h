// The subcommands. Each returns the exit status, writes results to standard output and everything else to standard
// error, and throws UsageError or another std::exception, whose text is the one line that the user gets.
#ifndef VIRTUSB_HOST_CMD_COMMANDS_H
#define VIRTUSB_HOST_CMD_COMMANDS_H

#include <cstdint>
#include <string>

#include "remote/FdStream.h"

namespace vel {

struct CommonOptions {
  std::string modulePath;
  std::string device;
  std::string cameraSource = "test";  // Of the emulated camera.
  bool json = false;
};

struct ServeOptions {
  bool stdio = false;
  std::string listen;  // ADDR:PORT, :PORT or PORT
  bool answerFailures = false;
  bool wait = false;  // For a local device that is not there yet, or comes back.
};

struct StreamOptions {
  std::string size;          // WIDTHxHEIGHT; empty: the camera's choice.
  std::uint64_t frames = 0;  // 0: no limit. Without either limit until interrupted.
  double seconds = 0;        // The same.
  bool untouched = false;    // Raw pictures stay raw.
  std::string file;          // Empty: the pictures are only counted.
  std::string snapshot;      // Empty: none.
};

// The rule file that lets a user open USB devices, as installed or in the source tree.
std::string UdevRulePath();

int RunList(const CommonOptions& common);
int RunDescribe(const CommonOptions& common);
int RunDemo(const CommonOptions& common);
// Streams a camera until enough has come or `stop` is raised.
int RunStream(const CommonOptions& common, const StreamOptions& options, const StopSignal& stop);
// Serves until `stop` is raised, or with stdio until its input ends.
int RunServe(const CommonOptions& common, const ServeOptions& serve, const StopSignal& stop);

}  // namespace vel

#endif
