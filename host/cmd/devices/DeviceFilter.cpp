#include "cmd/devices/DeviceFilter.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

#include "cmd/console/Format.h"
#include "cmd/console/UsageError.h"

namespace vel {
namespace {

constexpr char kNotation[] = "a rule is class,vendor,product,version,allow";

struct Field {
  std::string_view name;
  unsigned most;
};
constexpr std::array<Field, 4> kFields = {
    {{"class", 0xFF}, {"vendor", 0xFFFF}, {"product", 0xFFFF}, {"version", 0xFFFF}}};

std::string Trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

// What is in front of each separator and behind the last one.
std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t end = 0; end != std::string::npos; begin = end + 1) {
    end = text.find(separator, begin);
    parts.push_back(Trimmed(text.substr(begin, end - begin)));
  }
  return parts;
}

// Digits alone. No zero in front: some take that for octal, and lsusb writes hex so.
std::optional<unsigned> ReadNumber(std::string_view text) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  const std::string_view digits = hex ? text.substr(2) : text;
  unsigned number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, hex ? 16 : 10);
  if (error == std::errc::invalid_argument || end != digits.data() + digits.size() ||
      (!hex && digits.size() > 1 && digits.front() == '0')) {
    return std::nullopt;
  }
  return error == std::errc() ? number : ~0U;
}

// A class that a rule has to allow, and whose it is.
struct Counted {
  std::uint8_t code;
  std::string whose;
};

bool LeavesItToInterfaces(std::uint8_t code) {
  return code == LIBUSB_CLASS_PER_INTERFACE || code == LIBUSB_CLASS_MISCELLANEOUS;
}

bool IsSideHid(const LocalDevice::Interface& interface) {
  return interface.usbClass.code == LIBUSB_CLASS_HID && interface.usbClass.subclass == 0 &&
         interface.usbClass.protocol == 0;
}

// At least one.
std::vector<Counted> WhatCounts(const LocalDevice& device) {
  std::vector<Counted> counted;
  const Counted itself{device.usbClass.code, "the device"};
  if (!LeavesItToInterfaces(itself.code)) {
    counted.push_back(itself);
  }
  const bool all = std::ranges::all_of(device.interfaces, &IsSideHid);
  for (const LocalDevice::Interface& interface : device.interfaces) {
    if (all || !IsSideHid(interface)) {
      counted.push_back({interface.usbClass.code, Format("interface %u", unsigned{interface.number})});
    }
  }
  if (counted.empty()) {
    counted.push_back(itself);
  }
  return counted;
}

}  // namespace

DeviceFilter::DeviceFilter(const std::string& text) {
  for (const std::string& rule : Split(text, '|')) {
    mRules.push_back(ReadRule(rule, "rule " + std::to_string(mRules.size() + 1)));
  }
}

DeviceFilter::Rule DeviceFilter::ReadRule(const std::string& text, const std::string& name) {
  if (text.empty()) {
    throw UsageError(name + " is empty: " + kNotation);
  }
  const std::vector<std::string> words = Split(text, ',');
  if (words.size() > kFields.size() + 1) {
    throw UsageError(name + " has more than five fields: " + kNotation);
  }
  const auto word = [&](std::size_t i, std::string_view field) {
    if (i >= words.size() || words[i].empty()) {
      throw UsageError(name + ": " + std::string(field) + " is missing: " + kNotation);
    }
    return words[i];
  };
  Rule rule;
  for (std::size_t i = 0; i < kFields.size(); ++i) {
    const auto& [field, most] = kFields.at(i);
    const std::string value = word(i, field);
    const std::string what = Format("%s: %s %s", name.c_str(), std::string(field).c_str(), value.c_str());
    const auto number = ReadNumber(value);
    if (value != "-1" && !number) {
      throw UsageError(what + " is no number: give decimal without a zero in front, 0x and hex, or -1 for any");
    }
    if (number && *number > most) {
      throw UsageError(what + Format(" is above %u (0x%x)", most, most));
    }
    rule.wanted.at(i) = number;
  }
  const std::string allow = word(kFields.size(), "allow");
  if (allow != "0" && allow != "1") {
    throw UsageError(name + ": allow " + allow + " is neither 0 nor 1");
  }
  rule.allow = allow == "1";
  return rule;
}

DeviceFilter::Verdict DeviceFilter::Judge(const LocalDevice& device) const {
  if (device.imported) {
    return {.allowed = false, .rules = {}, .text = "never: it came here by USB/IP"};
  }
  Verdict verdict{.allowed = true, .rules = {}, .text = "allowed by"};
  for (const auto& [code, whose] : WhatCounts(device)) {
    const std::string where = " (" + whose + Format(", class %u)", unsigned{code});
    if (code == LIBUSB_CLASS_HUB) {
      return {.allowed = false, .rules = {}, .text = "never: a hub" + where};
    }
    const std::array<std::uint16_t, 4> is = {code, device.identity.vendorId, device.identity.productId, device.version};
    const auto decides = std::ranges::find_if(mRules, [&is](const Rule& rule) {
      return std::ranges::equal(rule.wanted, is,
                                [](const auto& wanted, std::uint16_t value) { return !wanted || *wanted == value; });
    });
    if (decides == mRules.end()) {
      return {.allowed = false, .rules = {}, .text = "no rule" + where};
    }
    const auto number = static_cast<std::size_t>(decides - mRules.begin()) + 1;
    if (!decides->allow) {
      return {.allowed = false, .rules = {number}, .text = "refused by rule " + std::to_string(number) + where};
    }
    if (std::ranges::find(verdict.rules, number) == verdict.rules.end()) {
      verdict.text += (verdict.rules.empty() ? " rule " : " and rule ") + std::to_string(number);
      verdict.rules.push_back(number);
    }
  }
  return verdict;
}

}  // namespace vel
