#include "flat/GuardedCall.h"

#include <exception>

#include "flat/Handles.h"

namespace Korvane::Logging {

namespace {

template <typename Text>
void storeError(KV_LogError** error, const Text& message) noexcept {
    if (error == nullptr) {
        return;
    }
    // Out of memory there is no way left to report anything; the function's result still tells
    // the caller that it failed.
    failSilently([&] { *error = new KV_LogError{message}; });
}

}  // namespace

void saveError(KV_LogError** error, const char* message) noexcept {
    storeError(error, message);
}

void saveError(KV_LogError** error, const std::string& message) noexcept {
    storeError(error, message);
}

void saveCurrentException(KV_LogError** error) noexcept {
    try {
        throw;
    } catch (const std::exception& exception) {
        saveError(error, exception.what());
    } catch (...) {
        saveError(error, "Unknown internal error");
    }
}

}  // namespace Korvane::Logging
