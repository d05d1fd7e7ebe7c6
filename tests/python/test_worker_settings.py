"""A buffer's worker runs with the WorkerSettings given to Start, and a refused one raises."""
import os
import threading

import pytest

import corvane_window as cw
from conftest import WAIT_S


class ScheduleProbe(cw.WindowProducerSession):
    """Notes, on the worker, the CPUs and thread name it runs with; has no windows."""
    IsExhausted, Finalize = lambda self: True, lambda self: None

    def PrepareSession(self):
        with open(f"/proc/self/task/{threading.get_native_id()}/comm") as comm:
            self.seen = (os.sched_getaffinity(0), comm.read().strip())


def test_start_with_settings_schedules_the_worker_and_a_refusal_names_the_setting():
    cpu, probe = max(os.sched_getaffinity(0)), ScheduleProbe()
    assert cw.WorkerSettings().policy == cw.WorkerPolicy.kInherit  # no policy asked for
    buffer = cw.AsyncWindowBuffer(probe)
    with pytest.raises(RuntimeError, match="WorkerSettings::name"):
        buffer.Start(cw.WorkerSettings(name="x" * 16))
    buffer.Start(cw.WorkerSettings(cw.WorkerPolicy.kNormal, 0, cpus=[cpu], name="py-worker"))
    assert buffer.Join(timeout=WAIT_S)
    assert probe.seen == ({cpu}, "py-worker")
