#include <kest/weight_quant/search_n.h>
#include <kest/weight_quant/search_n_v2.h>
#include <tensorflow/core/framework/common_shape_fns.h>
#include <tensorflow/core/framework/resource_handle.h>
#include <tensorflow/core/framework/resource_mgr.h>

#include <algorithm>
#include <climits>
#include <mutex>
#include <string>
#include <vector>

#include "kest_ops.h"

namespace kest_ops {
namespace {

/// Accumulators as kest takes them: a tensor of the shape (outer, channels, inner, 1), and its scales.
struct Accumulators {
    static constexpr const char* kFormat = "NCHW";

    tensorflow::Status Set(const Tensor& x, const Tensor& factors, int axis) {
        TF_RETURN_IF_ERROR(CountOf(x, length));
        if (length == 0) return tensorflow::errors::InvalidArgument("there are no accumulators");
        TF_RETURN_IF_ERROR(ChannelsOf(x, axis, channels));
        TF_RETURN_IF_ERROR(CheckPerChannel(factors, "scale", channels.count));
        shape = {length / channels.count / channels.inner, channels.count, channels.inner, 1};
        data = const_cast<float*>(x.flat<float>().data());  // only read, as the scales
        scale = const_cast<float*>(factors.flat<float>().data());
        return tensorflow::OkStatus();
    }

    int length = 0;
    Channels channels;
    std::vector<int> shape;
    float* data = nullptr;
    float* scale = nullptr;
};

/// What the operators on accumulators have in common: attributes and shapes.
class ShiftOp : public OpKernel {
public:
    explicit ShiftOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("axis", &axis_));
        OP_REQUIRES_OK(context, context->GetAttr("per_tensor", &perTensor_));
    }

protected:
    int axis_;
    bool perTensor_;
};

class ShiftSearchOp : public ShiftOp {
public:
    using ShiftOp::ShiftOp;

    void Compute(OpKernelContext* context) override {
        Accumulators x;
        OP_REQUIRES_OK(context, x.Set(context->input(0), context->input(1), axis_));
        Tensor* shiftBits = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, {perTensor_ ? 1 : x.channels.count}, &shiftBits));
        std::vector<int> bits(x.channels.count);
        std::vector<float> bitsFloat(x.channels.count);
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           KestTfOp::Param param{x.shape, true, Accumulators::kFormat};
                           KestTfOp::SearchnInputParam<float> input{std::vector<std::vector<float>>(x.channels.count),
                                                                    x.length, x.data};
                           KestTfOp::SearchnQuantParam<float> quant{perTensor_, bits.data(), nullptr,         nullptr,
                                                                    nullptr,    x.scale,     bitsFloat.data()};
                           int batchCounter = 0;
                           int batchNum = 1;
                           return KestTfOp::SearchNFunctor<Device, float>()(param, batchCounter, batchNum, input,
                                                                            quant);
                       }));
        std::copy_n(bits.begin(), shiftBits->NumElements(), shiftBits->flat<int32_t>().data());
    }
};

REGISTER_OP("KestShiftSearch")
    .Input("x: float")
    .Input("scale: float")
    .Output("shift_bits: int32")
    .Attr("axis: int = -1")
    .Attr("per_tensor: bool = false")
    .SetShapeFn([](InferenceContext* context) {
        int axis;
        bool perTensor;
        TF_RETURN_IF_ERROR(context->GetAttr("axis", &axis));
        TF_RETURN_IF_ERROR(context->GetAttr("per_tensor", &perTensor));
        TF_RETURN_IF_ERROR(MergeChannels(context, 0, axis, 1));
        context->set_output(0, perTensor ? context->Vector(1) : context->input(1));
        return tensorflow::OkStatus();
    })
    .Doc("The shift of least squared error for the accumulators of each channel along axis, or of all together.");
REGISTER_KERNEL_BUILDER(Name("KestShiftSearch").Device(tensorflow::DEVICE_CPU), ShiftSearchOp);

/// The errors of sixteen shifts so far, a row for each channel, or one for all. Calls of concurrent executors wait for
/// each other.
class ShiftErrors : public tensorflow::ResourceBase {
public:
    tensorflow::Status Add(const std::string& operatorName, const Accumulators& x, bool perTensor) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (numChannels_ != 0 && numChannels_ != x.channels.count) {
            return tensorflow::errors::InvalidArgument("accumulators of ", x.channels.count,
                                                       " channels do not go with those before, of ", numChannels_);
        }
        numChannels_ = x.channels.count;
        return Run(operatorName, [&] {
            KestTfOp::DataParam param{x.shape, true, Accumulators::kFormat, nullptr};
            KestTfOp::SearchnV2QuantParam<float> quant{perTensor, nullptr, x.scale, numChannels_};
            sums_.length = x.length;
            sums_.data = x.data;
            int batchCounter = 0;    // the first one, which sizes a table that is empty and keeps another
            int batchNum = INT_MAX;  // never the last one
            return KestTfOp::SearchNV2Functor<Device, float>()(param, batchCounter, batchNum, sums_, quant);
        });
    }

    /// One for each channel, or for all together; none before the first batch.
    std::vector<int> Find(bool perTensor) {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::vector<int> shiftBits(perTensor && numChannels_ != 0 ? 1 : numChannels_);
        util::IntData view{static_cast<unsigned int>(shiftBits.size()), shiftBits.data()};
        KestCommon::SearchNV2FindBestNCpu(sums_.errorTable, view, perTensor);  // cannot fail
        return shiftBits;
    }

    std::string DebugString() const override { return "a shift search of kest"; }

private:
    std::mutex mutex_;
    int numChannels_ = 0;
    KestCommon::SearchnV2InputParam<float> sums_{};
};

/// Makes the errors of a new search each time that it runs.
class ShiftErrorsOp : public OpKernel {
public:
    using OpKernel::OpKernel;

    void Compute(OpKernelContext* context) override {
        Tensor* handle = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, {}, &handle));
        handle->scalar<tensorflow::ResourceHandle>()() =
            tensorflow::ResourceHandle::MakeRefCountingHandle(new ShiftErrors, context->device()->name());
    }
};

REGISTER_OP("KestShiftErrors")
    .Output("errors: resource")
    .SetIsStateful()
    .SetShapeFn(tensorflow::shape_inference::ScalarShape)
    .Doc("A new shift search over batches, which keeps the errors of each shift.");
REGISTER_KERNEL_BUILDER(Name("KestShiftErrors").Device(tensorflow::DEVICE_CPU), ShiftErrorsOp);

class ShiftErrorsAddOp : public ShiftOp {
public:
    using ShiftOp::ShiftOp;

    void Compute(OpKernelContext* context) override {
        tensorflow::core::RefCountPtr<ShiftErrors> errors;
        OP_REQUIRES_OK(context, tensorflow::LookupResource(context, tensorflow::HandleFromInput(context, 0), &errors));
        Accumulators x;
        OP_REQUIRES_OK(context, x.Set(context->input(1), context->input(2), axis_));
        OP_REQUIRES_OK(context, errors->Add(name(), x, perTensor_));
    }
};

REGISTER_OP("KestShiftErrorsAdd")
    .Input("errors: resource")
    .Input("x: float")
    .Input("scale: float")
    .Attr("axis: int = -1")
    .Attr("per_tensor: bool = false")
    .SetIsStateful()
    .SetShapeFn([](InferenceContext* context) {
        int axis;
        TF_RETURN_IF_ERROR(context->GetAttr("axis", &axis));
        return MergeChannels(context, 1, axis, 2);
    })
    .Doc("Adds the errors of a batch of accumulators to a shift search.");
REGISTER_KERNEL_BUILDER(Name("KestShiftErrorsAdd").Device(tensorflow::DEVICE_CPU), ShiftErrorsAddOp);

class ShiftErrorsFindOp : public OpKernel {
public:
    explicit ShiftErrorsFindOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("per_tensor", &perTensor_));
    }

    void Compute(OpKernelContext* context) override {
        tensorflow::core::RefCountPtr<ShiftErrors> errors;
        OP_REQUIRES_OK(context, tensorflow::LookupResource(context, tensorflow::HandleFromInput(context, 0), &errors));
        const std::vector<int> found = errors->Find(perTensor_);
        OP_REQUIRES(context, !found.empty(), tensorflow::errors::FailedPrecondition(name(), ": no batch was added"));
        Tensor* shiftBits = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, {static_cast<int64_t>(found.size())}, &shiftBits));
        std::copy(found.begin(), found.end(), shiftBits->flat<int32_t>().data());
    }

private:
    bool perTensor_;
};

REGISTER_OP("KestShiftErrorsFind")
    .Input("errors: resource")
    .Output("shift_bits: int32")
    .Attr("per_tensor: bool = false")
    .SetIsStateful()
    .SetShapeFn([](InferenceContext* context) {
        bool perTensor;
        TF_RETURN_IF_ERROR(context->GetAttr("per_tensor", &perTensor));
        context->set_output(0, context->Vector(perTensor ? 1 : InferenceContext::kUnknownDim));
        return tensorflow::OkStatus();
    })
    .Doc("The shifts of least squared error over the batches of a search.");
REGISTER_KERNEL_BUILDER(Name("KestShiftErrorsFind").Device(tensorflow::DEVICE_CPU), ShiftErrorsFindOp);

}  // namespace
}  // namespace kest_ops
