#ifndef KEST_TENSORFLOW_KEST_OPS_H_
#define KEST_TENSORFLOW_KEST_OPS_H_

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

using Device = util::ThreadPoolDevice;

/// The number of elements as kest takes it.
inline tensorflow::Status CountOf(const tensorflow::Tensor& tensor, int& count) {
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
tensorflow::Status ScalarOf(const tensorflow::Tensor& tensor, const char* name, T& value) {
    if (!tensorflow::TensorShapeUtils::IsScalar(tensor.shape())) {
        return tensorflow::errors::InvalidArgument(name, " has to be a scalar, not of shape ",
                                                   tensor.shape().DebugString());
    }
    value = tensor.scalar<T>()();
    return tensorflow::OkStatus();
}

}  // namespace kest_ops

#endif  // KEST_TENSORFLOW_KEST_OPS_H_
