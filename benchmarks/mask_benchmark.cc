#include <kest/prune_balance/channel_prune.h>
#include <kest/prune_balance/mask_out.h>
#include <kest/prune_balance/selective_mask.h>

#include "bench.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace bench {
namespace {

// Masks of 64 x 64 over tensors.

struct Strides {
    const char* name;
    int row;
    int column;
};
constexpr Strides kStrides[] = {{"last axes", 64, 1},
                                {"last axes, rows faster", 1, 64},
                                {"before 9", 64 * 9, 9},
                                {"before 9, rows faster", 9, 64 * 9},
                                {"axes apart", 9 * 64, 1}};

const float* Mask() {
    static const std::vector<float> mask = [] {
        std::vector<float> made(64 * 64);
        std::transform(made.begin(), made.end(), NormalData(made.size()), made.begin(),
                       [](float, float x) { return x > 0 ? 1.0f : 0.0f; });
        return made;
    }();
    return mask.data();
}

void PlainMaskOut(const KestTfOp::MaskParam& param, const float* mask, const float* data, float* out) {
    for (int i = 0; i < param.length; ++i) {
        const int row = i / param.rowStride % param.rowNum;
        const int column = i / param.colStride % param.colNum;
        out[i] = mask[row * param.colNum + column] * data[i];
    }
}

void AddMaskOutRows(Size size, Strides strides) {
    const auto runWith = [=](auto maskOut) {
        return [=](float* out, int n) {
            maskOut({n, strides.row, strides.column, 64, 64}, Mask(), NormalData(n), out);
        };
    };
    AddAgainstPlain(std::string("mask out ") + strides.name, size, 8, true, runWith(PlainMaskOut),
                    runWith(KestTfOp::MaskOut<util::ThreadPoolDevice, float>()));
}

// N-of-M masks, every channel selected.

using SelectiveMaskGenKernel::SelectivePruneParam;

/// Without channels of zeros to fill the last group, the groups lie in the workspace as in the tensor.
void PlainChoose(const float* data, const float*, float* gathered, const SelectivePruneParam& param, float* mask) {
    std::size_t outer = 1;
    std::size_t inner = 1;
    for (std::size_t i = 0; i < param.axis; ++i) outer *= param.shape[i];
    for (std::size_t i = param.axis + 1; i < param.shape.size(); ++i) inner *= param.shape[i];
    const std::size_t numGroups = outer * (param.shape[param.axis] / param.groupSize);
    const std::size_t groupLength = param.groupSize * inner;
    std::copy_n(data, numGroups * groupLength, gathered);
    std::fill_n(mask, numGroups * groupLength, 0.0f);
    std::vector<unsigned int> candidates(param.groupSize);
    for (std::size_t first = 0; first < numGroups * groupLength; first += groupLength) {
        for (std::size_t t = 0; t < inner; ++t) {
            for (std::size_t k = 0; k < param.groupSize; ++k)
                candidates[k] = static_cast<unsigned int>(first + k * inner + t);
            std::sort(candidates.begin(), candidates.end(), [=](unsigned int a, unsigned int b) {
                const float x = std::fabs(gathered[a]);
                const float y = std::fabs(gathered[b]);
                return x == y ? a < b : x > y;
            });
            for (std::size_t k = 0; k < param.keepNum; ++k) mask[candidates[k]] = 1;
        }
    }
}

void AddChoiceRows(const std::string& layout, Size size, unsigned int axis, const std::vector<unsigned int>& shape) {
    static AlignedVector<float> gathered;
    static const std::vector<float> everyChannel(512, 1.0f);
    for (const unsigned int keepNum : {2, 4}) {
        const unsigned int groupSize = keepNum * keepNum;
        const SelectivePruneParam param{axis, groupSize, keepNum, shape};
        const auto runWith = [=](auto choose) {
            return [=](float* mask, int n) {
                gathered.resize(std::max(gathered.size(), static_cast<std::size_t>(n)));
                choose(NormalData(n), everyChannel.data(), gathered.data(), param, mask);
            };
        };
        AddAgainstPlain("mask of " + std::to_string(keepNum) + ":" + std::to_string(groupSize) + " channel " + layout,
                        size, 12, false, runWith(PlainChoose),
                        runWith(SelectiveMaskGenKernel::ComputeMask<util::ThreadPoolDevice, float>()));
    }
}

// Scores of 512 channels, one group.

using KestCommon::PruneParam;

void PlainNorms(int innerJump, const PruneParam& param, int length, const float* data, float* scores) {
    const int numChannels = param.numChannels;
    std::vector<float> norms(numChannels);
    for (int i = 0; i < length; ++i) {
        float& sum = norms[i / innerJump % numChannels];
        sum = static_cast<float>(double{data[i]} * double{data[i]} + double{sum});
    }
    const double divisor = length / numChannels * numChannels;
    for (float& norm : norms) norm = static_cast<float>(std::sqrt(double{norm}) / divisor);
    const auto [min, max] = std::minmax_element(norms.begin(), norms.end());
    for (int c = 0; c < numChannels; ++c) scores[c] = (norms[c] - *min) / (*max - *min);
}

void KestNorms(int innerJump, const PruneParam& param, int length, const float* data, float* scores) {
    std::vector<float> norms(param.numChannels);
    std::vector<float> sums(param.numChannels);
    KestCommon::ComputeSumNorm(innerJump, param, length, data, norms, sums, std::vector<int>(param.numChannels));
    std::copy(sums.begin(), sums.end(), scores);
}

}  // namespace

void AddMaskRows(Size size) {
    for (const Strides& strides : kStrides) AddMaskOutRows(size, strides);

    const auto n = static_cast<unsigned int>(size.n);
    AddChoiceRows("first", size, 0, {512, n / 512});
    AddChoiceRows("before 9", size, 1, {n / (64 * 9), 64, 3, 3});
    AddChoiceRows("last", size, 1, {n / 512, 512});

    const PruneParam param{512, {}, 1, {512}, {0}};
    for (const int innerJump : {1, 9, 49}) {
        const auto runWith = [=](auto score) {
            return [=](float* scores, int length) { score(innerJump, param, length, NormalData(length), scores); };
        };
        AddAgainstPlain("norms inner " + std::to_string(innerJump), size, 4, true, runWith(PlainNorms),
                        runWith(KestNorms));
    }
}

}  // namespace bench
