#include <windows.h>

#include "base/ModulePin.h"

namespace vel {

void PinModule() noexcept {
  HMODULE module = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                     reinterpret_cast<LPCSTR>(&PinModule), &module);
}

}  // namespace vel
