#include "kest_ops.h"

#include <tensorflow/core/public/version.h>

#include <new>

namespace kest_ops {
namespace {

const char* NameOf(int status) {
#define NAME(STATUS) \
    case STATUS:     \
        return #STATUS
    switch (status) {
        NAME(STATUS_GENERIC_ERROR);
        NAME(STATUS_BAD_PARAM);
        NAME(STATUS_FILE_ERROR);
        NAME(STATUS_RUNTIME_ERROR);
        NAME(STATUS_SCALE_ERROR);
        NAME(DEQ_SCALE_ERROR);
        NAME(RECORD_PATH_ERROR);
        NAME(RECORD_OPEN_ERROR);
        NAME(EMPTY_INPUT_ERROR);
        NAME(WEIGHT_SCALE_ERROR);
        NAME(DATA_SCALE_ERROR);
        NAME(RECORD_DATA_ERROR);
        NAME(RECORD_UNKNOWN_FIELD);
        NAME(EMPTY_CONTAINER_ERROR);
        NAME(VALUE_RANGE_ERROR);
    }
#undef NAME
    return "unknown";
}

}  // namespace

void Kernel::Compute(OpKernelContext* context) {
    Status status;
    try {
        status = Call(context);
    } catch (const std::bad_alloc&) {
        status = errors::ResourceExhausted("memory has run out");
    }
    if (!status.ok()) context->CtxFailure(Named(status));
}

void Kernel::Check(OpKernelConstruction* context, const Status& status) const {
    if (!status.ok()) context->CtxFailure(Named(status));
}

Status Kernel::Named(const Status& error) const {
#if TF_MAJOR_VERSION == 2 && TF_MINOR_VERSION == 12
    const std::string message = error.error_message();
#else
    const std::string message(error.message());
#endif
    return errors::CreateWithUpdatedMessage(error, type_string() + " '" + name() + "': " + message);
}

Status StatusError(int status, const std::string& lines) {
    return errors::InvalidArgument("failed with status ", status, " (", NameOf(status), ")", lines.empty() ? "" : ": ",
                                   lines);
}

Status CountOf(const Tensor& tensor, int& count) {
    if (tensor.NumElements() > kMaxCount) {
        return errors::InvalidArgument("a tensor of ", tensor.NumElements(), " elements is more than kest counts");
    }
    count = static_cast<int>(tensor.NumElements());
    return OkStatus();
}

Status GetNumBits(OpKernelConstruction* context, int& numBits) {
    TF_RETURN_IF_ERROR(context->GetAttr("num_bits", &numBits));
    if (numBits <= static_cast<int>(util::kMaxNumBits)) return OkStatus();
    return errors::InvalidArgument("num_bits is ", numBits, ", at most ", util::kMaxNumBits, " are allowed");
}

Status ChannelsOf(const Tensor& tensor, int axis, Channels& channels) {
    const int rank = tensor.dims();
    if (axis < -rank || axis >= rank) {
        return errors::InvalidArgument("a tensor of shape ", tensor.shape().DebugString(), " has no axis ", axis);
    }
    if (axis < 0) axis += rank;
    if (tensor.dim_size(axis) > kMaxCount) {  // of an empty tensor
        return errors::InvalidArgument(tensor.dim_size(axis), " channels are more than kest counts");
    }
    channels = {static_cast<int>(tensor.dim_size(axis)), 1};
    if (tensor.NumElements() == 0) return OkStatus();
    for (int a = axis + 1; a < rank; ++a) channels.inner *= static_cast<int>(tensor.dim_size(a));
    return OkStatus();
}

Status CheckPerChannel(const Tensor& factors, const char* name, int numChannels) {
    if (factors.dims() == 1 && factors.dim_size(0) == numChannels) return OkStatus();
    return errors::InvalidArgument(name, " has to hold ", numChannels, " values, one a channel, and is of shape ",
                                   factors.shape().DebugString());
}

Status MergeAxis(InferenceContext* context, int tensor, int axis, DimensionHandle dimension) {
    const ShapeHandle shape = context->input(tensor);
    if (!context->RankKnown(shape)) return OkStatus();
    const int rank = context->Rank(shape);
    if (axis < -rank || axis >= rank) {
        return errors::InvalidArgument("a tensor of shape ", context->DebugString(shape), " has no axis ", axis);
    }
    DimensionHandle merged;
    return context->Merge(context->Dim(shape, axis), dimension, &merged);
}

Status MergeChannels(InferenceContext* context, int tensor, int axis, int factors) {
    TF_RETURN_IF_ERROR(CheckRank(context, factors, 1));
    return MergeAxis(context, tensor, axis, context->Dim(context->input(factors), 0));
}

Status CheckRank(InferenceContext* context, int input, int rank) {
    ShapeHandle shape;
    return context->WithRank(context->input(input), rank, &shape);
}

Status SameShape(InferenceContext* context) {
    context->set_output(0, context->input(0));
    for (int output = 1; output < context->num_outputs(); ++output) context->set_output(output, context->Scalar());
    for (int input = 1; input < context->num_inputs(); ++input) TF_RETURN_IF_ERROR(CheckRank(context, input, 0));
    return OkStatus();
}

Status WeightsAndFactors(InferenceContext* context) {
    ShapeHandle weights;
    TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(0), 1, &weights));
    context->set_output(0, weights);
    for (int output = 1; output < context->num_outputs(); ++output)
        context->set_output(output, context->Vector(context->Dim(weights, -1)));
    return OkStatus();
}

Status WeightsByFactors(InferenceContext* context) {
    context->set_output(0, context->input(0));
    for (int input = 1; input < context->num_inputs(); ++input)
        TF_RETURN_IF_ERROR(MergeChannels(context, 0, -1, input));
    return OkStatus();
}

}  // namespace kest_ops
