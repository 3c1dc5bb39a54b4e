#pragma once

// What the fuzz targets share: a scratch directory for the files of one process, and a user's
// whole visit to a log file.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <vector>

namespace Korvane::Fuzzing {

// The directory of this process, made on first use and removed at exit. Several fuzzing
// processes can run side by side, each in a directory of its own.
const std::filesystem::path& scratchDir();

// Empties the scratch directory, so that no input sees the files of the one before.
void clearScratchDir();

void writeFile(const std::filesystem::path& file, const std::uint8_t* data, std::size_t size);
std::vector<std::uint8_t> readFile(const std::filesystem::path& file);

// Aborts with `what` when the library breaks a promise that holds for any file; libFuzzer then
// keeps the input that did it.
void require(bool condition, const char* what);

// Opens `file` with the open constructor; a refusal ends the visit. An opened file gets every
// read, with `writeToo` also every kind of write, then a few frames of playback with a zero cap
// on gaps, and a slice of its first entries into the scratch directory. What a damaged file
// makes the library throw is an answer, not a finding: the fuzzers look for crashes, sanitizer
// reports, leaks and broken promises.
void visitLogFile(const std::filesystem::path& file, bool writeToo);

}  // namespace Korvane::Fuzzing
