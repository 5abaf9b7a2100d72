// Marks what the module exports.
#ifndef VEL_BASE_MODULE_EXPORT_H
#define VEL_BASE_MODULE_EXPORT_H

#if defined(_WIN32)
#define VEL_MODULE_EXPORT __declspec(dllexport)
#else
#define VEL_MODULE_EXPORT __attribute__((visibility("default")))
#endif

#endif
