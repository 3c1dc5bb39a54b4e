"""What reading in chunks needs: how many ids the next library call covers, and the filter of
entries applied in Python where the library's filter cannot be used."""

from __future__ import annotations

import operator
from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass

from ._calls import fixed
from .records import Entry, Source

DEFAULT_CHUNK = 1000
"""Entries that one library call reads at most."""

CHUNK_BYTES = 8 << 20
"""Payload bytes that one library call aims at: big entries make a chunk of fewer of them."""


class ChunkSize:
    """The number of ids that the next library call covers.

    At most `limit`; after a chunk of big entries, as many as fit in CHUNK_BYTES, at least one.
    The library holds a read lock on the file for the whole of one call, so this bounds both
    the memory of a read and the time for which a recorder in another process waits.
    """

    def __init__(self, limit: int) -> None:
        limit = operator.index(limit)
        if limit < 1:
            raise ValueError(f"a chunk holds at least one entry, not {limit}")
        self.limit = limit
        self.size = limit

    def update(self, entries: Sequence[Entry]) -> None:
        payload = sum(len(entry.data) for entry in entries)
        if entries:
            self.size = max(1, min(self.limit, CHUNK_BYTES * len(entries) // max(payload, 1)))


@dataclass(frozen=True)
class Selection:
    """A filter of entries: each non-empty set narrows it, as the library's filter does."""

    types: frozenset[int]
    source_ids: frozenset[int]
    source_types: frozenset[int]

    @classmethod
    def of(cls, types: Iterable[int], source_ids: Iterable[int],
           source_types: Iterable[int]) -> Selection:
        return cls(frozenset(fixed(kind, 32, "data type") for kind in types),
                   frozenset(fixed(source, 8, "source id") for source in source_ids),
                   frozenset(fixed(kind, 32, "source type") for kind in source_types))

    def __bool__(self) -> bool:
        return bool(self.types or self.source_ids or self.source_types)

    def matcher(self, sources: Callable[[], list[Source]]) -> Callable[[Entry], bool]:
        """A test of one entry. `sources` lists the file's sources, which give the source
        types; it is asked again when an entry names a source that was not there before."""
        kinds: dict[int, int] = {}

        def source_type(source_id: int) -> int | None:
            if source_id not in kinds:
                kinds.update((source.id, source.type) for source in sources())
            return kinds.get(source_id)

        def matches(entry: Entry) -> bool:
            return ((not self.types or entry.type in self.types)
                    and (not self.source_ids or entry.source_id in self.source_ids)
                    and (not self.source_types
                         or source_type(entry.source_id) in self.source_types))

        return matches
