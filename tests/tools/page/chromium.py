"""A page in Chromium without a window, driven by the DevTools protocol over a pair of pipes: no port, no other package.

Chromium's profile lies in a folder of its own, which is removed at the end.
"""
import base64
import contextlib
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time

LONG = 30  # seconds for what comes at once
FLAGS = ["--headless=new", "--remote-debugging-pipe", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
         "--disable-extensions", "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--no-default-browser-check", "--no-proxy-server", "--hide-scrollbars", "--password-store=basic"]


class Page:
    def __init__(self, program, width=1500, height=1000):
        self.profile = tempfile.mkdtemp()
        commands, self.write_end = os.pipe()
        self.read_end, answers = os.pipe()
        environment = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
        environment.update(HOME=self.profile, XDG_CONFIG_HOME=self.profile, XDG_CACHE_HOME=self.profile)
        # It reads descriptor 3 and writes descriptor 4.
        self.process = subprocess.Popen(
            ["bash", "-c", f'exec 103<&{commands} 104>&{answers}; exec 3<&103 4>&104 103<&- 104>&-; exec "$@"', "bash", program, *FLAGS,
             f"--user-data-dir={self.profile}", f"--window-size={width},{height}", "about:blank"],
            pass_fds=[commands, answers], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=environment, start_new_session=True)
        os.close(commands)
        os.close(answers)
        self.number = 0
        self.bytes = b""
        self.session = None
        self.loaded = False
        self.errors = []  # what the page complained of
        targets = self.call("Target.getTargets")["targetInfos"]
        target = next(each for each in targets if each["type"] == "page")
        self.session = self.call("Target.attachToTarget", targetId=target["targetId"], flatten=True)["sessionId"]
        for area in ["Page", "Runtime", "Log"]:
            self.call(area + ".enable")
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def _receive(self, deadline):
        while b"\0" not in self.bytes:
            if not select.select([self.read_end], [], [], max(0, deadline - time.monotonic()))[0]:
                raise TimeoutError("Chromium does not answer")
            got = os.read(self.read_end, 1 << 20)
            if not got:
                raise EOFError("Chromium ended")
            self.bytes += got
        record, self.bytes = self.bytes.split(b"\0", 1)
        return json.loads(record)

    def call(self, method, **params):
        self.number += 1
        record = {"id": self.number, "method": method, "params": params}
        if self.session:
            record["sessionId"] = self.session
        os.write(self.write_end, json.dumps(record).encode() + b"\0")
        deadline = time.monotonic() + LONG
        while True:
            record = self._receive(deadline)
            if record.get("id") == self.number:
                if "error" in record:
                    raise RuntimeError(f"{method}: {record['error']['message']}")
                return record["result"]
            self._note(record)

    def _note(self, record):
        if record.get("method") == "Page.loadEventFired":
            self.loaded = True
        if record.get("method") == "Runtime.exceptionThrown":
            details = record["params"]["exceptionDetails"]
            self.errors.append(details.get("exception", {}).get("description") or details["text"])
        if record.get("method") == "Log.entryAdded" and record["params"]["entry"]["level"] == "error":
            entry = record["params"]["entry"]
            self.errors.append(entry["text"] + " " + entry.get("url", ""))

    def open(self, url):
        self.loaded = False
        self.call("Page.navigate", url=url)
        deadline = time.monotonic() + LONG
        while not self.loaded:
            self._note(self._receive(deadline))

    def value(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise RuntimeError(f"{expression}: {result['exceptionDetails']['exception'].get('description')}")
        return result["result"].get("value")

    def wait(self, expression, wanted=True):
        """Until the expression is true, or has that value."""
        deadline = time.monotonic() + LONG
        while True:
            got = self.value(expression)
            if got == wanted or (wanted is True and got):
                return got
            if time.monotonic() > deadline:
                raise AssertionError(f"{expression} is {got!r}, not {wanted!r}; errors: {self.errors[:3]}")
            time.sleep(0.05)  # between two looks

    def click(self, selector):
        """As a mouse does: whatever lies on top there gets it."""
        self.value(f"document.querySelector({json.dumps(selector)}).scrollIntoView({{block: 'center'}})")
        box = self.value(f"(() => {{ const box = document.querySelector({json.dumps(selector)}).getBoundingClientRect();"
                         "return [box.x + box.width / 2, box.y + box.height / 2]; })()")
        for kind in ["mousePressed", "mouseReleased"]:
            self.call("Input.dispatchMouseEvent", type=kind, x=box[0], y=box[1], button="left", clickCount=1)

    def dark(self, yes):
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark" if yes else "light"}])

    def picture(self, path):
        data = self.call("Page.captureScreenshot", format="png")["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))

    def close(self):
        for end in [self.write_end, self.read_end]:
            os.close(end)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        shutil.rmtree(self.profile, ignore_errors=True)
