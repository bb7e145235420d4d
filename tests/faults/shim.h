#ifndef KEST_TESTS_FAULTS_SHIM_H_
#define KEST_TESTS_FAULTS_SHIM_H_

/// \file
/// The calls of the C library and the operator new of a program and of its libraries, which fail when told to.
///
/// Calls go by the names of the C library, but for "create", an openat that makes a file, and "new", any allocation.
/// fsync does nothing else.

/// Not an errno: the call succeeds and moves half of what it is asked to.
constexpr int kShort = -1;

struct Fault {
    const char* call;  // null for none
    int error;         // what errno becomes, or kShort
    long times;        // calls that fail
    long before = 0;   // calls that succeed before them
    long fired = 0;    // calls that have failed
};

/// The faults at work at once, to be changed while no other thread runs. A test walks the first over the calls while
/// the others stay.
extern Fault faults[4];

/// Allocations that have not been freed.
long LiveAllocations();

#endif  // KEST_TESTS_FAULTS_SHIM_H_
