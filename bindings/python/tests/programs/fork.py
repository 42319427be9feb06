"""A child gets an error and leaves its parent's library as it is."""

import os

import zeb

app = zeb.App(304, "fork", peers=[100])
with app:
    app.wait_online_blocking(100, count=2, timeout=30)
    child = os.fork()
    if child == 0:
        try:
            app.send_blocking(100, b"")
        except zeb.Error as error:
            print("child:", error.result, flush=True)
        raise SystemExit(7)
    print("status", os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
    print("parent:", len(app.call_blocking(100, b"x", timeout=30)))
