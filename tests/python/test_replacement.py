"""Replacing the unplayed reference from Python: a Python solver resumed on the worker, and the
refusals."""
import numpy as np
import pytest

import corvane_window as cw
from conftest import WAIT_S


class Echo(cw.LiftedMpcSolveSession):
    """Applies the reference unchanged; cannot resume."""

    Prepare = Finalize = lambda self: None

    def Solve(self, request):
        rows = int(request.metadata["apply_samples"])
        return cw.WindowPayload(positions=request.positions[:rows], stop_index=rows)


class ResumingEcho(Echo):
    """Also resumes, noting where."""

    def __init__(self):
        super().__init__()
        self.points = []

    def ResumeFrom(self, point):
        self.points.append(point)


def buffer_over(solver):
    stored = cw.AppendableReferenceBuffer(1, retention_samples=64)
    buffer = cw.AppendableWindowBuffer(
        cw.AppendableLiftedMpcWindowProducer(solver, stored, 4, 8, 0.001, 0), stored)
    buffer.AppendReference(np.arange(20.0)[:, None])
    return buffer


def test_a_python_solver_resumes_on_the_worker_from_the_command_before_the_join():
    solver = ResumingEcho()
    buffer = buffer_over(solver)
    assert buffer.Prefill(2) == 2 and buffer.PopNowait().stop_index == 4
    done = buffer.ReplaceReference(start_index=6, samples=np.full((3, 1), 100.0), finish=True)
    assert (done.resume_index, done.discarded_windows, done.replacements) == (4, 1, 1)
    buffer.Start()
    windows = iter(lambda: buffer.Pop(WAIT_S), None)
    assert [w.positions[:, 0].tolist() for w in windows] == [[4, 5, 100, 100], [100]]
    assert solver.points[0].previous_command.positions.tolist() == [3.0]
    assert buffer.Replacements().discarded_windows == 1


@pytest.mark.parametrize("call, error, message", [
    (lambda b: b.ReplaceReference(0, np.zeros((1, 1))), ValueError,
     "start_index must be at least the earliest replaceable index 4."),
    (lambda b: b.StopSmoothly(hold_samples=0), ValueError, "hold_samples must be positive."),
    (lambda b: b.ReplaceReference(4, np.zeros((1, 2))), ValueError,
     "command joint count does not match the appendable buffer."),
])
def test_refusals_name_the_argument(call, error, message):
    buffer = buffer_over(ResumingEcho())
    buffer.Prefill(2)
    buffer.PopNowait()
    with pytest.raises(error, match=message.replace("(", r"\(")):
        call(buffer)
    with pytest.raises(RuntimeError, match="needs a producer that can resume"):
        buffer_over(Echo()).EarliestReplaceableIndex()
