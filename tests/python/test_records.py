"""Records at the boundary: array conversions and views, optionals, keywords, repr and stubs."""
import ast
import gc
import inspect
import pathlib
import weakref

import numpy as np
import pytest

import corvane_window as cw


@pytest.mark.parametrize("record, field, source", [
    (cw.WindowPayload, "positions", np.arange(6.0).reshape(3, 2)),
    (cw.engines.ImpulseSequence, "amplitudes", np.arange(3.0))])
def test_array_fields_read_as_read_only_views_that_keep_their_record(record, field, source):
    value, shown = record(**{field: source}), source.tolist()
    source.flat[0] = 99.0  # assignment copies
    first, second = getattr(value, field), getattr(value, field)
    assert first.dtype == np.float64 and first.flags.c_contiguous and first.flat[0] == 0.0
    assert np.shares_memory(first, second)
    with pytest.raises(ValueError, match="read-only"):
        first.flat[0] = 1.0
    setattr(value, field, np.ones(1))  # the view keeps showing the values it showed
    alive = weakref.ref(value)
    del value, second
    gc.collect()
    assert alive() is not None and first.tolist() == shown
    del first
    assert alive() is None


@pytest.mark.parametrize("make, shape", [
    (lambda value: cw.WindowPayload(positions=value).positions, (1, 3)),
    (lambda value: cw.TrajectoryWindow(command=np.asfortranarray([value, value])).command, (2, 3)),
    (lambda value: cw.WindowSlice(time_s=np.reshape(value, (3, 1))).time_s, (3,)),
    (lambda value: cw.AppendableWindowBuffer(cw.FiniteWindowProducer([], []),
                                             reference := cw.AppendableReferenceBuffer())
     .AppendReference(value) and reference.PositionsCopy(), (1, 3))])
def test_one_dimensional_arrays_are_one_sample(make, shape):
    array = make([1, 2, 3])
    assert array.shape == shape and array.dtype == np.float64 and array.flags.c_contiguous


@pytest.mark.parametrize("record, field, shape", [
    (cw.WindowSlice, "velocities", (2, 3)), (cw.WindowPayload, "time_s", (2,)),
    (cw.TrajectoryWindow, "vibration_shaping_weight_profile", (2,)),
    (cw.TaskSpaceShapedTrajectory, "orientations", (2, 4))])
def test_absent_optionals_are_none_both_ways(record, field, shape):
    value = record()
    assert getattr(value, field) is None
    setattr(value, field, np.ones(shape))
    assert getattr(value, field).shape == shape
    setattr(value, field, None)
    assert getattr(value, field) is None


def test_keyword_construction_signature_and_repr():
    window = cw.TaskSpaceShapedWindow(stop_index=4)
    assert (window.start_index, window.stop_index, window.is_tail) == (0, 4, False)
    window.trajectory.positions = np.zeros((4, 3))  # a nested record is a view into its parent
    assert window.trajectory.positions.shape == (4, 3)
    parameters = inspect.signature(cw.AppendedRange).parameters
    assert list(parameters) == ["start_index", "stop_index"]
    assert all(p.kind is p.KEYWORD_ONLY and p.default == 0 for p in parameters.values())
    assert repr(cw.WindowPayload(positions=[[1.0, -2.0]], stop_index=1)) == (
        "WindowPayload(positions=array(1, 2) in [-2, 1], velocities=None, accelerations=None, "
        "time_s=None, start_index=0, stop_index=1, compute_time_s=0.0, metadata={})")


def stubbed(path):
    """The names that a stub file defines, annotates or imports."""
    names = set()
    for node in ast.parse(path.read_text()).body:
        names |= {alias.asname or alias.name for alias in getattr(node, "names", [])}
        names |= {getattr(node, "name", None), getattr(getattr(node, "target", None), "id", None)}
    return names


@pytest.mark.parametrize("module, stub", [(cw, "__init__.pyi"), (cw.engines, "engines.pyi"),
                                          (cw.io, "io.pyi")])
def test_version_and_stubs_beside_the_module(module, stub):
    assert cw.__version__.count(".") == 2
    stubs = pathlib.Path(cw.__file__).parent / "corvane_window" / stub
    assert {name for name in dir(module) if not name.startswith("_")} <= stubbed(stubs)


def test_retention_keeps_the_recent_samples_and_statistics_while_totals_count_all():
    reference = cw.AppendableReferenceBuffer(1, retention_samples=2)
    reference.AppendReference(np.arange(5.0).reshape(5, 1))
    assert reference.PositionsCopy().tolist() == [[3.0], [4.0]]
    windows = [cw.WindowPayload(positions=[0.0], stop_index=1)] * 3
    buffer = cw.AppendableWindowBuffer(cw.FiniteWindowProducer(windows, []), reference,
                                       statistics_retention_windows=1)
    assert buffer.Prefill(3) == 3
    assert (buffer.Totals().total_windows, buffer.Qualify(1.0).total_windows) == (3, 1)
