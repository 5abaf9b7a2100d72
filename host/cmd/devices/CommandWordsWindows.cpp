#include <cstddef>
#include <memory>

#include "cmd/devices/CommandWords.h"
#include "cmd/devices/Devices.h"
#include "os/Text.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// After it.
#include <shellapi.h>

namespace vel {
namespace {

struct LocalDeleter {
  void operator()(wchar_t** words) const { LocalFree(words); }
};

}  // namespace

std::vector<std::string> SplitCommand(const std::string& command) {
  if (command.find_first_not_of(" \t\"") == std::string::npos) {
    throw UsageError(kNoCommand);
  }
  const std::wstring given = ToWide(command.substr(command.find_first_not_of(" \t")));
  std::wstring expanded(ExpandEnvironmentStringsW(given.c_str(), nullptr, 0), L'\0');
  ExpandEnvironmentStringsW(given.c_str(), expanded.data(), static_cast<DWORD>(expanded.size()));
  int count = 0;
  const std::unique_ptr<wchar_t*, LocalDeleter> words(CommandLineToArgvW(expanded.c_str(), &count));
  std::vector<std::string> split;
  for (int i = 0; i < count; ++i) {
    split.push_back(FromWide(words.get()[i]));
  }
  return split;
}

}  // namespace vel
