"""The library's exceptions as Python exceptions with its exact messages, and time-outs."""
import datetime
import math

import numpy as np
import pytest

import corvane_window as cw
from conftest import WAIT_S


def started_buffer():
    buffer = cw.AsyncWindowBuffer(cw.FiniteWindowProducer([], []))
    buffer.Start()
    return buffer


def finished_reference():
    reference = cw.AppendableReferenceBuffer(1)
    reference.Finish()
    return reference


@pytest.mark.parametrize("call, error, message", [
    (lambda: cw.ValidateWindowPayload(cw.WindowPayload(compute_time_s=-1.0, positions=[[0.0]],
                                                       stop_index=1)),
     ValueError, "compute_time_s must be finite and non-negative."),
    (lambda: cw.ValidateWindowSlice(cw.WindowSlice()),
     ValueError, "positions must have at least one column."),
    (lambda: cw.ValidateTrajectoryWindow(cw.TrajectoryWindow()),
     ValueError, "command must be a finite sample-major matrix."),
    (lambda: cw.ValidateTaskSpaceShapedWindow(cw.TaskSpaceShapedWindow()),
     cw.InvalidArgumentError, "task-space positions must be finite and shaped [N, 3]."),
    (lambda: cw.ShaperWindowProducer(None),
     cw.InvalidArgumentError, "ShaperWindowProducer requires a trajectory handle."),
    (lambda: cw.FiniteWindowProducer([], []).ProduceNext(),
     RuntimeError, "PrepareSession() must run before ProduceNext()."),
    (lambda: cw.AppendableReferenceBuffer(0),
     ValueError, "joint_count must be positive when provided."),
    (lambda: finished_reference().AppendReference([[1.0]]),
     RuntimeError, "Cannot append reference samples after Finish()."),
    (lambda: cw.AsyncWindowBuffer(None), ValueError, "producer must not be null."),
    (lambda: cw.AppendableWindowBuffer(cw.FiniteWindowProducer([], []), None),
     ValueError, "reference_buffer must not be null."),
    (lambda: cw.AppendableLiftedMpcWindowProducer(None, finished_reference(), 1, 1, 0.001, 0),
     ValueError, "solve_session and reference_buffer must not be null."),
    (lambda: started_buffer().Start(),
     RuntimeError, "AsyncWindowBuffer::Start() can only be called once."),
    (lambda: started_buffer().Qualify(math.inf),
     ValueError, "compute_fraction_limit must be finite and positive."),
    (lambda: cw.AsyncWindowBuffer(cw.AppendableReferenceBuffer()),
     TypeError, "producer must be a WindowProducerSession, not AppendableReferenceBuffer."),
    (lambda: cw.AppendableReferenceBuffer().WaitUntilSamples(1, math.nan),
     ValueError, "timeout must not be NaN."),
])
def test_library_errors_keep_class_and_message(call, error, message):
    with pytest.raises(Exception) as raised:
        call()
    assert type(raised.value) is error and str(raised.value) == message


def test_invalid_argument_error_is_a_runtime_error_only():
    assert issubclass(cw.InvalidArgumentError, RuntimeError)
    assert not issubclass(cw.InvalidArgumentError, ValueError)


@pytest.mark.parametrize("timeout", [0, 0.01, np.float64(0.01), -math.inf,
                                     datetime.timedelta(milliseconds=10)])
def test_timeouts_in_seconds_or_timedelta_expire(timeout):
    assert cw.AppendableReferenceBuffer(1).WaitUntilSamples(1, timeout) is False


@pytest.mark.parametrize("timeout", [None, math.inf, datetime.timedelta.max])
def test_timeouts_without_limit_return_once_satisfied(timeout):
    reference = cw.AppendableReferenceBuffer(1)
    reference.AppendReference([[1.0]])
    assert reference.WaitUntilSamples(1, timeout) is True


def test_timeout_of_another_type_is_refused():
    with pytest.raises(TypeError):
        cw.AppendableReferenceBuffer(1).WaitUntilSamples(1, "1")


def test_pop_and_join_give_up_at_their_deadline():
    class Solver(cw.LiftedMpcSolveSession):  # never asked to solve: no sample arrives
        def Prepare(self):
            pass

        def Finalize(self):
            pass

    reference = cw.AppendableReferenceBuffer(1)
    buffer = cw.AppendableWindowBuffer(
        cw.AppendableLiftedMpcWindowProducer(Solver(), reference, 1, 1, 0.001, 0), reference)
    buffer.Start()
    assert buffer.Pop(timeout=0.01) is None
    assert buffer.Join(datetime.timedelta(milliseconds=10)) is False
    buffer.Stop()  # finishes the reference, which releases the waiting producer
    assert buffer.Join(WAIT_S) is True and buffer.IsComplete()
