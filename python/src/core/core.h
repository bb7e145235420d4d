#ifndef KEST_PYTHON_CORE_H_
#define KEST_PYTHON_CORE_H_

#include <kest/kernel_frame/log_capture.h>
#include <kest/kernel_frame/views.h>
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <exception>
#include <string>

// The functions of the extension module: kest's own, on arrays that the package has checked. What can fail goes through
// Run.

namespace core {

namespace nb = nanobind;

// In C order, in the processor's memory; Python's array owns the elements.
template <typename T>
using Input = nb::ndarray<const T, nb::c_contig, nb::device::cpu>;
template <typename T>
using Output = nb::ndarray<T, nb::c_contig, nb::device::cpu>;

/// What is called, for an error that tells of it.
struct Step {
    std::string name;
    std::string file;  ///< that it works on, empty if there is none

    Step(const char* function, std::string path = {}) : name(function), file(std::move(path)) {}
};

/// A status other than 0. Becomes the exception that kest._errors has for it.
struct StatusError : std::exception {
    int status;
    Step step;
    std::string log;

    StatusError(int failed, Step failing, std::string lines)
        : status(failed), step(std::move(failing)), log(std::move(lines)) {}
};

/// Calls kest without the interpreter's lock. `call` returns a status and touches no Python object.
template <typename Call>
void Run(const Step& step, Call call) {
    util::LogCapture capture;
    int status;
    {
        const nb::gil_scoped_release release;
        status = call();
    }
    if (status != 0) throw StatusError(status, step, std::move(capture.lines));
}

inline util::FloatData View(const Output<float>& array) {
    return {static_cast<unsigned int>(array.size()), array.data()};
}
inline util::IntData View(const Output<int>& array) {
    return {static_cast<unsigned int>(array.size()), array.data()};
}
template <typename T>
unsigned int Length(const T& array) {
    return static_cast<unsigned int>(array.size());
}

inline std::string Text(const nb::bytes& bytes) {
    return {bytes.c_str(), bytes.size()};
}
inline nb::bytes Bytes(const std::string& text) {
    return nb::bytes(text.data(), text.size());
}

void BindArq(nb::module_& module);
void BindBalance(nb::module_& module);
void BindDeployed(nb::module_& module);
void BindDump(nb::module_& module);
void BindFusion(nb::module_& module);
void BindHalf(nb::module_& module);
void BindHfmg(nb::module_& module);
void BindIfmr(nb::module_& module);
void BindMasks(nb::module_& module);
void BindNuq(nb::module_& module);
void BindPrune(nb::module_& module);
void BindRecord(nb::module_& module);
void BindShift(nb::module_& module);
void BindSoftmax(nb::module_& module);
void BindUlq(nb::module_& module);

}  // namespace core

#endif  // KEST_PYTHON_CORE_H_
