#!/usr/bin/env python3
"""The live page in a browser. Usage:
browser_test.py made-up PAGE_SERVER CHROMIUM              a cluster that was made up
browser_test.py cluster PAGE_PEER ZEBD CHROMIUM           eight simulated nodes; inside `tipcsim cluster`, which sets $LAB
$PAGE_PICTURES names a folder for pictures of what was seen."""
import os
import subprocess
import sys
import tempfile

from chromium import Page

NODES = 8
LONG = 30  # seconds for what comes at once


def picture(page, name):
    folder = os.environ.get("PAGE_PICTURES")
    for mode in ["light", "dark"] if folder else []:
        page.dark(mode == "dark")
        page.picture(f"{folder}/{name}-{mode}.png")


class Process:
    """A program that obeys lines. It ends with its input."""

    def __init__(self, *command, **options):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        **options)

    def line(self):
        got = self.process.stdout.readline()
        assert got, "it ended"
        return got.strip()

    def do(self, words):
        self.process.stdin.write(words + "\n")
        self.process.stdin.flush()
        assert self.line() == "ok"

    def stop(self):
        self.process.stdin.close()
        self.process.wait(LONG)

    def kill(self):
        self.process.kill()
        self.process.wait()


def there(selector):
    return f"document.querySelector('{selector}') !== null"


def gone(selector):
    return f"document.querySelector('{selector}') === null"


def text(selector):
    return f"document.querySelector('{selector}').textContent"


def style(selector, name):
    return f"getComputedStyle(document.querySelector('{selector}')).{name}"


def is_red(color):
    red, green, blue = [int(part) for part in color[color.index("(") + 1:-1].split(",")[:3]]
    return red > 150 and red > 2 * green and red > 2 * blue


def check_small(page, server):
    page.wait("document.body.dataset.live", "yes")
    page.wait("document.querySelectorAll('[data-instance]').length", 40)
    assert page.value("document.querySelectorAll('[data-node-box]').length") == 8
    assert page.value(text("#blocked-rest")) == "No pair is blocked."
    server.do("name 100 1 <img src=x onerror=alert(1)>")
    server.do("join 170 2")
    page.wait(there('[data-instance="170@2"][data-state="up"]'))
    page.wait(f"""{text('[data-instance="100@1"] .name')}.startsWith('100 <img')""")
    server.do("block 100 3 110 6")
    page.wait(there('[data-pair="100@3>110@6"][data-blocked="true"]'))
    server.do("quit 120 4")
    page.wait(there('[data-instance="120@4"][data-state="quit"]'))
    server.do("quit 130 4 9000")  # ms ago: it is gone after ten seconds
    page.wait(gone('[data-instance="130@4"]'))
    server.do("free 100 3 110 6")
    page.wait(there('[data-pair="100@3>110@6"][data-blocked="false"]'))
    page.wait("document.querySelector('#events [data-event]').textContent.endsWith('100@3 no longer waits for 110@6')")
    # By the keyboard.
    page.value("document.querySelector('#find').value = '140@7'; document.querySelector('#find').dispatchEvent(new Event('input'))")
    assert page.value("document.querySelectorAll('.inst:not(.dim)').length") == 1
    page.value("document.querySelector('[data-instance=\"140@7\"]').focus()")
    page.call("Input.dispatchKeyEvent", type="keyDown", key="Enter", code="Enter", windowsVirtualKeyCode=13)
    page.wait("document.querySelector('#detail').dataset.shows", "140@7")
    page.call("Input.dispatchKeyEvent", type="keyDown", key="Escape", code="Escape", windowsVirtualKeyCode=27)
    page.wait("document.querySelector('#detail').hidden")


def made_up(server_program, chromium):
    server = Process(server_program, "8", "5", "2")
    port = server.line()
    page = Page(chromium)
    try:
        page.open(f"http://127.0.0.1:{port}/#110@2")
        page.wait("document.querySelector('#detail').dataset.shows", "110@2")  # a link to an instance
        assert page.value("[...document.querySelectorAll('[data-plot]')].map((plot) => plot.dataset.points)") == ["59", "59", "60", "60", "59", "59"]
        page.click("#close")
        check_small(page, server)
        assert page.errors == [], page.errors
        # zebd goes away and comes back with another cluster: too many for all pairs to be drawn.
        server.stop()
        page.wait("document.body.dataset.live", "no")
        server = Process(server_program, "20", "50", "5", f"127.0.0.1:{port}")
        server.line()
        page.wait("document.querySelectorAll('[data-instance]').length", 1000)
        page.wait("document.body.dataset.live", "yes")
        assert page.value(text("#note")) == "100 of 5,000 pairs are drawn: the blocked and the busiest."
        assert page.value("document.querySelectorAll('[data-pair]').length") == 100
        server.do("block 100 3 120 19")
        page.wait(there('[data-pair="100@3>120@19"][data-blocked="true"]'))
        picture(page, "thousand")
    finally:
        page.close()
        server.kill()


class Cluster:
    def __init__(self, peer, zebd, folder):
        self.lab = os.environ["LAB"]
        self.peer = peer
        self.zebd = zebd
        self.folder = folder
        self.all = []

    def on(self, node, *command, **options):
        environment = {**os.environ, "VELK_DIR": f"{self.folder}/{node}", "ZEBD_SOCKET": f"{self.folder}/zebd.{node}"}
        process = Process(self.lab, "exec", str(node), "--", *command, env=environment, **options)
        self.all.append(process)
        return process

    def begin(self, node, first, count):
        return self.on(node, self.peer, str(first), str(count), str(node % NODES + 1))

    def begin_zebd(self, node, *arguments):
        return self.on(node, self.zebd, "--interval", "0.5", *arguments, stderr=subprocess.STDOUT)

    def end(self):
        for process in self.all:
            process.kill()


def check_stalled(page, nodes):
    """Application 122 on node 5 no longer takes what comes from node 4."""
    pair = '[data-pair="122@4>122@5"]'
    page.wait(there(pair + '[data-blocked="false"]'))
    assert not is_red(page.value(style(pair + " .line", "stroke")))
    nodes[5].do("stall 122")
    nodes[4].do("flood 122")
    page.wait(there(pair + '[data-blocked="true"]'))
    assert is_red(page.value(style(pair + " .line", "stroke")))
    assert page.value(text(pair + " .label")) == "122@4 waits for 122@5"
    assert page.value(style(pair + " .label", "display")) != "none"
    assert page.value("document.querySelectorAll('[data-blocked=true]').length") == 1
    for name in ["122@4", "122@5"]:
        assert page.value(f"""document.querySelector('[data-instance="{name}"]').dataset.state""") == "blocked"
    page.wait(f"{text('#blocked')}.startsWith('122@4 waits for 122@5, 1,025 unacknowledged, for ')")
    page.wait(there('[data-event="blocked"]'))


def check_detail(page):
    page.click('[data-instance="122@4"]')
    page.wait("document.querySelector('#detail').dataset.shows", "122@4")
    page.wait("document.querySelectorAll('[data-plot]').length", 6)
    page.wait("""Number(document.querySelector('[data-plot="sent"]').dataset.points) > 1""")
    assert page.value("""document.querySelector('[data-plot="sent"] .line').getAttribute('d').length""") > 10
    assert page.value(there('[data-peer="122@4>122@5"].bad'))
    page.wait(f"/^The log cannot be read: .* node 4/.test({text('#log')})")  # no zebd runs there
    picture(page, "cluster")
    page.click('[data-instance="121@1"]')
    page.wait("document.querySelector('#detail').dataset.shows", "121@1")
    page.wait("document.querySelector('#log').dataset.status", "200")
    page.wait(f"/<zeb_\\w+\\.cpp, \\d+>/.test({text('#log')})")
    assert page.value(text('[data-fact="levels"]')) == "none"
    assert "page_peer" in page.value(text('[data-fact="process"]'))
    page.click('[data-instance="122@5"]')  # whose log another zebd has
    page.wait("document.querySelector('#detail').dataset.shows", "122@5")
    page.wait("document.querySelector('#log').dataset.status", "200")
    page.wait(f"/<zeb_\\w+\\.cpp, \\d+>/.test({text('#log')})")
    page.click("#close")


def cluster(peer, zebd, chromium):
    with tempfile.TemporaryDirectory() as folder:
        sim = Cluster(peer, zebd, folder)
        page = None
        try:
            serving = sim.begin_zebd(1, "--http", "127.0.0.1:0")
            sim.begin_zebd(5)
            nodes = {node: sim.begin(node, 120, 5) for node in range(1, NODES + 1)}
            page = Page(chromium)
            while "http://" not in (said := serving.line()):
                pass
            url = said.split()[-1]
            page.open(url)
            for node in range(1, NODES + 1):
                for app in range(120, 125):
                    page.wait(there(f'[data-instance="{app}@{node}"][data-state="up"]'))
                    page.wait(f"""Number(document.querySelector('[data-pair="{app}@{node}>{app}@{node % NODES + 1}"]')?.dataset.rate) > 0""")
            check_stalled(page, nodes)
            check_detail(page)
            late = sim.begin(8, 500, 1)
            page.wait(there('[data-instance="500@8"][data-state="up"]'))
            late.stop()
            page.wait(there('[data-instance="500@8"][data-state="quit"]'))
            nodes[5].do("go 122")
            page.wait(there('[data-pair="122@4>122@5"][data-blocked="false"]'))
            page.wait(text("#blocked-rest"), "No pair is blocked.")
            errors = [each for each in page.errors if "/log?" not in each]
            assert errors == [], errors
        finally:
            if page:
                page.close()
            sim.end()


{"made-up": made_up, "cluster": cluster}[sys.argv[1]](*sys.argv[2:])
