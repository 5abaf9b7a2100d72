// The command virtusb: loads the module as the framework does, and is its remote side.
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "cmd/Commands.h"
#include "cmd/Devices.h"
#include "oskelo/log.h"
#include "remote/ModuleLibrary.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

const vel::StopSignal* gStop = nullptr;

extern "C" void OnStopSignal(int /*number*/) { gStop->Raise(); }

void CatchSignals(const vel::StopSignal& stop) {
  gStop = &stop;
  struct sigaction action {};
  action.sa_handler = &OnStopSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // A second interrupt ends the command at once.
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

int Fail(int status, const char* text) {
  std::fprintf(stderr, "virtusb: %s\n", text);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    CLI::App app("Redirects USB devices the way the remote-desktop client does.", "virtusb");
    app.require_subcommand(1);
    app.set_version_flag("--version", VIRTUSB_VERSION);
    vel::CommonOptions common;
    common.modulePath = vel::ModuleLibrary::DefaultPath();
    std::string level;
    app.add_option("--module", common.modulePath, "The module to load")->capture_default_str();
    app.add_option("--log", level, "Log level: debug, info, warn, error or off; VEL_LOG_LEVEL does the same")
        ->check(CLI::IsMember({"debug", "info", "warn", "error", "off"}));

    const auto addDevice = [&common](CLI::App* command) {
      command->add_option("DEVICE", common.device, "A name from \"virtusb list\", BUS:ADDRESS or VID:PID")->required();
    };
    CLI::App* list = app.add_subcommand("list", "Show what can be redirected")->fallthrough();
    list->add_flag("--json", common.json, "One JSON document");
    CLI::App* describe =
        app.add_subcommand("describe", "Enumerate a device as a guest would and print its descriptors")->fallthrough();
    addDevice(describe);
    describe->add_flag("--json", common.json, "One JSON document");
    CLI::App* serve = app.add_subcommand("serve", "Carry a device's packets over a byte stream")->fallthrough();
    addDevice(serve);
    vel::ServeOptions serveOptions;
    CLI::Option_group* where = serve->add_option_group("where");
    where->add_flag("--stdio", serveOptions.stdio, "Over standard input and output");
    where->add_option("--listen", serveOptions.listen, "On ADDR:PORT, or on PORT of the loopback address");
    where->require_option(1);
    serve->add_flag("--answer-failures", serveOptions.answerFailures,
                    "Answer transfers that failed or were cancelled, with their status and no data");
    serve->add_flag("--wait", serveOptions.wait,
                    "Wait for a local device that is not there yet, and take it back when it returns");
    CLI::App* demo =
        app.add_subcommand("demo", "Describe the emulated devices and run transfers of each kind")->fallthrough();

    try {
      app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
      return app.exit(asked);
    } catch (const CLI::ParseError& error) {
      return Fail(kUsage, (std::string(error.what()) + " (see virtusb --help)").c_str());
    }
    if (!level.empty()) {
      oskeloLogSetLevel(oskeloLogLevelByName(level.c_str()));
    }
    const vel::StopSignal stop;
    if (*serve) {
      CatchSignals(stop);
      return vel::RunServe(common, serveOptions, stop);
    }
    if (*describe) {
      return vel::RunDescribe(common);
    }
    return *demo ? vel::RunDemo(common) : vel::RunList(common);
  } catch (const vel::UsageError& error) {
    return Fail(kUsage, error.what());
  } catch (const std::exception& error) {
    return Fail(kFailed, error.what());
  }
}
