#pragma once

namespace Korvane::Database {

// A file system layer over SQLite's default one that makes a database file's size run ahead of
// its pages.
//
// Before a commit writes any page, SQLite announces the size that the file will have. The
// default layer ignores that hint, so the first page, whose header counts the pages, reaches the
// file before the pages that it appends; a process killed in between leaves a header that
// counts pages past the end of the file, and SQLite then refuses the whole file as malformed.
// This layer takes the hint and extends the file at once, sparsely, to the next whole MiB, so
// that a kill at any moment leaves a file whose header counts only pages that exist. The
// extension holds zeros and costs no disk blocks until pages are written into it. The file stays
// an ordinary SQLite database: SQLite reads the page count from the header, not from the size of
// the file.
//
// Returns the name under which the layer is registered with SQLite (registration happens once,
// on the first call, and never makes it the default), or null if it cannot be registered.
const char* growAheadVfsName();

}  // namespace Korvane::Database
