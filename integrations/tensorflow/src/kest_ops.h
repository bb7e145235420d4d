#ifndef KEST_TENSORFLOW_KEST_OPS_H_
#define KEST_TENSORFLOW_KEST_OPS_H_

#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/log_capture.h>
#include <kest/kernel_frame/status.h>
#include <kest/kernel_frame/views.h>
#include <tensorflow/core/framework/op.h>
#include <tensorflow/core/framework/op_kernel.h>
#include <tensorflow/core/framework/shape_inference.h>

#include <cstdint>
#include <limits>
#include <string>

// What the operators share: kest counts elements in 32 bits and tells of failures by a status.

namespace kest_ops {

namespace errors = tensorflow::errors;

using tensorflow::OkStatus;
using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Status;
using tensorflow::Tensor;
using tensorflow::TensorShape;
using tensorflow::shape_inference::DimensionHandle;
using tensorflow::shape_inference::InferenceContext;
using tensorflow::shape_inference::ShapeHandle;

using Device = util::ThreadPoolDevice;

constexpr int64_t kMaxCount = std::numeric_limits<int>::max();

/// An operator at work. Its errors name the operator and the node; memory that runs out is one of them.
class Kernel : public tensorflow::OpKernel {
public:
    using OpKernel::OpKernel;

    void Compute(OpKernelContext* context) final;

protected:
    /// For constructors: an error makes the kernel one that cannot be used.
    void Check(OpKernelConstruction* context, const Status& status) const;

private:
    virtual Status Call(OpKernelContext* context) = 0;
    Status Named(const Status& error) const;
};

/// The error of a status: its number, its name and kest's own log lines.
Status StatusError(int status, const std::string& lines);

/// Calls kest; a status other than 0 becomes an error.
template <typename Function>
Status Run(Function call) {
    util::LogCapture capture;
    const int status = call();
    return status == STATUS_OK ? OkStatus() : StatusError(status, capture.lines);
}

/// The number of elements as kest takes it.
Status CountOf(const Tensor& tensor, int& count);

/// The value of an input that has to be a scalar.
template <typename T>
Status ScalarOf(OpKernelContext* context, const char* input, T& value) {
    const Tensor* tensor = nullptr;
    TF_RETURN_IF_ERROR(context->input(input, &tensor));
    if (!tensorflow::TensorShapeUtils::IsScalar(tensor->shape())) {
        return errors::InvalidArgument(input, " has to be a scalar, not of shape ", tensor->shape().DebugString());
    }
    value = tensor->scalar<T>()();
    return OkStatus();
}

/// Allocates an output; where its elements go.
template <typename T>
Status Allocate(OpKernelContext* context, int output, const TensorShape& shape, T*& data) {
    Tensor* tensor = nullptr;
    TF_RETURN_IF_ERROR(context->allocate_output(output, shape, &tensor));
    data = tensor->flat<T>().data();
    return OkStatus();
}

/// Allocates output 0 in the shape of input 0, of the same type, whose memory it takes if nobody else wants that.
template <typename T>
Status AllocateOrTakeInput(OpKernelContext* context, T*& data) {
    Tensor* tensor = nullptr;
    TF_RETURN_IF_ERROR(context->forward_input_or_allocate_output({0}, 0, context->input(0).shape(), &tensor));
    data = tensor->flat<T>().data();
    return OkStatus();
}

/// The width of a grid whose codes are 32-bit integers.
Status GetNumBits(OpKernelConstruction* context, int& numBits);

/// A kernel with such a grid.
class GridKernel : public Kernel {
public:
    explicit GridKernel(OpKernelConstruction* context) : Kernel(context) {
        Check(context, GetNumBits(context, numBits_));
    }

protected:
    int numBits_ = 0;
};

/// The channels of a tensor: `count` along one axis, with `inner` elements behind each.
struct Channels {
    int count = 1;
    int inner = 1;
};

/// The channels along `axis`, counted from the end if negative, of a tensor that CountOf takes.
Status ChannelsOf(const Tensor& tensor, int axis, Channels& channels);

/// Fails unless `factors` is a vector with an entry for each channel.
Status CheckPerChannel(const Tensor& factors, const char* name, int numChannels);

/// For shape functions: `axis` of input `tensor` is as long as `dimension`.
Status MergeAxis(InferenceContext* context, int tensor, int axis, DimensionHandle dimension);

/// For shape functions: input `factors` is a vector as long as `axis` of input `tensor`.
Status MergeChannels(InferenceContext* context, int tensor, int axis, int factors);

/// For shape functions: input `input` is of rank `rank`.
Status CheckRank(InferenceContext* context, int input, int rank);

// Shape functions, of operators whose output 0 has the shape of input 0 ...

/// ... and whose other inputs and outputs are scalars.
Status SameShape(InferenceContext* context);

/// ... and whose other outputs have an entry for each channel of its last axis.
Status WeightsAndFactors(InferenceContext* context);

/// ... and whose other inputs have.
Status WeightsByFactors(InferenceContext* context);

}  // namespace kest_ops

// A kernel for each element type.
#define REGISTER_FLOATING(NAME, KERNEL)                                                                           \
    REGISTER_KERNEL_BUILDER(Name(NAME).Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"), KERNEL<float>); \
    REGISTER_KERNEL_BUILDER(Name(NAME).Device(tensorflow::DEVICE_CPU).TypeConstraint<double>("T"), KERNEL<double>)

#endif  // KEST_TENSORFLOW_KEST_OPS_H_
