#include <kest/activation_calib/hfmg.h>
#include <kest/activation_calib/ifmr.h>
#include <tensorflow/core/framework/common_shape_fns.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <mutex>
#include <vector>

#include "kest_ops.h"
#include "resources.h"

namespace kest_ops {
namespace {

/// What the batches so far come to.
class Calibrator : public tensorflow::ResourceBase {
public:
    /// A batch that fails is not counted.
    Status Add(const float* batch, int length) {
        const std::lock_guard<std::mutex> lock(mutex_);
        TF_RETURN_IF_ERROR(AddLocked(batch, static_cast<unsigned int>(length)));
        hasBatch_ = true;
        return OkStatus();
    }

    /// One value each.
    Status Factors(float* scale, int* offset) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!hasBatch_) return errors::FailedPrecondition("no batch was added");
        return Run([&] { return FactorsLocked(scale, offset); });
    }

    std::string DebugString() const override { return "a calibrator of kest"; }

private:
    virtual Status AddLocked(const float* batch, unsigned int length) = 0;
    virtual int FactorsLocked(float* scale, int* offset) = 0;

    std::mutex mutex_;
    bool hasBatch_ = false;
};

template <typename Param>
Status GetGrid(OpKernelConstruction* context, Param& param) {
    int numBits;
    TF_RETURN_IF_ERROR(GetNumBits(context, numBits));
    param.numBits = static_cast<unsigned int>(numBits);
    return context->GetAttr("with_offset", &param.withOffset);
}

class HfmgCalibrator : public Calibrator {
public:
    using Param = KestCommon::HfmgAlgoParam;
    static Status GetParam(OpKernelConstruction* context, Param& param) {
        int numBins;
        TF_RETURN_IF_ERROR(context->GetAttr("num_bins", &numBins));
        param.numBins = static_cast<unsigned int>(numBins);
        return GetGrid(context, param);
    }

    explicit HfmgCalibrator(const Param& param) : param_(param) {}

private:
    using Bins = std::vector<KestCommon::DataBin<float>>;

    static uint64_t NumValues(const Bins& bins) {
        uint64_t count = 0;
        for (const auto& bin : bins) count += bin.count;
        return count;
    }

    Status AddLocked(const float* batch, unsigned int length) override {
        Bins wider = bins_;
        const KestCommon::InputData<float> input{length, const_cast<float*>(batch)};  // only read
        TF_RETURN_IF_ERROR(Run([&] { return KestCommon::HfmgMerge(static_cast<int>(param_.numBins), wider, input); }));
        if (!std::isfinite(wider.front().lowerBound) || !std::isfinite(wider.back().upperBound)) {
            return errors::InvalidArgument("a batch has to be finite: no histogram has infinite bounds");
        }
        if (NumValues(wider) != NumValues(bins_) + length) {  // the kernel's counts have wrapped
            return errors::InvalidArgument("a bin has to hold fewer than 2^32 values");
        }
        bins_.swap(wider);
        return OkStatus();
    }

    int FactorsLocked(float* scale, int* offset) override {
        return KestCommon::HfmgCompute(bins_, *scale, *offset, param_);
    }

    const Param param_;
    Bins bins_;
};

class IfmrCalibrator : public Calibrator {
public:
    using Param = KestCommon::IfmrParam;
    static Status GetParam(OpKernelConstruction* context, Param& param) {
        TF_RETURN_IF_ERROR(context->GetAttr("start_ratio", &param.startRatio));
        TF_RETURN_IF_ERROR(context->GetAttr("end_ratio", &param.endRatio));
        TF_RETURN_IF_ERROR(context->GetAttr("step", &param.step));
        TF_RETURN_IF_ERROR(context->GetAttr("max_percentile", &param.maxPercentile));
        TF_RETURN_IF_ERROR(context->GetAttr("min_percentile", &param.minPercentile));
        return GetGrid(context, param);
    }

    explicit IfmrCalibrator(const Param& param) : param_(param) {}

private:
    Status AddLocked(const float* batch, unsigned int length) override {
        if (length == 0) return StatusError(EMPTY_INPUT_ERROR, "");
        if (length > std::numeric_limits<unsigned int>::max() - values_.size()) {
            return errors::InvalidArgument("IFMR keeps fewer than 2^32 values");
        }
        values_.insert(values_.end(), batch, batch + length);
        return OkStatus();
    }

    int FactorsLocked(float* scale, int* offset) override {
        return KestCommon::IfmrQuant(values_.data(), static_cast<unsigned int>(values_.size()), param_, {1, scale},
                                     {1, offset});
    }

    const Param param_;
    std::vector<float> values_;
};

/// The extremes of all batches.
class ArqCalibrator : public Calibrator {
public:
    using Param = KestCommon::HfmgAlgoParam;
    static Status GetParam(OpKernelConstruction* context, Param& param) { return GetGrid(context, param); }

    explicit ArqCalibrator(const Param& param) : param_(param) {}

private:
    Status AddLocked(const float* batch, unsigned int length) override {
        if (length == 0) return StatusError(EMPTY_INPUT_ERROR, "");
        for (unsigned int i = 0; i < length; ++i) {  // not changed by NaN
            if (batch[i] < min_) min_ = batch[i];
            if (batch[i] > max_) max_ = batch[i];
        }
        return OkStatus();
    }

    int FactorsLocked(float* scale, int* offset) override {
        return KestCommon::ActArqCalibration<float>(min_, max_, {1, scale}, {1, offset}, param_);
    }

    const Param param_;
    float min_ = 0;  // a range contains zero
    float max_ = 0;
};

template <typename C>
class CalibratorOp : public Kernel {
public:
    explicit CalibratorOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, C::GetParam(context, param_));
    }

private:
    Status Call(OpKernelContext* context) override { return NewResource<Calibrator>(context, new C(param_)); }

    typename C::Param param_{};  // an IfmrParam that calibrates
};

REGISTER_OP("KestArqCalibrator")
    .Output("calibrator: resource")
    .Attr("num_bits: int >= 2 = 8")
    .Attr("with_offset: bool = true")
    .SetIsStateful()
    .SetShapeFn(tensorflow::shape_inference::ScalarShape)
    .Doc("A new activation ARQ calibrator, which keeps the extremes.");
REGISTER_KERNEL_BUILDER(Name("KestArqCalibrator").Device(tensorflow::DEVICE_CPU), CalibratorOp<ArqCalibrator>);

REGISTER_OP("KestHfmgCalibrator")
    .Output("calibrator: resource")
    .Attr("num_bits: int >= 2 = 8")
    .Attr("with_offset: bool = true")
    .Attr("num_bins: int >= 1 = 4096")
    .SetIsStateful()
    .SetShapeFn(tensorflow::shape_inference::ScalarShape)
    .Doc("A new HFMG calibrator, which counts batches into a histogram.");
REGISTER_KERNEL_BUILDER(Name("KestHfmgCalibrator").Device(tensorflow::DEVICE_CPU), CalibratorOp<HfmgCalibrator>);

REGISTER_OP("KestIfmrCalibrator")
    .Output("calibrator: resource")
    .Attr("num_bits: int >= 2 = 8")
    .Attr("with_offset: bool = true")
    .Attr("start_ratio: float = 0.7")
    .Attr("end_ratio: float = 1.3")
    .Attr("step: float = 0.01")
    .Attr("max_percentile: float = 0.999999")
    .Attr("min_percentile: float = 0.999999")
    .SetIsStateful()
    .SetShapeFn(tensorflow::shape_inference::ScalarShape)
    .Doc("A new IFMR calibrator, which keeps all values.");
REGISTER_KERNEL_BUILDER(Name("KestIfmrCalibrator").Device(tensorflow::DEVICE_CPU), CalibratorOp<IfmrCalibrator>);

class CalibratorAddOp : public Kernel {
public:
    using Kernel::Kernel;

private:
    Status Call(OpKernelContext* context) override {
        tensorflow::core::RefCountPtr<Calibrator> calibrator;
        TF_RETURN_IF_ERROR(ResourceOf(context, calibrator));
        const Tensor& batch = context->input(1);
        int length = 0;
        TF_RETURN_IF_ERROR(CountOf(batch, length));
        return calibrator->Add(batch.flat<float>().data(), length);
    }
};

REGISTER_OP("KestCalibratorAdd")
    .Input("calibrator: resource")
    .Input("batch: float")
    .SetIsStateful()
    .SetShapeFn([](InferenceContext* context) { return CheckRank(context, 0, 0); })
    .Doc("Shows a batch to a calibrator.");
REGISTER_KERNEL_BUILDER(Name("KestCalibratorAdd").Device(tensorflow::DEVICE_CPU), CalibratorAddOp);

class CalibratorFactorsOp : public Kernel {
public:
    using Kernel::Kernel;

private:
    Status Call(OpKernelContext* context) override {
        tensorflow::core::RefCountPtr<Calibrator> calibrator;
        TF_RETURN_IF_ERROR(ResourceOf(context, calibrator));
        float* scale = nullptr;
        int* offset = nullptr;
        TF_RETURN_IF_ERROR(Allocate(context, 0, {}, scale));
        TF_RETURN_IF_ERROR(Allocate(context, 1, {}, offset));
        return calibrator->Factors(scale, offset);
    }
};

REGISTER_OP("KestCalibratorFactors")
    .Input("calibrator: resource")
    .Output("scale: float")
    .Output("offset: int32")
    .SetIsStateful()
    .SetShapeFn([](InferenceContext* context) {
        for (const int output : {0, 1}) context->set_output(output, context->Scalar());
        return CheckRank(context, 0, 0);
    })
    .Doc("The scale and the offset of the batches that a calibrator has seen.");
REGISTER_KERNEL_BUILDER(Name("KestCalibratorFactors").Device(tensorflow::DEVICE_CPU), CalibratorFactorsOp);

}  // namespace
}  // namespace kest_ops
