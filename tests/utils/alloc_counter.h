#pragma once
// Counts calls of the global operator new in this test binary, so tests can show that a
// per-frame path does not allocate once its buffers have their steady-state sizes.
#include <cstddef>

namespace sonel_test {
size_t allocationCount();
}
