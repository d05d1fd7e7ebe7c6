"""The library's exceptions as Python exceptions with their exact messages, refusals at the
boundary, and time-outs."""
import datetime
import math

import numpy as np
import pytest

import corvane_window as cw
from conftest import WAIT_S, IdleSolver


def taken_producer():
    """A producer that a buffer, kept alive here, has taken."""
    taken_producer.owner = cw.AsyncWindowBuffer(producer := cw.FiniteWindowProducer([], []))
    return producer


TAKEN = "This FiniteWindowProducer belongs to a buffer or producer; only its owner may use it."


@pytest.mark.parametrize("call, error, message", [
    (lambda: cw.ValidateWindowPayload(cw.WindowPayload(compute_time_s=-1.0, positions=[0.0],
                                                       stop_index=1)),
     ValueError, "compute_time_s must be finite and non-negative."),
    (lambda: cw.ValidateTaskSpaceShapedWindow(cw.TaskSpaceShapedWindow()),
     cw.InvalidArgumentError, "task-space positions must be finite and shaped [N, 3]."),
    (lambda: cw.ShaperWindowProducer(None),
     cw.InvalidArgumentError, "ShaperWindowProducer requires a trajectory handle."),
    (lambda: cw.FiniteWindowProducer([], []).ProduceNext(),
     RuntimeError, "PrepareSession() must run before ProduceNext()."),
    (lambda: cw.AsyncWindowBuffer(None), ValueError, "producer must not be null."),
    (lambda: cw.AsyncWindowBuffer(cw.FiniteWindowProducer([], []), 0, None, 0), ValueError,
     "statistics_retention_windows must be positive."),
    (lambda: cw.AppendableReferenceBuffer(retention_samples=0), ValueError,
     "retention_samples must be positive."),
    (lambda: cw.AsyncWindowBuffer(cw.AppendableReferenceBuffer()),
     TypeError, "producer must be a WindowProducerSession, not AppendableReferenceBuffer."),
    (lambda: cw.AppendableReferenceBuffer().WaitUntilSamples(1, math.nan),
     ValueError, "timeout must not be NaN."),
    (lambda: cw.AsyncWindowBuffer(taken_producer()), RuntimeError, TAKEN),
    (lambda: taken_producer().ProduceNext(), RuntimeError, TAKEN),
    (lambda: cw.AppendableReferenceBuffer().AppendReference(np.ones((1, 2, 2))), ValueError,
     "command must have shape (rows, joints) or (joints,), not (1, 2, 2)."),
    (lambda: cw.WindowPayload(time_s=np.ones((2, 2))), ValueError,
     "time_s must have shape (n,) or (n, 1), not (2, 2)."),
    (lambda: cw.WindowPayload(position=[[1.0]]), TypeError,
     "WindowPayload() got an unexpected keyword argument 'position'"),
])
def test_errors_keep_class_and_message(call, error, message):
    with pytest.raises(Exception) as raised:
        call()
    assert type(raised.value) is error and str(raised.value) == message
    assert issubclass(cw.InvalidArgumentError, RuntimeError)


@pytest.mark.parametrize("timeout, samples, stored", [
    (0, 0, False), (0.06, 0, False), (np.float64(0.01), 0, False), (-math.inf, 0, False),
    (datetime.timedelta(milliseconds=10), 0, False),
    (None, 1, True), (math.inf, 1, True), (datetime.timedelta.max, 1, True)])
def test_timeouts_in_seconds_or_timedelta(timeout, samples, stored):
    reference = cw.AppendableReferenceBuffer(1)
    reference.AppendReference(np.ones((samples, 1)))
    assert reference.WaitUntilSamples(1, timeout) is stored
    with pytest.raises(TypeError):
        reference.WaitUntilSamples(1, "1")


def test_pop_and_join_give_up_at_their_deadline():
    reference = cw.AppendableReferenceBuffer(1)  # no sample arrives: the solver is never asked
    buffer = cw.AppendableWindowBuffer(
        cw.AppendableLiftedMpcWindowProducer(IdleSolver(), reference, 1, 1, 0.001, 0), reference)
    buffer.Start()
    assert buffer.Pop(timeout=0.06) is None  # longer than one slice of a wait
    assert buffer.Join(datetime.timedelta(milliseconds=60)) is False
    buffer.Stop()  # finishes the reference, which releases the waiting producer
    assert buffer.Join(WAIT_S) is True and buffer.IsComplete()
