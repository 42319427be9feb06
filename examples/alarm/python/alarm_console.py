#!/usr/bin/env python3
"""Shows alarms and cards: `list` and `status`. It has no event loop, and ends with its input."""

import sys

import alarm
import zeb

LIMIT = 1.5  # seconds

console = zeb.App(alarm.CONSOLE, "alarm_console", peers=[alarm.MANAGER, alarm.CARD])


def list_alarms() -> None:
    try:
        [outcome] = console.call_blocking(alarm.MANAGER, version=alarm.LIST, timeout=LIMIT)
    except (zeb.Error, ValueError) as error:  # ValueError: there is more than one
        print(f"no manager: {error}")
        return
    if not outcome.ok:
        print(f"no manager: {outcome.status.text}")
        return
    text = outcome.data.decode(errors="surrogateescape")
    print(f"{text}{text.count(chr(10))} alarms")


def show_cards() -> None:
    try:
        outcomes = console.call_blocking(alarm.CARD, version=alarm.STATUS, timeout=LIMIT)
    except zeb.Error as error:
        print(f"no cards: {error}")
        return
    for outcome in sorted(outcomes, key=lambda outcome: outcome.peer.node):
        text = outcome.data.decode(errors="replace") if outcome.ok else outcome.status.text
        print(f"card {outcome.peer.node}: {text}")


def main() -> None:
    with console:
        print("ready", flush=True)
        for line in sys.stdin:
            match line.strip():
                case "list":
                    list_alarms()
                case "status":
                    show_cards()
                case command if command:
                    print("list or status")
            sys.stdout.flush()


if __name__ == "__main__":
    sys.stdout.reconfigure(errors="surrogateescape")  # type: ignore[attr-defined]
    main()
