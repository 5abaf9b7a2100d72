#include <cstddef>

#include "cmd/console/UsageError.h"
#include "cmd/devices/CommandWords.h"
#include "os/Text.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace vel {

std::vector<std::string> SplitCommand(const std::string& command) {
  if (command.find_first_not_of(" \t\"") == std::string::npos) {
    throw UsageError(kNoCommand);
  }
  const std::wstring given = ToWide(command.substr(command.find_first_not_of(" \t")));
  std::wstring expanded(ExpandEnvironmentStringsW(given.c_str(), nullptr, 0), L'\0');
  ExpandEnvironmentStringsW(given.c_str(), expanded.data(), static_cast<DWORD>(expanded.size()));
  std::vector<std::string> words = WordsOf(expanded.c_str());
  if (words.empty() || words[0].empty()) {
    throw UsageError(kNoCommand);
  }
  return words;
}

}  // namespace vel
