#ifndef KEST_KERNEL_FRAME_ISA_H_
#define KEST_KERNEL_FRAME_ISA_H_

// Hot loops are compiled once for each instruction set from one source file, `<name>_loops.cc`. A tag names the
// instruction set and is the first template argument of all that such a file defines, so that no function compiled
// for a wide machine can stand in for one that every machine runs. For the same reason the helpers that the loops
// share are KEST_INLINE: they leave no out-of-line copy, in debug builds neither.

#define KEST_INLINE __attribute__((always_inline)) inline

// Before a loop whose iteration i reads and writes only elements i: input and output may be the same array, yet the
// compiler need not look for other overlaps.
#if defined(__clang__)
#define KEST_IVDEP _Pragma("clang loop vectorize(assume_safety)")
#else
#define KEST_IVDEP _Pragma("GCC ivdep")
#endif

// The widest vector that the instruction set has, in bytes: GCC makes scalar code of comparisons of wider ones.
#if defined(__AVX512F__)
#define KEST_VECTOR_BYTES 64
#elif defined(__AVX2__)
#define KEST_VECTOR_BYTES 32
#else
#define KEST_VECTOR_BYTES 16
#endif

namespace util {

struct Baseline {};  // what every processor of the architecture has
struct X86V3 {};     // AVX2 and fused multiply-add
struct X86V4 {};     // AVX-512 F, BW, CD, DQ, VL

enum class Isa { kBaseline, kX86V3, kX86V4 };

/// The widest instruction set that this machine has and this build may use.
Isa MachineIsa();

/// Calls `call` with the tag of MachineIsa().
template <typename Call>
void DispatchIsa(Call call) {
#if defined(__x86_64__)
    switch (MachineIsa()) {
        case Isa::kX86V4:
            return call(X86V4{});
        case Isa::kX86V3:
            return call(X86V3{});
        case Isa::kBaseline:
            break;
    }
#endif
    call(Baseline{});
}

}  // namespace util

#endif  // KEST_KERNEL_FRAME_ISA_H_
