#include <kest/op_kernels/deployed_ops.h>
#include <kest/op_kernels/fast_softmax.h>

#include "kest_ops.h"

namespace kest_ops {
namespace {

class QuantiseOp : public Kernel {
public:
    explicit QuantiseOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("num_bits", &numBits_));
    }

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        KestTfOp::QuantInputParam<float> param{};
        float* codes = nullptr;
        TF_RETURN_IF_ERROR(CountOf(x, param.length));
        TF_RETURN_IF_ERROR(ScalarOf(context, "scale", param.scale));
        TF_RETURN_IF_ERROR(ScalarOf(context, "offset", param.offset));
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, codes));
        param.input = x.flat<float>().data();
        param.numBits = numBits_;
        return Run([&] { return KestTfOp::OrvaneQuantFunctor<Device, float>()(param, codes); });
    }

    int numBits_ = 0;
};

REGISTER_OP("KestQuantise")
    .Input("x: float")
    .Input("scale: float")
    .Input("offset: float")
    .Output("codes: float")
    .Attr("num_bits: int >= 1 = 8")
    .SetShapeFn(SameShape)
    .Doc("clamp(round(x * scale) + offset) - offset on the signed grid of num_bits: codes without their zero point.");
REGISTER_KERNEL_BUILDER(Name("KestQuantise").Device(tensorflow::DEVICE_CPU), QuantiseOp);

/// Sets the fields that place the channels of `x`: those along `axis`, or one for all if `factors` is a scalar.
template <typename Param>
Status SetChannels(const Tensor& x, const Tensor& factors, const char* name, int axis, Param& param) {
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
    return OkStatus();
}

/// The shape of input 0, whose factors are input 1: a scalar or one a channel.
Status ShapeOfFactored(InferenceContext* context) {
    context->set_output(0, context->input(0));
    ShapeHandle factors;
    TF_RETURN_IF_ERROR(context->WithRankAtMost(context->input(1), 1, &factors));
    if (!context->RankKnown(factors) || context->Rank(factors) == 0) return OkStatus();
    int axis;
    TF_RETURN_IF_ERROR(context->GetAttr("axis", &axis));
    return MergeChannels(context, 0, axis, 1);
}

class DequantiseOp : public Kernel {
public:
    explicit DequantiseOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("axis", &axis_));
        Check(context, context->GetAttr("multiplier", &multiplier_));
    }

private:
    Status Call(OpKernelContext* context) override {
        if (multiplier_ == 0) return errors::InvalidArgument("multiplier must not be 0");
        const Tensor& x = context->input(0);
        const Tensor& words = context->input(1);
        KestTfOp::DequantInputParam<float> param{};
        float* y = nullptr;
        TF_RETURN_IF_ERROR(SetChannels(x, words, "words", axis_, param));
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, y));
        param.inputMultiplier = multiplier_;
        param.input = x.flat<float>().data();
        param.deqScale = words.flat<uint64_t>().data();
        return Run([&] { return KestTfOp::OrvaneDequantFunctor<Device, float>()(param, y); });
    }

    int axis_ = 0;
    int multiplier_ = 0;
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

class AntiQuantiseOp : public Kernel {
public:
    using Kernel::Kernel;

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        KestTfOp::AntiQuantInputParam<float> param{};
        float* y = nullptr;
        TF_RETURN_IF_ERROR(CountOf(x, param.length));
        TF_RETURN_IF_ERROR(ScalarOf(context, "scale", param.scale));
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, y));
        param.input = x.flat<float>().data();
        return Run([&] { return KestTfOp::OrvaneAntiQuantFunctor<Device, float>()(param, y); });
    }
};

REGISTER_OP("KestAntiQuantise")
    .Input("x: float")
    .Input("scale: float")
    .Output("y: float")
    .SetShapeFn(SameShape)
    .Doc("x * scale: codes to real values.");
REGISTER_KERNEL_BUILDER(Name("KestAntiQuantise").Device(tensorflow::DEVICE_CPU), AntiQuantiseOp);

class AntiQuantiseWeightsOp : public Kernel {
public:
    explicit AntiQuantiseWeightsOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("axis", &axis_));
    }

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& codes = context->input(0);
        const Tensor& offset = context->input(1);
        KestTfOp::WeightQuantInputParam<float> param{};
        float* y = nullptr;
        TF_RETURN_IF_ERROR(SetChannels(codes, offset, "offset", axis_, param));
        TF_RETURN_IF_ERROR(Allocate(context, 0, codes.shape(), y));
        param.weight = codes.flat<int8_t>().data();
        param.offset = offset.flat<int8_t>().data();
        return Run([&] { return KestTfOp::OrvaneWeightQuantFunctor<Device, float>()(param, y); });
    }

    int axis_ = 0;
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
class FastSoftmaxOp : public Kernel {
public:
    explicit FastSoftmaxOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("coeff_square", &param_.coeffSquare));
        Check(context, context->GetAttr("coeff_cube", &param_.coeffCube));
        Check(context, context->GetAttr("threshold", &param_.threshold));
    }

private:
    Status Call(OpKernelContext* context) override {
        if (!(param_.threshold < 0)) return errors::InvalidArgument("threshold has to be negative");
        const Tensor& x = context->input(0);
        KestTfOp::SoftmaxParam param = param_;
        Channels row;
        T* y = nullptr;
        TF_RETURN_IF_ERROR(CountOf(x, param.length));
        TF_RETURN_IF_ERROR(ChannelsOf(x, -1, row));
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, y));
        param.dims = {row.count};
        return Run([&] { return KestTfOp::FastSoftmaxFunctor<Device, T>()(x.flat<T>().data(), y, param); });
    }

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
        ShapeHandle rows;
        TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(0), 1, &rows));
        context->set_output(0, rows);
        return OkStatus();
    })
    .Doc("Softmax over the last axis with a cubic polynomial in place of the exponential.");
REGISTER_FLOATING("KestFastSoftmax", FastSoftmaxOp);

}  // namespace
}  // namespace kest_ops
