#include "AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "Timeline.h"

namespace vel::sim {

AtomicFile::AtomicFile(const std::string& file) : mFile(file), mTemporary(file + ".XXXXXX") {
    std::error_code error;
    const auto folder = std::filesystem::path(file).parent_path();
    if (!folder.empty()) std::filesystem::create_directories(folder, error);
    if (error) fail(file, error.message());
    const int fd = mkostemp(mTemporary.data(), O_CLOEXEC);
    if (fd < 0) fail(file, std::strerror(errno));
    fchmod(fd, 0644);  // temporary files are their owner's only
    mStream = fdopen(fd, "wb");
}

AtomicFile::~AtomicFile() {
    if (mStream == nullptr) return;
    fclose(mStream);
    unlink(mTemporary.c_str());
}

void AtomicFile::putInPlace() {
    if (fflush(mStream) != 0 || ferror(mStream) != 0) fail(mFile, std::strerror(errno));
    if (rename(mTemporary.c_str(), mFile.c_str()) != 0) fail(mFile, std::strerror(errno));
    fclose(mStream);
    mStream = nullptr;
}

void AtomicFile::fail(const std::string& file, const std::string& why) {
    throw std::runtime_error("cannot write " + printable(file, 256) + ": " + why);
}

}  // namespace vel::sim
