#pragma once

#include <string>
#include <utility>

#include "flat/KV_Log.h"

// Where the flat layer meets exceptions. Nothing thrown below it crosses into a caller of the C
// interface: the functions that construct log files run inside `guardedCall`, every other
// function that can meet an exception passes through `failSafe` or `failSilently`, and all three
// catch here and nowhere else. The happy path pays nothing for them.

namespace Korvane::Logging {

// Stores a new KV_LogError holding a copy of `message` in `*error`, unless `error` is null.
// When the error object itself cannot be allocated, `*error` is left alone.
void saveError(KV_LogError** error, const char* message) noexcept;
void saveError(KV_LogError** error, const std::string& message) noexcept;

// Saves the exception that is being handled: the what() text of a standard exception, else
// "Unknown internal error". Call it only from a catch handler.
void saveCurrentException(KV_LogError** error) noexcept;

// The translation frame of KV_LogFile_Create, KV_LogFile_Open, KV_LogAlgorithms_Clone and
// KV_LogAlgorithms_Slice. Runs `callable` and returns true when it returns; when it throws,
// saves the exception in `error` and returns false. The callable stores its result itself.
template <typename Callable>
bool guardedCall(KV_LogError** error, Callable&& callable) noexcept {
    try {
        std::forward<Callable>(callable)();
        return true;
    } catch (...) {
        saveCurrentException(error);
        return false;
    }
}

// The safety net of a function outside the frame: returns what `body` returns or, when it
// throws, saves the exception in `error` (which may be null) and returns `failure`.
template <typename Result, typename Body>
Result failSafe(Result failure, KV_LogError** error, Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        saveCurrentException(error);
        return failure;
    }
}

// For the functions that have no result to fail with: an exception from `body` is dropped, and
// whatever `body` had not changed yet stays as it was.
template <typename Body>
void failSilently(Body&& body) noexcept {
    try {
        std::forward<Body>(body)();
    } catch (...) {
    }
}

}  // namespace Korvane::Logging
