#include <kest/activation_calib/hfmg.h>

#include <vector>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

/// counts[i] values in [edges[i], edges[i + 1]); no bins without counts.
template <typename T>
std::vector<KestCommon::DataBin<T>> Bins(const Input<unsigned int>& counts, const Input<T>& edges) {
    std::vector<KestCommon::DataBin<T>> bins(counts.size());
    for (std::size_t i = 0; i < bins.size(); ++i) bins[i] = {counts.data()[i], edges.data()[i], edges.data()[i + 1]};
    return bins;
}

/// The histogram with the batch goes to newCounts and newEdges, as many bins as these have room for.
template <typename T>
void Add(const Input<unsigned int>& counts, const Input<T>& edges, const Input<T>& batch,
         const Output<unsigned int>& newCounts, const Output<T>& newEdges) {
    Run("hfmg.Calibrator.add", [&] {
        std::vector<KestCommon::DataBin<T>> bins = Bins(counts, edges);
        // It takes a pointer to values that may change, but only reads them.
        const KestCommon::InputData<T> input{Length(batch), const_cast<T*>(batch.data())};
        const int status = KestCommon::HfmgMerge(static_cast<int>(newCounts.size()), bins, input);
        if (status != STATUS_OK) return status;
        newEdges.data()[0] = bins[0].lowerBound;
        for (std::size_t i = 0; i < bins.size(); ++i) {
            newCounts.data()[i] = bins[i].count;
            newEdges.data()[i + 1] = bins[i].upperBound;
        }
        return STATUS_OK;
    });
}

template <typename T>
void Factors(const Input<unsigned int>& counts, const Input<T>& edges, unsigned int numBits, bool withOffset,
             const Output<float>& scale, const Output<int>& offset) {
    Run("hfmg.Calibrator.factors", [&] {
        std::vector<KestCommon::DataBin<T>> bins = Bins(counts, edges);
        return KestCommon::HfmgCompute(bins, scale.data()[0], offset.data()[0], {numBits, withOffset, Length(counts)});
    });
}

/// `bounds`: minimum, maximum.
template <typename T>
void ActivationArq(const Input<T>& bounds, unsigned int numBits, bool withOffset, const Output<float>& scale,
                   const Output<int>& offset) {
    Run("hfmg.activation_arq", [&] {
        return KestCommon::ActArqCalibration(bounds.data()[0], bounds.data()[1], View(scale), View(offset),
                                             {numBits, withOffset, 0});
    });
}

template <typename T>
void Bind(nb::module_& module) {
    module.def("hfmg_add", Add<T>, "counts"_a.noconvert(), "edges"_a.noconvert(), "batch"_a.noconvert(),
               "new_counts"_a.noconvert(), "new_edges"_a.noconvert());
    module.def("hfmg_factors", Factors<T>, "counts"_a.noconvert(), "edges"_a.noconvert(), "num_bits"_a, "with_offset"_a,
               "scale"_a.noconvert(), "offset"_a.noconvert());
    module.def("hfmg_activation_arq", ActivationArq<T>, "bounds"_a.noconvert(), "num_bits"_a, "with_offset"_a,
               "scale"_a.noconvert(), "offset"_a.noconvert());
}

}  // namespace

void BindHfmg(nb::module_& module) {
    Bind<float>(module);
    Bind<double>(module);
}

}  // namespace core
