#include "remote/ModuleLibrary.h"

#include <filesystem>
#include <stdexcept>

#include "os/Files.h"
#include "os/Program.h"

namespace vel {

std::shared_ptr<ModuleLibrary> ModuleLibrary::Load(const std::string& path) {
  if (std::error_code error; !std::filesystem::exists(PathOf(path), error)) {
    throw std::runtime_error("module not found: " + path + " (name it with --module PATH)");
  }
  std::string problem;
  void* const handle = OpenLibrary(std::filesystem::absolute(PathOf(path)).make_preferred(), problem);
  if (handle == nullptr) {
    throw std::runtime_error("cannot load the module " + path + ": " + problem + " (name another with --module PATH)");
  }
  const auto* descriptor = static_cast<const VelDrvModule*>(FindSymbol(handle, kDrvModuleSymbol));
  if (descriptor == nullptr || descriptor->open == nullptr) {
    CloseLibrary(handle);
    throw std::runtime_error(path + " is not a driver module: it exports no " + kDrvModuleSymbol +
                             " (name another with --module PATH)");
  }
  return std::shared_ptr<ModuleLibrary>(new ModuleLibrary(handle, descriptor));
}

ModuleLibrary::~ModuleLibrary() {
  CloseLibrary(mHandle);
}

std::string ModuleLibrary::DefaultPath() {
  return NameOf((ProgramPath().parent_path() / VIRTUSB_BIN_TO_MODULE / VIRTUSB_MODULE_FILE).lexically_normal());
}

}  // namespace vel
