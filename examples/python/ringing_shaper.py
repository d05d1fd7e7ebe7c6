"""Tunes an input shaper from a recorded ringing of the machine.

Reads the ringing from a CSV file (a time column in seconds and a deflection column, '#' lines
are comments, one header line), estimates its mode, chooses the shortest shaper of the family
that keeps the residual vibration within the limit over the frequency band, and draws each
candidate's residual vibration against frequency to a PNG.
"""
import argparse
import pathlib

import numpy as np

from corvane_window import engines

RECORDING = pathlib.Path(__file__).with_name("ringing.csv")


def read_ringing(path):
    """The deflection samples of a recording and their rate [Hz], from its time column."""
    table = np.loadtxt(path, delimiter=",", comments="#", skiprows=2, ndmin=2)
    times_s, samples = table[:, 0], table[:, 1]
    return samples, (len(times_s) - 1) / (times_s[-1] - times_s[0])


def candidates(mode, vibration_limit):
    """Each design of the family for the mode, by name; a kind with no design is left out."""
    designs = {}
    for kind in engines.kShaperKinds:
        try:
            designs[engines.ShaperName(kind)] = engines.DesignShaper(kind, mode, vibration_limit)
        except ValueError as refused:
            print(f"{engines.ShaperName(kind):6s} none: {refused}")
    return designs


def plot(path, mode, designs, choice, uncertainty, vibration_limit):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    design_hz = mode.natural_frequency_hz
    frequencies_hz = np.linspace(0.3 * design_hz, 1.7 * design_hz, 400)
    figure, axis = plt.subplots(figsize=(8, 4.5))
    for name, shaper in designs.items():
        vibration = [engines.ResidualVibration(shaper, engines.VibrationMode(
            natural_frequency_hz=f, damping_ratio=mode.damping_ratio)) for f in frequencies_hz]
        chosen = name == engines.ShaperName(choice.kind)
        axis.plot(frequencies_hz, 100 * np.array(vibration), lw=3 if chosen else 1.2,
                  label=f"{name}, {1e3 * shaper.times_s[-1]:.0f} ms" + (" (chosen)" * chosen))
    axis.axvspan((1 - uncertainty) * design_hz, (1 + uncertainty) * design_hz, color="0.92")
    axis.axhline(100 * vibration_limit, color="0.5", ls="--", lw=1)
    axis.set(xlabel="natural frequency [Hz]", ylabel="residual vibration [%]", ylim=(0, 100),
             title=f"Shapers for {design_hz:.2f} Hz, damping ratio {mode.damping_ratio:.3f}")
    axis.legend()
    figure.tight_layout()
    figure.savefig(path, dpi=100)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("recording", nargs="?", default=RECORDING, help="the ringing (CSV)")
    parser.add_argument("--uncertainty", type=float, default=0.2,
                        help="frequency band to cover, as a fraction of the mode's (0.2: +-20 %%)")
    parser.add_argument("--limit", type=float, default=engines.kDefaultVibrationTolerance,
                        help="largest residual vibration allowed in the band (fraction)")
    parser.add_argument("--plot", metavar="FILE", default="ringing_shaper.png",
                        help="where to draw the candidates' vibration (PNG)")
    args = parser.parse_args()

    samples, rate_hz = read_ringing(args.recording)
    estimate = engines.EstimateRinging(samples, rate_hz)
    mode = estimate.mode
    print(f"mode   {mode.natural_frequency_hz:.1f} Hz, damping ratio {mode.damping_ratio:.3f} "
          f"({len(samples)} samples at {rate_hz:.0f} Hz, noise {estimate.noise_rms:.2g})")
    designs = candidates(mode, args.limit)
    for name, shaper in designs.items():
        worst = engines.WorstVibration(shaper, mode, args.uncertainty)
        print(f"{name:6s} {1e3 * shaper.times_s[-1]:5.1f} ms, worst {100 * worst:5.1f} %")
    choice = engines.ChooseShaper(mode, args.uncertainty, args.limit)
    print(f"chosen {engines.ShaperName(choice.kind)}: {1e3 * choice.duration_s:.1f} ms, worst "
          f"{100 * choice.worst_vibration:.1f} % within +-{100 * args.uncertainty:.0f} %")
    plot(args.plot, mode, designs, choice, args.uncertainty, args.limit)


if __name__ == "__main__":
    main()
