# Type stubs of the corvane_window.engines submodule.
# Subclasses of the module's interfaces declare only what they add.
import enum
from typing import Callable, Optional, overload

import numpy as np
import numpy.typing as npt

from corvane_window import (Array, ArrayLike, LiftedMpcSolveSession, TrajectoryWindowHandle,
                            WindowPayload, WindowSlice)

class VibrationMode:
    natural_frequency_hz: float
    damping_ratio: float
    def __init__(self, *, natural_frequency_hz: float = ...,
                 damping_ratio: float = ...) -> None: ...

class ImpulseSequence:
    amplitudes: Array
    times_s: Array
    def __init__(self, *, amplitudes: ArrayLike = ..., times_s: ArrayLike = ...) -> None: ...

def ValidateImpulseSequence(shaper: ImpulseSequence) -> None: ...
def ValidateVibrationMode(mode: VibrationMode) -> None: ...

class ShaperKind(enum.Enum):
    kZv = ...
    kMzv = ...
    kZvd = ...
    kEi = ...
    kTwoHumpEi = ...
    kThreeHumpEi = ...

kShaperKinds: tuple[ShaperKind, ...]
kDefaultVibrationTolerance: float

def ShaperName(kind: ShaperKind) -> str: ...
def ZvShaper(mode: VibrationMode) -> ImpulseSequence: ...
def MzvShaper(mode: VibrationMode) -> ImpulseSequence: ...
def ZvdShaper(mode: VibrationMode) -> ImpulseSequence: ...
def EiShaper(mode: VibrationMode, vibration_tolerance: float = ...) -> ImpulseSequence: ...
def TwoHumpEiShaper(mode: VibrationMode, vibration_tolerance: float = ...) -> ImpulseSequence: ...
def ThreeHumpEiShaper(mode: VibrationMode,
                      vibration_tolerance: float = ...) -> ImpulseSequence: ...
def DesignShaper(kind: ShaperKind, mode: VibrationMode,
                 vibration_tolerance: float = ...) -> ImpulseSequence: ...

def MaximumDampingRatio(kind: ShaperKind,
                        vibration_tolerance: float = ...) -> Optional[float]: ...

def ResidualVibration(shaper: ImpulseSequence, mode: VibrationMode) -> float: ...
def SampledResidualVibration(shaper: ImpulseSequence, mode: VibrationMode,
                             sample_time_s: float) -> float: ...
@overload
def WorstVibration(shaper: ImpulseSequence, mode: VibrationMode,
                   frequency_uncertainty: float) -> float: ...
@overload
def WorstVibration(shaper: ImpulseSequence, mode: VibrationMode, frequency_uncertainty: float, *,
                   sample_time_s: float) -> float: ...

class RingingEstimate:
    mode: VibrationMode
    amplitude: float
    noise_rms: float
    near_nyquist: bool
    def __init__(self, *, mode: VibrationMode = ..., amplitude: float = ...,
                 noise_rms: float = ..., near_nyquist: bool = ...) -> None: ...

class ShaperChoice:
    kind: ShaperKind
    shaper: ImpulseSequence
    duration_s: float
    worst_vibration: float
    def __init__(self, *, kind: ShaperKind = ..., shaper: ImpulseSequence = ...,
                 duration_s: float = ..., worst_vibration: float = ...) -> None: ...

def EstimateRinging(samples: ArrayLike, sample_rate_hz: float) -> RingingEstimate: ...
@overload
def ChooseShaper(mode: VibrationMode, frequency_uncertainty: float,
                 vibration_limit: float = ...) -> ShaperChoice: ...
@overload
def ChooseShaper(mode: VibrationMode, frequency_uncertainty: float, vibration_limit: float = ...,
                 *, sample_time_s: float) -> ShaperChoice: ...

def ShaperSamples(shaper: ImpulseSequence, sample_time_s: float) -> int: ...
@overload
def ShapeSamples(reference: ArrayLike, sample_time_s: float,
                 shaper: ImpulseSequence) -> npt.NDArray[np.float64]: ...
@overload
def ShapeSamples(reference: ArrayLike, sample_time_s: float,
                 schedule: ShaperSchedule) -> npt.NDArray[np.float64]: ...

class InputShaper(TrajectoryWindowHandle):
    def __init__(self, trajectory: ArrayLike, sample_time_s: float, shaper: ImpulseSequence,
                 window_samples: int) -> None: ...
    def shaped_samples(self) -> int: ...

class ShapingSolveSession(LiftedMpcSolveSession):
    def __init__(self, solver: LiftedMpcSolveSession, shaper: ImpulseSequence,
                 sample_time_s: float) -> None: ...

class LiftedMpcWeights:
    acceleration_s4: float
    acceleration_change_s4: float
    def __init__(self, *, acceleration_s4: float = ...,
                 acceleration_change_s4: float = ...) -> None: ...

class LiftedMpcSolver(LiftedMpcSolveSession):
    def __init__(self, sample_time_s: float, horizon_samples: int,
                 weights: LiftedMpcWeights = ...) -> None: ...
    def SolveInto(self, request: WindowSlice, window: WindowPayload) -> None: ...

class ModeBand:
    mode: VibrationMode
    frequency_uncertainty: float
    def __init__(self, *, mode: VibrationMode = ...,
                 frequency_uncertainty: float = ...) -> None: ...

class MultiModeChoice:
    kinds: list[ShaperKind | None]
    shaper: ImpulseSequence
    duration_s: float
    worst_vibration: Array
    def __init__(self, *, kinds: list[ShaperKind | None] = ..., shaper: ImpulseSequence = ...,
                 duration_s: float = ..., worst_vibration: ArrayLike = ...) -> None: ...

class ModeEstimate:
    mode: VibrationMode
    amplitude: float
    frequency_uncertainty_hz: float
    damping_uncertainty: float
    def __init__(self, *, mode: VibrationMode = ..., amplitude: float = ...,
                 frequency_uncertainty_hz: float = ...,
                 damping_uncertainty: float = ...) -> None: ...

class RingingModes:
    modes: list[ModeEstimate]
    noise_rms: float
    def __init__(self, *, modes: list[ModeEstimate] = ..., noise_rms: float = ...) -> None: ...

class ShaperSchedule:
    modes: Callable[[npt.NDArray[np.float64]], list[VibrationMode]] | None
    kind: ShaperKind
    vibration_tolerance: float
    longest_shaper_s: float
    def __init__(self, *,
                 modes: Callable[[npt.NDArray[np.float64]], list[VibrationMode]] | None = ...,
                 kind: ShaperKind = ..., vibration_tolerance: float = ...,
                 longest_shaper_s: float = ...) -> None: ...

def ConvolveShapers(first: ImpulseSequence, second: ImpulseSequence) -> ImpulseSequence: ...
def MultiModeShaper(kinds: list[ShaperKind | None], modes: list[VibrationMode],
                    vibration_tolerance: float = ...) -> ImpulseSequence: ...
def ChooseMultiModeShaper(bands: list[ModeBand],
                          vibration_limit: float = ...) -> MultiModeChoice: ...
def EstimateRingingModes(samples: ArrayLike, sample_rate_hz: float) -> RingingModes: ...
def ScheduledShaper(schedule: ShaperSchedule, pose: ArrayLike) -> ImpulseSequence: ...

class ScheduledShapingSession(LiftedMpcSolveSession):
    def __init__(self, solver: LiftedMpcSolveSession, schedule: ShaperSchedule,
                 sample_time_s: float) -> None: ...
