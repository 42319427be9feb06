"""A child gets an error and leaves its parent's library and log as they are."""

import logging
import os

import zeb

app = zeb.App(304, "fork", peers=[100])
records: list[logging.LogRecord] = []


class Handler(logging.Handler):
    def emit(self, record: logging.LogRecord) -> None:
        records.append(record)


logger = logging.getLogger("zeb")
logger.setLevel(logging.ERROR)
logger.propagate = False
logger.addHandler(Handler())
with app:
    app.wait_online_blocking(100, count=2, timeout=30)
    before = len(records)
    child = os.fork()
    if child == 0:
        try:
            app.send_blocking(100, b"")
        except zeb.Error as error:
            print("child:", error.result, flush=True)
        raise SystemExit(7)
    print("status", os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
    print("parent:", len(app.call_blocking(100, b"x", timeout=30)))
    zeb.log_to(None)
    print("lines of the child:", [record.getMessage() for record in records[before:]])
