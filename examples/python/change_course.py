"""Change course while the machine moves, from Python: a lifted-MPC stream moves one joint
towards 1 rad, is re-targeted to -0.5 rad part-way, and is later stopped smoothly. Prints each
join with the steps of position, velocity and acceleration there, against the largest steps
anywhere else in the stream."""
import numpy as np

import corvane_window as cw
from corvane_window import engines


def blend(start, goal, rows):
    """`rows` samples from the reference `start` towards `goal`, without a kink, then at rest."""
    t = np.minimum(np.arange(rows) / 600.0, 1.0)
    base = np.concatenate([start, np.full(max(rows - len(start), 0), start[-1])])[:rows]
    return (base + (goal - base) * t**3 * (10 - 15 * t + 6 * t**2))[:, None]


def from_earliest(replace):
    """A pop may overtake the earliest index between the query and the call: ask again."""
    while True:
        try:
            return replace()
        except ValueError:
            pass


reference = cw.AppendableReferenceBuffer(joint_count=1)
buffer = cw.AppendableWindowBuffer(
    cw.AppendableLiftedMpcWindowProducer(engines.LiftedMpcSolver(0.001, 100), reference,
                                         10, 100, 0.001, 0), reference, max_buffered_windows=8)
buffer.AppendReference(blend(np.zeros(1), 1.0, 1500))
buffer.Start()

played, joins = [], []
while (window := buffer.Pop(timeout=5.0)) is not None:
    played.append(np.column_stack([window.positions, window.velocities, window.accelerations]))
    samples = sum(len(rows) for rows in played)
    if not joins and samples >= 400:  # a new goal: -0.5 rad
        def retarget():
            k = buffer.EarliestReplaceableIndex()
            old = reference.WindowWithTerminalPadding(k, k + 1000).positions[:, 0]
            return buffer.ReplaceReference(k, blend(old, -0.5, 1200))
        joins.append(from_earliest(retarget))
    elif len(joins) == 1 and samples >= 800:  # a stop request
        joins.append(from_earliest(lambda: buffer.StopSmoothly(hold_samples=800)))

command = np.concatenate(played)
steps = np.abs(np.diff(command, axis=0))
totals = buffer.Replacements()
print(f"{len(command)} samples played; {totals.discarded_windows} windows discarded by "
      f"{totals.replacements} replacements")
for join in joins:
    k = join.start_index
    elsewhere = np.delete(steps, k - 1, axis=0).max(axis=0)
    print(f"join at {k} (resumed at {join.resume_index}): " + ", ".join(
        f"{name} step {steps[k - 1, i]:.3g} (largest elsewhere {elsewhere[i]:.3g})"
        for i, name in enumerate(["position", "velocity", "acceleration"])))
