#!/bin/sh
# Builds the upcall receive path fuzz target with clang, libFuzzer,
# AddressSanitizer and UndefinedBehaviorSanitizer:
# tests/MrtNotify/fuzz/build.sh [output]
# The target defines Kiv::assertionFailed itself, so Kiv/Assert.cpp is left out.
set -e
top=$(cd "$(dirname "$0")/../../.." && pwd)
out=${1:-/tmp/MrtNotifyFuzz}
kiv=$(ls "$top"/platform/Kiv/*.cpp | grep -v '/Assert\.cpp$')
${CXX:-clang++} -std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -I"$top" -I"$top/platform" -I"$top/tests/MrtNotify" \
  "$top/tests/MrtNotify/fuzz/MrtNotifyFuzz.cpp" "$top"/MrtNotify/*.cpp \
  "$top"/platform/Wirly/*.cpp "$top"/platform/Schema/*.cpp \
  "$top"/platform/Brisklog/*.cpp \
  $kiv \
  -o "$out"
echo "built $out"
