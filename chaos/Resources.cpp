#include "Resources.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace vel::chaos {

namespace {

size_t entriesOf(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

Resources Resources::now() {
    size_t pages = 0, residentPages = 0;
    std::ifstream("/proc/self/statm") >> pages >> residentPages;
    // One descriptor is that of the look into the folder.
    return {entriesOf("/proc/self/fd") - 1, entriesOf("/proc/self/task"),
            residentPages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 1024};
}

}  // namespace vel::chaos
