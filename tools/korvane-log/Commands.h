#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "LogFiles.h"

// The verbs of korvane-log. Each takes the options that main.cpp parsed, prints to stdout, and
// returns the exit code; a failure throws `ToolError` (or lets a library exception pass) and
// main turns it into one line on stderr.
namespace KorvaneLog {

struct InfoOptions {
    std::string file;
    bool json = false;
};
int runInfo(const InfoOptions& options);

struct CatOptions {
    std::string file;
    std::int32_t from = -1;
    std::int32_t to = -1;
    std::int64_t limit = -1;
    std::vector<std::int32_t> types;
    std::vector<std::string> sources;
    std::vector<std::int32_t> sourceTypes;
    std::string format = "table";
};
int runCat(const CatOptions& options);

// `tail` prints the entries already in a file, or the last `lines` of them, and then each new
// one as another process records it, until Ctrl-C. Fails when the file is removed or replaced.
struct TailOptions {
    std::string file;
    std::vector<std::string> sources;
    std::string format = "table";
    std::int64_t lines = -1;  // -1: all
};
int runTail(const TailOptions& options);

struct RecordOptions {
    std::string output;
    NewFileIdentity identity;
};
int runRecord(const RecordOptions& options);

// The annotation verbs share one shape: without an action they list, with one they change.
struct MetaOptions {
    std::string file;
    std::string action;  // "" or "set"
    std::string key;
    std::string value;
    std::string kind = "string";  // "string", "int" or "double"
};
int runMeta(const MetaOptions& options);

struct BookmarkOptions {
    std::string file;
    std::string action;  // "", "add", "update" or "remove"
    std::int32_t entryId = 0;
    std::string title;
    std::string comment;
};
int runBookmarks(const BookmarkOptions& options);

struct ResourceOptions {
    std::string file;
    std::string action;  // "", "get" or "add"
    std::string name;
    std::string path;    // the file to add
    std::string output;  // where "get" writes; stdout when empty
};
int runResources(const ResourceOptions& options);

struct ThumbnailOptions {
    std::string file;
    std::string action;  // "", "get" or "set"
    std::string path;
    std::string output;
};
int runThumbnail(const ThumbnailOptions& options);

// Options of `slice` and `clone`. What is not given is taken over from the source file.
struct DeriveOptions {
    std::string file;
    bool wholeFile = false;
    std::int32_t first = -1;
    std::int32_t last = -1;
    std::string output;
    std::optional<std::string> applicationName;
    std::optional<std::string> applicationVersion;
    std::optional<int> compressionLevel;
};
int runDerive(const DeriveOptions& options);

struct PlayOptions {
    std::string file;
    float speed = 1.0f;
    bool loop = false;
    std::int32_t maxGapMs = 5000;
    std::vector<std::int32_t> sourceTypes;
    std::int32_t seekFrame = 0;
    std::int64_t durationMs = -1;  // of recorded time; -1 plays to the end
    std::string timing = "timeline";  // or "ms"
};
int runPlay(const PlayOptions& options);

// `check` reads a file without writing to it; exit code 1 when anything is wrong.
struct CheckOptions {
    std::string file;
};
int runCheck(const CheckOptions& options);

// `recover` writes what can be read of a damaged file into a new one. What is not given is
// taken over from the damaged file.
struct RecoverOptions {
    std::string file;
    std::string output;
    std::optional<std::string> applicationName;
    std::optional<std::string> applicationVersion;
    std::optional<int> compressionLevel;
};
int runRecover(const RecoverOptions& options);

struct DemoOptions {
    std::string directory;  // a new temporary folder when empty
};
int runDemo(const DemoOptions& options);

}  // namespace KorvaneLog
