"""Private groups of an application: several applications, or several nodes, as one destination."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from types import TracebackType
from typing import TypeVar

from ._native import lib
from ._types import check

G = TypeVar("G", bound="_Group")


class _Group:
    def __init__(self, app: int, created: int) -> None:
        self.id = check(created)
        self._app = app

    def _fill(self, add: Callable[[int], None], members: Iterable[int]) -> None:
        try:
            for member in members:
                add(member)
        except BaseException:
            self.destroy()
            raise

    def destroy(self) -> None:
        raise NotImplementedError

    def __enter__(self: G) -> G:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.destroy()


class AppGroup(_Group):
    """Applications as one destination."""

    def __init__(self, app: int, members: Iterable[int]) -> None:
        super().__init__(app, lib.zeb_create_app_mcast(app))
        self._fill(self.add, members)

    def add(self, app: int) -> None:
        check(lib.zeb_add_app_mcast(self._app, self.id, app))

    def remove(self, app: int) -> None:
        lib.zeb_del_app_mcast(self._app, self.id, app)

    def destroy(self) -> None:
        lib.zeb_destroy_app_mcast(self._app, self.id)


class NodeGroup(_Group):
    """Nodes as one destination."""

    def __init__(self, app: int, members: Iterable[int]) -> None:
        super().__init__(app, lib.zeb_create_node_mcast(app))
        self._fill(self.add, members)

    def add(self, node: int) -> None:
        check(lib.zeb_add_node_mcast(self._app, self.id, node))

    def remove(self, node: int) -> None:
        lib.zeb_del_node_mcast(self._app, self.id, node)

    def destroy(self) -> None:
        lib.zeb_destroy_node_mcast(self._app, self.id)
