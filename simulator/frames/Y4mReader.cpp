#include "Y4mReader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "Timeline.h"

namespace vel::sim {
namespace {

constexpr size_t kMaxLine = 1024;  // headers are far shorter
constexpr char kMagic[] = "YUV4MPEG2";

std::optional<int> parseNumber(const std::string& text) {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < 0) return std::nullopt;
    return number;
}

std::optional<FrameRate> parseRate(const std::string& text) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) return std::nullopt;
    const auto frames = parseNumber(text.substr(0, colon));
    const auto seconds = parseNumber(text.substr(colon + 1));
    if (!frames || !seconds) return std::nullopt;
    if (*frames == 0 || *seconds == 0) return FrameRate{};
    return FrameRate{*frames, *seconds};
}

// The places of chroma samples differ between these; their layout does not.
bool isPlain420(const std::string& chroma) {
    return chroma == "420" || chroma == "420jpeg" || chroma == "420mpeg2" || chroma == "420paldv";
}

}  // namespace

bool beginsPlainY4m(const std::string& start) {
    std::istringstream fields(start.substr(0, start.find('\n')));
    std::string field;
    if (!(fields >> field) || field != kMagic) return false;
    while (fields >> field) {
        if (field[0] == 'C' && !isPlain420(field.substr(1))) return false;
    }
    return true;
}

ReadBytes readFrom(int fd) {
    return [fd](void* to, size_t count) {
        for (;;) {
            const ssize_t got = read(fd, to, count);
            if (got >= 0) return static_cast<size_t>(got);
            if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "cannot read");
        }
    };
}

Y4mReader::Y4mReader(const std::string& name, ReadBytes read)
    : mName(printable(name, 256)), mRead(std::move(read)) {
    std::string header;
    if (!readLine(kMagic, header)) fail("is empty");
    parseHeader(header);
}

void Y4mReader::fail(const std::string& what) const {
    throw std::runtime_error(mName + ": " + what);
}

std::string Y4mReader::place() const {
    return mSize.width == 0 ? "at the start" : "of frame " + std::to_string(mFrames);
}

bool Y4mReader::fill() {
    mBufferStart = 0;
    mBufferEnd = mRead(mBuffer.data(), mBuffer.size());
    return mBufferEnd != 0;
}

// Reads a line that begins with the word. False at the end of the stream.
bool Y4mReader::readLine(const std::string& word, std::string& line) {
    line.clear();
    bool whole = false;
    while (!whole && line.size() < kMaxLine && (mBufferStart < mBufferEnd || fill())) {
        const char next = static_cast<char>(mBuffer[mBufferStart++]);
        whole = next == '\n';
        if (!whole) line.push_back(next);
    }
    if (line.empty() && !whole) return false;
    const bool expected =
        line.compare(0, word.size(), word) == 0 && (line.size() == word.size() || line[word.size()] == ' ');
    if (!expected && (whole || line.size() >= word.size()))
        fail("is not a YUV4MPEG2 stream: " + word + " expected " + place() + ", found '" +
             printable(line.substr(0, 24)) + "'");
    if (!whole)
        fail((line.size() < kMaxLine ? "ends inside the header " : "has an endless header ") + place());
    return true;
}

size_t Y4mReader::readBytes(uint8_t* to, size_t count) {
    const size_t buffered = std::min(count, mBufferEnd - mBufferStart);
    std::memcpy(to, mBuffer.data() + mBufferStart, buffered);
    mBufferStart += buffered;
    size_t done = buffered;
    while (done < count) {
        const size_t got = mRead(to + done, count - done);
        if (got == 0) break;
        done += got;
    }
    return done;
}

void Y4mReader::parseHeader(const std::string& header) {
    std::istringstream fields(header.substr(std::strlen(kMagic)));
    std::string field;
    while (fields >> field)
        parseField(field[0], field.substr(1));
    const std::string sides = std::to_string(mSize.width) + "x" + std::to_string(mSize.height);
    if (mSize.width == 0 || mSize.height == 0) fail("has a header without width or height");
    if (!isFrameSize(mSize))
        fail("has pictures of " + sides + ", only sides of 2 to " + std::to_string(kMaxFrameSide) +
             " are read");
    if (mSize.width % 2 != 0 || mSize.height % 2 != 0)
        fail("has pictures of " + sides + ", only even widths and heights are read");
}

void Y4mReader::parseField(char tag, const std::string& value) {
    const auto number = [&] {
        const auto parsed = parseNumber(value);
        if (!parsed) fail(std::string("has a broken header field ") + tag + printable(value, 40));
        return *parsed;
    };
    if (tag == 'W') mSize.width = number();
    if (tag == 'H') mSize.height = number();
    if (tag == 'C' && !isPlain420(value))
        fail("has chroma '" + printable(value, 40) + "', only 8-bit 4:2:0 is read");
    if (tag == 'F') {
        const auto rate = parseRate(value);
        if (!rate) fail("has a broken header field F" + printable(value, 40));
        mRate = *rate;
    }
}

bool Y4mReader::readFrame(const FrameView& frame) {
    if (frame.size() != mSize) throw std::invalid_argument("the frame has another size than the stream");
    std::string header;
    if (!readLine("FRAME", header)) {
        if (mFrames == 0) fail("holds no picture");
        return false;
    }
    const size_t got = readBytes(frame.block(), frame.bytes());
    if (got != frame.bytes()) {
        fail("ends inside frame " + std::to_string(mFrames) + ", after " + std::to_string(got) + " of " +
             std::to_string(frame.bytes()) + " bytes");
    }
    ++mFrames;
    return true;
}

}  // namespace vel::sim
