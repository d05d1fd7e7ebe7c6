"""Shared guard of the corvane_window tests."""
import faulthandler
import sys

import pytest

# Every blocking call in these tests gives up after this many seconds.
WAIT_S = 5.0


@pytest.fixture(autouse=True)
def hang_guard():
    """Ends the run with every thread's traceback when a test hangs, even one holding the GIL."""
    faulthandler.dump_traceback_later(30, exit=True, file=sys.__stderr__)
    yield
    faulthandler.cancel_dump_traceback_later()
