// The command virtusb: loads the module as the framework does, and is its remote side.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "cmd/Commands.h"
#include "cmd/DeviceChannel.h"
#include "cmd/Devices.h"
#include "cmd/ModuleLog.h"
#include "cmd/Output.h"
#include "oskelo/log.h"
#include "remote/ModuleLibrary.h"
#include "remote/StopWatcher.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

int Fail(int status, const std::string& text) {
  vel::Note("virtusb: " + text);
  return status;
}

// Where the standard descriptors are closed, what is opened next would be taken for them: a device's node, a
// connection. Using them fails as it did.
void HoldStandardDescriptors() {
  for (const auto& [fd, mode] :
       {std::pair{STDIN_FILENO, O_WRONLY}, {STDOUT_FILENO, O_RDONLY}, {STDERR_FILENO, O_RDWR}}) {
    if (fcntl(fd, F_GETFD) < 0) {
      static_cast<void>(open("/dev/null", mode));
    }
  }
}

// What is wrong with the command line, and where to look.
std::string UsageProblem(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  const std::vector<std::string> unknown = app.remaining(true);
  const std::string help =
      chosen.empty() ? " (see virtusb --help)" : " (see virtusb " + chosen[0]->get_name() + " --help)";
  if (unknown.empty()) {
    return (chosen.empty() ? "no command is given" : error.what()) + help;
  }
  const char* what = unknown[0].starts_with('-') ? "unknown option \""
                     : chosen.empty()            ? "unknown command \""
                                                 : "unexpected argument \"";
  return what + unknown[0] + "\"" + help;
}

// Packets of a busy device come and go together. Given back to the system each time, every page of them would fault
// again: keeping them brings a tenth more throughput in a virtual machine (scripts/bench-vm).
void KeepFreedMemory() {
  mallopt(M_TRIM_THRESHOLD, 16 << 20);
  mallopt(M_MMAP_THRESHOLD, 4 << 20);
}

}  // namespace

int main(int argc, char** argv) {
  HoldStandardDescriptors();
  KeepFreedMemory();
  try {
    CLI::App app("Redirects USB devices the way the remote-desktop client does.", "virtusb");
    app.require_subcommand(1);
    app.set_version_flag("--version", VIRTUSB_VERSION);
    vel::CommonOptions common;
    common.modulePath = vel::ModuleLibrary::DefaultPath();
    std::string level;
    app.add_option("--module", common.modulePath, "The module to load")->type_name("PATH")->capture_default_str();
    app.add_option("--camera-source", common.cameraSource,
                   "What the emulated camera shows: test, /dev/videoN or a file")
        ->type_name("SOURCE")
        ->capture_default_str();
    app.add_option(
           "--tls", common.tlsFolder,
           "Certificates of tls:// and serve: ca-cert.pem, {client,server}-{cert,key}.pem; without, tls:// takes\n" +
               std::string(vel::kTlsFolder))
        ->type_name("DIR");
    app.add_option(
           "--log", level,
           "Show the log from this level on: debug, info, warn, error, off; VEL_LOG_LEVEL does the same. Without,\n"
           "its last lines are shown when the command fails")
        ->type_name("LEVEL")
        ->check(CLI::IsMember({"debug", "info", "warn", "error", "off"}));

    const std::array commands = {vel::AddList(app, common),     vel::AddDescribe(app, common),
                                 vel::AddStream(app, common),   vel::AddServe(app, common),
                                 vel::AddGiveback(app, common), vel::AddAttach(app, common),
                                 vel::AddExport(app, common),   vel::AddDemo(app, common)};
    for (const vel::Subcommand& command : commands) {
      command.line->fallthrough();
    }

    try {
      app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
      return app.exit(asked);
    } catch (const CLI::ParseError& error) {
      return Fail(kUsage, UsageProblem(app, error));
    }
    if (!level.empty()) {
      oskeloLogSetLevel(oskeloLogLevelByName(level.c_str()));
    }
    const auto* const chosen =
        std::ranges::find_if(commands, [](const vel::Subcommand& command) { return command.line->parsed(); });
    vel::ModuleLog log(!level.empty() || std::getenv(OSKELO_LOG_LEVEL_VARIABLE) != nullptr);
    try {
      return chosen->run();
    } catch (const vel::UsageError&) {
      throw;
    } catch (const vel::Interrupted&) {
      throw;
    } catch (const std::exception&) {
      log.ShowKept();
      throw;
    }
  } catch (const vel::UsageError& error) {
    return Fail(kUsage, error.what());
  } catch (const std::exception& error) {
    return Fail(kFailed, error.what());
  }
}
