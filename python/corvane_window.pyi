# Type stubs of the corvane_window module: the names editors complete and type checkers check.
# They lie beside the module as corvane_window/__init__.pyi, with the submodule's engines.pyi.
import datetime
import enum
from typing import Optional, Sequence, overload

import numpy as np
import numpy.typing as npt

from . import engines as engines

__version__: str

Timeout = Optional[float | datetime.timedelta]
Array = npt.NDArray[np.float64]  # read-only view
ArrayLike = npt.ArrayLike  # (rows, joints), or (joints,) for one sample

class InvalidArgumentError(RuntimeError): ...

class WindowSlice:
    positions: Array
    velocities: Optional[Array]
    accelerations: Optional[Array]
    time_s: Optional[Array]
    start_index: int
    stop_index: int
    metadata: dict[str, str]
    def __init__(self, *, positions: ArrayLike = ..., velocities: Optional[ArrayLike] = ...,
                 accelerations: Optional[ArrayLike] = ..., time_s: Optional[ArrayLike] = ...,
                 start_index: int = ..., stop_index: int = ...,
                 metadata: dict[str, str] = ...) -> None: ...

class WindowPayload:
    positions: Array
    velocities: Optional[Array]
    accelerations: Optional[Array]
    time_s: Optional[Array]
    start_index: int
    stop_index: int
    compute_time_s: float
    metadata: dict[str, str]
    def __init__(self, *, positions: ArrayLike = ..., velocities: Optional[ArrayLike] = ...,
                 accelerations: Optional[ArrayLike] = ..., time_s: Optional[ArrayLike] = ...,
                 start_index: int = ..., stop_index: int = ..., compute_time_s: float = ...,
                 metadata: dict[str, str] = ...) -> None: ...

class TrajectoryWindow:
    command: Array
    states: Array
    command_velocity: Array
    command_acceleration: Array
    time_s: Array
    start_index: int
    stop_index: int
    vibration_shaping_weight_profile: Optional[Array]
    def __init__(self, *, command: ArrayLike = ..., states: ArrayLike = ...,
                 command_velocity: ArrayLike = ..., command_acceleration: ArrayLike = ...,
                 time_s: ArrayLike = ..., start_index: int = ..., stop_index: int = ...,
                 vibration_shaping_weight_profile: Optional[ArrayLike] = ...) -> None: ...

class ShapedTrajectoryWindow:
    positions: Array
    velocities: Array
    accelerations: Array
    time_s: Array
    start_index: int
    stop_index: int
    is_tail: bool
    compute_time_s: float
    def __init__(self, *, positions: ArrayLike = ..., velocities: ArrayLike = ...,
                 accelerations: ArrayLike = ..., time_s: ArrayLike = ..., start_index: int = ...,
                 stop_index: int = ..., is_tail: bool = ...,
                 compute_time_s: float = ...) -> None: ...

class TaskSpaceShapedTrajectory:
    positions: Array
    orientations: Optional[Array]
    velocities: Array
    accelerations: Array
    joint_positions: Array
    joint_velocities: Array
    joint_accelerations: Array
    time_s: Array
    def __init__(self, *, positions: ArrayLike = ..., orientations: Optional[ArrayLike] = ...,
                 velocities: ArrayLike = ..., accelerations: ArrayLike = ...,
                 joint_positions: ArrayLike = ..., joint_velocities: ArrayLike = ...,
                 joint_accelerations: ArrayLike = ..., time_s: ArrayLike = ...) -> None: ...

class TaskSpaceShapedWindow:
    trajectory: TaskSpaceShapedTrajectory
    start_index: int
    stop_index: int
    is_tail: bool
    compute_time_s: float
    def __init__(self, *, trajectory: TaskSpaceShapedTrajectory = ..., start_index: int = ...,
                 stop_index: int = ..., is_tail: bool = ...,
                 compute_time_s: float = ...) -> None: ...

class AppendedRange:
    start_index: int
    stop_index: int
    def __init__(self, *, start_index: int = ..., stop_index: int = ...) -> None: ...

class ReferenceWindow:
    positions: Array
    terminal_padding_samples: int
    def __init__(self, *, positions: ArrayLike = ...,
                 terminal_padding_samples: int = ...) -> None: ...

class QualificationReport:
    qualified: bool
    compute_fraction_limit: float
    prefill_windows: int
    max_compute_time_s: float
    p99_compute_time_s: float
    min_margin_s: float
    underrun_windows: int
    total_windows: int
    total_compute_time_s: float
    def __init__(self, *, qualified: bool = ..., compute_fraction_limit: float = ...,
                 prefill_windows: int = ..., max_compute_time_s: float = ...,
                 p99_compute_time_s: float = ..., min_margin_s: float = ...,
                 underrun_windows: int = ..., total_windows: int = ...,
                 total_compute_time_s: float = ...) -> None: ...

class ProductionTotals:
    total_windows: int
    total_compute_time_s: float
    max_compute_time_s: float
    def __init__(self, *, total_windows: int = ..., total_compute_time_s: float = ...,
                 max_compute_time_s: float = ...) -> None: ...

def ValidateWindowSlice(slice: WindowSlice) -> None: ...
def ValidateWindowPayload(payload: WindowPayload) -> None: ...
def ValidateShapedTrajectoryWindow(window: ShapedTrajectoryWindow) -> None: ...
def ValidateTrajectoryWindow(window: TrajectoryWindow) -> None: ...
def ValidateTaskSpaceShapedTrajectory(trajectory: TaskSpaceShapedTrajectory) -> None: ...
def ValidateTaskSpaceShapedWindow(window: TaskSpaceShapedWindow) -> None: ...

class AppendableReferenceBuffer:
    def __init__(self, joint_count: Optional[int] = None,
                 retention_samples: Optional[int] = None) -> None: ...
    def AppendReference(self, command: ArrayLike) -> AppendedRange: ...
    def Finish(self) -> None: ...
    def ExtendHoldTo(self, target_samples: int) -> int: ...
    def WindowWithTerminalPadding(self, start: int, stop: int) -> ReferenceWindow: ...
    def WaitUntilSamples(self, count: int, timeout: Timeout = None) -> bool: ...
    def available_samples(self) -> int: ...
    def is_finished(self) -> bool: ...
    def PositionsCopy(self) -> Array: ...
    def ReplaceReference(self, start_index: int, samples: ArrayLike,
                         finish: bool = False) -> AppendedRange: ...

class CommandSample:
    positions: Array
    velocities: Optional[Array]
    accelerations: Optional[Array]
    def __init__(self, positions: ArrayLike = ..., velocities: Optional[ArrayLike] = None,
                 accelerations: Optional[ArrayLike] = None) -> None: ...

class SolveResumePoint:
    start_index: int
    previous_command: Optional[CommandSample]
    reference_before: Array
    def __init__(self, *, start_index: int = ..., reference_before: ArrayLike = ...) -> None: ...

class ReferenceReplacement:
    start_index: int
    stop_index: int
    resume_index: int
    discarded_windows: int
    replacements: int
    def __init__(self, *, start_index: int = ..., stop_index: int = ..., resume_index: int = ...,
                 discarded_windows: int = ..., replacements: int = ...) -> None: ...

class ReplacementTotals:
    replacements: int
    discarded_windows: int
    discarded_compute_time_s: float
    discarded_duration_s: float
    def __init__(self, *, replacements: int = ..., discarded_windows: int = ...,
                 discarded_compute_time_s: float = ...,
                 discarded_duration_s: float = ...) -> None: ...

class WindowProducerSession:
    def __init__(self) -> None: ...
    def PrepareSession(self) -> None: ...
    def ProduceNext(self) -> Optional[WindowPayload]: ...
    def IsExhausted(self) -> bool: ...
    def Finalize(self) -> Optional[WindowPayload]: ...

class FiniteWindowProducer(WindowProducerSession):
    def __init__(self, mainline: Sequence[WindowPayload],
                 tail: Sequence[WindowPayload]) -> None: ...

class TrajectoryWindowHandle:
    def __init__(self) -> None: ...
    def Prepare(self) -> None: ...
    def Advance(self, steps: Optional[int]) -> None: ...
    def NextWindow(self) -> Optional[ShapedTrajectoryWindow]: ...
    def HasMoreWindows(self) -> bool: ...
    def Cancel(self) -> None: ...
    def Finalize(self) -> None: ...

class ShaperWindowProducer(WindowProducerSession):
    def __init__(self, handle: TrajectoryWindowHandle) -> None: ...

class LiftedMpcSolveSession:
    def __init__(self) -> None: ...
    def Prepare(self) -> None: ...
    def Solve(self, request: WindowSlice) -> WindowPayload: ...
    def Finalize(self) -> None: ...
    # Optional: a solver that implements ResumeFrom can resume after a replacement.
    def ResumeFrom(self, point: SolveResumePoint) -> None: ...
    def ResumeHistorySamples(self) -> int: ...

class AppendableLiftedMpcWindowProducer(WindowProducerSession):
    def __init__(self, solve_session: LiftedMpcSolveSession,
                 reference_buffer: AppendableReferenceBuffer, apply_samples: int,
                 lookahead_samples: int, sample_time_s: float,
                 global_start_index: int) -> None: ...

class WorkerPolicy(enum.Enum):
    kNormal = ...
    kFifo = ...
    kRoundRobin = ...

class WorkerSettings:
    policy: WorkerPolicy
    priority: int
    cpus: list[int]
    name: str
    def __init__(self, policy: WorkerPolicy = ..., priority: int = 0,
                 cpus: Sequence[int] = (), name: str = "") -> None: ...

class AsyncWindowBuffer:
    def __init__(self, producer: WindowProducerSession, prefill_windows: int = 0,
                 max_buffered_windows: Optional[int] = None,
                 statistics_retention_windows: Optional[int] = None) -> None: ...
    @overload
    def Start(self) -> None: ...
    @overload
    def Start(self, settings: WorkerSettings) -> None: ...
    def Stop(self) -> None: ...
    def Close(self) -> None: ...
    def Join(self, timeout: Timeout = None) -> bool: ...
    def Pop(self, timeout: Timeout = None) -> Optional[WindowPayload]: ...
    def PopNowait(self) -> Optional[WindowPayload]: ...
    def HasBufferedData(self) -> bool: ...
    def IsComplete(self) -> bool: ...
    def LastError(self) -> Optional[str]: ...
    def Prefill(self, max_windows: int) -> int: ...
    def Qualify(self, compute_fraction_limit: float) -> QualificationReport: ...
    def Totals(self) -> ProductionTotals: ...

class AppendableWindowBuffer(AsyncWindowBuffer):
    def __init__(self, producer: WindowProducerSession,
                 reference_buffer: AppendableReferenceBuffer, prefill_windows: int = 0,
                 max_buffered_windows: Optional[int] = None,
                 statistics_retention_windows: Optional[int] = None) -> None: ...
    def AppendReference(self, command: ArrayLike) -> AppendedRange: ...
    def Finish(self) -> None: ...
    def ReferencePositions(self) -> Array: ...
    def AvailableReferenceSamples(self) -> int: ...
    def ReplaceReference(self, start_index: int, samples: ArrayLike,
                         finish: bool = False) -> ReferenceReplacement: ...
    def EarliestReplaceableIndex(self) -> int: ...
    def StopSmoothly(self, hold_samples: int) -> ReferenceReplacement: ...
    def Replacements(self) -> ReplacementTotals: ...
