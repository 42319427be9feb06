"""Ends without a stop while daemon threads wait in the library, in every kind of wait."""

import threading

import zeb

app = zeb.App(301, "exit", versions=[1], peers=[100])
zeb.run(app)
app.wait_online_blocking(100, count=2, timeout=30)
waits = [
    lambda: app.call_blocking(100, b"", version=3, timeout=None),
    lambda: app.wait_online_blocking(4000),
    lambda: list(app.messages()),
]
for wait in waits:
    threading.Thread(target=wait, daemon=True).start()
app.call_blocking(100, b"x", timeout=30)
print("leaving")
