#!/bin/sh
# Builds the Vorn fuzz target with clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer: tests/Vorn/fuzz/build.sh [output]
set -e
top=$(cd "$(dirname "$0")/../../.." && pwd)
out=${1:-/tmp/VornFuzz}
clang++ -std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -I"$top" -I"$top/platform" \
  "$top/tests/Vorn/fuzz/VornFuzz.cpp" "$top"/platform/Vorn/*.cpp \
  "$top/platform/Kiv/Exception.cpp" "$top/platform/Kiv/Entity.cpp" "$top/platform/Kiv/Trace.cpp" \
  "$top/platform/Kiv/EventLoop.cpp" "$top/platform/Kiv/FileDesc.cpp" "$top/platform/Kiv/System.cpp" \
  "$top/platform/Kiv/Assert.cpp" \
  -o "$out"
echo "built $out"
