"""korvane_logging: record timestamped entries into log files and read them back.

A pure-Python package over the flat C interface of libkorvane-logging, loaded with ctypes from
the path given to `load`, else from $KORVANE_LOGGING_LIBRARY, else from where an installation
put it, else from the system. `korvane_logging.fleet` asks questions of many files at once with
Dask; it is imported on first use, and `LogFile.read_arrays` and `to_pandas` import NumPy and
pandas on first use, so the rest of the package needs nothing but the library.
"""

import importlib

from ._arrays import EntryArrays
from ._calls import Value
from ._library import load
from .errors import LogError, NotFoundError
from .logfile import LogFile
from .records import Bookmark, Entry, Property, Source
from .views import Metadata, Resources

__all__ = ["Bookmark", "Entry", "EntryArrays", "LogError", "LogFile", "Metadata",
           "NotFoundError", "Property", "Resources", "Source", "Value", "load"]
__version__ = "1.0.0"


def __getattr__(name: str) -> object:
    if name == "fleet":
        return importlib.import_module(".fleet", __name__)
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
