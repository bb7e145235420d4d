#include <kest/kernel_frame/scale.h>
#include <kest/op_kernels/batch_norm_fusion.h>
#include <kest/weight_quant/arq.h>
#include <kest/weight_quant/ulq.h>

#include <vector>

#include "channels_first.h"
#include "kest_ops.h"

// The channels of weights are along their last axis.

namespace kest_ops {
namespace {

/// The weights as kest takes them; the kernels only read.
Status WeightsOf(const Tensor& weights, KestCommon::Input<float>& input) {
    TF_RETURN_IF_ERROR(CountOf(weights, input.length));
    Channels channels;
    TF_RETURN_IF_ERROR(ChannelsOf(weights, -1, channels));
    input.channelNum = channels.count;
    input.data = const_cast<float*>(weights.flat<float>().data());
    return OkStatus();
}

class ArqWeightsOp : public GridKernel {
public:
    explicit ArqWeightsOp(OpKernelConstruction* context) : GridKernel(context) {
        Check(context, context->GetAttr("with_offset", &withOffset_));
    }

private:
    Status Call(OpKernelContext* context) override {
        KestCommon::Input<float> weights{};
        TF_RETURN_IF_ERROR(WeightsOf(context->input(0), weights));
        if (weights.length == 0) return errors::InvalidArgument("there are no weights");
        const auto length = static_cast<unsigned int>(weights.length);
        const auto numChannels = static_cast<unsigned int>(weights.channelNum);
        float* quantised = nullptr;
        util::FloatData scale{numChannels, nullptr};
        util::IntData offset{numChannels, nullptr};
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, quantised));
        TF_RETURN_IF_ERROR(Allocate(context, 1, {numChannels}, scale.data));
        TF_RETURN_IF_ERROR(Allocate(context, 2, {numChannels}, offset.data));
        TF_RETURN_IF_ERROR(Run([&] {
            return KestCommon::WtsArqCalibrationCpuKernel(weights.data, length,
                                                          {static_cast<unsigned int>(numBits_), true, withOffset_},
                                                          scale, offset, util::KH_KW_CI_CO);
        }));
        KestCommon::ArqClipAndQuantKhKwCiCo(weights.data, quantised, length, numBits_, scale, offset);
        return OkStatus();
    }

    bool withOffset_ = false;
};

REGISTER_OP("KestArqWeights")
    .Input("weights: float")
    .Output("quantised: float")
    .Output("scale: float")
    .Output("offset: int32")
    .Attr("num_bits: int >= 2 = 8")
    .Attr("with_offset: bool = false")
    .SetShapeFn(WeightsAndFactors)
    .Doc("ARQ: a scale and an offset for each channel of the last axis, and the weights fake-quantised with them.");
REGISTER_KERNEL_BUILDER(Name("KestArqWeights").Device(tensorflow::DEVICE_CPU), ArqWeightsOp);

class ArqCodesOp : public GridKernel {
public:
    using GridKernel::GridKernel;

private:
    Status Call(OpKernelContext* context) override {
        if (numBits_ > 8) return errors::InvalidArgument("codes of ", numBits_, " bits do not fit bytes");
        ChannelsFirst weights;
        TF_RETURN_IF_ERROR(weights.Set(context->input(0)));
        const Tensor& scale = context->input(1);
        const Tensor& offset = context->input(2);
        TF_RETURN_IF_ERROR(CheckPerChannel(scale, "scale", weights.numChannels));
        TF_RETURN_IF_ERROR(CheckPerChannel(offset, "offset", weights.numChannels));
        int8_t* codes = nullptr;
        TF_RETURN_IF_ERROR(Allocate(context, 0, context->input(0).shape(), codes));
        std::vector<char> bytes(weights.data.size());
        const auto numChannels = static_cast<unsigned int>(weights.numChannels);
        TF_RETURN_IF_ERROR(Run([&] {  // the factors are only read
            return KestCommon::ArqQuantReal(weights.data.data(), static_cast<unsigned int>(bytes.size()),
                                            {static_cast<unsigned int>(numBits_), true, true},
                                            {numChannels, const_cast<float*>(scale.flat<float>().data())},
                                            {numChannels, const_cast<int*>(offset.flat<int32_t>().data())},
                                            bytes.data());
        }));
        weights.CopyToLast(bytes.data(), codes);
        return OkStatus();
    }
};

REGISTER_OP("KestArqCodes")
    .Input("weights: float")
    .Input("scale: float")
    .Input("offset: int32")
    .Output("codes: int8")
    .Attr("num_bits: int >= 2 = 8")
    .SetShapeFn(WeightsByFactors)
    .Doc(
        "The codes of weights, clamp(round(weights / scale) + offset), with factors of each channel of the last axis.");
REGISTER_KERNEL_BUILDER(Name("KestArqCodes").Device(tensorflow::DEVICE_CPU), ArqCodesOp);

class FakeQuantiseWeightsOp : public GridKernel {
public:
    explicit FakeQuantiseWeightsOp(OpKernelConstruction* context) : GridKernel(context) {
        Check(context, context->GetAttr("reciprocal", &reciprocal_));
    }

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& steps = context->input(1);
        KestCommon::Input<float> weights{};
        TF_RETURN_IF_ERROR(WeightsOf(context->input(0), weights));
        TF_RETURN_IF_ERROR(CheckPerChannel(steps, "steps", weights.channelNum));
        float* quantised = nullptr;
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, quantised));
        return Run([&] {
            return KestTfOp::WtsFakeQuantFunctor<Device, float>()(weights, quantised, steps.flat<float>().data(),
                                                                  numBits_, reciprocal_);
        });
    }

    bool reciprocal_ = false;
};

REGISTER_OP("KestFakeQuantiseWeights")
    .Input("weights: float")
    .Input("steps: float")
    .Output("quantised: float")
    .Attr("num_bits: int >= 2 = 8")
    .Attr("reciprocal: bool = false")
    .SetShapeFn(WeightsByFactors)
    .Doc("Weights fake-quantised with a learned step, or 1 / step, for each channel of the last axis.");
REGISTER_KERNEL_BUILDER(Name("KestFakeQuantiseWeights").Device(tensorflow::DEVICE_CPU), FakeQuantiseWeightsOp);

class InitialStepsOp : public GridKernel {
public:
    explicit InitialStepsOp(OpKernelConstruction* context) : GridKernel(context) {
        Check(context, context->GetAttr("reciprocal", &reciprocal_));
    }

private:
    Status Call(OpKernelContext* context) override {
        KestCommon::Input<float> weights{};
        TF_RETURN_IF_ERROR(WeightsOf(context->input(0), weights));
        float* steps = nullptr;
        TF_RETURN_IF_ERROR(Allocate(context, 0, {weights.channelNum}, steps));
        std::vector<float> highest(weights.channelNum);
        std::vector<float> lowest(weights.channelNum);
        return Run([&] {
            return KestTfOp::ScaleArqInit<Device, float>()(weights.length, weights.data, highest.data(), lowest.data(),
                                                           {steps, weights.channelNum, numBits_, reciprocal_});
        });
    }

    bool reciprocal_ = false;
};

REGISTER_OP("KestInitialSteps")
    .Input("weights: float")
    .Output("steps: float")
    .Attr("num_bits: int >= 2 = 8")
    .Attr("reciprocal: bool = false")
    .SetShapeFn([](InferenceContext* context) {
        ShapeHandle weights;
        TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(0), 1, &weights));
        context->set_output(0, context->Vector(context->Dim(weights, -1)));
        return OkStatus();
    })
    .Doc("The steps to learn from: those whose grid just fits the extremes of each channel of the last axis.");
REGISTER_KERNEL_BUILDER(Name("KestInitialSteps").Device(tensorflow::DEVICE_CPU), InitialStepsOp);

class StepScalesOp : public Kernel {
public:
    explicit StepScalesOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("reciprocal", &reciprocal_));
    }

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& steps = context->input(0);
        int count = 0;
        TF_RETURN_IF_ERROR(CountOf(steps, count));
        float* scale = nullptr;
        int* offset = nullptr;
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, scale));
        TF_RETURN_IF_ERROR(Allocate(context, 1, steps.shape(), offset));
        KestTfOp::ProcessScale<Device, float>()(steps.flat<float>().data(), scale, offset, count, reciprocal_);
        return OkStatus();
    }

    bool reciprocal_ = false;
};

REGISTER_OP("KestStepScales")
    .Input("steps: float")
    .Output("scale: float")
    .Output("offset: int32")
    .Attr("reciprocal: bool = false")
    .SetShapeFn([](InferenceContext* context) {
        for (const int output : {0, 1}) context->set_output(output, context->input(0));
        return OkStatus();
    })
    .Doc("The scales and offsets to deploy of learned steps.");
REGISTER_KERNEL_BUILDER(Name("KestStepScales").Device(tensorflow::DEVICE_CPU), StepScalesOp);

class FuseBatchNormOp : public Kernel {
public:
    using Kernel::Kernel;

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& scale = context->input(0);
        const Tensor& gamma = context->input(1);
        const Tensor& variance = context->input(2);
        int numChannels = 0;
        float epsilon = 0;
        float multiplier = 0;
        TF_RETURN_IF_ERROR(CountOf(scale, numChannels));
        TF_RETURN_IF_ERROR(CheckPerChannel(scale, "scale", numChannels));
        TF_RETURN_IF_ERROR(CheckPerChannel(gamma, "gamma", numChannels));
        TF_RETURN_IF_ERROR(CheckPerChannel(variance, "variance", numChannels));
        TF_RETURN_IF_ERROR(ScalarOf(context, "epsilon", epsilon));
        TF_RETURN_IF_ERROR(ScalarOf(context, "multiplier", multiplier));
        float* fused = nullptr;
        TF_RETURN_IF_ERROR(Allocate(context, 0, scale.shape(), fused));
        std::vector<int> offsets(numChannels);  // which the fusion leaves alone
        const KestTfOp::RetrainWeightQuantParam weights{scale.flat<float>().data(), offsets.data(), fused,
                                                        offsets.data(), numChannels};
        const KestTfOp::BnParam batchNorm{gamma.flat<float>().data(), variance.flat<float>().data(), &epsilon,
                                          &multiplier};
        return Run([&] { return KestTfOp::FuseScaleWCpu(weights, batchNorm, fused); });
    }
};

REGISTER_OP("KestFuseBatchNorm")
    .Input("scale: float")
    .Input("gamma: float")
    .Input("variance: float")
    .Input("epsilon: float")
    .Input("multiplier: float")
    .Output("fused: float")
    .SetShapeFn([](InferenceContext* context) {
        ShapeHandle channels;
        TF_RETURN_IF_ERROR(context->WithRank(context->input(0), 1, &channels));
        for (const int other : {1, 2}) TF_RETURN_IF_ERROR(context->Merge(channels, context->input(other), &channels));
        for (const int value : {3, 4}) TF_RETURN_IF_ERROR(CheckRank(context, value, 0));
        context->set_output(0, channels);
        return OkStatus();
    })
    .Doc("The weight scales of a layer whose weights the batch normalisation behind it is folded into.");
REGISTER_KERNEL_BUILDER(Name("KestFuseBatchNorm").Device(tensorflow::DEVICE_CPU), FuseBatchNormOp);

}  // namespace
}  // namespace kest_ops
