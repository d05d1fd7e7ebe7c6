"""Python solvers, handles and producers on a buffer's worker, the GIL, Ctrl-C, the garbage
collector and interpreter exit."""
import gc
import threading
import traceback
import weakref

import numpy as np
import pytest

import corvane_window as cw
from conftest import WAIT_S, IdleSolver, run_python


class EchoSolver(cw.LiftedMpcSolveSession):
    """Applies the reference unchanged; notes its calls, a solve as the thread it ran on."""

    def __init__(self):
        super().__init__()
        self.calls = []

    Prepare, Finalize = (lambda self: self.calls.append("Prepare"),
                         lambda self: self.calls.append("Finalize"))

    def Solve(self, request):
        self.calls.append(threading.get_ident())
        rows = int(request.metadata["apply_samples"])
        return cw.WindowPayload(positions=request.positions[:rows], stop_index=rows)


def stream(solver, reference, **buffer_options):
    """A started buffer running `solver` over the whole, finished `reference`, 2 rows a window."""
    stored = cw.AppendableReferenceBuffer()
    buffer = cw.AppendableWindowBuffer(
        cw.AppendableLiftedMpcWindowProducer(solver, stored, 2, 4, 0.001, 0), stored,
        **buffer_options)
    buffer.AppendReference(reference)
    buffer.Finish()
    buffer.Start()
    return buffer


def test_python_solver_runs_on_the_worker_while_python_pops_and_lives_with_the_buffer():
    solver = EchoSolver()
    calls, alive = solver.calls, weakref.ref(solver)
    reference = np.arange(20.0).reshape(10, 2)
    buffer = stream(solver, reference, max_buffered_windows=1)  # Pop waits for each Solve
    del solver  # the producer keeps it
    windows = iter(lambda: buffer.Pop(timeout=WAIT_S), None)
    assert np.array_equal(np.vstack([window.positions for window in windows]), reference)
    assert buffer.IsComplete()
    assert calls[0] == "Prepare" and calls[-1] == "Finalize" and len(calls) == 7
    assert threading.get_ident() not in calls
    del buffer
    assert alive() is None


class EndlessProducer(cw.WindowProducerSession):
    """Yields one-row windows without end."""
    PrepareSession = Finalize = lambda self: None
    IsExhausted = lambda self: False
    ProduceNext = lambda self: cw.WindowPayload(positions=[0.0], stop_index=1)


class SolverFault(Exception):
    pass


def fail(self, request):
    raise SolverFault("no solution")


@pytest.mark.parametrize("solve, error, message", [
    (None, NotImplementedError, "Solve() must be implemented by the subclass."),
    (lambda self, request: None, TypeError,
     "Solve() returned NoneType, which does not convert to its result type."),
    (fail, SolverFault, "no solution")])
def test_python_solver_faults_reach_every_pop_as_themselves(solve, error, message):
    solver = type("Solver", (IdleSolver,), {"Solve": solve} if solve else {})()
    buffer = stream(solver, np.zeros((4, 2)))
    with pytest.raises(error) as first:
        buffer.Pop(timeout=WAIT_S)
    with pytest.raises(error) as again:
        buffer.Pop(timeout=WAIT_S)
    assert str(first.value) == str(again.value) == message and buffer.LastError().endswith(message)
    if solve is fail:  # the very exception, with its traceback
        assert first.value is again.value
        assert "fail" in [frame.name for frame in traceback.extract_tb(first.tb)]


@pytest.mark.parametrize("end", ["Close", "del"])
def test_ending_the_buffer_while_its_worker_waits_for_the_gil(end):
    solver, entered, gate = EchoSolver(), threading.Event(), threading.Event()
    solver.Solve = lambda request: entered.set() or gate.wait(WAIT_S) and \
        EchoSolver.Solve(solver, request)
    buffer = stream(solver, np.zeros((40, 2)))
    assert entered.wait(WAIT_S)
    gate.set()  # the worker now needs the GIL, which the main thread holds, to go on
    if end == "Close":
        buffer.Close()
        assert buffer.Join(0)
    else:
        del buffer  # stops and joins the worker, then finalizes the solver
        assert solver.calls[-1] == "Finalize"


@pytest.mark.parametrize("referrer", ["producer", "solver"])
def test_a_producer_or_solver_that_refers_to_its_buffer_is_collected(referrer):
    reference = cw.AppendableReferenceBuffer()
    reference.AppendReference([0.0])  # an open stream: the solver holds the sample and goes on
    referring = EndlessProducer() if referrer == "producer" else EchoSolver()
    producer = referring if referrer == "producer" else \
        cw.AppendableLiftedMpcWindowProducer(referring, reference, 1, 1, 0.001, 0)
    referring.buffer = cw.AppendableWindowBuffer(producer, reference, max_buffered_windows=1)
    referring.buffer.Start()
    alive = weakref.ref(referring)
    del referring, producer
    gc.collect()
    assert alive() is None


SOLVER = """
    import threading
    prepared = threading.Event()
    class Solver(cw.LiftedMpcSolveSession):
        Prepare, Finalize = lambda self: prepared.set(), lambda self: None
        Solve = lambda self, request: cw.WindowPayload(positions=[0.0], stop_index=1)
    def waiting(buffer_class):  # a buffer whose producer waits for its first sample
        reference = cw.AppendableReferenceBuffer(1)
        producer = cw.AppendableLiftedMpcWindowProducer(Solver(), reference, 1, 1, 0.001, 0)
        buffer_class = buffer_class or (lambda producer, reference: cw.AsyncWindowBuffer(producer))
        return reference, buffer_class(producer, reference)
    """


@pytest.mark.parametrize("script", [
    """
        import os, signal, time
        def interrupted(call):  # Ctrl-C once the call has had time to block
            threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT)).start()
            start = time.monotonic()
            try:
                call()
            except KeyboardInterrupt:
                return time.monotonic() - start - 0.2  # the latency, with the timer's own
        reference, streaming = waiting(cw.AppendableWindowBuffer)
        latencies = [interrupted(lambda: reference.WaitUntilSamples(1)),
                     interrupted(lambda: streaming.Prefill(1))]
        streaming.AppendReference([0.0])
        assert reference.WaitUntilSamples(1) and streaming.Prefill(1) == 1
        idle = cw.AsyncWindowBuffer(cw.FiniteWindowProducer([], []))
        latencies.append(interrupted(idle.Pop))
        idle.Stop()
        assert idle.Pop() is None
        reference, plain = waiting(None)  # Stop() cannot end its wait
        plain.Start()
        latencies += [interrupted(plain.Join), interrupted(plain.Close)]
        reference.Finish()
        plain.Close()
        assert None not in latencies, latencies
        """,
    """
        import gc
        released, collected = threading.Event(), threading.Event()
        class Collecting(cw.WindowProducerSession):
            PrepareSession = Finalize = IsExhausted = lambda self: False
            def ProduceNext(self):
                released.wait(5)
                gc.collect()  # on the worker: drops the last reference to the buffer
                collected.set()
        cycle = [cw.AsyncWindowBuffer(Collecting())]
        cycle.append(cycle)
        cycle[0].Start()
        del cycle
        released.set()
        assert collected.wait(5)
        """,
    """
        reference, buffer = waiting(cw.AppendableWindowBuffer)
        buffer.AppendReference([0.0])  # the stream stays open: the worker holds and solves on
        buffer.Start()
        assert buffer.Pop(5.0) is not None
        """,
    """
        reference, buffer = waiting(None)  # Stop() cannot end its wait; exit finishes the reference
        buffer.Start()
        assert prepared.wait(5) and not buffer.Join(0.1)  # time to reach the wait, or to stop
        """,
    """
        buffer, popping = cw.AsyncWindowBuffer(cw.FiniteWindowProducer([], [])), threading.Event()
        threading.Thread(target=lambda: popping.set() or buffer.Pop(), daemon=True).start()
        assert popping.wait(5)
        """], ids=["Ctrl-C interrupts blocking calls and leaves them usable",
                   "collection on the worker deletes its buffer elsewhere",
                   "exit while the worker runs Python", "exit while it waits for a first sample",
                   "exit with a daemon thread in Pop"])
def test_script_ends_cleanly(script):
    run_python(SOLVER, script)
