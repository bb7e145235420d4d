#include "core.h"

#include <kest/kernel_frame/log_sink.h>

#include <cstdio>

namespace core {
namespace {

thread_local LogCapture* currentCapture = nullptr;
util::LogSink sinkBefore = nullptr;

/// Lines of calls that are not ours go where they went before.
void TakeLine(const char* line) {
    if (currentCapture != nullptr) {
        currentCapture->lines += line;
    } else if (sinkBefore != nullptr) {
        sinkBefore(line);
    } else {
        std::fputs(line, stdout);
    }
}

void Translate(const std::exception_ptr& exception, void* /*payload*/) {
    try {
        std::rethrow_exception(exception);
    } catch (const StatusError& error) {
        try {
            const nb::object raised = nb::module_::import_("kest._errors")
                                          .attr("error_of")(error.status, error.step.c_str(), error.log.c_str());
            PyErr_SetObject(raised.type().ptr(), raised.ptr());
        } catch (nb::python_error& failure) {
            failure.restore();
        }
    }
}

}  // namespace

LogCapture::LogCapture() {
    currentCapture = this;
}

LogCapture::~LogCapture() {
    currentCapture = nullptr;
}

}  // namespace core

NB_MODULE(_core, module) {
    core::sinkBefore = util::SetLogSink(core::TakeLine);
    nanobind::register_exception_translator(core::Translate);
    core::BindArq(module);
    core::BindRecord(module);
}
