#!/bin/sh
# Builds the trace decoder fuzz target with clang, libFuzzer,
# AddressSanitizer and UndefinedBehaviorSanitizer:
# tests/Brisklog/fuzz/build.sh [output]
set -e
top=$(cd "$(dirname "$0")/../../.." && pwd)
out=${1:-/tmp/BrisklogFuzz}
${CXX:-clang++} -std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -I"$top" -I"$top/platform" \
  "$top/tests/Brisklog/fuzz/BrisklogFuzz.cpp" "$top"/platform/Brisklog/*.cpp \
  "$top"/platform/Kiv/*.cpp \
  -o "$out"
echo "built $out"
