// Every exported kernel with arguments made of the input's bytes: those of tests/exactness, whose numbers the bytes
// decide, within what the headers leave to the caller.

#include <kest/kernel_frame/log_sink.h>
#include <omp.h>

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "tests/exactness/case.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    util::SetLogSink([](const char*) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    const auto& kernels = exactness::Kernels();
    const auto& [name, run] = *std::next(kernels.begin(), data[0] % kernels.size());
    omp_set_num_threads(1 + data[1] % 3);
    exactness::Case c(data + 2, size - 2);
    run(c);
    return 0;
}
