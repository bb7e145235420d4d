#include <kest/activation_calib/hfmg.h>
#include <kest/activation_calib/ifmr.h>
#include <tensorflow/core/framework/resource_handle.h>
#include <tensorflow/core/framework/resource_mgr.h>

#include <mutex>
#include <vector>

#include "kest_ops.h"

// A calibrator is a resource that lives as long as a handle to it. Calls of concurrent executors wait for each other.

namespace kest_ops {
namespace {

class Calibrator : public tensorflow::ResourceBase {
public:
    /// A kest status; a batch that fails is not counted.
    int Add(const float* batch, unsigned int length) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return AddLocked(batch, length);
    }

    /// One value each, of the batches so far.
    int Factors(float* scale, int* offset) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return FactorsLocked(scale, offset);
    }

    std::string DebugString() const override { return "a calibrator of kest"; }

private:
    virtual int AddLocked(const float* batch, unsigned int length) = 0;
    virtual int FactorsLocked(float* scale, int* offset) = 0;

    std::mutex mutex_;
};

class HfmgCalibrator : public Calibrator {
public:
    explicit HfmgCalibrator(const KestCommon::HfmgAlgoParam& param) : param_(param) {}

private:
    int AddLocked(const float* batch, unsigned int length) override {
        const KestCommon::InputData<float> input{length, const_cast<float*>(batch)};  // only read
        return KestCommon::HfmgMerge(static_cast<int>(param_.numBins), bins_, input);
    }

    int FactorsLocked(float* scale, int* offset) override {
        return KestCommon::HfmgCompute(bins_, *scale, *offset, param_);
    }

    const KestCommon::HfmgAlgoParam param_;
    std::vector<KestCommon::DataBin<float>> bins_;
};

class IfmrCalibrator : public Calibrator {
public:
    explicit IfmrCalibrator(const KestCommon::IfmrParam& param) : param_(param) {}

private:
    int AddLocked(const float* batch, unsigned int length) override {
        if (length > std::numeric_limits<unsigned int>::max() - values_.size()) return STATUS_BAD_PARAM;
        values_.insert(values_.end(), batch, batch + length);
        return STATUS_OK;
    }

    int FactorsLocked(float* scale, int* offset) override {
        return KestCommon::IfmrQuant(values_.data(), static_cast<unsigned int>(values_.size()), param_, {1, scale},
                                     {1, offset});
    }

    const KestCommon::IfmrParam param_;
    std::vector<float> values_;
};

/// The extremes of all batches.
class ArqCalibrator : public Calibrator {
public:
    explicit ArqCalibrator(const KestCommon::HfmgAlgoParam& param) : param_(param) {}

private:
    int AddLocked(const float* batch, unsigned int length) override {
        if (length == 0) return EMPTY_INPUT_ERROR;
        for (unsigned int i = 0; i < length; ++i) {  // not changed by NaN
            if (batch[i] < min_) min_ = batch[i];
            if (batch[i] > max_) max_ = batch[i];
        }
        hasBatch_ = true;
        return STATUS_OK;
    }

    int FactorsLocked(float* scale, int* offset) override {
        if (!hasBatch_) return EMPTY_CONTAINER_ERROR;
        return KestCommon::ActArqCalibration<float>(min_, max_, {1, scale}, {1, offset}, param_);
    }

    const KestCommon::HfmgAlgoParam param_;
    bool hasBatch_ = false;
    float min_ = 0;  // a range contains zero
    float max_ = 0;
};

/// Makes a calibrator each time that it runs.
class CalibratorOp : public OpKernel {
public:
    explicit CalibratorOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, GetNumBits(context, numBits_));
        OP_REQUIRES_OK(context, context->GetAttr("with_offset", &withOffset_));
    }

    void Compute(OpKernelContext* context) override {
        Tensor* handle = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, {}, &handle));
        handle->scalar<tensorflow::ResourceHandle>()() =
            tensorflow::ResourceHandle::MakeRefCountingHandle(New(), context->device()->name());
    }

protected:
    virtual Calibrator* New() const = 0;

    int numBits_;
    bool withOffset_;
};

class ArqCalibratorOp : public CalibratorOp {
public:
    using CalibratorOp::CalibratorOp;

private:
    Calibrator* New() const override {
        return new ArqCalibrator({static_cast<unsigned int>(numBits_), withOffset_, 0});
    }
};

class HfmgCalibratorOp : public CalibratorOp {
public:
    explicit HfmgCalibratorOp(OpKernelConstruction* context) : CalibratorOp(context) {
        OP_REQUIRES_OK(context, context->GetAttr("num_bins", &numBins_));
    }

private:
    Calibrator* New() const override {
        return new HfmgCalibrator(
            {static_cast<unsigned int>(numBits_), withOffset_, static_cast<unsigned int>(numBins_)});
    }

    int numBins_;
};

class IfmrCalibratorOp : public CalibratorOp {
public:
    explicit IfmrCalibratorOp(OpKernelConstruction* context) : CalibratorOp(context) {
        OP_REQUIRES_OK(context, context->GetAttr("start_ratio", &param_.startRatio));
        OP_REQUIRES_OK(context, context->GetAttr("end_ratio", &param_.endRatio));
        OP_REQUIRES_OK(context, context->GetAttr("step", &param_.step));
        OP_REQUIRES_OK(context, context->GetAttr("max_percentile", &param_.maxPercentile));
        OP_REQUIRES_OK(context, context->GetAttr("min_percentile", &param_.minPercentile));
        param_.numBits = static_cast<unsigned int>(numBits_);
        param_.withOffset = withOffset_;
    }

private:
    Calibrator* New() const override { return new IfmrCalibrator(param_); }

    KestCommon::IfmrParam param_{};  // calibration 0: calibrate
};

tensorflow::Status ScalarOutput(InferenceContext* context) {
    for (int output = 0; output < context->num_outputs(); ++output) context->set_output(output, context->Scalar());
    return tensorflow::OkStatus();
}

REGISTER_OP("KestArqCalibrator")
    .Output("calibrator: resource")
    .Attr("num_bits: int >= 2 = 8")
    .Attr("with_offset: bool = true")
    .SetIsStateful()
    .SetShapeFn(ScalarOutput)
    .Doc("A new activation ARQ calibrator, which keeps the extremes.");
REGISTER_KERNEL_BUILDER(Name("KestArqCalibrator").Device(tensorflow::DEVICE_CPU), ArqCalibratorOp);

REGISTER_OP("KestHfmgCalibrator")
    .Output("calibrator: resource")
    .Attr("num_bits: int >= 2 = 8")
    .Attr("with_offset: bool = true")
    .Attr("num_bins: int >= 1 = 4096")
    .SetIsStateful()
    .SetShapeFn(ScalarOutput)
    .Doc("A new HFMG calibrator, which counts batches into a histogram.");
REGISTER_KERNEL_BUILDER(Name("KestHfmgCalibrator").Device(tensorflow::DEVICE_CPU), HfmgCalibratorOp);

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
    .SetShapeFn(ScalarOutput)
    .Doc("A new IFMR calibrator, which keeps all values.");
REGISTER_KERNEL_BUILDER(Name("KestIfmrCalibrator").Device(tensorflow::DEVICE_CPU), IfmrCalibratorOp);

class CalibratorAddOp : public OpKernel {
public:
    using OpKernel::OpKernel;

    void Compute(OpKernelContext* context) override {
        tensorflow::core::RefCountPtr<Calibrator> calibrator;
        OP_REQUIRES_OK(context,
                       tensorflow::LookupResource(context, tensorflow::HandleFromInput(context, 0), &calibrator));
        const Tensor& batch = context->input(1);
        int length = 0;
        OP_REQUIRES_OK(context, CountOf(batch, length));
        const float* data = batch.flat<float>().data();
        OP_REQUIRES_OK(context, Run(name(), [&] { return calibrator->Add(data, static_cast<unsigned int>(length)); }));
    }
};

REGISTER_OP("KestCalibratorAdd")
    .Input("calibrator: resource")
    .Input("batch: float")
    .SetIsStateful()
    .SetShapeFn(tensorflow::shape_inference::NoOutputs)
    .Doc("Shows a batch to a calibrator.");
REGISTER_KERNEL_BUILDER(Name("KestCalibratorAdd").Device(tensorflow::DEVICE_CPU), CalibratorAddOp);

class CalibratorFactorsOp : public OpKernel {
public:
    using OpKernel::OpKernel;

    void Compute(OpKernelContext* context) override {
        tensorflow::core::RefCountPtr<Calibrator> calibrator;
        OP_REQUIRES_OK(context,
                       tensorflow::LookupResource(context, tensorflow::HandleFromInput(context, 0), &calibrator));
        Tensor* scale = nullptr;
        Tensor* offset = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, {}, &scale));
        OP_REQUIRES_OK(context, context->allocate_output(1, {}, &offset));
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           return calibrator->Factors(scale->flat<float>().data(), offset->flat<int32_t>().data());
                       }));
    }
};

REGISTER_OP("KestCalibratorFactors")
    .Input("calibrator: resource")
    .Output("scale: float")
    .Output("offset: int32")
    .SetIsStateful()
    .SetShapeFn(ScalarOutput)
    .Doc("The scale and the offset of the batches that a calibrator has seen.");
REGISTER_KERNEL_BUILDER(Name("KestCalibratorFactors").Device(tensorflow::DEVICE_CPU), CalibratorFactorsOp);

}  // namespace
}  // namespace kest_ops
