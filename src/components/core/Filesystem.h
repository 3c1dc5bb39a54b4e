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

// Where a file created at `path` lands: `path` itself, or, when `path` is a symbolic link, the
// end of its chain of links, which need not exist. A chain that does not end after 40 links
// ends at the last one followed.
std::filesystem::path followLinks(std::filesystem::path path);

// A path in the folder of `path`, hidden, named after it and at which nothing exists now, for a
// file that is built there before it is put in place under the name `path`.
std::filesystem::path makeTemporarySibling(const std::filesystem::path& path);

enum class Placement {
    Placed,       // the file has its new name, and only that one
    Occupied,     // something exists at the new name; nothing was changed
    Unsupported,  // the file system cannot do it; nothing was changed
};

// Gives the file at `from` the name `to` in one step, only if nothing exists at `to`, and takes
// the name `from` away: a hard link and an unlink, or a rename that does not replace. Another
// process sees nothing at `to`, then the whole file.
Placement placeWithoutReplacing(const std::filesystem::path& from, const std::filesystem::path& to);

// Makes what was written to the file at `path` durable, or the names in the folder at `path`
// when it is a folder. False when the system refuses; some file systems cannot sync a folder.
// Not for a database file that a connection of this process has open: closing the descriptor
// that it opens drops the process's locks on the file.
bool sync(const std::filesystem::path& path);

}  // namespace Korvane::Filesystem
