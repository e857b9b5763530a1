#!/usr/bin/env bash
# The library exports what the camera HAL uses and nothing else.
# usage: exported_symbols_test.sh LIBRARY LIST
set -euo pipefail

exported=$(nm -D --defined-only --demangle "$1" | cut -d' ' -f3- |
    sed 's/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >/std::string/g' | LC_ALL=C sort -u)
readelf -h "$1" | grep -q ELF64 && int64_t=long || int64_t='long long'
diff <(sed "s/int64_t/$int64_t/" "$2" | LC_ALL=C sort) <(printf '%s\n' "$exported") || {
    echo "exported symbols differ from $2 (< expected, > exported)"
    exit 1
}
