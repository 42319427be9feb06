"""Chooses the figure of a run that is compared, by the kind of work."""


def value(verb, run):
    return run[{"oneway": "per_second", "burst": "send_cpu"}.get(verb, "p50")]
