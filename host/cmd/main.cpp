// The command virtusb: loads the module as the framework does, and is its remote side.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "cmd/Commands.h"
#include "cmd/console/ModuleLog.h"
#include "cmd/console/Output.h"
#include "cmd/console/UsageError.h"
#include "os/Process.h"
#include "os/Program.h"
#include "os/StandardStreams.h"
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

}  // namespace

int main(int argc, char** argv) {
  vel::PrepareStandardStreams();
  vel::KeepFreedMemory();
  try {
    std::vector<std::string> words = vel::ProgramArguments(argc, argv);
    const std::vector<char*> arguments = vel::ArgumentVector(words);
    CLI::App app("Redirects USB devices the way the remote-desktop client does.", "virtusb");
    app.require_subcommand(1);
    app.allow_windows_style_options(false);  // A path is a path.
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
               vel::UsualTlsFolder())
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
      app.parse(argc, arguments.data());
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
