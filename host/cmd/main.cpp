// The command virtusb: loads the module as the framework does, and is its remote side.
#include <csignal>
#include <exception>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cmd/Commands.h"
#include "cmd/Devices.h"
#include "cmd/Output.h"
#include "oskelo/log.h"
#include "remote/ModuleLibrary.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

const vel::StopSignal* gStop = nullptr;

extern "C" void OnStopSignal(int /*number*/) {
  gStop->Raise();
}

void CatchSignals(const vel::StopSignal& stop) {
  gStop = &stop;
  struct sigaction action {};
  action.sa_handler = &OnStopSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // A second interrupt ends the command at once.
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

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
    app.add_option("--log", level, "Log level: debug, info, warn, error or off; VEL_LOG_LEVEL does the same")
        ->type_name("LEVEL")
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
    CLI::App* stream =
        app.add_subcommand("stream", "Stream a camera as a guest's driver would, and save its pictures")->fallthrough();
    addDevice(stream);
    vel::StreamOptions streamOptions;
    stream->add_option("--size", streamOptions.size, "Of the pictures, in pixels; the camera's choice without")
        ->type_name("WxH");
    const CLI::Validator aboveZero(
        [](const std::string& text) {
          return text.find_first_of("123456789") == std::string::npos || text.starts_with('-')
                     ? "\"" + text + "\" is no number above 0"
                     : std::string();
        },
        "");
    CLI::Option_group* until = stream->add_option_group("until", "As long as; until interrupted without");
    until->add_option("--frames", streamOptions.frames, "This many pictures")->type_name("N")->check(aboveZero);
    until->add_option("--seconds", streamOptions.seconds, "This long")->type_name("S")->check(aboveZero);
    until->require_option(0, 1);
    stream->add_flag("--no-transcode", streamOptions.untouched,
                     "Pictures as the camera gives them; without, raw ones come as H.264");
    stream->add_option("-o,--output", streamOptions.file, "Write the pictures, one behind the other")
        ->type_name("FILE");
    stream->add_option("--snapshot", streamOptions.snapshot, "Decode a picture and write it as PNG")
        ->type_name("FILE.png");
    stream->add_flag("--json", common.json, "One JSON document");
    stream->footer(
        "Latency is what can be seen from this side: the time from when a read is the oldest one "
        "in flight to the\n"
        "reply with its picture. The camera's interval between two pictures is in it.");
    CLI::App* serve = app.add_subcommand("serve", "Carry a device's packets over a byte stream")->fallthrough();
    addDevice(serve);
    vel::ServeOptions serveOptions;
    CLI::Option_group* where = serve->add_option_group("where");
    where->add_flag("--stdio", serveOptions.stdio, "Over standard input and output");
    where->add_option("--listen", serveOptions.listen, "On ADDR:PORT, or on PORT of the loopback address")
        ->type_name("[ADDR:]PORT");
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
      return Fail(kUsage, UsageProblem(app, error));
    }
    if (!level.empty()) {
      oskeloLogSetLevel(oskeloLogLevelByName(level.c_str()));
    }
    const vel::StopSignal stop;
    if (*stream) {
      CatchSignals(stop);
      return vel::RunStream(common, streamOptions, stop);
    }
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
