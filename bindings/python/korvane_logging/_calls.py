"""Helpers between Python values and the flat functions: text, bytes, numbers, failures,
temporary handles and enumerations through callbacks."""

from __future__ import annotations

import ctypes
import operator
from contextlib import contextmanager
from ctypes import byref, c_char_p, c_double, c_int64, c_uint64, c_void_p
from typing import Any, Callable, Iterator, TypeVar, Union

from ._library import HandleCallback
from .errors import LogError

Value = Union[int, float, str]
"""A metadata or property value. Whole numbers are stored as 64-bit numbers."""

T = TypeVar("T")


def encode(text: str) -> bytes:
    """`text` as the library takes it: UTF-8; text from `decode` goes back byte for byte."""
    raw = text.encode("utf-8", "surrogateescape")
    if b"\0" in raw:
        raise ValueError("text passed to the library cannot hold a NUL character")
    return raw


def decode(raw: bytes | None) -> str:
    """Text from the library; bytes that are no UTF-8 survive a round trip through `encode`."""
    return (raw or b"").decode("utf-8", "surrogateescape")


def blob(data: bytes | bytearray | memoryview) -> bytes:
    """`data` as bytes; refuses what only looks like bytes, such as a length or a str."""
    return data if isinstance(data, bytes) else memoryview(data).tobytes()


def fixed(value: int, bits: int, what: str) -> int:
    """`value` if it fits a signed integer of `bits` bits; ctypes would silently cut it."""
    value = operator.index(value)
    limit = 1 << (bits - 1)
    if not -limit <= value < limit:
        raise OverflowError(f"{what} {value} does not fit in a signed {bits}-bit integer")
    return value


def text_of(getter: Callable[..., None], handle: int) -> str:
    """A text field of a record, copied out of the handle."""
    text = c_char_p()
    getter(handle, byref(text))
    return decode(text.value)


def bytes_of(getter: Callable[..., None], handle: int) -> bytes:
    """A bytes field of a record, copied out of the handle."""
    size, pointer = c_uint64(), c_void_p()
    getter(handle, byref(size), byref(pointer))
    return ctypes.string_at(pointer, size.value) if size.value else b""


def number_of(getter: Callable[..., None], handle: int, ctype: type) -> Any:
    """A number field of a record."""
    number = ctype()
    getter(handle, byref(number))
    return number.value


def take_error(lib: ctypes.CDLL, error: c_void_p, kind: type[LogError] = LogError) -> LogError:
    """The exception for a KV_LogError, whose handle is destroyed here."""
    if not error:
        return kind("Unknown internal error")
    message = c_char_p()
    lib.KV_LogError_GetErrorMessage(error, byref(message))
    try:
        return kind(decode(message.value))
    finally:
        lib.KV_LogError_Destroy(error)


def checked(lib: ctypes.CDLL, function: str, *args: Any, kind: type[LogError] = LogError) -> Any:
    """Calls a flat function whose last parameter is `error`; raises `kind` when it fails."""
    error = c_void_p()
    result = getattr(lib, function)(*args, byref(error))
    if not result:
        raise take_error(lib, error, kind)
    return result


@contextmanager
def owned(lib: ctypes.CDLL, handle: int | None, family: str) -> Iterator[int]:
    """Holds a handle made for one call and destroys it when the block ends."""
    if not handle:
        raise MemoryError(f"{family}: the library could not make a record")
    try:
        yield handle
    finally:
        getattr(lib, f"{family}_Destroy")(handle)


def _run(lib: ctypes.CDLL, function: str, args: tuple, callback: Any, has_error: bool) -> bool:
    """Runs an enumeration; false when one with an `error` parameter gave an empty list."""
    if not has_error:
        return bool(getattr(lib, function)(*args, callback, None))
    error = c_void_p()
    if getattr(lib, function)(*args, callback, None, byref(error)):
        return True
    # An empty list counts as a failure for these functions, and its message is whatever the
    # file last failed with ("No error" on a healthy file), so it reads as no elements here.
    lib.KV_LogError_Destroy(error)
    return False


def collect(lib: ctypes.CDLL, function: str, *args: Any, family: str,
            convert: Callable[[int], T], has_error: bool = False, keep: bool = False) -> list[T]:
    """The elements that an enumeration delivers, each converted by `convert`.

    Each handle is destroyed inside the callback right after its conversion, unless `keep`
    says that `convert` takes it over. An exception cannot cross the library, so the first one
    is kept, the remaining handles are only destroyed, and it is raised when the call returns.
    """
    items: list[T] = []
    problems: list[BaseException] = []
    destroy = getattr(lib, f"{family}_Destroy")

    def receive(_user_data: int | None, handle: int) -> None:
        taken = False
        try:
            if not problems:
                items.append(convert(handle))
                taken = keep
        except BaseException as problem:
            problems.append(problem)
        finally:
            if not taken:
                destroy(handle)

    callback = HandleCallback(receive)  # alive until the call returns
    _run(lib, function, args, callback, has_error)
    if problems:
        raise problems[0]
    return items


def read_value(lib: ctypes.CDLL, family: str, handle: int) -> Value:
    """The value of a metadata item or property as the file gave it back."""
    for reader, ctype in (("GetInt64", c_int64), ("GetDouble", c_double),
                          ("GetString", c_char_p)):
        value = ctype()
        if getattr(lib, f"{family}_{reader}")(handle, byref(value)):
            return decode(value.value) if ctype is c_char_p else value.value
    raise LogError("The value is of a kind that cannot be read.")


def make_value(lib: ctypes.CDLL, family: str, value: Value, *leading: Any) -> int:
    """A new metadata item or property record holding `value` behind the `leading` arguments."""
    if isinstance(value, int):
        return getattr(lib, f"{family}_CreateInt64")(*leading, fixed(value, 64, "value"))
    if isinstance(value, float):
        return getattr(lib, f"{family}_CreateDouble")(*leading, value)
    if isinstance(value, str):
        return getattr(lib, f"{family}_CreateString")(*leading, encode(value))
    raise TypeError(f"values are int, float or str, not {type(value).__name__}")
