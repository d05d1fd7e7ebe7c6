"""The engines submodule at the boundary: errors, the kinds of the family, and the shaping stage
and the C++ solver owned by a producer on the worker thread."""
import gc
import weakref

import numpy as np
import pytest

import corvane_window as cw
from corvane_window import engines
from conftest import WAIT_S, IdleSolver

H = 0.001  # [s] sample period
MODE = engines.VibrationMode(natural_frequency_hz=40.0, damping_ratio=0.05)
ZV = engines.ZvShaper(mode=MODE)


class EchoSolver(IdleSolver):
    """Applies the request's positions unchanged."""

    def Solve(self, request):
        rows = int(request.metadata["apply_samples"])
        return cw.WindowPayload(positions=request.positions[:rows], stop_index=rows)


class FailingSolver(IdleSolver):
    def Solve(self, request):
        raise LookupError("no gains.")


def taken_solver():
    """A C++ solver that a shaping stage, kept alive here, has taken."""
    taken_solver.owner = engines.ShapingSolveSession(solver := engines.LiftedMpcSolver(H, 4), ZV, H)
    return solver


def shaping(solver):
    return engines.ShapingSolveSession(solver=solver, shaper=ZV, sample_time_s=H)


REFERENCE = np.column_stack([np.linspace(0.0, 1.0, 24), np.linspace(0.0, -2.0, 24) ** 2])


def schedule(modes):
    return engines.ShaperSchedule(modes=modes, longest_shaper_s=0.02)


# A mode that moves with the first joint, from 40 to 80 Hz.
MOVING = schedule(lambda pose: [engines.VibrationMode(natural_frequency_hz=40.0 + 40.0 * pose[0])])

REQUEST = cw.WindowSlice(positions=np.ones((4, 2)), stop_index=4, metadata={"apply_samples": "2"})
TAKEN = "This LiftedMpcSolver belongs to a buffer or producer; only its owner may use it."


@pytest.mark.parametrize("call, error, message", [
    (lambda: engines.EstimateRinging(samples="ringing", sample_rate_hz=1e3), TypeError,
     "samples must be an array of numbers, not str."),
    (lambda: engines.EstimateRinging(np.ones((3, 3)), 1e3), ValueError,
     "samples must have shape (n,) or (n, 1), not (3, 3)."),
    (lambda: engines.ShapeSamples(np.ones((1, 2, 2)), H, ZV), ValueError,
     "reference must have shape (rows, joints) or (joints,), not (1, 2, 2)."),
    (lambda: engines.ImpulseSequence(amplitudes=[[1.0, 2.0]]), ValueError,
     "amplitudes must have shape (n,) or (n, 1), not (1, 2)."),
    (lambda: engines.ZvShaper(engines.VibrationMode()), ValueError,
     "natural_frequency_hz must be finite and positive."),
    (lambda: engines.EiShaper(MODE, vibration_tolerance=1.0), ValueError,
     "vibration_tolerance must lie in (0, 1)."),
    (lambda: engines.LiftedMpcSolver(H, 0), ValueError, "horizon_samples must be positive."),
    (lambda: shaping(object()), TypeError, "solver must be a LiftedMpcSolveSession, not object."),
    (lambda: shaping(None), ValueError, "solver must not be null."),
    (lambda: shaping(taken_solver()), RuntimeError, TAKEN),
    (lambda: taken_solver().Solve(REQUEST), RuntimeError, TAKEN),
    (lambda: shaping(FailingSolver()).Solve(REQUEST), LookupError, "no gains."),
    (lambda: engines.ScheduledShapingSession(EchoSolver(), MOVING, H).ResumeFrom(
        cw.SolveResumePoint()), RuntimeError, "The wrapped solver cannot resume."),
    (lambda: engines.ChooseShaper(engines.VibrationMode(natural_frequency_hz=450.0), 0.2,
                                  sample_time_s=H), ValueError,
     "The mode's band reaches the Nyquist frequency of sample_time_s: no shaper applied at that "
     "period can shape it."),
    (lambda: engines.ShapeSamples(REFERENCE, H, schedule(lambda pose: [])), ValueError,
     "The mode schedule must give at least one mode."),
    (lambda: engines.ShapeSamples(REFERENCE, H, schedule(FailingSolver().Solve)), LookupError,
     "no gains."),
    (lambda: engines.EstimateRingingModes(np.zeros(15), 1e3), ValueError,
     "The ringing recording is too short: it holds fewer than 16 samples."),
])
def test_errors_keep_class_and_message(call, error, message):
    with pytest.raises(Exception) as raised:
        call()
    assert type(raised.value) is error and str(raised.value) == message


def test_the_sampled_choice_is_judged_as_sampled_and_designs_end_where_the_query_says():
    choice = engines.ChooseShaper(MODE, 0.2, sample_time_s=H)
    assert engines.WorstVibration(choice.shaper, MODE, 0.2, sample_time_s=H) == choice.worst_vibration
    assert engines.MaximumDampingRatio(engines.ShaperKind.kZv) == 1.0
    end = engines.MaximumDampingRatio(kind=engines.ShaperKind.kEi, vibration_tolerance=0.2)
    with pytest.raises(ValueError, match="No EI shaper exists"):
        engines.EiShaper(engines.VibrationMode(natural_frequency_hz=1.0, damping_ratio=end + 1e-5),
                         0.2)


def test_every_kind_maps_to_its_design():
    designs = [engines.DesignShaper(kind=kind, mode=MODE) for kind in engines.kShaperKinds]
    assert [engines.ShaperName(kind) for kind in engines.kShaperKinds] == [
        "ZV", "MZV", "ZVD", "EI", "2H-EI", "3H-EI"]
    assert [len(design.amplitudes) for design in designs] == [2, 3, 3, 3, 4, 5]
    assert np.array_equal(designs[0].times_s, ZV.times_s)



@pytest.mark.parametrize("make_solver, expected", [
    (EchoSolver, engines.ShapeSamples(REFERENCE, H, ZV)),
    (lambda: engines.ScheduledShapingSession(EchoSolver(), MOVING, H),
     engines.ShapeSamples(engines.ShapeSamples(REFERENCE, H, ZV), H, MOVING)),
    (lambda: shaping(EchoSolver()), engines.ShapeSamples(engines.ShapeSamples(REFERENCE, H, ZV),
                                                         H, ZV)),
    (lambda: engines.LiftedMpcSolver(H, 4, engines.LiftedMpcWeights(acceleration_s4=0.0,
                                                                    acceleration_change_s4=0.0)),
     None)])
def test_shaping_stage_solves_on_the_worker_and_lives_with_the_buffer(make_solver, expected):
    solver = make_solver()
    alive = weakref.ref(solver)
    reference = cw.AppendableReferenceBuffer()
    buffer = cw.AppendableWindowBuffer(
        cw.AppendableLiftedMpcWindowProducer(shaping(solver), reference, 2, 4, H, 0), reference)
    del solver  # the shaping stage keeps it
    buffer.AppendReference(REFERENCE)
    buffer.Finish()
    buffer.Start()
    windows = list(iter(lambda: buffer.Pop(timeout=WAIT_S), None))
    assert buffer.IsComplete() and buffer.LastError() is None
    positions = np.vstack([window.positions for window in windows])
    if expected is None:  # unpenalised, the C++ solver tracks the shaped reference after a start
        expected = engines.ShapeSamples(REFERENCE, H, ZV)
        assert all(window.accelerations is not None for window in windows)
    np.testing.assert_allclose(positions[2:], expected[2:], atol=1e-9)
    del buffer, windows
    gc.collect()
    assert alive() is None


def test_replacing_a_nested_shaper_keeps_the_values_its_views_show():
    choice = engines.ShaperChoice(shaper=ZV)
    amplitudes = choice.shaper.amplitudes
    choice.shaper = engines.ImpulseSequence(amplitudes=[7.0, 8.0], times_s=[0.0, 1.0])
    assert amplitudes.tolist() == ZV.amplitudes.tolist()
