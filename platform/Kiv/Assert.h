// Assertions for broken invariants. A failure prints the asserted expression
// exactly as written in the source, with its place, and aborts the process:
//
//   KIV_ASSERT(bitMapperKey != BitMapperKey());
//   // stderr: Assertion failed: bitMapperKey != BitMapperKey() (BitMapperSm.cpp:88, doAllocBitIndex)
//
// Assertions stay on in every build type: they guard shared state that other
// processes read, so continuing past one would spread the damage.
#pragma once

namespace Kiv {
[[noreturn]] void assertionFailed(char const* expression, char const* file, int line, char const* function);
}

#define KIV_ASSERT(expr) ((expr) ? static_cast<void>(0) : ::Kiv::assertionFailed(#expr, __FILE__, __LINE__, __func__))
