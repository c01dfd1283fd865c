// SPDX-License-Identifier: MIT
//
// System calls that fail when a test says so: the faults that a real system has only when it runs out of
// something. zel_test_faults() in tests/CMakeLists.txt gives them to a test whose copy of the library is
// linked statically; the linker then has these calls come here first.
#ifndef TESTS_SUPPORT_FAULTS_HPP
#define TESTS_SUPPORT_FAULTS_HPP

#include <climits>

namespace support {

enum class Call { read, write, poll, pipe2 };

// While it lives, the next calls that its thread makes fail with the error: so many of them, all unless
// given. One at a time in a thread. What the library writes in signal context is not reached.
class Fault {
public:
    Fault(Call call, int error, int times = INT_MAX);
    ~Fault();
    Fault(Fault const&) = delete;
    Fault& operator=(Fault const&) = delete;
};

} // namespace support

#endif
