#include <kest/prune_balance/dmq_balance.h>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

void DmqFactors(const Input<float>& activations, const Input<float>& weights, float strength,
                const Output<float>& factors, const Output<float>& workspace) {
    Run("balance.dmq_factors", [&] {
        DMQBalancerKernel::DMQBalancerParam param{strength, Length(factors), Length(activations), Length(weights),
                                                  workspace.data()};
        const DMQBalancerKernel::DMQBalancer<util::ThreadPoolDevice, float> balance;
        return balance(activations.data(), weights.data(), param, factors.data());
    });
}

}  // namespace

void BindBalance(nb::module_& module) {
    module.def("balance_dmq_factors", DmqFactors, "activations"_a.noconvert(), "weights"_a.noconvert(), "strength"_a,
               "factors"_a.noconvert(), "workspace"_a.noconvert());
}

}  // namespace core
