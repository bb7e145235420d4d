"""Figures, with matplotlib: pip install './python[plot]'. Not imported by kest itself."""

import numpy as np
import numpy.typing as npt
from matplotlib.axes import Axes
from matplotlib.figure import Figure

from kest.hfmg import Histogram


def _share_outside(histogram: Histogram, low: float, high: float) -> float:
    """The share of values outside a range, values spread evenly inside their bin."""
    edges = histogram.edges.astype(np.float64)
    lower, upper = edges[:-1], edges[1:]
    width = upper - lower

    def part(distance: npt.NDArray[np.float64]) -> npt.NDArray[np.float64]:
        """How much of every bin lies beyond a bound that is so far inside."""
        safe = np.where(width > 0, width, 1)
        return np.where(width > 0, np.clip(distance / safe, 0, 1), distance > 0)

    outside = part(low - lower) + part(upper - high)
    return float(np.sum(histogram.counts * outside) / np.sum(histogram.counts, dtype=np.float64))


def histogram(values: Histogram, clip_range: tuple[float, float], *, axes: Axes | None = None) -> Axes:
    """Draws a histogram, its counts on a logarithmic scale, and the clip range that was chosen for it.

    Args:
        values: from kest.hfmg.Calibrator.histogram.
        clip_range: from kest.ActivationFactors.clip_range.
        axes: where to draw; a figure of its own if None, which axes.figure.savefig writes to a file.

    Returns:
        The axes.

    Raises:
        ValueError: edges or bounds that are infinite or NaN, or bounds that are no range.
    """
    low, high = clip_range
    if not (low <= high and np.isfinite([low, high, *values.edges]).all()):
        raise ValueError("edges and clip_range have to be finite, the lower bound not above the upper one")
    if axes is None:
        axes = Figure(figsize=(8, 4.5), dpi=120, layout="constrained").subplots()
    left, right = min(low, float(values.edges[0])), max(high, float(values.edges[-1]))
    margin = 0.03 * (right - left)
    left, right = left - margin, right + margin

    # The outline keeps a bin in sight that is narrower than a pixel.
    blue = "#4477aa"
    axes.stairs(values.counts, values.edges, fill=True, color=blue, edgecolor=blue, linewidth=0.8, label="values")
    axes.axvspan(left, low, color="#bbbbbb", alpha=0.5, linewidth=0)
    share = 100 * _share_outside(values, low, high)
    axes.axvspan(high, right, color="#bbbbbb", alpha=0.5, linewidth=0, label=f"clipped: {share:.3g} % of the values")
    for bound, label in ((low, f"clip range: {low:.4g} to {high:.4g}"), (high, None)):
        axes.axvline(bound, color="#cc3311", linewidth=1.5, label=label)
    axes.set_yscale("log")
    axes.set_ylim(bottom=0.5)
    axes.set_xlim(left, right)
    axes.set_xlabel("value")
    axes.set_ylabel("values in a bin")
    axes.legend(loc="lower center", bbox_to_anchor=(0.5, 1), ncols=3, frameon=False)
    return axes
