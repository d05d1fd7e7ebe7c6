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


class SignalledProducer(cw.WindowProducerSession):
    """Has a window ready only after ready(), which also raises the worker's ready signal."""
    PrepareSession, Finalize = lambda self: None, lambda self: None
    IsExhausted = lambda self: False

    def __init__(self):
        super().__init__()
        self.signal, self.pending, self.calls = None, 0, 0
        self.installed, self.found_nothing = threading.Event(), threading.Event()

    def SetReadySignal(self, signal):
        self.signal = signal
        self.installed.set()

    def ProduceNext(self):
        self.calls += 1
        if not self.pending:
            self.found_nothing.set()
            return None
        self.pending -= 1
        return cw.WindowPayload(positions=[[float(self.calls)]], start_index=0, stop_index=1)

    def ready(self):
        self.pending += 1
        self.signal()


def test_a_waiting_worker_sleeps_until_the_signal_and_pop_into_swaps_windows():
    settings = cw.WorkerSettings(name="py-idle", idle=cw.WorkerIdle.kWait)
    assert "idle=WorkerIdle.kWait" in repr(settings) and "name='py-idle'" in repr(settings)
    producer = SignalledProducer()
    buffer = cw.AsyncWindowBuffer(producer, max_buffered_windows=2)
    buffer.Start(settings)
    assert producer.installed.wait(WAIT_S) and producer.found_nothing.wait(WAIT_S)
    window = cw.WindowPayload(positions=[[-1.0]], start_index=0, stop_index=1)
    assert not buffer.PopInto(window, timeout=0)
    producer.ready()
    assert buffer.PopInto(window=window, timeout=WAIT_S)
    assert window.positions[0, 0] == 2.0 and producer.calls <= 3  # it slept, not polled
    buffer.Close()
    assert producer.signal is None
