"""Python producers, handles and solvers driven by a buffer's worker while Python pops."""
import subprocess
import sys
import textwrap
import threading
import traceback
import weakref

import numpy as np
import pytest

import corvane_window as cw
from conftest import WAIT_S


class EchoSolver(cw.LiftedMpcSolveSession):
    """Applies the reference unchanged; notes its calls and the threads it ran on."""

    def __init__(self):
        super().__init__()
        self.calls, self.threads = [], set()

    def Prepare(self):
        self.calls.append("Prepare")

    def Finalize(self):
        self.calls.append("Finalize")

    def Solve(self, request):
        self.calls.append("Solve")
        self.threads.add(threading.get_ident())
        rows = int(request.metadata["apply_samples"])
        return cw.WindowPayload(positions=request.positions[:rows], stop_index=rows)


def stream(solver, reference, **buffer_options):
    """A started buffer running `solver` over the whole, finished `reference`, 2 rows a window."""
    stored = cw.AppendableReferenceBuffer()
    producer = cw.AppendableLiftedMpcWindowProducer(solver, stored, 2, 4, 0.001, 0)
    buffer = cw.AppendableWindowBuffer(producer, stored, **buffer_options)
    buffer.AppendReference(reference)
    buffer.Finish()
    buffer.Start()
    return buffer


def drain(buffer):
    windows = []
    while (window := buffer.Pop(timeout=WAIT_S)) is not None:
        windows.append(window)
    assert buffer.IsComplete()
    return windows


def test_python_solver_runs_on_the_worker_and_lives_as_long_as_the_buffer():
    solver = EchoSolver()
    calls, threads, alive = solver.calls, solver.threads, weakref.ref(solver)
    reference = np.arange(20.0).reshape(10, 2)
    buffer = stream(solver, reference)
    del solver  # the producer keeps it
    windows = drain(buffer)
    assert np.array_equal(np.vstack([window.positions for window in windows]), reference)
    assert [window.start_index for window in windows] == [0, 2, 4, 6, 8]
    assert calls == ["Prepare"] + ["Solve"] * 5 + ["Finalize"]
    assert threading.get_ident() not in threads and buffer.Qualify(0.5).total_windows == 5
    del buffer
    assert alive() is None


class ListHandle(cw.TrajectoryWindowHandle):
    """Makes one prepared window ready per Advance(1)."""

    def __init__(self, windows):
        super().__init__()
        self.pending, self.ready, self.calls = list(windows), None, []

    def Prepare(self):
        self.calls.append("Prepare")

    def Advance(self, steps):
        self.calls.append(steps)
        self.ready = self.pending.pop(0)

    def NextWindow(self):
        window, self.ready = self.ready, None
        return window

    def HasMoreWindows(self):
        return bool(self.pending) or self.ready is not None

    def Cancel(self):
        self.calls.append("Cancel")

    def Finalize(self):
        self.calls.append("Finalize")


def shaped(start, is_tail):
    block = np.full((3, 2), float(start))
    return cw.ShapedTrajectoryWindow(positions=block, velocities=block, accelerations=block,
                                     time_s=[0.0, 0.1, 0.2], start_index=start,
                                     stop_index=start + 3, is_tail=is_tail)


def test_python_handle_is_driven_through_the_shaper_producer():
    handle = ListHandle([shaped(0, False), shaped(3, True)])
    buffer = cw.AsyncWindowBuffer(cw.ShaperWindowProducer(handle), max_buffered_windows=1)
    buffer.Start()
    windows = drain(buffer)
    assert [(window.start_index, window.metadata) for window in windows] == \
        [(0, {"is_tail": "false"}), (3, {"is_tail": "true"})]
    assert handle.calls == ["Prepare", 1, 1, "Finalize"]


class CountingProducer(cw.WindowProducerSession):
    """Yields `count` one-row windows; notes the threads it ran on."""

    def __init__(self, count):
        super().__init__()
        self.produced, self.count, self.threads = 0, count, set()

    def PrepareSession(self):
        pass

    def ProduceNext(self):
        self.threads.add(threading.get_ident())
        self.produced += 1
        return cw.WindowPayload(positions=[[float(self.produced)]],
                                start_index=self.produced - 1, stop_index=self.produced)

    def IsExhausted(self):
        return self.produced == self.count

    def Finalize(self):
        return None


def test_python_producer_prefills_on_the_caller_then_runs_on_the_worker():
    producer = CountingProducer(5)
    buffer = cw.AsyncWindowBuffer(producer, prefill_windows=1, max_buffered_windows=2)
    assert buffer.Prefill(2) == 2
    buffer.Start()
    assert [window.positions[0, 0] for window in drain(buffer)] == [1.0, 2.0, 3.0, 4.0, 5.0]
    assert threading.get_ident() in producer.threads and len(producer.threads) == 2


def test_consumer_pops_while_the_python_solver_runs():
    # With room for one window, every Pop waits for a Solve, which needs the GIL that the
    # waiting consumer must have given up.
    windows = drain(stream(EchoSolver(), np.zeros((200, 3)), max_buffered_windows=1))
    assert len(windows) == 100


def test_prefill_waits_while_another_python_thread_appends():
    solver, prepared = EchoSolver(), threading.Event()
    solver.Prepare = prepared.set  # Prefill prepares the solver, then waits for a first sample
    stored = cw.AppendableReferenceBuffer(2)
    buffer = cw.AppendableWindowBuffer(
        cw.AppendableLiftedMpcWindowProducer(solver, stored, 2, 4, 0.001, 0), stored)
    appender = threading.Thread(
        target=lambda: prepared.wait(WAIT_S) and stored.AppendReference(np.ones((4, 2))))
    appender.start()
    assert buffer.Prefill(1) == 1
    appender.join(WAIT_S)


class SolverFault(Exception):
    pass


class FailingSolver(EchoSolver):
    def Solve(self, request):
        if self.calls.count("Solve") == 1:
            raise SolverFault("no solution")
        return super().Solve(request)


def test_python_exception_reaches_every_pop_as_itself():
    buffer = stream(FailingSolver(), np.zeros((8, 2)))
    assert buffer.Pop(timeout=WAIT_S).stop_index == 2  # the window before the failure comes first
    with pytest.raises(SolverFault) as first:
        buffer.Pop(timeout=WAIT_S)
    with pytest.raises(SolverFault) as again:
        buffer.Pop(timeout=WAIT_S)
    assert first.value is again.value and first.value.args == ("no solution",)
    assert "Solve" in [frame.name for frame in traceback.extract_tb(first.tb)]
    assert buffer.LastError() == "SolverFault: no solution"


@pytest.mark.parametrize("solve, error, message", [
    (None, NotImplementedError, "Solve() must be implemented by the subclass."),
    (lambda self, request: None, TypeError,
     "Solve() returned NoneType, which does not convert to its result type."),
    (lambda self, request: cw.WindowPayload(positions=[[0.0, 0.0]], stop_index=1), RuntimeError,
     "Lifted MPC solve output must match the requested apply count."),
])
def test_faulty_python_solver_fails_at_pop(solve, error, message):
    methods = {"Prepare": lambda self: None, "Finalize": lambda self: None}
    if solve:
        methods["Solve"] = solve
    buffer = stream(type("Solver", (cw.LiftedMpcSolveSession,), methods)(), np.zeros((4, 2)))
    with pytest.raises(error) as raised:
        buffer.Pop(timeout=WAIT_S)
    assert type(raised.value) is error and str(raised.value) == message


class GatedSolver(EchoSolver):
    def __init__(self):
        super().__init__()
        self.entered, self.gate = threading.Event(), threading.Event()

    def Solve(self, request):
        self.entered.set()
        self.gate.wait(WAIT_S)
        return super().Solve(request)


@pytest.mark.parametrize("end", ["Close", "del"])
def test_ending_the_buffer_while_its_worker_waits_for_the_gil(end):
    solver = GatedSolver()
    buffer = stream(solver, np.zeros((40, 2)))
    assert solver.entered.wait(WAIT_S)
    solver.gate.set()  # the worker now needs the GIL, which the main thread holds, to go on
    if end == "Close":
        buffer.Close()
        assert buffer.Join(0)
    else:
        del buffer  # stops and joins the worker, then finalizes the solver
        assert solver.calls[-1] == "Finalize"


def test_python_exits_cleanly_while_a_worker_runs_python():
    script = textwrap.dedent("""
        import corvane_window as cw
        class Solver(cw.LiftedMpcSolveSession):
            Prepare = Finalize = lambda self: None
            def Solve(self, request):
                return cw.WindowPayload(positions=request.positions[:1], stop_index=1)
        reference = cw.AppendableReferenceBuffer(1)
        buffer = cw.AppendableWindowBuffer(
            cw.AppendableLiftedMpcWindowProducer(Solver(), reference, 1, 1, 0.001, 0), reference)
        buffer.AppendReference([[0.0]])  # the stream stays open: the worker holds and solves on
        buffer.Start()
        assert buffer.Pop(5.0) is not None
        """)
    subprocess.run([sys.executable, "-c", script], check=True, timeout=WAIT_S)
