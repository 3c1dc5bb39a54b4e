#include "Filesystem.h"

#include <system_error>

namespace Korvane::Filesystem {

namespace {

// True when anything exists at `path`, also a dangling link, since creating a file there would
// write through it.
bool occupied(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

}  // namespace

std::filesystem::path appendTextToFilename(const std::filesystem::path& path,
                                           const std::string& text) {
    std::filesystem::path result = path;
    result.replace_filename(path.stem().string() + text + path.extension().string());
    return result;
}

std::filesystem::path makeUniqueFilePath(std::filesystem::path path) {
    if (!occupied(path)) {
        return path;
    }
    for (unsigned long counter = 1;; ++counter) {
        std::filesystem::path candidate = appendTextToFilename(path, "_" + std::to_string(counter));
        if (!occupied(candidate)) {
            return candidate;
        }
    }
}

}  // namespace Korvane::Filesystem
