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
// the file. When a connection that grew the file closes and no other connection uses the file,
// the room is cut off again, so a file closed cleanly is exactly its pages.
//
// The layer also keeps every write of every file within the process's file size limit
// (RLIMIT_FSIZE): growing ahead stops short of it, and a write past it fails with SQLITE_FULL
// instead of raising SIGXFSZ, which would kill the process.
//
// Returns the name under which the layer is registered with SQLite (registration happens once,
// on the first call, and never makes it the default), or null if it cannot be registered.
const char* growAheadVfsName();

}  // namespace Korvane::Database
