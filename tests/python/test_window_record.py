"""Records: the popped windows of a run, saved, read back and replayed bit for bit."""
import numpy as np
import pytest

import corvane_window as cw


def popped_windows():
    windows = [cw.WindowPayload(positions=[[-0.0, 1.5]], velocities=[[2.0, 0.1]], start_index=0,
                                stop_index=1, compute_time_s=1.0, metadata={"is_tail": "false"}),
               cw.WindowPayload(positions=[[3.0, 4.0], [5.0, 6.0]], time_s=[0.0, 1e-3],
                                start_index=1, stop_index=3)]
    buffer = cw.AsyncWindowBuffer(cw.FiniteWindowProducer(windows, []))
    buffer.Start()
    return [buffer.Pop(5.0) for _ in windows]


def test_a_saved_run_replays_the_same_windows(tmp_path):
    path = str(tmp_path / "run.record")
    popped = popped_windows()
    with cw.io.RecordWriter(path) as writer:
        for index, window in enumerate(popped):
            writer.Append(window=window, popped_s=0.5 * index)
    record = cw.io.ReadRecord(path)
    assert [recorded.popped_s for recorded in record] == [0.0, 0.5]
    buffer = cw.AsyncWindowBuffer(cw.io.ReplayProducer(record=record))
    buffer.Start()
    for window in popped:
        replayed = buffer.Pop(5.0)
        assert repr(replayed) == repr(window)
        assert replayed.positions.tobytes() == window.positions.tobytes()  # keeps -0.0
    assert buffer.Pop(5.0) is None

    damaged = open(path, "rb").read()[:-1]
    with pytest.raises(cw.io.RecordFileError, match=r"'run.record' has .* at byte \d+\.$"):
        cw.io.ParseRecord(damaged, name="run.record")
