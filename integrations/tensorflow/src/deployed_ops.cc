#include <kest/op_kernels/deployed_ops.h>
#include <kest/op_kernels/fast_softmax.h>

#include "kest_ops.h"

namespace kest_ops {
namespace {

class QuantiseOp : public OpKernel {
public:
    explicit QuantiseOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("num_bits", &numBits_));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        KestTfOp::QuantInputParam<float> param{};
        OP_REQUIRES_OK(context, CountOf(x, param.length));
        OP_REQUIRES_OK(context, ScalarOf(context->input(1), "scale", param.scale));
        OP_REQUIRES_OK(context, ScalarOf(context->input(2), "offset", param.offset));
        Tensor* codes = nullptr;
        OP_REQUIRES_OK(context, context->forward_input_or_allocate_output({0}, 0, x.shape(), &codes));
        param.input = x.flat<float>().data();
        param.numBits = numBits_;
        float* out = codes->flat<float>().data();
        OP_REQUIRES_OK(context, Run(name(), [&] { return KestTfOp::OrvaneQuantFunctor<Device, float>()(param, out); }));
    }

private:
    int numBits_;
};

REGISTER_OP("KestQuantise")
    .Input("x: float")
    .Input("scale: float")
    .Input("offset: float")
    .Output("codes: float")
    .Attr("num_bits: int >= 1 = 8")
    .SetShapeFn([](InferenceContext* context) {
        tensorflow::shape_inference::ShapeHandle scalar;
        TF_RETURN_IF_ERROR(context->WithRank(context->input(1), 0, &scalar));
        TF_RETURN_IF_ERROR(context->WithRank(context->input(2), 0, &scalar));
        context->set_output(0, context->input(0));
        return tensorflow::OkStatus();
    })
    .Doc("clamp(round(x * scale) + offset) - offset on the signed grid of num_bits: codes without their zero point.");
REGISTER_KERNEL_BUILDER(Name("KestQuantise").Device(tensorflow::DEVICE_CPU), QuantiseOp);

/// Sets the fields that place the channels of `x`: those along `axis`, or one for all if `factors` is a scalar.
template <typename Param>
tensorflow::Status SetChannels(const Tensor& x, const Tensor& factors, const char* name, int axis, Param& param) {
    TF_RETURN_IF_ERROR(CountOf(x, param.length));
    param.channelWise = factors.dims() != 0;
    param.channelFirst = true;  // with one element behind each channel, the last axis too
    Channels channels;
    if (param.channelWise) {
        TF_RETURN_IF_ERROR(ChannelsOf(x, axis, channels));
        TF_RETURN_IF_ERROR(CheckPerChannel(factors, name, channels.count));
    }
    param.channelNum = channels.count;
    param.innerSize = channels.inner;
    return tensorflow::OkStatus();
}

/// The shape of input 0, whose factors are input 1: a scalar or one a channel.
tensorflow::Status ShapeOfFactored(InferenceContext* context) {
    context->set_output(0, context->input(0));
    tensorflow::shape_inference::ShapeHandle factors;
    TF_RETURN_IF_ERROR(context->WithRankAtMost(context->input(1), 1, &factors));
    if (!context->RankKnown(factors) || context->Rank(factors) == 0) return tensorflow::OkStatus();
    int axis;
    TF_RETURN_IF_ERROR(context->GetAttr("axis", &axis));
    return MergeChannels(context, 0, axis, 1);
}

class DequantiseOp : public OpKernel {
public:
    explicit DequantiseOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("axis", &axis_));
        OP_REQUIRES_OK(context, context->GetAttr("multiplier", &multiplier_));
        OP_REQUIRES(context, multiplier_ != 0, tensorflow::errors::InvalidArgument("multiplier must not be 0"));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        const Tensor& words = context->input(1);
        KestTfOp::DequantInputParam<float> param{};
        OP_REQUIRES_OK(context, SetChannels(x, words, "words", axis_, param));
        Tensor* y = nullptr;
        OP_REQUIRES_OK(context, context->forward_input_or_allocate_output({0}, 0, x.shape(), &y));
        param.inputMultiplier = multiplier_;
        param.input = x.flat<float>().data();
        param.deqScale = words.flat<uint64_t>().data();
        float* out = y->flat<float>().data();
        OP_REQUIRES_OK(context,
                       Run(name(), [&] { return KestTfOp::OrvaneDequantFunctor<Device, float>()(param, out); }));
    }

private:
    int axis_;
    int multiplier_;
};

REGISTER_OP("KestDequantise")
    .Input("x: float")
    .Input("words: uint64")
    .Output("y: float")
    .Attr("axis: int = -1")
    .Attr("multiplier: int = 1")
    .SetShapeFn(ShapeOfFactored)
    .Doc("Accumulators to real values by a scale and a shift, one word of both or one a channel along axis.");
REGISTER_KERNEL_BUILDER(Name("KestDequantise").Device(tensorflow::DEVICE_CPU), DequantiseOp);

class AntiQuantiseOp : public OpKernel {
public:
    using OpKernel::OpKernel;

    void Compute(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        KestTfOp::AntiQuantInputParam<float> param{};
        OP_REQUIRES_OK(context, CountOf(x, param.length));
        OP_REQUIRES_OK(context, ScalarOf(context->input(1), "scale", param.scale));
        Tensor* y = nullptr;
        OP_REQUIRES_OK(context, context->forward_input_or_allocate_output({0}, 0, x.shape(), &y));
        param.input = x.flat<float>().data();
        float* out = y->flat<float>().data();
        OP_REQUIRES_OK(context,
                       Run(name(), [&] { return KestTfOp::OrvaneAntiQuantFunctor<Device, float>()(param, out); }));
    }
};

REGISTER_OP("KestAntiQuantise")
    .Input("x: float")
    .Input("scale: float")
    .Output("y: float")
    .SetShapeFn([](InferenceContext* context) {
        tensorflow::shape_inference::ShapeHandle scalar;
        TF_RETURN_IF_ERROR(context->WithRank(context->input(1), 0, &scalar));
        context->set_output(0, context->input(0));
        return tensorflow::OkStatus();
    })
    .Doc("x * scale: codes to real values.");
REGISTER_KERNEL_BUILDER(Name("KestAntiQuantise").Device(tensorflow::DEVICE_CPU), AntiQuantiseOp);

class AntiQuantiseWeightsOp : public OpKernel {
public:
    explicit AntiQuantiseWeightsOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("axis", &axis_));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& codes = context->input(0);
        const Tensor& offset = context->input(1);
        KestTfOp::WeightQuantInputParam<float> param{};
        OP_REQUIRES_OK(context, SetChannels(codes, offset, "offset", axis_, param));
        Tensor* y = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, codes.shape(), &y));
        param.weight = codes.flat<int8_t>().data();
        param.offset = offset.flat<int8_t>().data();
        float* out = y->flat<float>().data();
        OP_REQUIRES_OK(context,
                       Run(name(), [&] { return KestTfOp::OrvaneWeightQuantFunctor<Device, float>()(param, out); }));
    }

private:
    int axis_;
};

REGISTER_OP("KestAntiQuantiseWeights")
    .Input("codes: int8")
    .Input("offset: int8")
    .Output("y: float")
    .Attr("axis: int = -1")
    .SetShapeFn(ShapeOfFactored)
    .Doc("codes - offset, with one offset or one a channel along axis: weights without their zero point.");
REGISTER_KERNEL_BUILDER(Name("KestAntiQuantiseWeights").Device(tensorflow::DEVICE_CPU), AntiQuantiseWeightsOp);

template <typename T>
class FastSoftmaxOp : public OpKernel {
public:
    explicit FastSoftmaxOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("coeff_square", &param_.coeffSquare));
        OP_REQUIRES_OK(context, context->GetAttr("coeff_cube", &param_.coeffCube));
        OP_REQUIRES_OK(context, context->GetAttr("threshold", &param_.threshold));
        OP_REQUIRES(context, param_.threshold < 0, tensorflow::errors::InvalidArgument("threshold has to be negative"));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        KestTfOp::SoftmaxParam param = param_;
        OP_REQUIRES_OK(context, CountOf(x, param.length));
        Channels row;
        OP_REQUIRES_OK(context, ChannelsOf(x, -1, row));
        param.dims = {row.count};
        Tensor* y = nullptr;
        OP_REQUIRES_OK(context, context->forward_input_or_allocate_output({0}, 0, x.shape(), &y));
        const T* in = x.flat<T>().data();
        T* out = y->flat<T>().data();
        OP_REQUIRES_OK(context, Run(name(), [&] { return KestTfOp::FastSoftmaxFunctor<Device, T>()(in, out, param); }));
    }

private:
    KestTfOp::SoftmaxParam param_{};
};

REGISTER_OP("KestFastSoftmax")
    .Input("x: T")
    .Output("y: T")
    .Attr("T: {float, double}")
    .Attr("coeff_square: float = 0.5")
    .Attr("coeff_cube: float = 0.16666667")
    .Attr("threshold: float = -1.5")
    .SetShapeFn([](InferenceContext* context) {
        tensorflow::shape_inference::ShapeHandle rows;
        TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(0), 1, &rows));
        context->set_output(0, rows);
        return tensorflow::OkStatus();
    })
    .Doc("Softmax over the last axis with a cubic polynomial in place of the exponential.");
REGISTER_KERNEL_BUILDER(Name("KestFastSoftmax").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
                        FastSoftmaxOp<float>);
REGISTER_KERNEL_BUILDER(Name("KestFastSoftmax").Device(tensorflow::DEVICE_CPU).TypeConstraint<double>("T"),
                        FastSoftmaxOp<double>);

}  // namespace
}  // namespace kest_ops
