// Marks the classes that the module exports besides its descriptor and open function.
#ifndef VEL_BASE_MODULE_EXPORT_H
#define VEL_BASE_MODULE_EXPORT_H

#if defined(_WIN32)
#define VEL_MODULE_CLASS __declspec(dllexport)
#else
#define VEL_MODULE_CLASS __attribute__((visibility("default")))
#endif

#endif
