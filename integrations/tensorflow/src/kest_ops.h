#ifndef KEST_TENSORFLOW_KEST_OPS_H_
#define KEST_TENSORFLOW_KEST_OPS_H_

#include <kest/kernel_frame/grid.h>
#include <kest/kernel_frame/log_capture.h>
#include <kest/kernel_frame/views.h>
#include <tensorflow/core/framework/op.h>
#include <tensorflow/core/framework/op_kernel.h>
#include <tensorflow/core/framework/shape_inference.h>

#include <cstdint>
#include <limits>
#include <string>

// What the operators share: kest counts elements in 32 bits and tells of failures by a status.

namespace kest_ops {

using tensorflow::OpKernel;
using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;
using tensorflow::shape_inference::InferenceContext;

using Device = util::ThreadPoolDevice;

/// The number of elements as kest takes it.
inline tensorflow::Status CountOf(const Tensor& tensor, int& count) {
    if (tensor.NumElements() > std::numeric_limits<int>::max()) {
        return tensorflow::errors::InvalidArgument("a tensor of ", tensor.NumElements(),
                                                   " elements is more than kest counts");
    }
    count = static_cast<int>(tensor.NumElements());
    return tensorflow::OkStatus();
}

/// Calls kest; a status other than 0 becomes an error with the operator's name, the status and kest's own log lines.
template <typename Call>
tensorflow::Status Run(const std::string& operatorName, Call call) {
    util::LogCapture capture;
    const int status = call();
    if (status == 0) return tensorflow::OkStatus();
    return tensorflow::errors::InvalidArgument(operatorName, " failed with status ", status, ": ", capture.lines);
}

/// The value of a scalar input.
template <typename T>
tensorflow::Status ScalarOf(const Tensor& tensor, const char* name, T& value) {
    if (!tensorflow::TensorShapeUtils::IsScalar(tensor.shape())) {
        return tensorflow::errors::InvalidArgument(name, " has to be a scalar, not of shape ",
                                                   tensor.shape().DebugString());
    }
    value = tensor.scalar<T>()();
    return tensorflow::OkStatus();
}

/// The width of a grid whose codes are 32-bit integers.
inline tensorflow::Status GetNumBits(OpKernelConstruction* context, int& numBits) {
    TF_RETURN_IF_ERROR(context->GetAttr("num_bits", &numBits));
    if (numBits <= static_cast<int>(util::kMaxNumBits)) return tensorflow::OkStatus();
    return tensorflow::errors::InvalidArgument("num_bits is ", numBits, ", at most ", util::kMaxNumBits,
                                               " are allowed");
}

/// The channels of a tensor: `count` along one axis, with `inner` elements behind each.
struct Channels {
    int count = 1;
    int inner = 1;
};

/// The channels along `axis`, counted from the end if negative, of a tensor that CountOf takes.
inline tensorflow::Status ChannelsOf(const Tensor& tensor, int axis, Channels& channels) {
    const int rank = tensor.dims();
    if (axis < -rank || axis >= rank) {
        return tensorflow::errors::InvalidArgument("a tensor of shape ", tensor.shape().DebugString(), " has no axis ",
                                                   axis);
    }
    if (axis < 0) axis += rank;
    if (tensor.dim_size(axis) > std::numeric_limits<int>::max()) {  // of an empty tensor
        return tensorflow::errors::InvalidArgument(tensor.dim_size(axis), " channels are more than kest counts");
    }
    channels = {static_cast<int>(tensor.dim_size(axis)), 1};
    if (tensor.NumElements() == 0) return tensorflow::OkStatus();
    for (int a = axis + 1; a < rank; ++a) channels.inner *= static_cast<int>(tensor.dim_size(a));
    return tensorflow::OkStatus();
}

/// Fails unless `factors` is a vector with an entry for each channel.
inline tensorflow::Status CheckPerChannel(const Tensor& factors, const char* name, int numChannels) {
    if (factors.dims() == 1 && factors.dim_size(0) == numChannels) return tensorflow::OkStatus();
    return tensorflow::errors::InvalidArgument(
        name, " has to hold ", numChannels, " values, one a channel, and is of shape ", factors.shape().DebugString());
}

/// For shape functions: input `factors` is a vector as long as `axis` of input `tensor`.
inline tensorflow::Status MergeChannels(InferenceContext* context, int tensor, int axis, int factors) {
    tensorflow::shape_inference::ShapeHandle vector;
    TF_RETURN_IF_ERROR(context->WithRank(context->input(factors), 1, &vector));
    const auto shape = context->input(tensor);
    if (!context->RankKnown(shape)) return tensorflow::OkStatus();
    const int rank = context->Rank(shape);
    if (axis < -rank || axis >= rank) {
        return tensorflow::errors::InvalidArgument("a tensor of shape ", context->DebugString(shape), " has no axis ",
                                                   axis);
    }
    tensorflow::shape_inference::DimensionHandle merged;
    return context->Merge(context->Dim(shape, axis), context->Dim(vector, 0), &merged);
}

}  // namespace kest_ops

#endif  // KEST_TENSORFLOW_KEST_OPS_H_
