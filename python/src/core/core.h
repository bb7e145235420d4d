#ifndef KEST_PYTHON_CORE_H_
#define KEST_PYTHON_CORE_H_

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

/// A status other than 0. Becomes the exception that kest._errors has for it.
struct StatusError : std::exception {
    int status;
    std::string step;
    std::string log;

    StatusError(int failed, std::string name, std::string lines)
        : status(failed), step(std::move(name)), log(std::move(lines)) {}
};

/// While it lives, kest's log lines of this thread are collected here instead of printed. Not nested.
class LogCapture {
public:
    LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

    std::string lines;
};

/// Calls kest without the interpreter's lock. `call` returns a status and touches no Python object.
template <typename Call>
void Run(const char* step, Call call) {
    LogCapture capture;
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

void BindArq(nb::module_& module);
void BindRecord(nb::module_& module);

}  // namespace core

#endif  // KEST_PYTHON_CORE_H_
