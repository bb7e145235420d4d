#include <kest/op_kernels/batch_norm_fusion.h>
#include <kest/weight_quant/arq.h>
#include <kest/weight_quant/ulq.h>

#include <vector>

#include "kest_ops.h"

// The channels of weights are along their last axis.

namespace kest_ops {
namespace {

/// The weights as kest takes them; the kernels only read.
tensorflow::Status WeightsOf(const Tensor& weights, KestCommon::Input<float>& input) {
    TF_RETURN_IF_ERROR(CountOf(weights, input.length));
    Channels channels;
    TF_RETURN_IF_ERROR(ChannelsOf(weights, -1, channels));
    input.channelNum = channels.count;
    input.data = const_cast<float*>(weights.flat<float>().data());
    return tensorflow::OkStatus();
}

class ArqWeightsOp : public OpKernel {
public:
    explicit ArqWeightsOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, GetNumBits(context, numBits_));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& weights = context->input(0);
        KestCommon::Input<float> input{};
        OP_REQUIRES_OK(context, WeightsOf(weights, input));
        OP_REQUIRES(context, input.length > 0, tensorflow::errors::InvalidArgument("there are no weights"));
        Tensor* quantised = nullptr;
        Tensor* scale = nullptr;
        Tensor* offset = nullptr;
        OP_REQUIRES_OK(context, context->forward_input_or_allocate_output({0}, 0, weights.shape(), &quantised));
        OP_REQUIRES_OK(context, context->allocate_output(1, {input.channelNum}, &scale));
        OP_REQUIRES_OK(context, context->allocate_output(2, {input.channelNum}, &offset));
        const KestCommon::Output<float> output{quantised->flat<float>().data(), scale->flat<float>().data(),
                                               offset->flat<int32_t>().data()};
        OP_REQUIRES_OK(
            context, Run(name(), [&] { return KestTfOp::ArqQuantFunctor<Device, float>()(input, output, numBits_); }));
    }

private:
    int numBits_;
};

REGISTER_OP("KestArqWeights")
    .Input("weights: float")
    .Output("quantised: float")
    .Output("scale: float")
    .Output("offset: int32")
    .Attr("num_bits: int >= 2 = 8")
    .SetShapeFn([](InferenceContext* context) {
        tensorflow::shape_inference::ShapeHandle weights;
        TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(0), 1, &weights));
        context->set_output(0, weights);
        for (const int factors : {1, 2}) context->set_output(factors, context->Vector(context->Dim(weights, -1)));
        return tensorflow::OkStatus();
    })
    .Doc("ARQ: symmetric scales and offsets of the last axis, and the weights fake-quantised with them.");
REGISTER_KERNEL_BUILDER(Name("KestArqWeights").Device(tensorflow::DEVICE_CPU), ArqWeightsOp);

class FakeQuantiseWeightsOp : public OpKernel {
public:
    explicit FakeQuantiseWeightsOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, GetNumBits(context, numBits_));
        OP_REQUIRES_OK(context, context->GetAttr("reciprocal", &reciprocal_));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& weights = context->input(0);
        const Tensor& steps = context->input(1);
        KestCommon::Input<float> input{};
        OP_REQUIRES_OK(context, WeightsOf(weights, input));
        OP_REQUIRES_OK(context, CheckPerChannel(steps, "steps", input.channelNum));
        Tensor* quantised = nullptr;
        OP_REQUIRES_OK(context, context->forward_input_or_allocate_output({0}, 0, weights.shape(), &quantised));
        float* out = quantised->flat<float>().data();
        const float* scale = steps.flat<float>().data();
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           return KestTfOp::WtsFakeQuantFunctor<Device, float>()(input, out, scale, numBits_,
                                                                                 reciprocal_);
                       }));
    }

private:
    int numBits_;
    bool reciprocal_;
};

REGISTER_OP("KestFakeQuantiseWeights")
    .Input("weights: float")
    .Input("steps: float")
    .Output("quantised: float")
    .Attr("num_bits: int >= 2 = 8")
    .Attr("reciprocal: bool = false")
    .SetShapeFn([](InferenceContext* context) {
        context->set_output(0, context->input(0));
        return MergeChannels(context, 0, -1, 1);
    })
    .Doc("Weights fake-quantised with a learned step, or 1 / step, for each channel of the last axis.");
REGISTER_KERNEL_BUILDER(Name("KestFakeQuantiseWeights").Device(tensorflow::DEVICE_CPU), FakeQuantiseWeightsOp);

class FuseBatchNormOp : public OpKernel {
public:
    using OpKernel::OpKernel;

    void Compute(OpKernelContext* context) override {
        const Tensor& scale = context->input(0);
        int numChannels = 0;
        OP_REQUIRES_OK(context, CountOf(scale, numChannels));
        OP_REQUIRES_OK(context, CheckPerChannel(scale, "scale", numChannels));
        OP_REQUIRES_OK(context, CheckPerChannel(context->input(1), "gamma", numChannels));
        OP_REQUIRES_OK(context, CheckPerChannel(context->input(2), "variance", numChannels));
        float epsilon = 0;
        float multiplier = 0;
        OP_REQUIRES_OK(context, ScalarOf(context->input(3), "epsilon", epsilon));
        OP_REQUIRES_OK(context, ScalarOf(context->input(4), "multiplier", multiplier));
        Tensor* fused = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, scale.shape(), &fused));
        float* out = fused->flat<float>().data();
        std::vector<int> offsets(numChannels);  // which the fusion leaves alone
        const KestTfOp::RetrainWeightQuantParam weights{scale.flat<float>().data(), offsets.data(), out, offsets.data(),
                                                        numChannels};
        const KestTfOp::BnParam batchNorm{context->input(1).flat<float>().data(),
                                          context->input(2).flat<float>().data(), &epsilon, &multiplier};
        OP_REQUIRES_OK(context, Run(name(), [&] { return KestTfOp::FuseScaleWCpu(weights, batchNorm, out); }));
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
        tensorflow::shape_inference::ShapeHandle channels;
        TF_RETURN_IF_ERROR(context->WithRank(context->input(0), 1, &channels));
        for (const int other : {1, 2}) TF_RETURN_IF_ERROR(context->Merge(channels, context->input(other), &channels));
        tensorflow::shape_inference::ShapeHandle scalar;
        for (const int value : {3, 4}) TF_RETURN_IF_ERROR(context->WithRank(context->input(value), 0, &scalar));
        context->set_output(0, channels);
        return tensorflow::OkStatus();
    })
    .Doc("The weight scales of a layer whose weights the batch normalisation behind it is folded into.");
REGISTER_KERNEL_BUILDER(Name("KestFuseBatchNorm").Device(tensorflow::DEVICE_CPU), FuseBatchNormOp);

}  // namespace
}  // namespace kest_ops
