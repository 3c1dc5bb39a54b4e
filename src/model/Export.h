#pragma once

// Marks the classes and functions that the shared library exports; everything else stays hidden.
#if defined(_WIN32)
#if defined(KORVANE_LOGGING_BUILDING)
#define KORVANE_LOGGING_EXPORT __declspec(dllexport)
#else
#define KORVANE_LOGGING_EXPORT __declspec(dllimport)
#endif
#else
#define KORVANE_LOGGING_EXPORT __attribute__((visibility("default")))
#endif
