"""Shared guards of the corvane_window tests."""
import faulthandler
import subprocess
import sys
import textwrap

import pytest

import corvane_window as cw

# Every blocking call in these tests gives up after this many seconds.
WAIT_S = 5.0


@pytest.fixture(autouse=True)
def hang_guard():
    """Ends the run with every thread's traceback when a test hangs, even one holding the GIL."""
    faulthandler.dump_traceback_later(30, exit=True, file=sys.__stderr__)
    yield
    faulthandler.cancel_dump_traceback_later()


class IdleSolver(cw.LiftedMpcSolveSession):
    """A solver whose Prepare and Finalize do nothing; subclasses give it a Solve."""
    Prepare = Finalize = lambda self: None


def run_python(*parts):
    """Runs the script `parts` in a new interpreter that must end within WAIT_S."""
    script = "\n".join(textwrap.dedent(part) for part in ("import corvane_window as cw",) + parts)
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                          timeout=WAIT_S)
    assert done.returncode == 0, done.stderr
