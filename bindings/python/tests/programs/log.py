"""The library's lines come as records, in order, through a handler that calls the library itself."""

import logging

import zeb

app = zeb.App(303, "log", peers=[100])
records: list[logging.LogRecord] = []


class Handler(logging.Handler):
    def emit(self, record: logging.LogRecord) -> None:
        if app.running:
            app.online_nodes(100)
        records.append(record)


logger = logging.getLogger("zeb")
logger.setLevel(logging.DEBUG)
logger.propagate = False
logger.addHandler(Handler())
with app:
    app.wait_online_blocking(100, count=2, timeout=30)
    for number in range(200):
        app.call_blocking(100, str(number).encode(), timeout=30)
    try:
        app.send_blocking(100, b"", node=70000)
    except zeb.Error as failure:
        text = str(failure)
    zeb.log_to(None)
    lines = len(records)
    app.online_nodes(100)
    app.call_blocking(100, b"", timeout=30)
print("levels", sorted({record.levelname for record in records}))
print("same text", [record.levelname for record in records if record.getMessage() == text])
print("places", all(record.lineno > 0 and record.pathname.endswith(".cpp") for record in records))

print("none afterwards", len(records) == lines)
