#ifndef KORVANE_LOGGING_KV_LOG_EXTENSIONS_H
#define KORVANE_LOGGING_KV_LOG_EXTENSIONS_H

/*
 * korvane-logging, extensions of the flat C interface. Compiles as C99 and as C++.
 *
 * The functions here serve callers in other languages beyond the KV_Log functions of KV_Log.h:
 * they are named KVX_..., so that no KV_Log name is ever taken for one of them. They work on
 * the handles of KV_Log.h and follow all of its rules (ownership, text and bytes, errors,
 * threads, exceptions); a function's comment says only what differs.
 */

#include "KV_Log.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Opening ------------------------------------------------------------------------------- */

/*
 * Opens the log file at `path` for reading only: nothing is ever written to the file, so an
 * empty file stays empty. Like KV_LogFile_Open, the handle refuses new sources, properties and
 * entries; its metadata, resource and bookmark writes fail with "The log file is open for
 * reading only.". Null with "Log file does not exist." when nothing is at `path`, and with "This
 * file is not in a supported log file format." for an empty file or one that is no log file.
 */
KORVANE_LOGGING_EXPORT KV_LogFile* KVX_OpenReadOnly(const char* path,
                                                    KV_LogError** error) KV_LOG_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
