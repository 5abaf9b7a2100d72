#include <dlfcn.h>
#include <malloc.h>
#include <sys/resource.h>

#include <csignal>

#include "os/Program.h"

namespace vel {

std::filesystem::path ProgramPath() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error);
}

std::vector<std::string> ProgramArguments(int argc, char** argv) {
  return {argv, argv + argc};
}

std::chrono::microseconds ProcessCpuTime() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

void KeepFreedMemory() {
  mallopt(M_TRIM_THRESHOLD, 16 << 20);
  mallopt(M_MMAP_THRESHOLD, 4 << 20);
}

void IgnoreBrokenPipes() {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

std::tm LocalTime(std::time_t time) {
  std::tm local{};
  localtime_r(&time, &local);
  return local;
}

std::string UsualTlsFolder() {
  return "/etc/pki/virtusb";
}

void* OpenLibrary(const std::filesystem::path& path, std::string& problem) {
  void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    problem = dlerror();
  }
  return library;
}

void* FindSymbol(void* library, const char* name) {
  return dlsym(library, name);
}

void CloseLibrary(void* library) {
  dlclose(library);
}

}  // namespace vel
