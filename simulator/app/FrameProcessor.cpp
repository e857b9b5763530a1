#include "FrameProcessor.h"

#include <gui/BufferItemConsumer.h>
#include <hardware/gralloc.h>

#include <condition_variable>
#include <optional>
#include <stdexcept>
#include <thread>

#include "FieldList.h"
#include "FrameBuffer.h"
#include "FrameCounter.h"
#include "FrameHeader.h"
#include "JsonMessage.h"
#include "JsonUtils.h"
#include "Program.h"
#include "ReplacementQueue.h"

// Last: a platform header that brings many names.
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

namespace vel::sim {

using android::BufferItem;
using android::BufferItemConsumer;
using android::BufferQueue;
using android::GraphicBuffer;
using android::JsonUtils;
using android::sp;
using ClientType = ServiceClient::ClientType;

namespace {

constexpr char kVerb[] = "frames";
// One frame at a time, so that the queue needs no more than the seven slots that its producer can cache.
constexpr int kMaxAcquired = 1;
constexpr int kMaxReaderImages = 58;

struct Setup {
    FrameSize size;
    int buffers = 0;
    int hold = -1;  // keeps every frame of a queue after so many; negative for none
    Effect effect = Effect::Tint;

    bool holds(uint64_t framesTaken) const { return hold >= 0 && framesTaken >= static_cast<uint64_t>(hold); }
};

Setup readSetup(const std::string& line) {
    FieldList fields(line);
    Setup setup;
    (void)fields.pair("size", setup.size.width, setup.size.height);
    if (!isFrameSize(setup.size)) throw std::invalid_argument("frames need a size, as in size=1920x1080");
    setup.buffers = fields.number("buffers", 16, 1, kMaxReaderImages);
    setup.hold = fields.number("hold", -1, 0, INT32_MAX);
    setup.effect = parseEffect(fields.text("effect", "tint"));
    fields.rejectOthers(1);
    return setup;
}

std::string configuration(const Setup& setup) {
    JsonMessage message;
    auto& allocator = message.allocator();
    rapidjson::Value stream(rapidjson::kObjectType);
    stream.AddMember("version", "v1", allocator);
    stream.AddMember("image-width", setup.size.width, allocator);
    stream.AddMember("image-height", setup.size.height, allocator);
    stream.AddMember("hal-consumer-usage", static_cast<int>(GRALLOC_USAGE_SW_READ_OFTEN), allocator);
    stream.AddMember("hal-consumer-buffer-count", setup.buffers, allocator);
    stream.AddMember("hal-consumer-v4l2-format", "RAW_PRIVATE", allocator);
    message.root().AddMember("imgsub-configure-stream", stream, allocator);
    return message.toText();
}

// The bytes of a frame's row that the HAL has agreed to; empty when its reply is a refusal.
std::optional<int> acceptedRowBytes(const std::string& reply) {
    JsonMessage message;
    int bytes = 0;
    if (!message.parse(reply) || !message.root().IsObject() ||
        JsonUtils::parseValue(message.root(), "app-consumer-width", bytes, -1) != 0) {
        return std::nullopt;
    }
    return bytes;
}

// The application's end of a queue, and the producer that goes to the HAL.
struct OwnQueue {
    OwnQueue() {
        sp<android::IGraphicBufferProducer> end;
        sp<android::IGraphicBufferConsumer> consumerEnd;
        BufferQueue::createBufferQueue(&end, &consumerEnd);
        consumer = new BufferItemConsumer(consumerEnd, GRALLOC_USAGE_SW_READ_OFTEN, kMaxAcquired);
        producer = new android::TWGraphicBufferProducer<ReplacementQueue::HidlProducer>(end);
    }

    sp<BufferItemConsumer> consumer;
    sp<ReplacementQueue::HidlProducer> producer;
};

}  // namespace

// Takes the frames of the application frame path as they come and looks at their counters.
class FrameProcessor::Preview : public android::ConsumerBase::FrameAvailableListener {
  public:
    explicit Preview(const Setup& setup) : mSetup(setup) {}

    const OwnQueue& queue() const { return mQueue; }

    void onFrameAvailable(const BufferItem&) override {
        if (mSetup.holds(mFrames)) return;
        BufferItem item;
        if (mQueue.consumer->acquireBuffer(&item, 0) != android::NO_ERROR) return;
        {
            const MappedBuffer mapped(item.mGraphicBuffer, GraphicBuffer::USAGE_SW_READ_OFTEN);
            if (item.mGraphicBuffer->getWidth() == frameRowBytes(kPreviewSize) && mapped.data() != nullptr)
                look(ConstFrameView(mapped.data(), kPreviewSize));
        }
        mQueue.consumer->releaseBuffer(item);
    }

    uint64_t frames() const { return mFrames; }
    uint64_t outOfOrder() const { return mOutOfOrder; }

  private:
    void look(const ConstFrameView& frame) {
        const auto read = readFrameCounter(frame);
        if (!read || (mFrames > 0 && read->counter <= mLast)) ++mOutOfOrder;
        if (read) mLast = read->counter;
        ++mFrames;
    }

    const Setup mSetup;
    const OwnQueue mQueue;
    uint32_t mLast = 0;  // of the delivering thread; one frame is delivered at a time
    std::atomic<uint64_t> mFrames{0};
    std::atomic<uint64_t> mOutOfOrder{0};
};

class FrameProcessor::Substitution {
  public:
    Substitution(const Setup& setup, const sp<ReplacementQueue::HidlProducer>& reader)
        : mSetup(setup), mFilter(setup.effect, setup.size), mReplacements(reader), mWaker(new Waker) {
        mQueue.consumer->setFrameAvailableListener(mWaker);
        mThread = std::thread([this] { run(); });
    }
    ~Substitution() {
        mQueue.consumer->abandon();
        mWaker->stop();
        mThread.join();
    }

    const OwnQueue& queue() const { return mQueue; }
    android::status_t status() const { return mReplacements.status(); }  // before the first frame only
    uint64_t replaced() const { return mReplaced; }
    uint64_t lost() const { return mLost; }

  private:
    // Counts the frames that wait.
    class Waker : public android::ConsumerBase::FrameAvailableListener {
      public:
        void onFrameAvailable(const BufferItem&) override { add(false); }
        void stop() { add(true); }
        // Waits for the next frame; false when it is over.
        bool wait() {
            std::unique_lock<std::mutex> lock(mLock);
            mChanged.wait(lock, [this] { return mStopped || mWaiting > 0; });
            if (mStopped) return false;
            --mWaiting;
            return true;
        }

      private:
        void add(bool stop) {
            {
                std::lock_guard<std::mutex> lock(mLock);
                ++mWaiting;
                mStopped = mStopped || stop;
            }
            mChanged.notify_all();
        }

        std::mutex mLock;
        std::condition_variable mChanged;
        uint64_t mWaiting = 0;  // guarded by mLock
        bool mStopped = false;  // guarded by mLock
    };

    void run() {
        while (mWaker->wait()) {
            BufferItem item;
            if (mQueue.consumer->acquireBuffer(&item, 0) != android::NO_ERROR) continue;
            if (mSetup.holds(mReplaced)) {
                printLine("frames held");
                while (mWaker->wait()) {
                }
                return;
            }
            replace(item);
            mQueue.consumer->releaseBuffer(item);
        }
    }

    void replace(const BufferItem& item) {
        const auto rowBytes = static_cast<uint32_t>(frameRowBytes(mSetup.size));
        const MappedBuffer captured(item.mGraphicBuffer, GraphicBuffer::USAGE_SW_READ_OFTEN);
        if (item.mGraphicBuffer->getWidth() != rowBytes || captured.data() == nullptr) {
            lose("it has another size");
            return;
        }
        const uint64_t memory = memoryIdentity(*item.mGraphicBuffer);
        const bool sent = mReplacements.send(
            rowBytes, item.mTimestamp,
            [&](const sp<GraphicBuffer>& replacement) { process(captured.data(), memory, replacement); });
        if (sent) {
            ++mReplaced;
        } else {
            lose("the HAL takes no replacement: status " + std::to_string(mReplacements.status()));
        }
    }

    void process(const uint8_t* captured, uint64_t capturedMemory, const sp<GraphicBuffer>& replacement) {
        const MappedBuffer mapped(replacement, GraphicBuffer::USAGE_SW_WRITE_OFTEN);
        if (mapped.data() == nullptr) return;
        mFilter.apply(ConstFrameView(captured, mSetup.size), FrameView(mapped.data(), mSetup.size));
        copyFrameHeader(captured, mapped.data(), mSetup.size);
        FrameHeader header = readFrameHeader(captured, mSetup.size);
        if (header.memory != capturedMemory) ++header.copiesMade;
        header.memory = memoryIdentity(*replacement);
        writeFrameHeader(mapped.data(), mSetup.size, header);
    }

    void lose(const std::string& why) {
        if (mLost++ == 0) printLine("frames lost: %s", why.c_str());
    }

    const Setup mSetup;
    EffectFilter mFilter;
    ReplacementQueue mReplacements;
    const OwnQueue mQueue;
    const sp<Waker> mWaker;
    std::atomic<uint64_t> mReplaced{0};
    std::atomic<uint64_t> mLost{0};
    std::thread mThread;
};

FrameProcessor::FrameProcessor(ServiceClient& client) : mClient(client) {}

FrameProcessor::~FrameProcessor() {
    end();
}

bool FrameProcessor::isCommand(const std::string& line) {
    return FieldList::verbOf(line) == kVerb;
}

bool FrameProcessor::execute(const std::string& line) try {
    end();
    return FieldList(line).word(1) == "end" || start(line);
} catch (const std::invalid_argument& error) {
    printLine("error %s", error.what());
    return false;
}

// The reader's surface is fetched before the application's own takes its place at the service.
bool FrameProcessor::start(const std::string& line) {
    const Setup setup = readSetup(line);
    const auto service = mClient.service();
    if (service == nullptr) throw std::invalid_argument("the desktop service is not there");
    const auto reply = mClient.send(ClientType::CLIENT_CAMERA_HAL, configuration(setup));
    if (acceptedRowBytes(reply.text) != static_cast<int>(frameRowBytes(setup.size)))
        throw std::invalid_argument("the HAL refused the frames: " + reply.text);
    const sp<ReplacementQueue::HidlProducer> reader =
        service->getSurface(ClientType::CLIENT_IMG_SUB).withDefault(nullptr);
    if (reader == nullptr) throw std::invalid_argument("the HAL has no reader for replacements");

    auto substitution = std::make_unique<Substitution>(setup, reader);
    if (substitution->status() != android::NO_ERROR) {
        throw std::invalid_argument("the HAL's reader refused: status " +
                                    std::to_string(substitution->status()));
    }
    mSubstitution = std::move(substitution);
    mPreview = new Preview(setup);
    mPreview->queue().consumer->setFrameAvailableListener(mPreview);
    if (!service->setSurface(ClientType::CLIENT_APP, mPreview->queue().producer).isOk() ||
        !service->setSurface(ClientType::CLIENT_IMG_SUB, mSubstitution->queue().producer).isOk()) {
        throw std::invalid_argument("the desktop service went away");
    }
    printLine("frames of %dx%d configured, effect %s", setup.size.width, setup.size.height,
              effectName(setup.effect).c_str());
    return true;
}

void FrameProcessor::end() {
    if (mSubstitution == nullptr) return;
    if (const auto service = mClient.service()) {
        (void)service->setSurface(ClientType::CLIENT_IMG_SUB, nullptr).isOk();
        (void)service->setSurface(ClientType::CLIENT_APP, nullptr).isOk();
    }
    mPreview->queue().consumer->abandon();
    printLine("frames ended: %llu replaced, %llu lost, preview %llu, out of order %llu",
              static_cast<unsigned long long>(mSubstitution->replaced()),
              static_cast<unsigned long long>(mSubstitution->lost()),
              static_cast<unsigned long long>(mPreview->frames()),
              static_cast<unsigned long long>(mPreview->outOfOrder()));
    mSubstitution.reset();
    mPreview = nullptr;
}

}  // namespace vel::sim
