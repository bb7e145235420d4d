#include <kest/activation_calib/ifmr.h>

#include <algorithm>

#include "kest_ops.h"

namespace kest_ops {
namespace {

class FakeQuantiseOp : public GridKernel {
public:
    using GridKernel::GridKernel;

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        int length = 0;
        float scale = 0;
        int offset = 0;
        float* quantised = nullptr;
        TF_RETURN_IF_ERROR(CountOf(x, length));
        TF_RETURN_IF_ERROR(ScalarOf(context, "scale", scale));
        TF_RETURN_IF_ERROR(ScalarOf(context, "offset", offset));
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, quantised));
        if (length == 0) return OkStatus();
        const float* in = x.flat<float>().data();
        if (quantised != in) std::copy_n(in, length, quantised);
        KestCommon::IfmrParam param{};
        param.calibration = 1;
        param.numBits = static_cast<unsigned int>(numBits_);
        return Run([&] {
            return KestCommon::IfmrQuant(quantised, static_cast<unsigned int>(length), param, {1, &scale},
                                         {1, &offset});
        });
    }
};

REGISTER_OP("KestFakeQuantise")
    .Input("x: float")
    .Input("scale: float")
    .Input("offset: int32")
    .Output("quantised: float")
    .Attr("num_bits: int >= 2 = 8")
    .SetShapeFn(SameShape)
    .Doc("x fake-quantised with the factors of a calibration.");
REGISTER_KERNEL_BUILDER(Name("KestFakeQuantise").Device(tensorflow::DEVICE_CPU), FakeQuantiseOp);

template <typename T>
class PercentileBoundsOp : public Kernel {
public:
    explicit PercentileBoundsOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("max_percentile", &maxPercentile_));
        Check(context, context->GetAttr("min_percentile", &minPercentile_));
    }

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& x = context->input(0);
        int length = 0;
        T* upper = nullptr;
        T* lower = nullptr;
        TF_RETURN_IF_ERROR(CountOf(x, length));
        TF_RETURN_IF_ERROR(Allocate(context, 0, {}, upper));
        TF_RETURN_IF_ERROR(Allocate(context, 1, {}, lower));
        auto* data = const_cast<T*>(x.flat<T>().data());  // only read
        KestCommon::MaxMinValue<T> bounds{};
        TF_RETURN_IF_ERROR(Run([&] {
            return KestCommon::FindMaxAndMinValueWithPercentile(data, static_cast<unsigned int>(length), bounds,
                                                                maxPercentile_, minPercentile_);
        }));
        *upper = bounds.maxValue;
        *lower = bounds.minValue;
        return OkStatus();
    }

    float maxPercentile_ = 0;
    float minPercentile_ = 0;
};

REGISTER_OP("KestPercentileBounds")
    .Input("x: T")
    .Output("upper: T")
    .Output("lower: T")
    .Attr("T: {float, double}")
    .Attr("max_percentile: float = 0.999999")
    .Attr("min_percentile: float = 0.999999")
    .SetShapeFn([](InferenceContext* context) {
        for (const int output : {0, 1}) context->set_output(output, context->Scalar());
        return OkStatus();
    })
    .Doc("The bounds of x by two percentiles; zero is within them.");
REGISTER_FLOATING("KestPercentileBounds", PercentileBoundsOp);

}  // namespace
}  // namespace kest_ops
