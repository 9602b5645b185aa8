#!/bin/sh
# Builds the Vorn fuzz target with clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer: tests/Vorn/fuzz/build.sh [output]
set -e
top=$(cd "$(dirname "$0")/../../.." && pwd)
out=${1:-/tmp/VornFuzz}
${CXX:-clang++} -std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -I"$top" -I"$top/platform" \
  "$top/tests/Vorn/fuzz/VornFuzz.cpp" "$top"/platform/Vorn/*.cpp \
  "$top"/platform/Kiv/*.cpp \
  -o "$out"
echo "built $out"
