// The subcommands, and what several of them take.
#ifndef VIRTUSB_HOST_CMD_CONSOLE_COMMANDS_H
#define VIRTUSB_HOST_CMD_CONSOLE_COMMANDS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "observe/UsbmonRecord.h"

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

// A command of the command line, and what runs it once the line was parsed.
struct Subcommand {
  CLI::App* line = nullptr;
  // Returns the exit status. Results go to standard output, everything else to standard error. Throws UsageError or
  // another std::exception, whose text is the one line that the user gets.
  std::function<int()> run;
};

// Each puts the command and its options into the command line. `app` and `common` outlive what they return.
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

// The rule file that lets a user open USB devices, as installed or in the source tree.
std::string UdevRulePath();

}  // namespace vel

#endif
