// Runs a fuzz target over the files named on the command line: the corpus as a test, or a crash found
// elsewhere.

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "FuzzTarget.h"

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::ifstream file(argv[i], std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "cannot read %s\n", argv[i]);
            return 2;
        }
        const std::string input((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        std::fprintf(stderr, "%s: %zu bytes\n", argv[i], input.size());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    }
    return argc > 1 ? 0 : 2;
}
