#ifndef KEST_PRUNE_BALANCE_CHANNEL_PRUNE_H_
#define KEST_PRUNE_BALANCE_CHANNEL_PRUNE_H_

#include <kest/kernel_frame/export.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>

#include <vector>

/// \file
/// Structured pruning by filter norms (Li et al., "Pruning Filters for Efficient ConvNets", 2017): the output channels
/// of a layer are scored by the L2 norms of the filters that make them, the weakest are pruned. Several tensors may
/// score the same channels: each adds its norms, mapped to [0, 1] within each group of channels. Groups are runs of
/// consecutive channels, pruned one by one.
///
/// A tensor is flat; element i belongs to channel (i / innerJump) mod K, with innerJump elements a channel behind the
/// channel axis and K = numChannels. Sums are formed a whole channel at a time in index order, so that they are the
/// same for any number of threads. Equal scores go by the lower channel; NaN scores count as the strongest, so that
/// such a channel is kept and seen. T = float, double.

namespace KestCommon {

/// The channels of a layer, their groups, and how many of each are pruned.
struct KEST_EXPORT PruneParam {
    int numChannels;                          ///< K
    std::vector<int> auxList;                 ///< unread
    int numGroups;                            ///< G
    std::vector<unsigned int> groupChannels;  ///< G sizes, K in total
    std::vector<unsigned int> groupPruneNum;  ///< G counts of channels to prune
};

/// How many of `numChannels` channels to prune, for a ratio from 0 to 1 and at most numChannels groups: numChannels
/// less the number kept, which is rounded up to a multiple of 16 if `alignTo16` (but not above numChannels), then down
/// to one of numGroups, and is at least numGroups. In single precision. What lies beyond is computed likewise: more
/// groups than channels give a negative count.
KEST_EXPORT int CalPruneNum(int numChannels, int numGroups, float pruneRatio, bool alignTo16);

/// Adds one tensor's scores to accNorms. Both vectors have K entries, groupOfChannel the group of each channel;
/// channels that it leaves out are not scored.
///
/// channelNorms, zeros to begin with, receives the squares of the channel's elements one by one, in double precision
/// and rounded to T each time; then becomes the root of the sum divided by (length / K) * the size of the channel's
/// group, an unsigned 32-bit integer that wraps around; and last its place between the smallest and the largest of its
/// group. A group of equal norms adds nothing; a NaN norm restarts the range of its group at the next channel. Parallel
/// over the channels with OpenMP's default team, but for an innerJump of 1 with channels of less than 16 KiB together.
///
/// 0, or EMPTY_INPUT_ERROR with one log line, nothing changed, for innerJump or K below 1.
template <typename T>
KEST_EXPORT int ComputeSumNorm(int innerJump, PruneParam param, int length, const T* data, std::vector<T>& channelNorms,
                               std::vector<T>& accNorms, std::vector<int> groupOfChannel);

/// The channels of a group, counted from its first, weakest score first.
template <typename T>
KEST_EXPORT std::vector<int> SortNorms(int group, PruneParam& param, std::vector<int>& groupOfChannel,
                                       std::vector<T>& accNorms);

template <typename Device, typename T>
struct KEST_EXPORT ComputeRemainOut;
template <typename Device, typename T>
struct KEST_EXPORT IdentityOutChannel;

/// The keep masks, 1 or 0 for each channel: masks[g] for the channels of group g, in which the groupPruneNum[g] weakest
/// are 0; and with two or more groups one more, all of them side by side. The three vectors of tensors have an entry
/// for each tensor, their number is the size of `lengths`.
///
/// 0; EMPTY_CONTAINER_ERROR with a log line for an empty `masks`; what ComputeSumNorm returns, with a second log line.
/// No mask is written then. Needs memory for some five words a channel.
template <>
struct KEST_EXPORT ComputeRemainOut<util::ThreadPoolDevice, float> {
    int operator()(std::vector<const float*> inputs, std::vector<int> lengths, std::vector<int> innerJumps,
                   PruneParam param, std::vector<float*> masks) const;
};
/// The same for double.
template <>
struct KEST_EXPORT ComputeRemainOut<util::ThreadPoolDevice, double> {
    int operator()(std::vector<const double*> inputs, std::vector<int> lengths, std::vector<int> innerJumps,
                   PruneParam param, std::vector<double*> masks) const;
};

/// Hands out masks made before: copies those of the groups and, with two or more groups, the one of all K channels,
/// which is the last of either vector. 0, or EMPTY_CONTAINER_ERROR with a log line if a vector is empty.
template <>
struct KEST_EXPORT IdentityOutChannel<util::ThreadPoolDevice, float> {
    int operator()(PruneParam& param, std::vector<float*>& inputs, std::vector<float*>& outputs) const;
};
/// The same for double.
template <>
struct KEST_EXPORT IdentityOutChannel<util::ThreadPoolDevice, double> {
    int operator()(PruneParam& param, std::vector<double*>& inputs, std::vector<double*>& outputs) const;
};

}  // namespace KestCommon

#endif  // KEST_PRUNE_BALANCE_CHANNEL_PRUNE_H_
