#include <kest/prune_balance/dmq_balance.h>

#include <vector>

#include "kest_ops.h"

namespace kest_ops {
namespace {

class DmqBalanceOp : public OpKernel {
public:
    explicit DmqBalanceOp(OpKernelConstruction* context) : OpKernel(context) {
        OP_REQUIRES_OK(context, context->GetAttr("migration_strength", &migrationStrength_));
    }

    void Compute(OpKernelContext* context) override {
        const Tensor& activations = context->input(0);
        const Tensor& weights = context->input(1);
        int actLength = 0;
        int wtsLength = 0;
        OP_REQUIRES_OK(context, CountOf(activations, actLength));
        OP_REQUIRES_OK(context, CountOf(weights, wtsLength));
        Channels channels;
        Channels weightChannels;
        OP_REQUIRES_OK(context, ChannelsOf(activations, 0, channels));
        OP_REQUIRES_OK(context, ChannelsOf(weights, 0, weightChannels));
        OP_REQUIRES(context, channels.count == weightChannels.count,
                    tensorflow::errors::InvalidArgument("activations of ", channels.count,
                                                        " channels do not go with weights of ", weightChannels.count));
        OP_REQUIRES(context, actLength > 0 && wtsLength > 0,
                    tensorflow::errors::InvalidArgument("there are no activations or no weights"));
        Tensor* factors = nullptr;
        OP_REQUIRES_OK(context, context->allocate_output(0, {channels.count}, &factors));
        std::vector<float> copy(channels.count);
        DMQBalancerKernel::DMQBalancerParam param{migrationStrength_, static_cast<unsigned int>(channels.count),
                                                  static_cast<unsigned int>(actLength),
                                                  static_cast<unsigned int>(wtsLength), copy.data()};
        const float* act = activations.flat<float>().data();
        const float* wts = weights.flat<float>().data();
        float* out = factors->flat<float>().data();
        OP_REQUIRES_OK(context, Run(name(), [&] {
                           return DMQBalancerKernel::DMQBalancer<Device, float>()(act, wts, param, out);
                       }));
    }

private:
    float migrationStrength_;
};

REGISTER_OP("KestDmqBalanceFactors")
    .Input("activations: float")
    .Input("weights: float")
    .Output("factors: float")
    .Attr("migration_strength: float = 0.5")
    .SetShapeFn([](InferenceContext* context) {
        tensorflow::shape_inference::ShapeHandle activations;
        tensorflow::shape_inference::ShapeHandle weights;
        TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(0), 1, &activations));
        TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(1), 1, &weights));
        tensorflow::shape_inference::DimensionHandle channels;
        TF_RETURN_IF_ERROR(context->Merge(context->Dim(activations, 0), context->Dim(weights, 0), &channels));
        context->set_output(0, context->Vector(channels));
        return tensorflow::OkStatus();
    })
    .Doc("DMQ: the balance factor of each input channel, the first axis of both inputs.");
REGISTER_KERNEL_BUILDER(Name("KestDmqBalanceFactors").Device(tensorflow::DEVICE_CPU), DmqBalanceOp);

}  // namespace
}  // namespace kest_ops
