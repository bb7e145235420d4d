#include <kest/record/record_update.h>

#include <string>

#include "kest_ops.h"

namespace kest_ops {
namespace {

/// Updates the record of one layer in a file. Paths and names are attributes: they are those of the graph.
class RecordOp : public OpKernel {
public:
    explicit RecordOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("record_file", &file_));
        OP_REQUIRES_OK(context, context->GetAttr("layer", &layer_));
    }

protected:
    /// A vector or a scalar, for a layer with one factor for all channels.
    static tensorflow::Status FactorsOf(const Tensor& factors, const char* name, int& count) {
        if (factors.dims() > 1) {
            return tensorflow::errors::InvalidArgument(name, " has to be a scalar or a vector, not of shape ",
                                                       factors.shape().DebugString());
        }
        return CountOf(factors, count);
    }

    std::string file_;
    std::string layer_;
};

class RecordDataOp : public RecordOp {
public:
    explicit RecordDataOp(OpKernelConstruction* context) : RecordOp(context) {
        OP_REQUIRES_OK(context, context->GetAttr("dst_type", &dstType_));
    }

    void Compute(OpKernelContext* context) override {
        float scale = 0;
        int offset = 0;
        OP_REQUIRES_OK(context, ScalarOf(context->input(0), "scale", scale));
        OP_REQUIRES_OK(context, ScalarOf(context->input(1), "offset", offset));
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           return KestTfOp::WriteDataToRecordFile(&scale, &offset, layer_, file_, dstType_);
                       }));
    }

private:
    std::string dstType_;
};

class RecordWeightsOp : public RecordOp {
public:
    using RecordOp::RecordOp;

    void Compute(OpKernelContext* context) override {
        const Tensor& scale = context->input(0);
        const Tensor& offset = context->input(1);
        const Tensor& clusters = context->input(2);
        int length = 0;
        int offsetLength = 0;
        int clusterLength = 0;
        OP_REQUIRES_OK(context, FactorsOf(scale, "scale", length));
        OP_REQUIRES_OK(context, FactorsOf(offset, "offset", offsetLength));
        OP_REQUIRES_OK(context, FactorsOf(clusters, "clusters", clusterLength));
        OP_REQUIRES(context, length == offsetLength,
                    tensorflow::errors::InvalidArgument(length, " scales do not go with ", offsetLength, " offsets"));
        const float* scales = scale.flat<float>().data();
        const int* offsets = offset.flat<int32_t>().data();
        const int* centres = clusters.flat<int32_t>().data();
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           if (clusterLength == 0)  // which leaves those that the record has
                               return KestTfOp::WriteWeightToRecordFile(scales, offsets, length, layer_, file_);
                           return KestTfOp::WriteNuqRecordToFile(scales, offsets, centres, length, clusterLength,
                                                                 layer_, file_);
                       }));
    }
};

class RecordShiftBitsOp : public RecordOp {
public:
    using RecordOp::RecordOp;

    void Compute(OpKernelContext* context) override {
        const Tensor& shiftBits = context->input(0);
        int length = 0;
        OP_REQUIRES_OK(context, FactorsOf(shiftBits, "shift_bits", length));
        const int* bits = shiftBits.flat<int32_t>().data();
        OP_REQUIRES_OK(context,
                       Run(name(), [&] { return KestTfOp::WriteShiftNToRecordFile(bits, length, layer_, file_); }));
    }
};

class RecordBalanceFactorsOp : public RecordOp {
public:
    using RecordOp::RecordOp;

    void Compute(OpKernelContext* context) override {
        const Tensor& factors = context->input(0);
        int length = 0;
        OP_REQUIRES_OK(context, FactorsOf(factors, "factors", length));
        const float* data = factors.flat<float>().data();
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           return KestTfOp::WriteTensorBalanceFactorToRecordFile(data, length, layer_, file_);
                       }));
    }
};

/// No input is of a rank above `maxRank`.
template <int maxRank>
tensorflow::Status CheckFactors(InferenceContext* context) {
    tensorflow::shape_inference::ShapeHandle factors;
    for (int input = 0; input < context->num_inputs(); ++input)
        TF_RETURN_IF_ERROR(context->WithRankAtMost(context->input(input), maxRank, &factors));
    return tensorflow::OkStatus();
}

REGISTER_OP("KestRecordData")
    .Input("scale: float")
    .Input("offset: int32")
    .Attr("record_file: string")
    .Attr("layer: string")
    .Attr("dst_type: string")
    .SetIsStateful()
    .SetShapeFn(CheckFactors<0>)
    .Doc("Writes the activation factors of a layer to a record file.");
REGISTER_KERNEL_BUILDER(Name("KestRecordData").Device(tensorflow::DEVICE_CPU), RecordDataOp);

REGISTER_OP("KestRecordWeights")
    .Input("scale: float")
    .Input("offset: int32")
    .Input("clusters: int32")
    .Attr("record_file: string")
    .Attr("layer: string")
    .SetIsStateful()
    .SetShapeFn(CheckFactors<1>)
    .Doc("Writes the weight factors of a layer to a record file, and the centres of NUQ if there are any.");
REGISTER_KERNEL_BUILDER(Name("KestRecordWeights").Device(tensorflow::DEVICE_CPU), RecordWeightsOp);

REGISTER_OP("KestRecordShiftBits")
    .Input("shift_bits: int32")
    .Attr("record_file: string")
    .Attr("layer: string")
    .SetIsStateful()
    .SetShapeFn(CheckFactors<1>)
    .Doc("Writes the shift bits of a layer to a record file.");
REGISTER_KERNEL_BUILDER(Name("KestRecordShiftBits").Device(tensorflow::DEVICE_CPU), RecordShiftBitsOp);

REGISTER_OP("KestRecordBalanceFactors")
    .Input("factors: float")
    .Attr("record_file: string")
    .Attr("layer: string")
    .SetIsStateful()
    .SetShapeFn(CheckFactors<1>)
    .Doc("Writes the balance factors of a layer to a record file.");
REGISTER_KERNEL_BUILDER(Name("KestRecordBalanceFactors").Device(tensorflow::DEVICE_CPU), RecordBalanceFactorsOp);

}  // namespace
}  // namespace kest_ops
