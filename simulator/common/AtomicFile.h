#pragma once

#include <cstdio>
#include <string>

namespace vel::sim {

/**
 * A file that is written under another name beside its place, whose folder is made, and removed unless it is
 * put there. Throws std::runtime_error with one line that names the file and the reason. One thread.
 */
class AtomicFile {
  public:
    explicit AtomicFile(const std::string& file);
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    /** Binary; stays this object's. */
    FILE* stream() const { return mStream; }

    /** The last call. */
    void putInPlace();

    /** Throws what the methods do. */
    [[noreturn]] static void fail(const std::string& file, const std::string& why);

  private:
    const std::string mFile;
    std::string mTemporary;
    FILE* mStream = nullptr;
};

}  // namespace vel::sim
