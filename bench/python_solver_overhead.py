"""The cost of the worker thread calling a trivial Python solver, per window.

Three figures, each the median of several runs:
  direct   the solver's Solve called in a Python loop with a ready request (the baseline);
  worker   an AppendableWindowBuffer's worker driving the same solver through the lifted-MPC
           producer, from Start() to the end of Join(), one one-row window per call;
  native   the same worker replaying as many prepared windows (FiniteWindowProducer): the
           buffer's own cost per window, without Python.
"""
import statistics
import time

import numpy as np

import corvane_window as cw

WINDOWS, JOINTS, LOOKAHEAD, RUNS = 50000, 6, 8, 7


class TrivialSolver(cw.LiftedMpcSolveSession):
    """Answers every request with the same one-row window."""

    def __init__(self):
        super().__init__()
        self.answer = cw.WindowPayload(positions=np.zeros((1, JOINTS)), stop_index=1)

    def Prepare(self):
        pass

    def Finalize(self):
        pass

    def Solve(self, request):
        return self.answer


def direct_s():
    solver = TrivialSolver()
    request = cw.WindowSlice(positions=np.zeros((LOOKAHEAD, JOINTS)), stop_index=LOOKAHEAD,
                             metadata={"apply_samples": "1"})
    started = time.perf_counter()
    for _ in range(WINDOWS):
        solver.Solve(request)
    return time.perf_counter() - started


def run_worker(buffer):
    """Seconds from Start() to the end of Join(), after checking every window was produced."""
    started = time.perf_counter()
    buffer.Start()
    buffer.Join()
    elapsed = time.perf_counter() - started
    assert buffer.Qualify(1.0).total_windows == WINDOWS and buffer.LastError() is None
    return elapsed


def worker_s():
    stored = cw.AppendableReferenceBuffer(JOINTS)
    stored.AppendReference(np.zeros((WINDOWS, JOINTS)))
    stored.Finish()
    producer = cw.AppendableLiftedMpcWindowProducer(TrivialSolver(), stored, 1, LOOKAHEAD,
                                                    0.001, 0)
    return run_worker(cw.AppendableWindowBuffer(producer, stored))


def native_s():
    windows = [cw.WindowPayload(positions=np.zeros((1, JOINTS)), start_index=k, stop_index=k + 1)
               for k in range(WINDOWS)]
    return run_worker(cw.AsyncWindowBuffer(cw.FiniteWindowProducer(windows, [])))


def main():
    per_window_us = {name: 1e6 * statistics.median(measure() for _ in range(RUNS)) / WINDOWS
                     for name, measure in (("direct", direct_s), ("worker", worker_s),
                                           ("native", native_s))}
    print(f"{WINDOWS} windows of 1 x {JOINTS} from {LOOKAHEAD}-row requests, median of {RUNS} runs")
    for name, microseconds in per_window_us.items():
        print(f"  {name:<8} {microseconds:8.2f} us per window")
    direct, worker, native = (per_window_us[name] for name in ("direct", "worker", "native"))
    print(f"  worker / direct           {worker / direct:8.2f}")
    print(f"  worker - native - direct  {worker - native - direct:8.2f} us per window")


if __name__ == "__main__":
    main()
