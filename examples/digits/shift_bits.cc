#include "shift_bits.h"

#include <kest/kernel_frame/views.h>
#include <kest/weight_quant/search_n.h>
#include <kest/weight_quant/search_n_v2.h>

#include <string>
#include <utility>

#include "console.h"
#include "deploy.h"

namespace digits {
namespace {

/// The searches of one layer. All of it lives with the caller from the first batch to the last.
struct LayerSearch {
    int keptIndex = 0;  // each functor counts the batches
    int streamedIndex = 0;
    KestTfOp::SearchnInputParam<float> kept{};          // a row of values for each channel
    KestCommon::SearchnV2InputParam<float> streamed{};  // a row of sixteen errors for each channel
    ShiftBits found;
};

/// Hands the next batch of accumulators, which is only read, to both searches.
void AddBatch(Tensor& accumulators, int numBatches, LayerSearch& search) {
    const std::vector<int> shape{accumulators.n, accumulators.h, accumulators.w, accumulators.c};
    const int length = static_cast<int>(accumulators.data.size());
    std::vector<float> scales(accumulators.c, 1.0f);    // the accumulators are integers already
    std::vector<float> shiftsAsFloats(accumulators.c);  // what a framework's tensors hold

    search.kept.channelData.resize(accumulators.c);
    search.kept.length = length;
    search.kept.data = accumulators.data.data();
    search.found.kept.resize(accumulators.c);
    KestTfOp::Param keptParam{shape, true, "NHWC"};
    KestTfOp::SearchnQuantParam<float> keptResults{};
    keptResults.perTensor = false;
    keptResults.scale = scales.data();
    keptResults.shiftBits = search.found.kept.data();
    keptResults.shiftBitsFloat = shiftsAsFloats.data();
    const KestTfOp::SearchNFunctor<util::ThreadPoolDevice, float> searchKept;
    Check(searchKept(keptParam, search.keptIndex, numBatches, search.kept, keptResults), "SearchNFunctor");

    search.streamed.length = length;
    search.streamed.data = accumulators.data.data();
    search.found.streamed.resize(accumulators.c);
    KestTfOp::DataParam streamedParam{shape, true, "NHWC", shiftsAsFloats.data()};
    KestTfOp::SearchnV2QuantParam<float> streamedResults{false, search.found.streamed.data(), scales.data(),
                                                         accumulators.c};
    const KestTfOp::SearchNV2Functor<util::ThreadPoolDevice, float> searchStreamed;
    Check(searchStreamed(streamedParam, search.streamedIndex, numBatches, search.streamed, streamedResults),
          "SearchNV2Functor");
}

}  // namespace

std::vector<ShiftBits> FindShiftBits(const Network& network, const std::vector<Factors>& factors, const Images& images,
                                     int numBatches) {
    const Network quantised = FakeQuantise(network, factors);
    Network integers;
    for (size_t layer = 0; layer < network.size(); ++layer) {
        integers.push_back(IntegerLayer(network[layer], factors[layer]));
    }
    std::vector<LayerSearch> searches(network.size());
    Progress progress;
    for (int batch = 0; batch < numBatches; ++batch) {
        progress.Show("searching shift bits: batch " + std::to_string(batch + 1) + " of " + std::to_string(numBatches));
        Run(quantised, Slice(images.pixels, batch * kBatchSize, kBatchSize), [&](size_t layer, Tensor& input) {
            Tensor codes = input;
            ToCodes(codes.data, factors[layer]);
            FakeQuantiseInput(input.data, factors[layer]);
            Tensor accumulators = Convolve(codes, integers[layer]);
            AddBatch(accumulators, numBatches, searches[layer]);
        });
    }
    std::vector<ShiftBits> found;
    for (LayerSearch& search : searches) found.push_back(std::move(search.found));
    return found;
}

}  // namespace digits
