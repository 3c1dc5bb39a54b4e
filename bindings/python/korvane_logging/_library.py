"""Finding and loading libkorvane-logging, and the prototypes of the flat functions we call."""

from __future__ import annotations

import ctypes
import ctypes.util
import os
from ctypes import CFUNCTYPE, POINTER, Structure, c_bool, c_char_p, c_double, c_int8, c_int32
from ctypes import c_int64, c_uint64, c_void_p

ENVIRONMENT_VARIABLE = "KORVANE_LOGGING_LIBRARY"

# Handles are opaque pointers; text goes in as c_char_p and bytes as c_char_p plus a size.
_handle = c_void_p
_out_handle = POINTER(c_void_p)
_out_text = POINTER(c_char_p)
_out_bytes = (POINTER(c_uint64), POINTER(c_void_p))
_error = POINTER(c_void_p)

# The callback of the enumerations: userData, then a new handle by value.
HandleCallback = CFUNCTYPE(None, c_void_p, c_void_p)



class EntryColumns(Structure):
    """KVX_EntryColumns: where KVX_ReadColumns writes entries. The arrays are addresses of
    memory that the caller keeps alive for the call."""

    _fields_ = [("capacity", c_int32), ("entry_ids", c_void_p), ("timestamps", c_void_p),
                ("source_ids", c_void_p), ("types", c_void_p), ("offsets", c_void_p),
                ("payloads", c_void_p), ("payload_capacity", c_uint64), ("count", c_int32),
                ("payload_size", c_uint64), ("next_entry_id", c_int32),
                ("next_payload_size", c_uint64)]


_PROTOTYPES: dict[str, tuple[object, tuple[object, ...]]] = {
    "KV_LogError_GetErrorMessage": (None, (_handle, _out_text)),
    "KV_LogError_Destroy": (None, (_handle,)),
    "KV_LogConfig_Create": (_handle, (c_char_p, c_char_p, c_char_p)),
    "KV_LogConfig_Destroy": (None, (_handle,)),
    "KV_LogConfig_SetCompressionLevel": (c_bool, (_handle, c_int8, _error)),
    "KV_LogFile_Create": (_handle, (c_char_p, _handle, _error)),
    "KV_LogFile_Open": (_handle, (c_char_p, _error)),
    "KVX_OpenReadOnly": (_handle, (c_char_p, _error)),
    "KVX_MeasureEntries": (c_bool, (_handle, c_int32, c_int32, _handle, POINTER(c_int32),
                                    POINTER(c_uint64), _error)),
    "KVX_ReadColumns": (c_bool, (_handle, c_int32, c_int32, _handle, POINTER(EntryColumns),
                                 _error)),
    "KVX_LogColumns": (c_bool, (_handle, c_int32, c_void_p, c_void_p, c_void_p, c_void_p,
                                c_void_p, _error)),
    "KV_LogFile_Destroy": (None, (_handle,)),
    "KV_LogFile_AddDataSource": (c_bool, (_handle, _handle, _error)),
    "KV_LogFile_AddDataSourceProperty": (c_bool, (_handle, _handle, _error)),
    "KV_LogFile_LogData": (c_bool, (_handle, _handle, _error)),
    "KV_LogFile_AddMetadata": (c_bool, (_handle, _handle, _error)),
    "KV_LogFile_AddResource": (c_bool, (_handle, _handle, _error)),
    "KV_LogFile_AddBookmark": (c_bool, (_handle, _handle, _error)),
    "KV_LogFile_UpdateBookmark": (c_bool, (_handle, _handle, _error)),
    "KV_LogFile_RemoveBookmark": (c_bool, (_handle, _handle, _error)),
    "KV_LogFile_GetEntryCount": (c_bool, (_handle, POINTER(c_int32), _error)),
    "KV_LogFile_GetFirstEntryId": (c_bool, (_handle, POINTER(c_int32), _error)),
    "KV_LogFile_GetLastEntryId": (c_bool, (_handle, POINTER(c_int32), _error)),
    "KV_LogFile_GetDataSourceProperty": (
        c_bool, (_handle, _handle, c_char_p, _out_handle, _error)),
    "KV_LogFile_GetMetadata": (c_bool, (_handle, c_char_p, _out_handle, _error)),
    "KV_LogFile_GetResource": (c_bool, (_handle, c_char_p, _out_handle, _error)),
    "KV_LogFile_ReadEntry": (c_bool, (_handle, c_int32, _out_handle, _error)),
    "KV_LogFile_GetDataSources": (c_bool, (_handle, HandleCallback, c_void_p, _error)),
    "KV_LogFile_GetAllDataSourceProperties": (
        c_bool, (_handle, HandleCallback, c_void_p, _error)),
    "KV_LogFile_GetAllMetadata": (c_bool, (_handle, HandleCallback, c_void_p)),
    "KV_LogFile_GetBookmarks": (c_bool, (_handle, HandleCallback, c_void_p)),
    "KV_LogAlgorithms_Clone": (_handle, (_handle, c_char_p, _handle, _error)),
    "KV_LogAlgorithms_Slice": (_handle, (_handle, c_int32, c_int32, c_char_p, _handle, _error)),
    "KV_LogBookmark_Create": (_handle, (c_int32, c_char_p, c_char_p, c_char_p, c_uint64)),
    "KV_LogBookmark_Destroy": (None, (_handle,)),
    "KV_LogBookmark_GetEntryId": (None, (_handle, POINTER(c_int32))),
    "KV_LogBookmark_GetTitle": (None, (_handle, _out_text)),
    "KV_LogBookmark_GetComment": (None, (_handle, _out_text)),
    "KV_LogBookmark_GetPayload": (None, (_handle, *_out_bytes)),
    "KV_LogDataEntry_Create": (_handle, (_handle, c_int32, c_char_p, c_uint64)),
    "KV_LogDataEntry_Destroy": (None, (_handle,)),
    "KV_LogDataEntry_GetDataSourceId": (None, (_handle, POINTER(c_int8))),
    "KV_LogDataEntry_GetType": (None, (_handle, POINTER(c_int32))),
    "KV_LogDataEntry_GetData": (None, (_handle, *_out_bytes)),
    "KV_LogDataEntry_GetTimestamp": (None, (_handle, POINTER(c_int64))),
    "KV_LogDataEntry_SetTimestamp": (None, (_handle, c_int64)),
    "KV_LogDataSource_Create": (_handle, (c_int32, c_char_p)),
    "KV_LogDataSource_Destroy": (None, (_handle,)),
    "KV_LogDataSource_GetId": (None, (_handle, POINTER(c_int8))),
    "KV_LogDataSource_GetType": (None, (_handle, POINTER(c_int32))),
    "KV_LogDataSource_GetName": (None, (_handle, _out_text)),
    "KV_LogDataSourceProperty_CreateInt64": (_handle, (_handle, c_char_p, c_int64)),
    "KV_LogDataSourceProperty_CreateDouble": (_handle, (_handle, c_char_p, c_double)),
    "KV_LogDataSourceProperty_CreateString": (_handle, (_handle, c_char_p, c_char_p)),
    "KV_LogDataSourceProperty_Destroy": (None, (_handle,)),
    "KV_LogDataSourceProperty_GetDataSourceId": (None, (_handle, POINTER(c_int8))),
    "KV_LogDataSourceProperty_GetPropertyName": (None, (_handle, _out_text)),
    "KV_LogDataSourceProperty_GetInt64": (c_bool, (_handle, POINTER(c_int64))),
    "KV_LogDataSourceProperty_GetDouble": (c_bool, (_handle, POINTER(c_double))),
    "KV_LogDataSourceProperty_GetString": (c_bool, (_handle, _out_text)),
    "KV_LogEntryIndexFilter_Create": (_handle, ()),
    "KV_LogEntryIndexFilter_Destroy": (None, (_handle,)),
    "KV_LogEntryIndexFilter_AddDataType": (None, (_handle, c_int32)),
    "KV_LogEntryIndexFilter_AddDataSource": (None, (_handle, c_int8)),
    "KV_LogEntryIndexFilter_AddDataSourceType": (None, (_handle, c_int32)),
    "KV_LogMetadata_CreateInt64": (_handle, (c_char_p, c_int64)),
    "KV_LogMetadata_CreateDouble": (_handle, (c_char_p, c_double)),
    "KV_LogMetadata_CreateString": (_handle, (c_char_p, c_char_p)),
    "KV_LogMetadata_Destroy": (None, (_handle,)),
    "KV_LogMetadata_GetInt64": (c_bool, (_handle, POINTER(c_int64))),
    "KV_LogMetadata_GetDouble": (c_bool, (_handle, POINTER(c_double))),
    "KV_LogMetadata_GetString": (c_bool, (_handle, _out_text)),
    "KV_LogResource_Create": (_handle, (c_char_p, c_char_p, c_uint64)),
    "KV_LogResource_Destroy": (None, (_handle,)),
    "KV_LogResource_GetData": (None, (_handle, *_out_bytes)),
}

_loaded: ctypes.CDLL | None = None


def _installed() -> list[str]:
    """The library that `cmake --install` put beside this package, if it is still there."""
    try:
        from ._installed import LIBRARY
    except ImportError:
        return []
    return [LIBRARY] if os.path.exists(LIBRARY) else []


def _candidates(path: str | os.PathLike[str] | None) -> list[str]:
    """The names to try, in order: the caller's path, the environment's, the installation's,
    the system's."""
    if path is not None:
        return [os.fspath(path)]
    if os.environ.get(ENVIRONMENT_VARIABLE):
        return [os.environ[ENVIRONMENT_VARIABLE]]
    found = ctypes.util.find_library("korvane-logging")
    return _installed() + [name for name in (found, "libkorvane-logging.so.1",
                                             "libkorvane-logging.so") if name]


def load(path: str | os.PathLike[str] | None = None) -> ctypes.CDLL:
    """Loads libkorvane-logging and declares the prototypes of the functions the package calls.

    The library is looked for at `path` when it is given, else at the path in the environment
    variable KORVANE_LOGGING_LIBRARY, else where `cmake --install` put it beside this package,
    else where the system's loader finds it. A later call
    replaces the library for log files opened afterwards; open ones keep theirs. Raises OSError
    when no candidate loads.
    """
    global _loaded
    failures = []
    for name in _candidates(path):
        try:
            library = ctypes.CDLL(name)
        except OSError as error:
            failures.append(str(error))
            continue
        for function, (restype, argtypes) in _PROTOTYPES.items():
            prototype = getattr(library, function)
            prototype.restype = restype
            prototype.argtypes = argtypes
        _loaded = library
        return library
    raise OSError("Cannot load libkorvane-logging: " + "; ".join(failures))


def library() -> ctypes.CDLL:
    """The loaded library, loading it on first use."""
    return _loaded if _loaded is not None else load()
