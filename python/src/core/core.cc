#include "core.h"

#include <omp.h>

namespace core {
namespace {

void Translate(const std::exception_ptr& exception, void* /*payload*/) {
    try {
        std::rethrow_exception(exception);
    } catch (const StatusError& error) {
        try {
            const nb::object raised =
                nb::module_::import_("kest._errors")
                    .attr("error_of")(error.status, error.step.name.c_str(), Bytes(error.log), Bytes(error.step.file));
            PyErr_SetObject(raised.type().ptr(), raised.ptr());
        } catch (nb::python_error& failure) {
            failure.restore();
        }
    }
}

}  // namespace

}  // namespace core

NB_MODULE(_core, module) {
    nanobind::register_exception_translator(core::Translate);
    module.def("use_one_thread", [] { omp_set_num_threads(1); });
    core::BindArq(module);
    core::BindBalance(module);
    core::BindDeployed(module);
    core::BindDump(module);
    core::BindFusion(module);
    core::BindHalf(module);
    core::BindHfmg(module);
    core::BindIfmr(module);
    core::BindMasks(module);
    core::BindNuq(module);
    core::BindPrune(module);
    core::BindRecord(module);
    core::BindShift(module);
    core::BindSoftmax(module);
    core::BindUlq(module);
}
