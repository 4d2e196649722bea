"""What has something open."""
from __future__ import annotations

from typing import Self


class Owner:
    """Closes it at the end of a "with", by close(), or at the latest when the object goes."""

    def close(self) -> None:
        raise NotImplementedError

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()
