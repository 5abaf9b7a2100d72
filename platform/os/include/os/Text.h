// Text between this program, which has UTF-8, and Windows. For sources of Windows alone.
#ifndef VIRTUSB_PLATFORM_OS_TEXT_H
#define VIRTUSB_PLATFORM_OS_TEXT_H

#include <string>
#include <string_view>
#include <vector>

namespace vel {

// What is no UTF-8 or UTF-16 becomes U+FFFD.
std::wstring ToWide(std::string_view text);
std::string FromWide(std::wstring_view text);

// The words of a command line, in UTF-8, taken apart as programs do it. Of an empty one: this program's file.
std::vector<std::string> WordsOf(const wchar_t* commandLine);

// What a number of GetLastError or WSAGetLastError means, in English where the system has that.
std::string SystemErrorText(unsigned long error);

}  // namespace vel

#endif
