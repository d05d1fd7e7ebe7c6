"""Replacing the unplayed reference from Python, with a Python solver resumed on the worker."""
import numpy as np
import pytest

import corvane_window as cw
from conftest import WAIT_S


class Echo(cw.LiftedMpcSolveSession):  # applies the reference unchanged; notes where it resumed
    Prepare = Finalize = lambda self: None
    ResumeFrom = lambda self, point: setattr(self, "point", point)

    def Solve(self, request):
        rows = int(request.metadata["apply_samples"])
        return cw.WindowPayload(positions=request.positions[:rows], stop_index=rows)


def test_a_python_solver_resumes_on_the_worker_from_the_command_before_the_join():
    solver, stored = Echo(), cw.AppendableReferenceBuffer(1)
    buffer = cw.AppendableWindowBuffer(
        cw.AppendableLiftedMpcWindowProducer(solver, stored, 4, 8, 0.001, 0), stored)
    buffer.AppendReference(np.arange(20.0)[:, None])
    assert buffer.Prefill(2) == 2 and buffer.PopNowait().stop_index == 4
    done = buffer.ReplaceReference(start_index=6, samples=np.full((3, 1), 9.5), finish=True)
    assert (done.resume_index, done.discarded_windows, done.replacements) == (4, 1, 1)
    buffer.Start()
    rows = [w.positions[:, 0].tolist() for w in iter(lambda: buffer.Pop(WAIT_S), None)]
    assert rows == [[4, 5, 9.5, 9.5], [9.5]]
    assert solver.point.previous_command.positions.tolist() == [3.0]
    with pytest.raises(RuntimeError, match="cannot run once the worker has ended"):
        buffer.StopSmoothly(hold_samples=1)
