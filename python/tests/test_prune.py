"""Channel pruning against numpy and hand-worked counts."""

import kest
import numpy as np
import pytest


@pytest.mark.parametrize("arguments, aligned, pruned", [
    ((64, 0.5), False, 32), ((64, 0.6), True, 32), ((64, 0.6), False, 38), ((10, 1), False, 9),
    ((10, 0.5, 3), False, 7),
])
def test_prune_count(arguments, aligned, pruned):
    num_channels, ratio, *groups = arguments
    found = kest.prune.prune_count(num_channels, ratio, num_groups=groups[0] if groups else 1, align_to_16=aligned)
    assert found == pruned


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
@pytest.mark.parametrize("sizes, counts", [(None, [9]), ([12], [0]), ([4, 8], [2, 7]), ([3, 3, 6], [3, 0, 1])])
def test_the_weakest_channels_of_each_group_go(dtype, sizes, counts):
    rng = np.random.default_rng(8)
    strength = rng.permutation(12) + 1
    first = (rng.choice([-1, 1], (3, 3, 5, 12)) * strength).astype(dtype)
    second = (rng.choice([-1, 1], (12, 7)) * strength[:, None]).astype(dtype)
    found = kest.prune.keep_mask([first, second], [-1, 0], counts, group_sizes=sizes)
    begin = 0
    for size, count in zip(sizes or [12], counts):
        group = strength[begin:begin + size]
        np.testing.assert_array_equal(found[begin:begin + size], group > np.sort(np.append(0, group))[count])
        begin += size
    assert found.dtype == dtype


def test_scores_of_tensors_are_added():
    first = np.array([[0, 1, 10]], np.float32)   # norms mapped to 0, 0.1, 1
    second = np.array([[3], [1], [2]], np.float32)  # and to 1, 0, 0.5
    np.testing.assert_array_equal(kest.prune.keep_mask([first], [1], [1]), [0, 1, 1])
    np.testing.assert_array_equal(kest.prune.keep_mask([first, second], [1, 0], [1]), [1, 0, 1])


@pytest.mark.parametrize("call, name", [
    (lambda v: kest.prune.prune_count(4, 0.5, num_groups=5), "num_groups"),
    (lambda v: kest.prune.prune_count(4, 1.5), "ratio"),
    (lambda v: kest.prune.keep_mask([], [], [1]), "channel_axes"),
    (lambda v: kest.prune.keep_mask([v], [2], [1]), "channel_axes"),
    (lambda v: kest.prune.keep_mask([v, v], [0, 1], [1]), "tensors"),
    (lambda v: kest.prune.keep_mask([v], [0], [1, 1], group_sizes=[1, 2]), "group_sizes"),
    (lambda v: kest.prune.keep_mask([v], [0], [5]), "prune_counts"),
    (lambda v: kest.prune.keep_mask([v], [0], [1, 1]), "prune_counts"),
])
def test_arguments_that_do_not_fit(call, name):
    with pytest.raises(ValueError, match=f"^{name} (has|have) to"):
        call(np.ones((4, 6), np.float32))
    with pytest.raises(TypeError, match="tensors has to be float32"):
        kest.prune.keep_mask([np.ones((4, 6), np.float32), np.ones((4, 6))], [0, 0], [1])
