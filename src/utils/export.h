#pragma once
// Symbols of the shared library are hidden unless marked; the core classes a host may link
// against are marked with SONEL_EXPORT.
#if defined(_WIN32)
#define SONEL_EXPORT __declspec(dllexport)
#else
#define SONEL_EXPORT __attribute__((visibility("default")))
#endif
