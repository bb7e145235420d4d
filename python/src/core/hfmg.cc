#include <kest/activation_calib/hfmg.h>

#include <mutex>
#include <vector>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

/// The histogram of one calibrator. Calls of several threads wait for each other without the interpreter's lock.
template <typename T>
class HfmgBins {
public:
    explicit HfmgBins(int numBins) : numBins_(numBins) {}

    void Add(const Input<T>& batch) {
        Run("hfmg.Calibrator.add", [&] {
            const std::lock_guard<std::mutex> lock(mutex_);
            // It takes a pointer to values that may change, but only reads them.
            const KestCommon::InputData<T> input{Length(batch), const_cast<T*>(batch.data())};
            return KestCommon::HfmgMerge(numBins_, bins_, input);
        });
    }

    /// numBins counts, numBins + 1 edges.
    void Read(const Output<unsigned int>& counts, const Output<T>& edges) {
        Run("hfmg.Calibrator.histogram", [&] {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (bins_.empty() || counts.size() < bins_.size() || edges.size() <= bins_.size())
                return EMPTY_CONTAINER_ERROR;
            edges.data()[0] = bins_[0].lowerBound;
            for (std::size_t i = 0; i < bins_.size(); ++i) {
                counts.data()[i] = bins_[i].count;
                edges.data()[i + 1] = bins_[i].upperBound;
            }
            return STATUS_OK;
        });
    }

    void Factors(unsigned int numBits, bool withOffset, const Output<float>& scale, const Output<int>& offset) {
        Run("hfmg.Calibrator.factors", [&] {
            const std::lock_guard<std::mutex> lock(mutex_);
            const KestCommon::HfmgAlgoParam param{numBits, withOffset, static_cast<unsigned int>(numBins_)};
            return KestCommon::HfmgCompute(bins_, scale.data()[0], offset.data()[0], param);
        });
    }

private:
    int numBins_;
    std::mutex mutex_;
    std::vector<KestCommon::DataBin<T>> bins_;
};

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
void Bind(nb::module_& module, const char* className) {
    nb::class_<HfmgBins<T>>(module, className)
        .def(nb::init<int>(), "num_bins"_a)
        .def("add", &HfmgBins<T>::Add, "batch"_a.noconvert())
        .def("read", &HfmgBins<T>::Read, "counts"_a.noconvert(), "edges"_a.noconvert())
        .def("factors", &HfmgBins<T>::Factors, "num_bits"_a, "with_offset"_a, "scale"_a.noconvert(),
             "offset"_a.noconvert());
    module.def("hfmg_activation_arq", ActivationArq<T>, "bounds"_a.noconvert(), "num_bits"_a, "with_offset"_a,
               "scale"_a.noconvert(), "offset"_a.noconvert());
}

}  // namespace

void BindHfmg(nb::module_& module) {
    Bind<float>(module, "HfmgBinsFloat");
    Bind<double>(module, "HfmgBinsDouble");
}

}  // namespace core
