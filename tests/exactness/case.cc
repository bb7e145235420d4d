#include "case.h"

namespace exactness {

std::map<std::string, void (*)(Case&)>& Kernels() {
    static std::map<std::string, void (*)(Case&)> kernels;
    return kernels;
}

}  // namespace exactness
