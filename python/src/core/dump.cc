#include <kest/op_kernels/tensor_dump.h>
#include <nanobind/stl/string.h>

#include "core.h"

namespace core {
namespace {

using namespace nb::literals;

/// kest's log lines, none if the file could be opened: the kernel's status is always 0.
template <typename T>
std::string Write(const Input<T>& values, const nb::bytes& directory, const nb::bytes& name, unsigned int batch,
                  const Input<float>& shape) {
    kest_tf::DumpParam param{
        Text(directory), Text(name), batch, {shape.data(), shape.data() + shape.size()}, Length(shape)};
    util::LogCapture capture;
    const nb::gil_scoped_release release;
    const kest_tf::DumpFunctor<util::ThreadPoolDevice, T> dump;
    dump(values.data(), Length(values), std::move(param));
    return std::move(capture.lines);
}

template <typename T>
void Bind(nb::module_& module) {
    module.def("dump_write", Write<T>, "values"_a.noconvert(), "directory"_a, "name"_a, "batch"_a,
               "shape"_a.noconvert());
}

}  // namespace

void BindDump(nb::module_& module) {
    Bind<float>(module);
    Bind<double>(module);
    Bind<int>(module);
    Bind<unsigned short>(module);
}

}  // namespace core
