"""Records at the boundary: arrays as read-only copies, optionals as None, metadata as dicts."""
import numpy as np
import pytest

import corvane_window as cw


def test_array_fields_read_as_fresh_read_only_copies():
    source = np.arange(6.0).reshape(3, 2)
    payload = cw.WindowPayload(positions=source)
    source[0, 0] = 99.0  # the record holds its own copy
    first, second = payload.positions, payload.positions
    assert first.dtype == np.float64 and first.shape == (3, 2) and first.flags.c_contiguous
    assert first[0, 0] == 0.0 and not np.shares_memory(first, second)
    with pytest.raises(ValueError, match="read-only"):
        first[0, 0] = 1.0


def test_assignment_converts_any_layout_and_dtype():
    window = cw.ShapedTrajectoryWindow()
    window.positions = np.asfortranarray(np.arange(6).reshape(2, 3))
    window.time_s = [0, 1]
    assert np.array_equal(window.positions, [[0, 1, 2], [3, 4, 5]])
    assert window.positions.flags.c_contiguous and window.time_s.dtype == np.float64
    assert window.time_s.shape == (2,)


@pytest.mark.parametrize("record, field, shape", [
    (cw.WindowSlice, "velocities", (2, 3)), (cw.WindowPayload, "accelerations", (2, 3)),
    (cw.WindowPayload, "time_s", (2,)),
    (cw.TrajectoryWindow, "vibration_shaping_weight_profile", (2,)),
    (cw.TaskSpaceShapedTrajectory, "orientations", (2, 4))])
def test_absent_optionals_are_none_both_ways(record, field, shape):
    value = record()
    assert getattr(value, field) is None
    setattr(value, field, np.ones(shape))
    assert getattr(value, field).shape == shape
    setattr(value, field, None)
    assert getattr(value, field) is None


def test_metadata_reads_as_a_copied_dict():
    payload = cw.WindowPayload(metadata={"is_tail": "false"})
    payload.metadata["lost"] = "yes"
    assert payload.metadata == {"is_tail": "false"}
    with pytest.raises(TypeError):
        payload.metadata = {"count": 1}


def test_keyword_construction_defaults_and_unknown_fields():
    window = cw.TaskSpaceShapedWindow(stop_index=4)
    assert (window.start_index, window.stop_index, window.is_tail, window.compute_time_s) == \
        (0, 4, False, 0.0)
    window.trajectory.positions = np.zeros((4, 3))  # a nested record is a view into its parent
    assert window.trajectory.positions.shape == (4, 3)
    with pytest.raises(AttributeError):
        cw.WindowPayload(position=np.zeros((1, 1)))
