#include <kest/prune_balance/channel_prune.h>
#include <nanobind/stl/vector.h>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

/// `groupMasks` are the groups' masks side by side, a workspace.
template <typename T>
void KeepMask(const std::vector<Input<T>>& tensors, const std::vector<int>& innerJumps,
              const std::vector<unsigned int>& groupSizes, const std::vector<unsigned int>& pruneCounts,
              const Output<T>& groupMasks, const Output<T>& mask) {
    Run("prune.keep_mask", [&] {
        std::vector<const T*> inputs;
        std::vector<int> lengths;
        for (const Input<T>& tensor : tensors) {
            inputs.push_back(tensor.data());
            lengths.push_back(static_cast<int>(tensor.size()));
        }
        std::vector<T*> masks;
        T* groupMask = groupMasks.data();
        for (const unsigned int size : groupSizes) {
            masks.push_back(groupMask);
            groupMask += size;
        }
        // One group has no mask of all beside its own.
        if (groupSizes.size() == 1) masks.clear();
        masks.push_back(mask.data());
        const KestCommon::PruneParam param{
            static_cast<int>(mask.size()), {}, static_cast<int>(groupSizes.size()), groupSizes, pruneCounts};
        const KestCommon::ComputeRemainOut<util::ThreadPoolDevice, T> compute;
        return compute(inputs, lengths, innerJumps, param, masks);
    });
}

template <typename T>
void Bind(nb::module_& module) {
    module.def("prune_keep_mask", KeepMask<T>, "tensors"_a.noconvert(), "inner_jumps"_a, "group_sizes"_a,
               "prune_counts"_a, "group_masks"_a.noconvert(), "mask"_a.noconvert());
}

}  // namespace

void BindPrune(nb::module_& module) {
    module.def("prune_count", KestCommon::CalPruneNum, "num_channels"_a, "num_groups"_a, "ratio"_a, "align_to_16"_a);
    Bind<float>(module);
    Bind<double>(module);
}

}  // namespace core
