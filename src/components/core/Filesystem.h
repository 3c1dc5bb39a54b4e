#pragma once

#include <filesystem>
#include <string>

namespace Korvane::Filesystem {

// `path` with `text` added to its file name, before the extension: "a/log.db" and "_x" give
// "a/log_x.db".
std::filesystem::path appendTextToFilename(const std::filesystem::path& path,
                                           const std::string& text);

// `path` itself when nothing exists there, otherwise the first of "name_1.ext", "name_2.ext", ...
// at which nothing exists.
std::filesystem::path makeUniqueFilePath(std::filesystem::path path);

}  // namespace Korvane::Filesystem
