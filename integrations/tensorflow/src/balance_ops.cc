#include <kest/prune_balance/dmq_balance.h>

#include <vector>

#include "kest_ops.h"

namespace kest_ops {
namespace {

class DmqBalanceOp : public Kernel {
public:
    explicit DmqBalanceOp(OpKernelConstruction* context) : Kernel(context) {
        Check(context, context->GetAttr("migration_strength", &migrationStrength_));
    }

private:
    Status Call(OpKernelContext* context) override {
        const Tensor& activations = context->input(0);
        const Tensor& weights = context->input(1);
        int actLength = 0;
        int wtsLength = 0;
        Channels channels;
        Channels weightChannels;
        TF_RETURN_IF_ERROR(CountOf(activations, actLength));
        TF_RETURN_IF_ERROR(CountOf(weights, wtsLength));
        TF_RETURN_IF_ERROR(ChannelsOf(activations, 0, channels));
        TF_RETURN_IF_ERROR(ChannelsOf(weights, 0, weightChannels));
        if (channels.count != weightChannels.count) {
            return errors::InvalidArgument("activations of ", channels.count, " channels do not go with weights of ",
                                           weightChannels.count);
        }
        if (actLength == 0 || wtsLength == 0) {
            return errors::InvalidArgument("there are no activations or no weights");
        }
        float* factors = nullptr;
        TF_RETURN_IF_ERROR(Allocate(context, 0, {channels.count}, factors));
        std::vector<float> copy(channels.count);
        DMQBalancerKernel::DMQBalancerParam param{migrationStrength_, static_cast<unsigned int>(channels.count),
                                                  static_cast<unsigned int>(actLength),
                                                  static_cast<unsigned int>(wtsLength), copy.data()};
        return Run([&] {
            return DMQBalancerKernel::DMQBalancer<Device, float>()(activations.flat<float>().data(),
                                                                   weights.flat<float>().data(), param, factors);
        });
    }

    float migrationStrength_ = 0;
};

REGISTER_OP("KestDmqBalanceFactors")
    .Input("activations: float")
    .Input("weights: float")
    .Output("factors: float")
    .Attr("migration_strength: float = 0.5")
    .SetShapeFn([](InferenceContext* context) {
        ShapeHandle activations;
        ShapeHandle weights;
        DimensionHandle channels;
        TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(0), 1, &activations));
        TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(1), 1, &weights));
        TF_RETURN_IF_ERROR(context->Merge(context->Dim(activations, 0), context->Dim(weights, 0), &channels));
        context->set_output(0, context->Vector(channels));
        return OkStatus();
    })
    .Doc("DMQ: the balance factor of each input channel, the first axis of both inputs.");
REGISTER_KERNEL_BUILDER(Name("KestDmqBalanceFactors").Device(tensorflow::DEVICE_CPU), DmqBalanceOp);

}  // namespace
}  // namespace kest_ops
