#pragma once
// Counts calls of the global operator new in this test binary, and the bytes they ask for, so
// tests can show that a per-frame path does not allocate once its buffers have their
// steady-state sizes, and bound what setting up a session costs.
#include <cstddef>

namespace sonel_test {
size_t allocationCount();
// Bytes requested from operator new so far (never lowered by frees).
size_t allocatedBytes();
}
