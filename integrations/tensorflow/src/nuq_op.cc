#include <kest/weight_quant/nuq.h>

#include <vector>

#include "kest_ops.h"

namespace kest_ops {
namespace {

class NuqWeightsOp : public OpKernel {
public:
    explicit NuqWeightsOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("num_clusters", &numClusters_));
        OP_REQUIRES_OK(context, context->GetAttr("with_offset", &withOffset_));
        OP_REQUIRES_OK(context, context->GetAttr("num_iterations", &numIterations_));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& weights = context->input(0);
        int length = 0;
        Channels channels;
        OP_REQUIRES_OK(context, CountOf(weights, length));
        OP_REQUIRES_OK(context, ChannelsOf(weights, -1, channels));
        OP_REQUIRES(context, length > 0, tensorflow::errors::InvalidArgument("there are no weights"));
        Tensor* quantised = nullptr;
        Tensor* scale = nullptr;
        Tensor* offset = nullptr;
        Tensor* clusters = nullptr;
        OP_REQUIRES_OK(context, context->forward_input_or_allocate_output({0}, 0, weights.shape(), &quantised));
        OP_REQUIRES_OK(context, context->allocate_output(1, {channels.count}, &scale));
        OP_REQUIRES_OK(context, context->allocate_output(2, {channels.count}, &offset));
        OP_REQUIRES_OK(context, context->allocate_output(3, {numClusters_}, &clusters));
        // kest takes the channels first.
        const auto in = weights.flat_inner_dims<float>();
        std::vector<float> data(length);
        const int numRows = length / channels.count;
        for (int row = 0; row < numRows; ++row) {
            for (int c = 0; c < channels.count; ++c) data[static_cast<std::size_t>(c) * numRows + row] = in(row, c);
        }
        std::vector<float> workingScale(channels.count);
        std::vector<int> workingOffset(channels.count);
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           KestTfOp::WeightNuqQuantParam param{};
                           param.scale = workingScale.data();
                           param.offset = workingOffset.data();
                           param.scaleStore = scale->flat<float>().data();
                           param.offsetStore = offset->flat<int32_t>().data();
                           param.centers = clusters->flat<int32_t>().data();
                           param.channelNum = channels.count;
                           param.numBits = 8;
                           param.numClusters = numClusters_;
                           param.numIterations = numIterations_;
                           param.withOffset = withOffset_;
                           KestCommon::ThrustParam<float> unused;
                           return KestTfOp::NuqFunctor<Device, float>()(data.data(), length, param, unused);
                       }));
        auto out = quantised->flat_inner_dims<float>();
        for (int row = 0; row < numRows; ++row) {
            for (int c = 0; c < channels.count; ++c) out(row, c) = data[static_cast<std::size_t>(c) * numRows + row];
        }
    }

private:
    int numClusters_;
    bool withOffset_;
    int numIterations_;
};

REGISTER_OP("KestNuqWeights")
    .Input("weights: float")
    .Output("quantised: float")
    .Output("scale: float")
    .Output("offset: int32")
    .Output("clusters: int32")
    .Attr("num_clusters: int >= 1 = 16")
    .Attr("with_offset: bool = false")
    .Attr("num_iterations: int = 0")
    .SetShapeFn([](InferenceContext* context) {
        tensorflow::shape_inference::ShapeHandle weights;
        TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(0), 1, &weights));
        context->set_output(0, weights);
        for (const int factors : {1, 2}) context->set_output(factors, context->Vector(context->Dim(weights, -1)));
        int numClusters;
        TF_RETURN_IF_ERROR(context->GetAttr("num_clusters", &numClusters));
        context->set_output(3, context->Vector(numClusters));
        return tensorflow::OkStatus();
    })
    .Doc("NUQ: the centres that all weights share, a scale and an offset for each channel of the last axis.");
REGISTER_KERNEL_BUILDER(Name("KestNuqWeights").Device(tensorflow::DEVICE_CPU), NuqWeightsOp);

}  // namespace
}  // namespace kest_ops
