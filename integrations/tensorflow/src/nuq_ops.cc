#include <kest/weight_quant/nuq.h>

#include <vector>

#include "channels_first.h"
#include "kest_ops.h"

namespace kest_ops {
namespace {

class NuqWeightsOp : public Kernel {
public:
    explicit NuqWeightsOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("num_clusters", &numClusters_));
        Check(context, context->GetAttr("with_offset", &withOffset_));
        Check(context, context->GetAttr("num_iterations", &numIterations_));
    }

private:
    Status Call(OpKernelContext* context) override {
        ChannelsFirst weights;
        TF_RETURN_IF_ERROR(weights.Set(context->input(0)));
        std::vector<float> workingScale(weights.numChannels);
        std::vector<int> workingOffset(weights.numChannels);
        KestTfOp::WeightNuqQuantParam param{};
        param.scale = workingScale.data();
        param.offset = workingOffset.data();
        param.channelNum = weights.numChannels;
        param.numBits = 8;
        param.numClusters = numClusters_;
        param.numIterations = numIterations_;
        param.withOffset = withOffset_;
        float* quantised = nullptr;
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, quantised));
        TF_RETURN_IF_ERROR(Allocate(context, 1, {weights.numChannels}, param.scaleStore));
        TF_RETURN_IF_ERROR(Allocate(context, 2, {weights.numChannels}, param.offsetStore));
        TF_RETURN_IF_ERROR(Allocate(context, 3, {numClusters_}, param.centers));
        TF_RETURN_IF_ERROR(Run([&] {
            KestCommon::ThrustParam<float> unused;
            return KestTfOp::NuqFunctor<Device, float>()(weights.data.data(), static_cast<int>(weights.data.size()),
                                                         param, unused);
        }));
        weights.CopyToLast(weights.data.data(), quantised);
        return OkStatus();
    }

    int numClusters_ = 0;
    bool withOffset_ = false;
    int numIterations_ = 0;
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
        TF_RETURN_IF_ERROR(WeightsAndFactors(context));
        int numClusters;
        TF_RETURN_IF_ERROR(context->GetAttr("num_clusters", &numClusters));
        context->set_output(3, context->Vector(numClusters));
        return OkStatus();
    })
    .Doc("NUQ: the centres that all weights share, a scale and an offset for each channel of the last axis.");
REGISTER_KERNEL_BUILDER(Name("KestNuqWeights").Device(tensorflow::DEVICE_CPU), NuqWeightsOp);

class FakeQuantiseNuqOp : public GridKernel {
public:
    using GridKernel::GridKernel;

private:
    Status Call(OpKernelContext* context) override {
        ChannelsFirst weights;
        TF_RETURN_IF_ERROR(weights.Set(context->input(0)));
        const Tensor& scale = context->input(1);
        const Tensor& offset = context->input(2);
        const Tensor& clusters = context->input(3);
        TF_RETURN_IF_ERROR(CheckPerChannel(scale, "scale", weights.numChannels));
        TF_RETURN_IF_ERROR(CheckPerChannel(offset, "offset", weights.numChannels));
        KestTfOp::WeightNuqQuantParam param{};  // what it points to is only read
        TF_RETURN_IF_ERROR(CountOf(clusters, param.numClusters));
        if (param.numClusters == 0) return errors::InvalidArgument("there are no clusters");
        param.scaleStore = const_cast<float*>(scale.flat<float>().data());
        param.offsetStore = const_cast<int*>(offset.flat<int32_t>().data());
        param.centers = const_cast<int*>(clusters.flat<int32_t>().data());
        param.channelNum = weights.numChannels;
        param.numBits = numBits_;
        float* quantised = nullptr;
        TF_RETURN_IF_ERROR(AllocateOrTakeInput(context, quantised));
        float* data = weights.data.data();
        TF_RETURN_IF_ERROR(Run([&] {
            return KestTfOp::FakeQuantWithNuq<Device, float>()(param, data, data,
                                                               static_cast<int>(weights.data.size()));
        }));
        weights.CopyToLast(data, quantised);
        return OkStatus();
    }
};

REGISTER_OP("KestFakeQuantiseNuq")
    .Input("weights: float")
    .Input("scale: float")
    .Input("offset: int32")
    .Input("clusters: int32")
    .Output("quantised: float")
    .Attr("num_bits: int >= 2 = 8")
    .SetShapeFn([](InferenceContext* context) {
        context->set_output(0, context->input(0));
        for (const int factors : {1, 2}) TF_RETURN_IF_ERROR(MergeChannels(context, 0, -1, factors));
        return CheckRank(context, 3, 1);
    })
    .Doc("Weights fake-quantised with the factors and centres of NUQ.");
REGISTER_KERNEL_BUILDER(Name("KestFakeQuantiseNuq").Device(tensorflow::DEVICE_CPU), FakeQuantiseNuqOp);

}  // namespace
}  // namespace kest_ops
