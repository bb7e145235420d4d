#include <kest/weight_quant/ulq.h>

#include <vector>

#include "kest_ops.h"

namespace kest_ops {
namespace {

class UlqOp : public OpKernel {
public:
    explicit UlqOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, GetNumBits(context, numBits_));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        int length = 0;
        float clipMax = 0;
        float clipMin = 0;
        OP_REQUIRES_OK(context, CountOf(x, length));
        OP_REQUIRES_OK(context, ScalarOf(context->input(1), "clip_max", clipMax));
        OP_REQUIRES_OK(context, ScalarOf(context->input(2), "clip_min", clipMin));
        Tensor* quantised = nullptr;
        Tensor* scale = nullptr;
        Tensor* offset = nullptr;
        OP_REQUIRES_OK(context, context->forward_input_or_allocate_output({0}, 0, x.shape(), &quantised));
        OP_REQUIRES_OK(context, context->allocate_output(1, {}, &scale));
        OP_REQUIRES_OK(context, context->allocate_output(2, {}, &offset));
        const KestTfOp::Input<float> input{x.flat<float>().data(), length, &clipMax, &clipMin};
        float clipMaxOut;
        float clipMinOut;
        const KestTfOp::Output<float> output{quantised->flat<float>().data(), scale->flat<float>().data(),
                                             offset->flat<int32_t>().data(), &clipMaxOut, &clipMinOut};
        OP_REQUIRES_OK(context,
                       Run(name(), [&] { return KestTfOp::UlqFunctor<Device, float>()(input, output, numBits_); }));
    }

private:
    int numBits_;
};

/// Shapes of outputs: input 0's, and two scalars. Inputs from `firstScalar` on are scalars.
template <int firstScalar>
tensorflow::Status ShapeOfUlq(InferenceContext* context) {
    tensorflow::shape_inference::ShapeHandle scalar;
    for (int input = firstScalar; input < context->num_inputs(); ++input)
        TF_RETURN_IF_ERROR(context->WithRank(context->input(input), 0, &scalar));
    tensorflow::shape_inference::ShapeHandle shape = context->input(0);
    for (int input = 1; input < firstScalar; ++input)
        TF_RETURN_IF_ERROR(context->Merge(shape, context->input(input), &shape));
    context->set_output(0, shape);
    for (const int output : {1, 2}) context->set_output(output, context->Scalar());
    return tensorflow::OkStatus();
}

REGISTER_OP("KestUlq")
    .Input("x: float")
    .Input("clip_max: float")
    .Input("clip_min: float")
    .Output("quantised: float")
    .Output("scale: float")
    .Output("offset: int32")
    .Attr("num_bits: int >= 2 = 8")
    .SetShapeFn(ShapeOfUlq<1>)
    .Doc("ULQ: x fake-quantised between learned bounds, and the scale and offset of their grid.");
REGISTER_KERNEL_BUILDER(Name("KestUlq").Device(tensorflow::DEVICE_CPU), UlqOp);

class UlqGradientOp : public OpKernel {
public:
    explicit UlqGradientOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, GetNumBits(context, numBits_));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& grad = context->input(0);
        const Tensor& x = context->input(1);
        OP_REQUIRES(context, grad.shape() == x.shape(),
                    tensorflow::errors::InvalidArgument("a gradient of shape ", grad.shape().DebugString(),
                                                        " does not go with x of ", x.shape().DebugString()));
        int length = 0;
        float clipMax = 0;
        float clipMin = 0;
        float scale = 0;
        int offset = 0;
        OP_REQUIRES_OK(context, CountOf(x, length));
        OP_REQUIRES_OK(context, ScalarOf(context->input(2), "clip_max", clipMax));
        OP_REQUIRES_OK(context, ScalarOf(context->input(3), "clip_min", clipMin));
        OP_REQUIRES_OK(context, ScalarOf(context->input(4), "scale", scale));
        OP_REQUIRES_OK(context, ScalarOf(context->input(5), "offset", offset));
        Tensor* toX = nullptr;
        Tensor* toMax = nullptr;
        Tensor* toMin = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, x.shape(), &toX));
        OP_REQUIRES_OK(context, context->allocate_output(1, {}, &toMax));
        OP_REQUIRES_OK(context, context->allocate_output(2, {}, &toMin));
        float upper = 0;  // where the forward pass clips
        float lower = 0;
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           return KestTfOp::ClipCalculate<Device, float>()(&scale, &offset, &upper, &lower, numBits_);
                       }));
        const float* in = x.flat<float>().data();
        const float* upstream = grad.flat<float>().data();
        float* out = toX->flat<float>().data();
        for (int i = 0; i < length; ++i) out[i] = in[i] > upper || in[i] < lower ? 0 : upstream[i];
        const std::vector<float> sums = KestCommon::UlqDiff(in, upstream, length, {upper, lower, clipMax, clipMin});
        toMax->scalar<float>()() = sums[0];
        toMin->scalar<float>()() = sums[1];
    }

private:
    int numBits_;
};

REGISTER_OP("KestUlqGradient")
    .Input("grad: float")
    .Input("x: float")
    .Input("clip_max: float")
    .Input("clip_min: float")
    .Input("scale: float")
    .Input("offset: int32")
    .Output("to_x: float")
    .Output("to_clip_max: float")
    .Output("to_clip_min: float")
    .Attr("num_bits: int >= 2 = 8")
    .SetShapeFn(ShapeOfUlq<2>)
    .Doc("The gradients of KestUlq, with the scale and offset that it found.");
REGISTER_KERNEL_BUILDER(Name("KestUlqGradient").Device(tensorflow::DEVICE_CPU), UlqGradientOp);

}  // namespace
}  // namespace kest_ops
