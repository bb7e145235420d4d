#include <kest/weight_quant/ulq.h>

#include <vector>

#include "kest_ops.h"

namespace kest_ops {
namespace {

class UlqOp : public GridKernel {
public:
    using GridKernel::GridKernel;

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        float clipMax = 0;
        float clipMin = 0;
        KestTfOp::Input<float> input{x.flat<float>().data(), 0, &clipMax, &clipMin};
        TF_RETURN_IF_ERROR(CountOf(x, input.length));
        TF_RETURN_IF_ERROR(ScalarOf(context, "clip_max", clipMax));
        TF_RETURN_IF_ERROR(ScalarOf(context, "clip_min", clipMin));
        KestTfOp::Output<float> output{nullptr, nullptr, nullptr, &clipMax, &clipMin};
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, output.data));
        TF_RETURN_IF_ERROR(Allocate(context, 1, {}, output.scale));
        TF_RETURN_IF_ERROR(Allocate(context, 2, {}, output.offset));
        return Run([&] { return KestTfOp::UlqFunctor<Device, float>()(input, output, numBits_); });
    }
};

REGISTER_OP("KestUlq")
    .Input("x: float")
    .Input("clip_max: float")
    .Input("clip_min: float")
    .Output("quantised: float")
    .Output("scale: float")
    .Output("offset: int32")
    .Attr("num_bits: int >= 2 = 8")
    .SetShapeFn(SameShape)
    .Doc("ULQ: x fake-quantised between learned bounds, and the scale and offset of their grid.");
REGISTER_KERNEL_BUILDER(Name("KestUlq").Device(tensorflow::DEVICE_CPU), UlqOp);

class UlqGradientOp : public GridKernel {
public:
    using GridKernel::GridKernel;

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& grad = context->input(0);
        const Tensor& x = context->input(1);
        if (grad.shape() != x.shape()) {
            return errors::InvalidArgument("a gradient of shape ", grad.shape().DebugString(),
                                           " does not go with x of ", x.shape().DebugString());
        }
        int length = 0;
        float clipMax = 0;
        float clipMin = 0;
        float scale = 0;
        int offset = 0;
        TF_RETURN_IF_ERROR(CountOf(x, length));
        TF_RETURN_IF_ERROR(ScalarOf(context, "clip_max", clipMax));
        TF_RETURN_IF_ERROR(ScalarOf(context, "clip_min", clipMin));
        TF_RETURN_IF_ERROR(ScalarOf(context, "scale", scale));
        TF_RETURN_IF_ERROR(ScalarOf(context, "offset", offset));
        float* toX = nullptr;
        float* toMax = nullptr;
        float* toMin = nullptr;
        TF_RETURN_IF_ERROR(Allocate(context, 0, x.shape(), toX));
        TF_RETURN_IF_ERROR(Allocate(context, 1, {}, toMax));
        TF_RETURN_IF_ERROR(Allocate(context, 2, {}, toMin));
        float upper = 0;  // where the forward pass clips
        float lower = 0;
        KestTfOp::ClipCalculate<Device, float>()(&scale, &offset, &upper, &lower, numBits_);  // cannot fail
        const float* in = x.flat<float>().data();
        const float* upstream = grad.flat<float>().data();
        for (int i = 0; i < length; ++i) toX[i] = in[i] > upper || in[i] < lower ? 0 : upstream[i];
        const std::vector<float> sums = KestCommon::UlqDiff(in, upstream, length, {upper, lower, clipMax, clipMin});
        *toMax = sums[0];
        *toMin = sums[1];
        return OkStatus();
    }
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
    .SetShapeFn([](InferenceContext* context) {
        ShapeHandle x;
        TF_RETURN_IF_ERROR(context->Merge(context->input(0), context->input(1), &x));
        context->set_output(0, x);
        for (const int output : {1, 2}) context->set_output(output, context->Scalar());
        for (int input = 2; input < context->num_inputs(); ++input) TF_RETURN_IF_ERROR(CheckRank(context, input, 0));
        return OkStatus();
    })
    .Doc("The gradients of KestUlq, with the scale and offset that it found.");
REGISTER_KERNEL_BUILDER(Name("KestUlqGradient").Device(tensorflow::DEVICE_CPU), UlqGradientOp);

class UlqClipCheckOp : public Kernel {
public:
    explicit UlqClipCheckOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("reset_min", &resetMin_));
    }

private:
    Status Call(OpKernelContext* context) override {
        float* repaired[4];
        int i = 0;
        for (const char* bound : {"clip_max", "clip_min", "last_max", "last_min"}) {
            TF_RETURN_IF_ERROR(Allocate(context, i, {}, repaired[i]));
            TF_RETURN_IF_ERROR(ScalarOf(context, bound, *repaired[i++]));
        }
        KestTfOp::ClipCheckFunctor<Device, float>()(repaired[0], repaired[1], *repaired[2], *repaired[3], resetMin_);
        return OkStatus();
    }

    bool resetMin_ = false;
};

REGISTER_OP("KestUlqClipCheck")
    .Input("clip_max: float")
    .Input("clip_min: float")
    .Input("last_max: float")
    .Input("last_min: float")
    .Output("repaired_max: float")
    .Output("repaired_min: float")
    .Output("good_max: float")
    .Output("good_min: float")
    .Attr("reset_min: bool = false")
    .SetShapeFn(SameShape)
    .Doc("ULQ: learned bounds repaired from the last good ones, and the last good ones from now on.");
REGISTER_KERNEL_BUILDER(Name("KestUlqClipCheck").Device(tensorflow::DEVICE_CPU), UlqClipCheckOp);

}  // namespace
}  // namespace kest_ops
