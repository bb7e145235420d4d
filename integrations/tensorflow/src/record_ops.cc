#include <kest/record/record_update.h>

#include <string>

#include "kest_ops.h"

namespace kest_ops {
namespace {

/// Updates the record of one layer in a file. Paths and names are attributes: they are those of the graph.
class RecordOp : public Kernel {
public:
    explicit RecordOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("record_file", &file_));
        Check(context, context->GetAttr("layer", &layer_));
    }

protected:
    std::string file_;
    std::string layer_;
};

/// The values of an input that has to be a vector, or a scalar for a layer with one factor for all channels.
template <typename T>
Status FactorsOf(OpKernelContext* context, const char* input, const T*& factors, int& count) {
    const Tensor* tensor = nullptr;
    TF_RETURN_IF_ERROR(context->input(input, &tensor));
    if (tensor->dims() > 1) {
        return errors::InvalidArgument(input, " has to be a scalar or a vector, not of shape ",
                                       tensor->shape().DebugString());
    }
    factors = tensor->flat<T>().data();
    return CountOf(*tensor, count);
}

class RecordDataOp : public RecordOp {
public:
    explicit RecordDataOp(OpKernelConstruction* context) : RecordOp(context) {
        Check(context, context->GetAttr("dst_type", &dstType_));
    }

private:
    Status Call(OpKernelContext* context) override {
        float scale = 0;
        int offset = 0;
        TF_RETURN_IF_ERROR(ScalarOf(context, "scale", scale));
        TF_RETURN_IF_ERROR(ScalarOf(context, "offset", offset));
        return Run([&] { return KestTfOp::WriteDataToRecordFile(&scale, &offset, layer_, file_, dstType_); });
    }

    std::string dstType_;
};

class RecordWeightsOp : public RecordOp {
public:
    using RecordOp::RecordOp;

private:
    Status Call(OpKernelContext* context) override {
        const float* scale = nullptr;
        const int* offset = nullptr;
        const int* clusters = nullptr;
        int length = 0;
        int offsetLength = 0;
        int clusterLength = 0;
        TF_RETURN_IF_ERROR(FactorsOf(context, "scale", scale, length));
        TF_RETURN_IF_ERROR(FactorsOf(context, "offset", offset, offsetLength));
        TF_RETURN_IF_ERROR(FactorsOf(context, "clusters", clusters, clusterLength));
        if (length != offsetLength) {
            return errors::InvalidArgument(length, " scales do not go with ", offsetLength, " offsets");
        }
        return Run([&] {
            if (clusterLength == 0)  // which leaves those that the record has
                return KestTfOp::WriteWeightToRecordFile(scale, offset, length, layer_, file_);
            return KestTfOp::WriteNuqRecordToFile(scale, offset, clusters, length, clusterLength, layer_, file_);
        });
    }
};

class RecordShiftBitsOp : public RecordOp {
public:
    using RecordOp::RecordOp;

private:
    Status Call(OpKernelContext* context) override {
        const int* bits = nullptr;
        int length = 0;
        TF_RETURN_IF_ERROR(FactorsOf(context, "shift_bits", bits, length));
        return Run([&] { return KestTfOp::WriteShiftNToRecordFile(bits, length, layer_, file_); });
    }
};

class RecordBalanceFactorsOp : public RecordOp {
public:
    using RecordOp::RecordOp;

private:
    Status Call(OpKernelContext* context) override {
        const float* factors = nullptr;
        int length = 0;
        TF_RETURN_IF_ERROR(FactorsOf(context, "factors", factors, length));
        return Run([&] { return KestTfOp::WriteTensorBalanceFactorToRecordFile(factors, length, layer_, file_); });
    }
};

/// No input is of a rank above `maxRank`.
template <int maxRank>
Status CheckFactors(InferenceContext* context) {
    ShapeHandle factors;
    for (int input = 0; input < context->num_inputs(); ++input)
        TF_RETURN_IF_ERROR(context->WithRankAtMost(context->input(input), maxRank, &factors));
    return OkStatus();
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
