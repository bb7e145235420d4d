#ifndef KEST_TESTS_FAULTS_SHIM_H_
#define KEST_TESTS_FAULTS_SHIM_H_

/// \file
/// libkest_faults.so, to be preloaded: the system and the allocator, which fail when told to.
///
/// Calls go by the names of the C library, but for "create", an openat that makes a file, and "malloc", any allocation.

/// Not an errno: the call succeeds and moves half of what it is asked to.
constexpr int kShort = -1;

struct Fault {
    const char* call;  // null for none
    int error;         // what errno becomes, or kShort
    long times;        // calls that fail
    long before;       // calls that succeed before them
    long fired;        // calls that have failed
};

/// The faults at work at once. A test walks the first over the calls while the others stay.
constexpr int kNumFaults = 4;

// Weak: null in a program that runs without the library.
extern "C" {
/// To be changed while no other thread runs. fsync succeeds at once while the first one is set.
extern __attribute__((weak)) Fault faults[kNumFaults];
/// Allocations that have not been freed.
__attribute__((weak)) long LiveAllocations();
}

#endif  // KEST_TESTS_FAULTS_SHIM_H_
