#include "os/Files.h"
#include "os/Text.h"

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// After it.
#include <aclapi.h>

namespace vel {
namespace {

int OpenForWriting(const std::string& name) {
  const int file =
      _wopen(ToWide(name).c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY | _O_NOINHERIT, _S_IREAD | _S_IWRITE);
  if (file < 0) {
    throw std::runtime_error("cannot write " + name + ": " + std::strerror(errno));
  }
  return file;
}

// Groups to which everybody on the machine belongs, or every guest.
bool IsEverybody(PSID who) {
  constexpr std::array kGroups = {WinWorldSid,         WinBuiltinUsersSid, WinAuthenticatedUserSid,
                                  WinBuiltinGuestsSid, WinInteractiveSid,  WinAnonymousSid,
                                  WinNetworkSid};
  return std::ranges::any_of(kGroups, [who](WELL_KNOWN_SID_TYPE group) { return IsWellKnownSid(who, group) != FALSE; });
}

bool LetsEverybodyRead(PACL list) {
  if (list == nullptr) {
    return true;  // No list at all lets everybody in.
  }
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* entry = nullptr;
    if (GetAce(list, i, &entry) == FALSE) {
      return true;
    }
    const auto& allowed = *static_cast<ACCESS_ALLOWED_ACE*>(entry);
    constexpr ACCESS_MASK kReads = FILE_READ_DATA | GENERIC_READ | GENERIC_ALL;
    if (allowed.Header.AceType == ACCESS_ALLOWED_ACE_TYPE && (allowed.Header.AceFlags & INHERIT_ONLY_ACE) == 0 &&
        (allowed.Mask & kReads) != 0 && IsEverybody(const_cast<DWORD*>(&allowed.SidStart))) {
      return true;
    }
  }
  return false;
}

}  // namespace

FileHandle OpenFile(const std::string& name, const char* mode) {
  return FileHandle(_wfopen(ToWide(name).c_str(), ToWide(std::string(mode) + "bN").c_str()));
}

std::string HowToKeepForOwner(std::FILE* file, const std::string& name) {
  PACL list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
  const bool known = GetSecurityInfo(handle, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list,
                                     nullptr, &descriptor) == ERROR_SUCCESS;
  const bool isOpen = !known || LetsEverybodyRead(list);
  LocalFree(descriptor);
  return isOpen ? "icacls \"" + NameOf(PathOf(name).make_preferred()) + "\" /inheritance:r /grant:r \"%USERNAME%:F\""
                : "";
}

WrittenFile::WrittenFile(const std::string& name) : mFile(OpenForWriting(name)) {}

WrittenFile::~WrittenFile() {
  _close(mFile);
}

std::ptrdiff_t WrittenFile::Write(std::span<const std::uint8_t> bytes) const {
  constexpr std::size_t kMost = 1U << 30U;
  return _write(mFile, bytes.data(), static_cast<unsigned>(std::min(bytes.size(), kMost)));
}

RawFd WrittenFile::Room() const {
  return kNoFd;
}

void WrittenFile::Truncate(std::int64_t length) const {
  _chsize_s(mFile, length);
}

}  // namespace vel
