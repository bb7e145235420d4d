#include <kest/op_kernels/deployed_ops.h>

#include "kest_ops.h"

namespace kest_ops {
namespace {

using tensorflow::OpKernel;
using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;
using tensorflow::shape_inference::InferenceContext;

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

}  // namespace
}  // namespace kest_ops
