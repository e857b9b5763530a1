#include "PictureTap.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <vector>

#include "FieldList.h"
#include "Jpeg.h"
#include "Program.h"
#include "StartThread.h"

namespace vel::sim {

namespace {

constexpr char kVerb[] = "pictures";
constexpr std::chrono::nanoseconds kPeriod{1'000'000'000 / 15};
constexpr int kQuality = 80;
constexpr int kPoorQuality = 40;           // for pictures that do not fit into a packet
constexpr int kSendBufferBytes = 1 << 20;  // the system gives what it allows
constexpr uint8_t kDarkGrey = 56, kColourless = 128;

// A list as in "0,2" or "none", a bit a stream; nothing for any other text.
std::optional<uint32_t> readStreams(const std::string& text) {
    if (text == "none") return 0;
    uint32_t streams = 0;
    std::istringstream list(text);
    for (std::string stream; std::getline(list, stream, ',');) {
        const uint32_t index =
            stream.size() == 1 ? static_cast<uint32_t>(stream[0] - '0') : kMaxPictureStreams;
        if (index >= kMaxPictureStreams) return std::nullopt;
        streams |= 1U << index;
    }
    if (streams == 0) return std::nullopt;
    return streams;
}

// Of each half.
FrameSize smallSize(FrameSize size) {
    const double factor = std::min({1.0, static_cast<double>(kMaxPictureWidth) / size.width,
                                    static_cast<double>(kMaxPictureHeight) / size.height});
    const auto even = [&](int side) { return std::max(2, static_cast<int>(side * factor) / 2 * 2); };
    return {even(size.width), even(size.height)};
}

Plane<uint8_t> half(const Plane<uint8_t>& plane, bool isRight) {
    return plane.part(isRight ? plane.width / 2 : 0, 0, plane.width / 2, plane.height);
}

void fill(const Plane<uint8_t>& plane, uint8_t value) {
    for (int y = 0; y < plane.height; ++y)
        std::fill_n(plane.row(y), plane.width, value);
}

void darken(const Plane<uint8_t>& plane) {
    for (int y = 0; y < plane.height; ++y)
        std::transform(plane.row(y), plane.row(y) + plane.width, plane.row(y),
                       [](uint8_t luma) { return static_cast<uint8_t>(luma / 2); });
}

// Captured at the left; at the right its replacement, dark when it was shown before, or grey without one.
void copyPair(const ConstFrameView& captured, const std::optional<ConstFrameView>& replaced, bool isOld,
              const FrameView& both) {
    for (size_t i = 0; i < both.planes().size(); ++i) {
        const Plane<uint8_t> right = half(both.planes()[i], true);
        const bool isLuma = i == 0;
        scalePlane(captured.planes()[i], half(both.planes()[i], false));
        if (replaced) {
            scalePlane(replaced->planes()[i], right);
            if (isLuma && isOld) darken(right);
        } else {
            fill(right, isLuma ? kDarkGrey : kColourless);
        }
    }
}

}  // namespace

PictureTap::PictureTap(int socket) : mSocket(socket) {
    if (mSocket < 0) return;
    setsockopt(mSocket, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof(kSendBufferBytes));
    mThread = startThread("the pictures", [this] { run(); });
}

PictureTap::~PictureTap() {
    if (!mThread.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mIsOver = true;
    }
    mChanged.notify_all();
    mThread.join();
}

bool PictureTap::isCommand(const std::string& line) {
    return FieldList::verbOf(line) == kVerb;
}

bool PictureTap::execute(const std::string& line) {
    const auto watched = readStreams(line.substr(std::min(line.size(), sizeof(kVerb))));
    if (!watched) {
        refuseLine(line);
        return false;
    }
    mWatched = *watched;
    return true;
}

void PictureTap::offer(const FrameHeader& captured, const ConstFrameView& picture,
                       const std::optional<FrameHeader>& replacement,
                       const std::optional<ConstFrameView>& replaced) {
    if (mSocket < 0 || captured.stream >= mStreams.size() || ((mWatched >> captured.stream) & 1U) == 0)
        return;
    {
        Stream& stream = mStreams[captured.stream];
        const auto now = Clock::now();
        std::lock_guard<std::mutex> lock(stream.lock);
        if (now < stream.due) return;
        stream.due = std::max(stream.due + kPeriod, now);
        const FrameSize size = smallSize(picture.size());
        const FrameSize both{2 * size.width, size.height};
        if (!stream.small || stream.small->size() != both) stream.small.emplace(both);
        const bool isOld = replacement && replacement->captureNs == stream.replacementNs;
        copyPair(picture, replaced, isOld, stream.small->view());
        stream.replacementNs = replacement ? replacement->captureNs : 0;
        stream.frame = captured.counter;
        stream.isNew = true;
    }
    {
        std::lock_guard<std::mutex> lock(mLock);
        mHasNew = true;
    }
    mChanged.notify_one();
}

void PictureTap::run() {
    while (waitForNew()) {
        for (uint32_t index = 0; index < mStreams.size(); ++index)
            send(index);
    }
}

bool PictureTap::waitForNew() {
    std::unique_lock<std::mutex> lock(mLock);
    mChanged.wait(lock, [this] { return mHasNew || mIsOver; });
    mHasNew = false;
    return !mIsOver;
}

// The stream's lock is let go of for the work, so that its thread does not wait.
void PictureTap::send(uint32_t index) {
    Stream& stream = mStreams[index];
    std::optional<Frame> picture;
    PicturePacket start{index, 0};
    {
        std::lock_guard<std::mutex> lock(stream.lock);
        if (!stream.isNew) return;
        stream.isNew = false;
        start.frame = stream.frame;
        picture.swap(stream.small);
    }
    if (!sendPacket(start, *picture, kQuality) && errno == EMSGSIZE)
        (void)sendPacket(start, *picture, kPoorQuality);
    std::lock_guard<std::mutex> lock(stream.lock);
    if (!stream.small) stream.small = std::move(picture);
}

bool PictureTap::sendPacket(const PicturePacket& start, const Frame& picture, int quality) const {
    std::vector<uint8_t> jpeg = encodeJpeg(picture.view(), quality);
    iovec parts[] = {{const_cast<PicturePacket*>(&start), sizeof(start)}, {jpeg.data(), jpeg.size()}};
    msghdr packet{};
    packet.msg_iov = parts;
    packet.msg_iovlen = 2;
    return jpeg.empty() || sendmsg(mSocket, &packet, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

}  // namespace vel::sim
