"""The filter of entries that reads take: data types, source ids and source types."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass

from ._calls import fixed


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
