#include <dlfcn.h>

#include "base/ModulePin.h"

namespace vel {

void PinModule() noexcept {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&PinModule), &info) != 0) {
    // Found by the name that it was loaded with; the handle is kept on purpose.
    static_cast<void>(dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE));
  }
}

}  // namespace vel
