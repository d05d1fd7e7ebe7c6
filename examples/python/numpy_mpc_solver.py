"""A lifted model-predictive controller written in numpy, as a corvane_window solver.

Each joint is a double integrator: state position and velocity, input acceleration. Over a
horizon of N samples the predicted positions are P = Phi x0 + Gamma U, and the controller
minimises

    |R - P|^2 + w_a |U|^2 + w_j |D U - e0 a_prev|^2

with R the reference positions, D the first difference of U and a_prev the acceleration applied
last. The optimum is linear, U = K (R - Phi x0) + k a_prev with K = H^-1 Gamma^T,
k = w_j H^-1 e0 and H = Gamma^T Gamma + w_a I + w_j D^T D, so that K and k are computed once per
horizon length and all joints are solved by one matrix product. The first "apply_samples" rows
are applied and the state carries over to the next request.
"""
import time

import numpy as np

import corvane_window as cw


class NumpyMpcSolver(cw.LiftedMpcSolveSession):
    """Follows the reference of each request; the buffer's worker thread calls it."""

    def __init__(self, sample_time_s, horizon_samples, acceleration_s4=1e-9,
                 acceleration_change_s4=1e-8):
        super().__init__()
        self.h, self.horizon = sample_time_s, horizon_samples
        self.w_a, self.w_j = acceleration_s4, acceleration_change_s4
        self.gains = {}  # horizon length -> (Phi [N, 2], K [N, N], k [N])
        self.state = None  # position, velocity and last acceleration, one entry per joint

    def Prepare(self):
        """Starts at rest on the first request's first row; readies the expected gains."""
        self.state = None
        self._gains(self.horizon)

    def Finalize(self):
        self.state = None

    def Solve(self, request):
        started = time.perf_counter()
        reference = request.positions
        apply = int(request.metadata["apply_samples"])
        if self.state is None:
            self.state = (reference[0], np.zeros(reference.shape[1]), np.zeros(reference.shape[1]))
        position, velocity, last_acceleration = self.state
        free, gain, last_gain = self._gains(len(reference))
        error = reference - np.outer(free[:, 0], position) - np.outer(free[:, 1], velocity)
        accelerations = gain[:apply] @ error + np.outer(last_gain[:apply], last_acceleration)
        positions, velocities = self._apply(accelerations)
        return cw.WindowPayload(
            positions=positions, velocities=velocities, accelerations=accelerations,
            time_s=(request.start_index + np.arange(apply)) * self.h, stop_index=apply,
            compute_time_s=time.perf_counter() - started)

    def _apply(self, accelerations):
        """Applies the accelerations row by row, with the double integrator's exact steps."""
        position, velocity, _ = self.state
        h = self.h
        velocities = velocity + h * np.cumsum(accelerations, axis=0)
        before = np.vstack([velocity, velocities[:-1]])  # the velocity each step starts from
        positions = position + np.cumsum(h * before + 0.5 * h * h * accelerations, axis=0)
        self.state = (positions[-1], velocities[-1], accelerations[-1])
        return positions, velocities

    def _gains(self, horizon):
        if horizon not in self.gains:
            h, k = self.h, np.arange(horizon)
            free = np.column_stack([np.ones(horizon), h * (k + 1)])
            # Acceleration i moves the position of row k >= i by h^2 (k - i + 1/2).
            lag = k[:, None] - k[None, :]
            gamma = np.where(lag >= 0, h * h * (lag + 0.5), 0.0)
            difference = np.eye(horizon) - np.eye(horizon, k=-1)
            hessian = (gamma.T @ gamma + self.w_a * np.eye(horizon)
                       + self.w_j * difference.T @ difference)
            self.gains[horizon] = (free, np.linalg.solve(hessian, gamma.T),
                                   self.w_j * np.linalg.solve(hessian, np.eye(horizon)[:, 0]))
        return self.gains[horizon]
