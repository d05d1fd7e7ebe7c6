"""Streams a multi-joint arm's reference through a numpy lifted-MPC solver.

A planner thread appends the reference in irregular blocks while the buffer's worker thread runs
the solver and the main thread plays the windows, in real time unless --fast. At the end it
reports how production kept up; --plot FILE draws reference against command per joint (PNG).
"""
import argparse
import threading
import time

import numpy as np

import corvane_window as cw
from numpy_mpc_solver import NumpyMpcSolver

PREFILL_WINDOWS, QUEUE_WINDOWS = 2, 4
COMPUTE_FRACTION_LIMIT = 0.5
STALL_S = 2.0  # a window that takes longer than this ends the demo with an error


def point_to_point_reference(joints, sample_time_s, duration_s):
    """Quintic moves from the zero pose to poses within +-0.8 rad, each ending in a short rest."""
    samples = round(duration_s / sample_time_s)
    moves = max(1, round(duration_s / 0.75))
    per_move = samples / moves
    poses = [np.zeros(joints)] + [0.8 * np.sin(1.7 * (move + 1) + 0.9 * np.arange(joints))
                                  for move in range(moves)]
    reference = np.empty((samples, joints))
    for move in range(moves):
        first, stop = round(per_move * move), round(per_move * (move + 1))
        s = np.minimum(1.0, np.arange(stop - first) / (0.8 * per_move))
        along = s ** 3 * (10.0 + s * (-15.0 + 6.0 * s))
        reference[first:stop] = poses[move] + np.outer(along, poses[move + 1] - poses[move])
    return reference


def stream_reference(buffer, reference, sample_time_s, start, fast):
    """Appends blocks of 20 to 150 rows, each 0.1 s before it plays, except that every sixth
    comes 20 ms late, when the producer has already held the last sample; all at once when fast."""
    blocks = np.random.default_rng(7)
    appended, block = 0, 0
    while appended < len(reference):
        rows, block = int(blocks.integers(20, 151)), block + 1
        if not fast:
            lead_s = -0.02 if block % 6 == 0 else 0.1
            due = start + buffer.AvailableReferenceSamples() * sample_time_s - lead_s
            time.sleep(max(0.0, due - time.monotonic()))
        buffer.AppendReference(reference[appended:appended + rows])
        appended += rows
    buffer.Finish()


def play(buffer, sample_time_s, start, fast):
    """Pops windows until the stream ends; returns the command and how long each Pop waited."""
    played, waits, due = [], [], start
    while True:
        asked = time.monotonic()
        window = buffer.Pop(timeout=STALL_S)
        arrived = time.monotonic()
        if window is None:
            if buffer.IsComplete():
                return np.vstack(played), np.array(waits)
            raise RuntimeError(f"No window arrived within {STALL_S} s.")
        waits.append(arrived - asked)
        played.append(window.positions)
        if not fast:  # a window that arrives late plays from its arrival
            due = max(due, arrived) + len(window.positions) * sample_time_s
            time.sleep(max(0.0, due - time.monotonic()))


def report(command, waits, hold_samples, wall_s, sample_time_s, qualification):
    rows = [("windows", len(waits)), ("samples", len(command)), ("hold samples", hold_samples),
            ("pop wait p50", f"{1e3 * np.quantile(waits, 0.5):.3f} ms"),
            ("pop wait p99", f"{1e3 * np.quantile(waits, 0.99):.3f} ms")]
    print(f"\nPlayed {len(command) * sample_time_s:.3f} s of motion in {wall_s:.3f} s")
    for label, value in rows:
        print(f"  {label:<22} {value:>14}")
    print(f"\nQualification at a compute fraction limit of {COMPUTE_FRACTION_LIMIT:.2f}")
    rows = [("qualified", "yes" if qualification.qualified else "no"),
            ("windows produced", qualification.total_windows),
            ("max compute time", f"{1e3 * qualification.max_compute_time_s:.3f} ms"),
            ("p99 compute time", f"{1e3 * qualification.p99_compute_time_s:.3f} ms"),
            ("min margin", f"{1e3 * qualification.min_margin_s:.3f} ms"),
            ("underrun windows", qualification.underrun_windows)]
    for label, value in rows:
        print(f"  {label:<22} {value:>14}")


def plot(path, reference, command, sample_time_s):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    joints = command.shape[1]
    figure, axes = plt.subplots(joints, 1, sharex=True, squeeze=False,
                                figsize=(10, 1.8 * joints + 0.6))
    times = np.arange(len(command)) * sample_time_s
    for joint, axis in enumerate(axes[:, 0]):
        axis.plot(times, reference[:len(command), joint], color="0.7", lw=4, label="reference")
        axis.plot(times, command[:, joint], color="tab:blue", label="command")
        axis.set_ylabel(f"joint {joint + 1} [rad]")
    axes[0, 0].legend(loc="upper right")
    axes[-1, 0].set_xlabel("time [s]")
    figure.suptitle("reference and command")
    figure.tight_layout()
    figure.savefig(path, dpi=100)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--joints", type=int, default=6)
    parser.add_argument("--rate", type=float, default=1000.0, help="sample rate [Hz]")
    parser.add_argument("--apply", type=int, default=10, help="samples a window")
    parser.add_argument("--lookahead", type=int, default=100, help="reference rows a solve")
    parser.add_argument("--duration", type=float, default=3.0, help="motion to plan [s]")
    parser.add_argument("--fast", action="store_true", help="play windows as they come")
    parser.add_argument("--plot", metavar="FILE", help="draw reference and command to a PNG")
    args = parser.parse_args()

    h = 1.0 / args.rate
    reference = point_to_point_reference(args.joints, h, args.duration)
    stored = cw.AppendableReferenceBuffer(args.joints)
    producer = cw.AppendableLiftedMpcWindowProducer(
        NumpyMpcSolver(h, args.lookahead), stored, args.apply, args.lookahead, h, 0)
    buffer = cw.AppendableWindowBuffer(producer, stored, PREFILL_WINDOWS, QUEUE_WINDOWS)
    start = time.monotonic()
    planner = threading.Thread(target=stream_reference,
                               args=(buffer, reference, h, start, args.fast))
    planner.start()
    # Started any earlier, the worker would charge its wait for the first sample to the first
    # window's compute time.
    stored.WaitUntilSamples(1)
    buffer.Start()
    command, waits = play(buffer, h, start, args.fast)
    planner.join()
    report(command, waits, buffer.AvailableReferenceSamples() - len(reference),
           time.monotonic() - start, h, buffer.Qualify(COMPUTE_FRACTION_LIMIT))
    if args.plot:
        plot(args.plot, buffer.ReferencePositions(), command, h)


if __name__ == "__main__":
    main()
