#include <windows.h>

#include "load.h"

const void* LoadSymbol(const char* library, const char* name) {
  const HMODULE handle = LoadLibraryA(library);
  return handle == nullptr ? nullptr : reinterpret_cast<const void*>(GetProcAddress(handle, name));
}
