"""Replacing the unplayed reference from Python: a Python solver resumed on the worker, and the
refusals."""
import numpy as np
import pytest

import corvane_window as cw
from conftest import WAIT_S


class Echo(cw.LiftedMpcSolveSession):
    """Applies the reference unchanged; notes where it resumed, when it has ResumeFrom."""
    Prepare = Finalize = lambda self: None

    def Solve(self, request):
        rows = int(request.metadata["apply_samples"])
        return cw.WindowPayload(positions=request.positions[:rows], stop_index=rows)


class ResumingEcho(Echo):
    def ResumeFrom(self, point):
        self.point = point


def replaced(solver):
    """[0, 4) of 20 samples handed out, [4, 8) queued, then samples 6 on replaced."""
    stored = cw.AppendableReferenceBuffer(1)
    buffer = cw.AppendableWindowBuffer(
        cw.AppendableLiftedMpcWindowProducer(solver, stored, 4, 8, 0.001, 0), stored)
    buffer.AppendReference(np.arange(20.0)[:, None])
    assert buffer.Prefill(2) == 2 and buffer.PopNowait().stop_index == 4
    return buffer, buffer.ReplaceReference(start_index=6, samples=np.full((3, 1), 9.5), finish=True)


def test_a_python_solver_resumes_on_the_worker_from_the_command_before_the_join():
    solver = ResumingEcho()
    buffer, done = replaced(solver)
    assert (done.resume_index, done.discarded_windows, done.replacements) == (4, 1, 1)
    buffer.Start()
    windows = iter(lambda: buffer.Pop(WAIT_S), None)
    assert [w.positions[:, 0].tolist() for w in windows] == [[4, 5, 9.5, 9.5], [9.5]]
    assert solver.point.previous_command.positions.tolist() == [3.0]
    with pytest.raises(RuntimeError, match="cannot run once the worker has ended"):
        buffer.StopSmoothly(hold_samples=1)
    with pytest.raises(RuntimeError, match="needs a producer that can resume"):
        replaced(Echo())
