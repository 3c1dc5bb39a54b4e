"""korvane_logging: record timestamped entries into log files and read them back.

A pure-Python package over the flat C interface of libkorvane-logging, loaded with ctypes from
the path given to `load`, else from $KORVANE_LOGGING_LIBRARY, else from the system.
"""

from ._calls import Value
from ._library import load
from .errors import LogError, NotFoundError
from .logfile import LogFile
from .records import Bookmark, Entry, Property, Source
from .views import Metadata, Resources

__all__ = ["Bookmark", "Entry", "LogError", "LogFile", "Metadata", "NotFoundError", "Property",
           "Resources", "Source", "Value", "load"]
__version__ = "1.0.0"
