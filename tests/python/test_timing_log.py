"""A buffer's timing log reads into numpy arrays, and its counters and errors reach Python."""
import numpy as np
import pytest

import corvane_window as cw


def windows(count):
    return [cw.WindowPayload(positions=np.zeros((2, 1)), start_index=2 * n, stop_index=2 * n + 2,
                             metadata={"sample_time_s": "0.5"}) for n in range(count)]


def test_popped_windows_read_as_arrays_and_the_counters_follow():
    log = cw.TimingLog(capacity_windows=2)
    buffer = cw.AsyncWindowBuffer(cw.FiniteWindowProducer(windows(3), []))
    buffer.AttachTimingLog(log=log)
    assert buffer.Prefill(3) == 3 and buffer.PopNowait() and buffer.PopNowait()
    log.ReportDeadlineMiss()
    read = log.Read(sequence=0)
    assert (len(read), read.overwritten_windows, read.next_sequence) == (1, 1, 2)
    assert repr(read) == "TimingRead(windows=1, overwritten_windows=1, next_sequence=2)"
    assert read.start_index.dtype == np.uint64 and read.margin_s.dtype == np.float64
    assert read.start_index.tolist() == [2] and read.duration_s.tolist() == [1.0]
    assert read.queue_depth_windows.tolist() == [2]
    assert read.queued_s[0] <= read.popped_s[0]
    counters = log.Counters()
    assert (counters.queued_windows, counters.popped_windows, counters.deadline_misses) == (3, 2, 1)
    assert repr(log) == "TimingLog(capacity_windows=2)"


def test_errors_name_the_argument():
    with pytest.raises(ValueError, match="capacity_windows must be from 1 to 16777216."):
        cw.TimingLog(capacity_windows=0)
    buffer = cw.AsyncWindowBuffer(cw.FiniteWindowProducer(windows(1), []))
    with pytest.raises(ValueError, match="log must not be null."):
        buffer.AttachTimingLog(None)
    buffer.Prefill(1)
    with pytest.raises(RuntimeError, match=r"before Prefill\(\) and Start\(\)"):
        buffer.AttachTimingLog(cw.TimingLog(1))
