// Runs a fuzz target over the files and folders named on the command line: the corpus as a test, or a crash
// found elsewhere.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "FuzzTarget.h"

namespace {

int gReplayed = 0;

bool replay(const std::filesystem::path& path) {
    if (std::filesystem::is_directory(path)) {
        bool allRead = true;
        for (const auto& entry : std::filesystem::directory_iterator(path))
            allRead = replay(entry.path()) && allRead;
        return allRead;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::string input((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "%s: %zu bytes\n", path.c_str(), input.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    ++gReplayed;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    bool allRead = true;
    for (int i = 1; i < argc; ++i)
        allRead = replay(argv[i]) && allRead;
    return allRead && gReplayed > 0 ? 0 : 2;
}
