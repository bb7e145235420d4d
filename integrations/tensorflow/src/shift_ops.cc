#include <kest/weight_quant/search_n.h>
#include <kest/weight_quant/search_n_v2.h>
#include <tensorflow/core/framework/common_shape_fns.h>

#include <algorithm>
#include <climits>
#include <mutex>
#include <string>
#include <vector>

#include "kest_ops.h"
#include "resources.h"

namespace kest_ops {
namespace {

/// Accumulators as kest takes them: a tensor of the shape (outer, channels, inner, 1), and its scales.
struct Accumulators {
    static constexpr const char* kFormat = "NCHW";

    Status Set(const Tensor& x, const Tensor& factors, int axis) {
        TF_RETURN_IF_ERROR(CountOf(x, length));
        if (length == 0) return errors::InvalidArgument("there are no accumulators");
        TF_RETURN_IF_ERROR(ChannelsOf(x, axis, channels));
        TF_RETURN_IF_ERROR(CheckPerChannel(factors, "scale", channels.count));
        shape = {length / channels.count / channels.inner, channels.count, channels.inner, 1};
        data = const_cast<float*>(x.flat<float>().data());  // only read, as the scales
        scale = const_cast<float*>(factors.flat<float>().data());
        return OkStatus();
    }

    int length = 0;
    Channels channels;
    std::vector<int> shape;
    float* data = nullptr;
    float* scale = nullptr;
};

/// What the operators on accumulators have in common: attributes and shapes.
class ShiftOp : public Kernel {
public:
    explicit ShiftOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("axis", &axis_));
        Check(context, context->GetAttr("per_tensor", &perTensor_));
    }

protected:
    int axis_ = 0;
    bool perTensor_ = false;
};

class ShiftSearchOp : public ShiftOp {
public:
    using ShiftOp::ShiftOp;

private:
    Status Call(OpKernelContext* context) override {
        Accumulators x;
        TF_RETURN_IF_ERROR(x.Set(context->input(0), context->input(1), axis_));
        int* shiftBits = nullptr;
        const int numShifts = perTensor_ ? 1 : x.channels.count;
        TF_RETURN_IF_ERROR(Allocate(context, 0, {numShifts}, shiftBits));
        std::vector<int> bits(x.channels.count);
        std::vector<float> bitsFloat(x.channels.count);
        KestTfOp::Param param{x.shape, true, Accumulators::kFormat};
        KestTfOp::SearchnInputParam<float> input{std::vector<std::vector<float>>(x.channels.count), x.length, x.data};
        KestTfOp::SearchnQuantParam<float> quant{perTensor_, bits.data(), nullptr,         nullptr,
                                                 nullptr,    x.scale,     bitsFloat.data()};
        int batchCounter = 0;
        int batchNum = 1;
        TF_RETURN_IF_ERROR(Run(
            [&] { return KestTfOp::SearchNFunctor<Device, float>()(param, batchCounter, batchNum, input, quant); }));
        std::copy_n(bits.begin(), numShifts, shiftBits);
        return OkStatus();
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
        return OkStatus();
    })
    .Doc("The shift of least squared error for the accumulators of each channel along axis, or of all together.");
REGISTER_KERNEL_BUILDER(Name("KestShiftSearch").Device(tensorflow::DEVICE_CPU), ShiftSearchOp);

/// The errors of sixteen shifts so far, a row for each channel, or one for all.
class ShiftErrors : public tensorflow::ResourceBase {
public:
    Status Add(const Accumulators& x, bool perTensor) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (numChannels_ != 0 && numChannels_ != x.channels.count) {
            return errors::InvalidArgument("accumulators of ", x.channels.count,
                                           " channels do not go with those before, of ", numChannels_);
        }
        TF_RETURN_IF_ERROR(Run([&] {
            KestTfOp::DataParam param{x.shape, true, Accumulators::kFormat, nullptr};
            KestTfOp::SearchnV2QuantParam<float> quant{perTensor, nullptr, x.scale, x.channels.count};
            sums_.length = x.length;
            sums_.data = x.data;
            int batchCounter = 0;    // the first one, which sizes a table that is empty and keeps another
            int batchNum = INT_MAX;  // never the last one
            return KestTfOp::SearchNV2Functor<Device, float>()(param, batchCounter, batchNum, sums_, quant);
        }));
        numChannels_ = x.channels.count;
        return OkStatus();
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

class ShiftErrorsOp : public Kernel {
public:
    using Kernel::Kernel;

private:
    Status Call(OpKernelContext* context) override { return NewResource(context, new ShiftErrors); }
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

private:
    Status Call(OpKernelContext* context) override {
        tensorflow::core::RefCountPtr<ShiftErrors> searched;
        TF_RETURN_IF_ERROR(ResourceOf(context, searched));
        Accumulators x;
        TF_RETURN_IF_ERROR(x.Set(context->input(1), context->input(2), axis_));
        return searched->Add(x, perTensor_);
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

class ShiftErrorsFindOp : public Kernel {
public:
    explicit ShiftErrorsFindOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("per_tensor", &perTensor_));
    }

private:
    Status Call(OpKernelContext* context) override {
        tensorflow::core::RefCountPtr<ShiftErrors> searched;
        TF_RETURN_IF_ERROR(ResourceOf(context, searched));
        const std::vector<int> found = searched->Find(perTensor_);
        if (found.empty()) return errors::FailedPrecondition("no batch was added");
        int* shiftBits = nullptr;
        TF_RETURN_IF_ERROR(Allocate(context, 0, {static_cast<int64_t>(found.size())}, shiftBits));
        std::copy(found.begin(), found.end(), shiftBits);
        return OkStatus();
    }

    bool perTensor_ = false;
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
        return OkStatus();
    })
    .Doc("The shifts of least squared error over the batches of a search.");
REGISTER_KERNEL_BUILDER(Name("KestShiftErrorsFind").Device(tensorflow::DEVICE_CPU), ShiftErrorsFindOp);

}  // namespace
}  // namespace kest_ops
