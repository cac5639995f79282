"""rq_simulation in processes of their own: a seed gives the same trace wherever it comes in a run."""

import subprocess
import sys

PROGRAM = sys.argv[1]


def traces(seed, schedules):
    """The traces of a run, without what it says of itself at the end."""
    run = subprocess.run(
        [PROGRAM, "--seed", str(seed), "--schedules", str(schedules), "--trace"],
        stdout=subprocess.PIPE, check=True, timeout=200)
    text, _, _ = run.stdout.rpartition(f"{schedules} schedules in ".encode())
    return text


def main():
    """Three seeds in one process against the same three in three."""
    together = traces(20101, 3)
    apart = b"".join(traces(seed, 1) for seed in (20101, 20102, 20103))
    assert len(together) > 3000, "the traces say nothing"
    assert together == apart, "a seed's trace depends on what ran before it"
    assert traces(20101, 3) == together, "two processes give two traces"
    assert traces(20104, 1) != traces(20105, 1), "two seeds give one trace"


main()
