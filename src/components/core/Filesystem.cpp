#include "Filesystem.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>
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

std::filesystem::path followLinks(std::filesystem::path path) {
    constexpr int mostLinks = 40;
    std::error_code error;
    for (int followed = 0; followed < mostLinks && std::filesystem::is_symlink(path, error);
         ++followed) {
        const std::filesystem::path target = std::filesystem::read_symlink(path, error);
        if (error) {
            break;
        }
        path = target.is_absolute() ? target : path.parent_path() / target;
    }
    return path;
}

std::filesystem::path makeTemporarySibling(const std::filesystem::path& path) {
    static thread_local std::mt19937_64 random{std::random_device{}()};
    for (;;) {
        char tag[24];
        std::snprintf(tag, sizeof tag, "%d-%08x", static_cast<int>(getpid()),
                      static_cast<unsigned>(random()));
        std::filesystem::path candidate = path;
        candidate.replace_filename("." + path.filename().string() + "." + tag + ".tmp");
        if (!occupied(candidate)) {
            return candidate;
        }
    }
}

Placement placeWithoutReplacing(const std::filesystem::path& from,
                                const std::filesystem::path& to) {
    if (link(from.c_str(), to.c_str()) == 0) {
        unlink(from.c_str());
        return Placement::Placed;
    }
    if (errno == EEXIST) {
        return Placement::Occupied;
    }
    // File systems without hard links may still rename without replacing.
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return Placement::Placed;
    }
    return errno == EEXIST ? Placement::Occupied : Placement::Unsupported;
}

bool sync(const std::filesystem::path& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return false;
    }
    const bool synced = fsync(descriptor) == 0;
    close(descriptor);
    return synced;
}

}  // namespace Korvane::Filesystem
