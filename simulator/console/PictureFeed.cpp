#include "PictureFeed.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

#include "StartThread.h"

namespace vel::sim {

namespace {
constexpr std::chrono::seconds kLongestWait{1};
constexpr size_t kMaxPacketBytes = size_t{1} << 20;
}  // namespace

PictureFeed::~PictureFeed() {
    if (!mReader.joinable()) return;
    eventfd_write(mStop, 1);
    mReader.join();
}

void PictureFeed::readFrom(android::base::unique_fd socket) {
    if (mReader.joinable()) mReader.join();
    mStop.reset(eventfd(0, EFD_CLOEXEC));
    if (mStop < 0) throw std::system_error(errno, std::generic_category(), "no descriptor for the pictures");
    mReader = startThread("the pictures", [this, source = std::move(socket)] { read(source); });
    std::lock_guard<std::mutex> lock(mLock);
    mOnWatched(watched());
}

void PictureFeed::read(int socket) {
    std::vector<char> packet(kMaxPacketBytes);
    for (;;) {
        pollfd sources[] = {{socket, POLLIN, 0}, {mStop, POLLIN, 0}};
        if (poll(sources, 2, -1) < 0) continue;
        if (sources[1].revents != 0) return;
        const ssize_t got = recv(socket, packet.data(), packet.size(), MSG_DONTWAIT);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got <= 0) return;
        PicturePacket start;
        const auto size = static_cast<size_t>(got);
        if (size <= sizeof(start)) continue;
        std::memcpy(&start, packet.data(), sizeof(start));
        add(start, std::string(packet.data() + sizeof(start), size - sizeof(start)));
    }
}

void PictureFeed::add(const PicturePacket& packet, std::string jpeg) {
    if (packet.stream >= mStreams.size()) return;
    {
        std::lock_guard<std::mutex> lock(mLock);
        Stream& stream = mStreams[packet.stream];
        stream.jpeg = std::make_shared<const std::string>(std::move(jpeg));
        ++stream.number;
    }
    mChanged.notify_all();
}

void PictureFeed::close() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mIsClosed = true;
    }
    mChanged.notify_all();
}

void PictureFeed::addViewer(uint32_t stream, int count) {
    std::lock_guard<std::mutex> lock(mLock);
    const std::string before = watched();
    mStreams[stream].viewers += count;
    if (mStreams[stream].viewers == 0) mStreams[stream].jpeg = nullptr;  // it would be an old one
    if (watched() != before) mOnWatched(watched());
}

std::string PictureFeed::watched() const {
    std::string streams;
    for (size_t i = 0; i < mStreams.size(); ++i) {
        if (mStreams[i].viewers > 0) streams.append(streams.empty() ? "" : ",").append(std::to_string(i));
    }
    return streams.empty() ? "none" : streams;
}

std::shared_ptr<const std::string> PictureFeed::Viewer::next() {
    std::unique_lock<std::mutex> lock(mFeed.mLock);
    const Stream& stream = mFeed.mStreams[mStream];
    const bool isThere = mFeed.mChanged.wait_for(lock, kLongestWait, [&] {
        return mFeed.mIsClosed || (stream.number != mSeen && stream.jpeg != nullptr);
    });
    if (!isThere || mFeed.mIsClosed) return nullptr;
    mSeen = stream.number;
    return stream.jpeg;
}

bool PictureFeed::Viewer::isOver() const {
    std::lock_guard<std::mutex> lock(mFeed.mLock);
    return mFeed.mIsClosed;
}

}  // namespace vel::sim
