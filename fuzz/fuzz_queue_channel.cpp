// What the other end of a buffer queue's channel may send: to the queue's process, and to a caller's.
//
// The first byte says which. Then come packets: a byte with what goes with it, another with what the caller
// asks (for a caller), and the packet itself.

#include <fcntl.h>
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <sys/mman.h>
#include <system/window.h>
#include <unistd.h>

#include <cstring>

#include "ConsumerQueue.h"
#include "FuzzTarget.h"
#include "ProducerServer.h"
#include "RawChannelEnd.h"
#include "RemoteProducer.h"
#include "WaitUntil.h"

namespace {

using namespace android;             // NOLINT(google-build-using-namespace)
using namespace vel::queue_channel;  // NOLINT(google-build-using-namespace)
using android::base::unique_fd;
using android::hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using BProducer = android::IGraphicBufferProducer;

int sealedMemory() {
    static const unique_fd memory = [] {
        unique_fd fd(memfd_create("fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        require(ftruncate(fd, 1 << 16) == 0 && fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) == 0);
        return fd;
    }();
    return memory;
}

template <typename Packet>
void sendNext(RawChannelEnd& end, Bytes& input) {
    const auto how = input.next<uint8_t>();
    auto packet = input.next<Packet>();
    if (how & 0x10) packet.version = kVersion;
    const int extraBytes = (how & 0x0f) == 1 ? -1 : (how & 0x0f) == 2 ? 1 : 0;
    end.send(packet, extraBytes, std::vector<int>(how >> 6, sealedMemory()), MSG_DONTWAIT);
}

void feedServer(Bytes& input) {
    const ConsumerQueue queue;
    queue.producer->setDequeueTimeout(0);  // nothing waits
    const auto client = std::make_shared<Client>();
    RawChannelEnd end(ProducerServer::open(queue.surface, client));
    while (!input.empty()) {
        sendNext<Request>(end, input);
        Reply reply;
        while (end.receive(reply, MSG_DONTWAIT) > 0) {
        }
    }
    end.close();
    require(waitUntil([&] { return client.use_count() == 1; }));  // the channel has ended
    client->disconnectFrom(*queue.surface);
    BProducer::QueueBufferOutput output;
    require(queue.producer->connect(nullptr, NATIVE_WINDOW_API_CPU, false, &output) == OK);
}

void ask(const sp<BProducer>& producer, uint8_t what) {
    int number = 0;
    uint64_t id = 0;
    sp<Fence> fence;
    sp<GraphicBuffer> buffer;
    BProducer::QueueBufferOutput output;
    switch (what % 7) {
        case 0:
            if (producer->requestBuffer(0, &buffer) == OK && buffer->initCheck() == OK) {
                void* pixels = nullptr;
                if (buffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &pixels) == OK) std::memset(pixels, 1, 1);
            }
            break;
        case 1:
            if (producer->dequeueBuffer(&number, &fence, 1, 1, 1, 0, nullptr, nullptr) >= 0)
                require(number >= kNoSlot && number < kSlotCount && fence != nullptr);
            break;
        case 2:
            producer->queueBuffer(0, {0, false, HAL_DATASPACE_UNKNOWN, Rect(), 0, 0, Fence::NO_FENCE},
                                  &output);
            break;
        case 3:
            producer->query(0, &number);
            break;
        case 4:
            require(producer->getConsumerName().size() <= sizeof(Reply::name));
            break;
        case 5:
            producer->getUniqueId(&id);
            break;
        default:
            producer->connect(nullptr, NATIVE_WINDOW_API_CPU, false, &output);
    }
}

void feedCaller(Bytes& input) {
    unique_fd socket;
    RawChannelEnd end = RawChannelEnd::openPair(&socket);
    const sp<BProducer> producer = new H2BGraphicBufferProducer(new RemoteProducer(std::move(socket)));
    while (!input.empty()) {
        const auto what = input.next<uint8_t>();
        sendNext<Reply>(end, input);  // before it is asked for
        ask(producer, what);
        Request request;
        while (end.receive(request, MSG_DONTWAIT) > 0) {
        }
    }
    end.close();
    require(producer->cancelBuffer(0, Fence::NO_FENCE) == DEAD_OBJECT);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes input(data, size);
    if (input.below(2) == 0) {
        feedServer(input);
    } else {
        feedCaller(input);
    }
    return 0;
}
