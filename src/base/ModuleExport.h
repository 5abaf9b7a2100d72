// Marks what the module exports. Who links with the module defines VEL_MODULE_IMPORT, as its CMake target does.
#ifndef VEL_BASE_MODULE_EXPORT_H
#define VEL_BASE_MODULE_EXPORT_H

#if defined(_WIN32) && defined(VEL_MODULE_IMPORT)
#define VEL_MODULE_EXPORT __declspec(dllimport)
#elif defined(_WIN32)
#define VEL_MODULE_EXPORT __declspec(dllexport)
#else
#define VEL_MODULE_EXPORT __attribute__((visibility("default")))
#endif

#endif
