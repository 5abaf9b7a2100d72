#include "cmd/console/FiguresReport.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "cmd/console/Format.h"

namespace vel {
namespace {

double Millions(std::uint64_t count) {
  return static_cast<double>(count) / 1e6;
}

double BitsPerSecond(const DeviceFigures& figures) {
  return figures.seconds > 0 ? 8.0 * static_cast<double>(figures.lately.pictureBytes) / figures.seconds : 0.0;
}

nlohmann::ordered_json CountsJson(const DeviceCounts& counts, bool isCamera) {
  nlohmann::ordered_json failures;
  for (std::size_t i = 0; i < kFailureNames.size(); ++i) {
    failures[kFailureNames[i]] = counts.failures[i];
  }
  nlohmann::ordered_json json = {{"transfers", counts.transfers},
                                 {"bytesIn", counts.bytesIn},
                                 {"bytesOut", counts.bytesOut},
                                 {"failures", std::move(failures)},
                                 {"unanswered", counts.unanswered}};
  if (isCamera) {
    json["pictures"] = counts.pictures;
    json["pictureBytes"] = counts.pictureBytes;
    json["silentReads"] = counts.silentReads;
    json["latePictures"] = counts.late;
  }
  return json;
}

nlohmann::ordered_json OrNull(const std::optional<double>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json();
}

}  // namespace

std::string FiguresText(const DeviceFigures& figures) {
  const DeviceCounts& counts = figures.lately;
  std::string text = Format("%s: %.1f s, %llu transfers, %.2f MB in, %.2f MB out, %zu in flight",
                            figures.device.c_str(), figures.seconds, static_cast<unsigned long long>(counts.transfers),
                            Millions(counts.bytesIn), Millions(counts.bytesOut), figures.inFlight);
  if (figures.roundTripP50 && figures.roundTripP99) {
    text += Format(", round trip %.1f ms (p50) %.1f ms (p99)", *figures.roundTripP50, *figures.roundTripP99);
  }
  const auto add = [&text](std::uint64_t count, const char* what) {
    if (count > 0) {
      text += Format(", %llu %s", static_cast<unsigned long long>(count), what);
    }
  };
  for (std::size_t i = 0; i < kFailureNames.size(); ++i) {
    add(counts.failures[i], kFailureNames[i]);
  }
  add(counts.unanswered, "unanswered");
  if (figures.isCamera) {
    text += Format("; %llu pictures, %.2f Mbit/s", static_cast<unsigned long long>(counts.pictures),
                   BitsPerSecond(figures) / 1e6);
    add(counts.late, "late");
    add(counts.silentReads, "silent reads");
    if (figures.pictureAge) {
      text += Format(", the newest %.0f ms old", *figures.pictureAge * 1000);
    }
  }
  return text;
}

std::string FiguresJson(const DeviceFigures& figures) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  nlohmann::ordered_json json = {
      {"device", figures.device}, {"time", std::chrono::duration<double>(now).count()}, {"seconds", figures.seconds}};
  json.update(CountsJson(figures.lately, figures.isCamera));
  json["inFlight"] = figures.inFlight;
  json["roundTripMilliseconds"] = {{"p50", OrNull(figures.roundTripP50)}, {"p99", OrNull(figures.roundTripP99)}};
  if (figures.isCamera) {
    json["bitsPerSecond"] = BitsPerSecond(figures);
    json["pictureAgeSeconds"] = OrNull(figures.pictureAge);
  }
  json["total"] = CountsJson(figures.total, figures.isCamera);
  return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace vel
