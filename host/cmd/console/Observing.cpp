#include "cmd/console/Observing.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <stdexcept>

#include "cmd/console/FiguresReport.h"
#include "cmd/console/Output.h"
#include "cmd/console/UsageError.h"

namespace vel {
namespace {

constexpr double kShortestInterval = 0.1;
constexpr double kLongestInterval = 1e6;

}  // namespace

void AddObserveOptions(CLI::App& command, CommonOptions& common) {
  ObserveOptions& observe = common.observe;
  CLI::Option* const capture =
      command.add_option("--capture", observe.capture, "Write what crosses into this file, for Wireshark")
          ->type_name("FILE.pcapng");
  command
      .add_option("--capture-bytes", observe.captureBytes,
                  "At most so much of a transfer's data; control requests are whole")
      ->type_name("N")
      ->capture_default_str()
      ->needs(capture);
  command
      .add_option("--stats", observe.stats,
                  std::string("How each device does, so often, on standard error") + ReportSignal::HowToAsk())
      ->type_name("SECONDS")
      ->check(CLI::Range(kShortestInterval, kLongestInterval));
  if (command.get_option_no_throw("--json") == nullptr) {
    command.add_flag("--json", common.json,
                     "That as JSON, an object a line on standard output (with --stdio on standard error)");
  }
}

Observer::Options ObserverOptions(const CommonOptions& common, bool resultsAreFree) {
  if (common.observe.capture == "-") {
    throw UsageError("--capture takes a file, or a FIFO that somebody reads; standard output has other uses");
  }
  const auto milliseconds = std::chrono::duration<double, std::milli>(common.observe.stats * 1000);
  Observer::Options options;
  options.capture = common.observe.capture;
  options.captureBytes = common.observe.captureBytes;
  options.interval = std::chrono::ceil<std::chrono::milliseconds>(milliseconds);
  options.note = &Note;
  if (!common.json) {
    options.show = [](const DeviceFigures& figures) { Note(FiguresText(figures)); };
  } else if (!resultsAreFree) {
    options.show = [](const DeviceFigures& figures) { Note(FiguresJson(figures)); };
  } else {
    options.show = [failed = false](const DeviceFigures& figures) mutable {
      try {
        if (!failed) {
          Print(FiguresJson(figures) + "\n");
        }
      } catch (const std::runtime_error& error) {  // The devices go on.
        failed = true;
        Note(error.what());
      }
    };
  }
  return options;
}

}  // namespace vel
