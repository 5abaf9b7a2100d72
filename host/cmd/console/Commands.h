// The subcommands. Each Run returns the exit status, writes results to standard output and everything else to standard
// error, and throws UsageError or another std::exception, whose text is the one line that the user gets. Each Add puts
// the command and its options into the command line, beside the Run that they are for.
#ifndef VIRTUSB_HOST_CMD_CONSOLE_COMMANDS_H
#define VIRTUSB_HOST_CMD_CONSOLE_COMMANDS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "observe/UsbmonRecord.h"
#include "remote/FdStream.h"

namespace CLI {
class App;
}  // namespace CLI

namespace vel {

// What is observed of the devices, by serve, attach, export and stream.
struct ObserveOptions {
  std::string capture;  // Empty: none.
  std::uint32_t captureBytes = kCaptureBytes;
  double stats = 0;  // Seconds between two lines; 0: only when SIGUSR1 asks.
};

struct CommonOptions {
  std::string modulePath;
  std::string device;
  std::string cameraSource = "test";  // Of the emulated camera.
  std::string tlsFolder;              // Of certificates; empty: the usual one for tls://, no TLS for serve.
  bool json = false;
  ObserveOptions observe;
};

struct ServeOptions {
  bool stdio = false;
  std::string listen;     // ADDR:PORT, :PORT or PORT
  bool insecure = false;  // Without TLS also where other machines reach it.
  bool answerFailures = false;
  bool leanReplies = false;
  bool wait = false;  // For a local device that is not there yet, or comes back.
};

struct StreamOptions {
  std::string size;          // WIDTHxHEIGHT; empty: the camera's choice.
  std::uint64_t frames = 0;  // 0: no limit. Without either limit until interrupted.
  double seconds = 0;        // The same.
  double silence = 5;        // Seconds without a picture after which the camera has failed.
  bool untouched = false;    // Raw pictures stay raw.
  std::string file;          // Empty: the pictures are only counted.
  std::string snapshot;      // Empty: none.
};

// Of attach and export.
struct FarOptions {
  std::vector<std::string> devices;
  bool untouched = false;       // A camera's raw pictures stay raw on the way.
  std::string listen = "3240";  // As of ServeOptions; export's alone.
  bool insecure = false;        // The same.
  // Of the local devices that are exported as they come and go; export's alone. With it `devices` may be empty.
  std::optional<std::string> filter;
  // Attach's alone: how often a device elsewhere is tried again when it is not there. Unset: at the start never, and
  // without end once it was.
  std::optional<unsigned> tries;
};

// A command of the command line, and what runs it once the line was parsed.
struct Subcommand {
  CLI::App* line = nullptr;
  std::function<int()> run;
};

// `app` and `common` outlive what they return.
Subcommand AddList(CLI::App& app, CommonOptions& common);
Subcommand AddDescribe(CLI::App& app, CommonOptions& common);
Subcommand AddStream(CLI::App& app, CommonOptions& common);
Subcommand AddServe(CLI::App& app, CommonOptions& common);
Subcommand AddGiveback(CLI::App& app, CommonOptions& common);
Subcommand AddAttach(CLI::App& app, CommonOptions& common);
Subcommand AddExport(CLI::App& app, CommonOptions& common);
Subcommand AddDemo(CLI::App& app, CommonOptions& common);

// What several commands take.
void AddDevice(CLI::App& command, CommonOptions& common);
// The same where it may also be one behind packets.
void AddAnyDevice(CLI::App& command, CommonOptions& common);
void AddJson(CLI::App& command, CommonOptions& common);
// The option --auto FILTER.
void AddFilter(CLI::App& command, std::optional<std::string>& filter, const std::string& about);

// With a filter, shows what it says of each local device.
int RunList(const CommonOptions& common, const std::optional<std::string>& filter);
// Throws Interrupted once `stop` is raised.
int RunDescribe(const CommonOptions& common, const StopSignal& stop);
int RunDemo(const CommonOptions& common);
// Streams a camera until enough has come or `stop` is raised; throws Interrupted when no picture had come by then.
int RunStream(const CommonOptions& common, const StreamOptions& options, const StopSignal& stop);
// Serves until `stop` is raised, or with stdio until its input ends.
int RunServe(const CommonOptions& common, const ServeOptions& serve, const StopSignal& stop);
int RunGiveback(const CommonOptions& common);
// Puts devices on this machine's bus until `stop` is raised or none is left.
int RunAttach(const CommonOptions& common, const FarOptions& wanted, const StopSignal& stop);
// Gives devices to guests' own clients until `stop` is raised or, without a filter, none is left.
int RunExport(const CommonOptions& common, const FarOptions& wanted, const StopSignal& stop);

// The rule file that lets a user open USB devices, as installed or in the source tree.
std::string UdevRulePath();

}  // namespace vel

#endif
