#include "remote/ModuleLibrary.h"

#include <dlfcn.h>

#include <array>
#include <filesystem>
#include <stdexcept>

namespace vel {
namespace {

constexpr char kModuleFile[] = "virtusb-redir.so";

}  // namespace

std::shared_ptr<ModuleLibrary> ModuleLibrary::Load(const std::string& path) {
  if (!std::filesystem::exists(path)) {
    throw std::runtime_error("module not found: " + path + " (name it with --module PATH)");
  }
  // An absolute path, so that the loader does not go looking for the name elsewhere.
  void* handle = dlopen(std::filesystem::absolute(path).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    throw std::runtime_error("cannot load the module " + path + ": " + dlerror() +
                             " (name another with --module PATH)");
  }
  const auto* descriptor = static_cast<const VelDrvModule*>(dlsym(handle, kDrvModuleSymbol));
  if (descriptor == nullptr || descriptor->open == nullptr) {
    dlclose(handle);
    throw std::runtime_error(path + " is not a driver module: it exports no " + kDrvModuleSymbol +
                             " (name another with --module PATH)");
  }
  return std::shared_ptr<ModuleLibrary>(new ModuleLibrary(handle, descriptor));
}

ModuleLibrary::~ModuleLibrary() {
  dlclose(mHandle);
}

std::string ModuleLibrary::DefaultPath() {
  std::error_code error;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
  const std::filesystem::path folder = program.parent_path();
  const std::array<std::filesystem::path, 2> places = {
      folder / ".." / "src" / kModuleFile,           // In the build folder.
      folder / VIRTUSB_BIN_TO_MODULE / kModuleFile,  // As installed.
  };
  for (const std::filesystem::path& place : places) {
    if (std::filesystem::exists(place, error)) {
      return place.lexically_normal().string();
    }
  }
  return places.back().lexically_normal().string();
}

}  // namespace vel
