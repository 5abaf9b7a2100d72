#include <dlfcn.h>

#include "load.h"

const void* LoadSymbol(const char* library, const char* name) {
  void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  return handle == nullptr ? nullptr : dlsym(handle, name);
}
