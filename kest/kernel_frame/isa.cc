#include <kest/kernel_frame/isa.h>

#if defined(__x86_64__)
#include <sys/platform/x86.h>
#endif

namespace util {

#if defined(__x86_64__)
namespace {

// "Active": the processor has it and the kernel saves its registers.
bool HasX86V3() {
    return CPU_FEATURE_ACTIVE(AVX2) && CPU_FEATURE_ACTIVE(BMI1) && CPU_FEATURE_ACTIVE(BMI2) &&
           CPU_FEATURE_ACTIVE(F16C) && CPU_FEATURE_ACTIVE(FMA) && CPU_FEATURE_ACTIVE(LZCNT) &&
           CPU_FEATURE_ACTIVE(MOVBE);
}

bool HasX86V4() {
    return HasX86V3() && CPU_FEATURE_ACTIVE(AVX512F) && CPU_FEATURE_ACTIVE(AVX512BW) && CPU_FEATURE_ACTIVE(AVX512CD) &&
           CPU_FEATURE_ACTIVE(AVX512DQ) && CPU_FEATURE_ACTIVE(AVX512VL);
}

Isa FindMachineIsa() {
#if defined(KEST_ISA_BASELINE)
    constexpr Isa kLimit = Isa::kBaseline;
#elif defined(KEST_ISA_X86_64_V3)
    constexpr Isa kLimit = Isa::kX86V3;
#else
    constexpr Isa kLimit = Isa::kX86V4;
#endif
    if (kLimit >= Isa::kX86V4 && HasX86V4()) return Isa::kX86V4;
    if (kLimit >= Isa::kX86V3 && HasX86V3()) return Isa::kX86V3;
    return Isa::kBaseline;
}

}  // namespace

Isa MachineIsa() {
    static const Isa isa = FindMachineIsa();
    return isa;
}
#else
Isa MachineIsa() {
    return Isa::kBaseline;
}
#endif

}  // namespace util
