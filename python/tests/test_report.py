"""The error report and the plot: hand-worked figures, and what a figure shows."""

import dataclasses
import math

import kest
import numpy as np
import pytest


def test_figures_worked_by_hand():
    reference = np.array([[3, 4, 0], [0, 0, 0], [1, -2, 2]], np.float32)
    result = np.array([[3, 4, 0.5], [0, 0, 0], [-1, 2, -2]], np.float16)
    report = kest.report.compare(reference, result, channel_axis=0, clip_range=(-1, [3, 3, 1]))
    for found, expected in zip((*report.channels, report.overall), (
            (20, 25 / math.sqrt(25 * 25.25), 0.5, 1 / 3), (math.inf, 1, 0, 0), (10 * math.log10(9 / 36), -1, 4, 2 / 3),
            (10 * math.log10(34 / 36.25), 16 / math.sqrt(34 * 34.25), 4, 3 / 9)), strict=True):
        assert dataclasses.astuple(found) == pytest.approx(expected)
    moved = kest.report.compare(reference.T, result.T, channel_axis=-1, clip_range=(-1, [3, 3, 1]))
    assert moved == report
    plain = kest.report.compare(reference, result)
    assert plain == kest.report.Report(dataclasses.replace(plain.overall, clipped=None), ())
    assert plain.overall.snr_db == pytest.approx(report.overall.snr_db) and plain.overall.largest_error == 4


def test_zero_and_not_numbers():
    report = kest.report.compare([[0, 0], [1, 2], [np.nan, 1]], [[1, 0], [1, 2], [1, 1]], channel_axis=0,
                                 clip_range=(0, 2))
    assert report.channels[0] == kest.report.Errors(-math.inf, 0, 1, 0)
    assert report.channels[1].snr_db == math.inf and report.worst_channels() == [0, 2, 1]
    assert all(math.isnan(figure) for errors in (report.channels[2], report.overall)
               for figure in (errors.snr_db, errors.cosine, errors.largest_error, errors.clipped))


def test_the_text_shows_the_worst_channels_first():
    reference = np.ones((20, 10))
    result = reference + np.array([*range(12, 20), *range(12)])[:, np.newaxis] / 100
    lines = str(kest.report.compare(reference, result, channel_axis=0, clip_range=(0, 1))).splitlines()
    assert lines[0].split() == ["SNR", "(dB)", "cosine", "largest", "error", "clipped"]
    assert lines[1].split() == ["overall", "19.08", "0.998616", "0.19", "0.000", "%"]
    assert [line.split()[1] for line in lines[2:10]] == ["7", "6", "5", "4", "3", "2", "1", "0"]
    assert lines[10:] == ["(12 better channels)"]
    assert str(kest.report.compare([1.0], [1.0])).endswith("-")


def test_the_plot_shows_the_counts_and_the_clip_range(tmp_path):
    pytest.importorskip("matplotlib")  # an optional extra of the package
    from kest import plot

    values = kest.hfmg.Histogram(np.array([10, 40, 0, 50], np.uint32), np.arange(5, dtype=np.float32))
    axes = plot.histogram(values, (0.5, 2.5))  # half of the first bin and all of the last are outside
    labels = [text.get_text() for text in axes.get_legend().get_texts()]
    assert labels == ["values", "clipped: 55 % of the values", "clip range: 0.5 to 2.5"]
    np.testing.assert_array_equal(axes.patches[0].get_data().values, values.counts)
    assert [line.get_xdata()[0] for line in axes.lines] == [0.5, 2.5]
    axes.figure.savefig(tmp_path / "histogram.png")
    assert plot.histogram(values, (0, 1), axes=axes) is axes
    constant = kest.hfmg.Calibrator(num_bins=8)
    constant.add(np.zeros(5, np.float32))
    axes = plot.histogram(constant.histogram(), constant.factors().clip_range())
    assert "clipped: 0 % of the values" in axes.get_legend().get_texts()[1].get_text()
