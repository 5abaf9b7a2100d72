#include "os/Text.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// After it.
#include <shellapi.h>

#include <array>
#include <memory>

namespace vel {
namespace {

struct LocalDeleter {
  void operator()(wchar_t** words) const { LocalFree(words); }
};

}  // namespace

std::wstring ToWide(std::string_view text) {
  const int length = static_cast<int>(text.size());
  std::wstring wide(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0)), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), static_cast<int>(wide.size()));
  return wide;
}

std::string FromWide(std::wstring_view text) {
  const int length = static_cast<int>(text.size());
  std::string utf8(
      static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr)),
      '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), length, utf8.data(), static_cast<int>(utf8.size()), nullptr, nullptr);
  return utf8;
}

std::vector<std::string> WordsOf(const wchar_t* commandLine) {
  int count = 0;
  const std::unique_ptr<wchar_t*, LocalDeleter> words(CommandLineToArgvW(commandLine, &count));
  std::vector<std::string> utf8;
  for (int i = 0; words != nullptr && i < count; ++i) {
    utf8.push_back(FromWide(words.get()[i]));
  }
  return utf8;
}

std::string SystemErrorText(unsigned long error) {
  std::array<wchar_t, 512> text{};
  constexpr DWORD kFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK;
  DWORD length = 0;
  for (const DWORD language : {DWORD{MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US)}, DWORD{0}}) {
    length = length != 0 ? length
                         : FormatMessageW(kFlags, nullptr, error, language, text.data(),
                                          static_cast<DWORD>(text.size()), nullptr);
  }
  while (length > 0 && (text.at(length - 1) == L' ' || text.at(length - 1) == L'.' || text.at(length - 1) == L'\n' ||
                        text.at(length - 1) == L'\r')) {
    --length;
  }
  return length == 0 ? "error " + std::to_string(error) : FromWide({text.data(), length});
}

}  // namespace vel
