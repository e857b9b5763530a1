#include "ProducerSlots.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl_host/LocalServices.h>

#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "ImgSubHelperTestAccess.h"
#include "LogCapture.h"
#include "ScriptedProducer.h"
#include "SignalFence.h"

#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

using namespace android;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using testing::ElementsAre;
using testing::IsEmpty;
using Wrapper = TWGraphicBufferProducer<HGraphicBufferProducer>;
using Texts = std::vector<std::string>;

namespace {

// A way of frames out to an application: its queue and what it says. Numbers stand as # in the texts.
struct Path {
    const char* name;
    const char* tag;
    ClientType client;
    uint32_t width, height;
    std::string dequeue;
    std::string slotsExhausted, requestFailed, reallocated, dequeueFailed, fenceLate, queueFailed,
        disconnectFailed;
    Texts connected, disconnected;
    bool reconnectsAtOnce;  // or in the next call
};

const Path kFramePath = {"FramePath",
                         "VelCameraDesktopChiHelper",
                         ClientType::CLIENT_APP,
                         640,
                         480,
                         "dequeue 640x480 format 1 usage 0x20",
                         "E request dequeue failed, max slots reached",
                         "E request buffer failed",
                         "D Got re-alloc request for slot #",
                         "E request dequeue failed with #",
                         "W Fence hasn't been signaled yet",
                         "E queue buffer failed",
                         "E Unable to disconnect producer, #",
                         {"D Got producer #"},
                         {},
                         true};

const Path kImgSubPath = {"ImgSubPath",
                          "VelImgSubHelper",
                          ClientType::CLIENT_IMG_SUB,
                          288,
                          1,
                          "dequeue 288x1 format 36 usage 0x30",
                          "E request imgsub dequeue failed, max slots reached",
                          "E request imgsub buffer failed",
                          "D Got re-alloc request for imgsub slot #",
                          "E request imgsub dequeue failed with #",
                          "W imgsub Fence hasn't been signaled yet",
                          "E queue buffer failed imgsub",
                          "E Unable to disconnect imgsub producer, #",
                          {"D connectImgSubProducer_locked: called. Line: #", "D mImgSubProducer: #"},
                          {"D disconnectImgSubProducer_locked: called. Line: #"},
                          false};

std::string with(std::string text, int number) {
    const size_t place = text.find('#');
    return place == text.npos ? text : text.replace(place, 1, std::to_string(number));
}

Texts operator+(Texts first, const Texts& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

const Texts kConnectCalls = {"connect api 4", "setMax 6"};

// A path to a queue that answers as told.
class AProducerPath : public testing::TestWithParam<Path> {
  protected:
    AProducerPath() {
        script->onConnect(BAD_VALUE);
        script->onSetMax(BAD_VALUE);
        service->offerSurface(path.client, new Wrapper(script));
        if (path.client == ClientType::CLIENT_IMG_SUB) {
            imgSub = std::make_unique<VelImgSubHelper>(new Wrapper(new ScriptedProducer), nullptr, path.width,
                                                       path.height, 36, 16, 8, true, false);
        } else {
            desktop->connectProducer(path.width, path.height, HAL_PIXEL_FORMAT_RGBA_8888);
        }
    }
    ~AProducerPath() override {
        imgSub.reset();
        desktop.reset();
        vel::host::clearLocalServices();
    }

    sp<GraphicBuffer> getFrame() {
        return imgSub ? imgSub->imgSubGetOutputFrameToFill(1) : desktop->getFrameToFill();
    }
    void queueFrame(int64_t timestamp) {
        imgSub ? imgSub->imgSubQueueOutputFrame(1, timestamp) : desktop->queueFilledFrame(timestamp);
    }
    int lentSlot() {
        return imgSub ? ImgSubHelperTestAccess::lentSlot(*imgSub, 1)
                      : DesktopHelperTestAccess::appSlot(*desktop);
    }
    sp<GraphicBuffer> lend(int slot) {
        script->onDequeue({IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION, slot});
        return getFrame();
    }
    void lendAndForget(int slot) {
        ASSERT_NE(lend(slot), nullptr);
        script->forgetCalls();
        log.clear();
    }
    // Addresses and line numbers, which end their lines, as #.
    Texts logged() const {
        Texts texts = log.texts(path.tag);
        for (std::string& text : texts) {
            const size_t line = text.find("Line: ");
            const size_t number = line == text.npos ? text.find("0x") : line + 6;
            if (number != text.npos) text.replace(number, text.npos, "#");
        }
        return texts;
    }

    const Path& path = GetParam();
    LogCapture log;
    const sp<FakeDesktopService> service = FakeDesktopService::start();
    const sp<ScriptedProducer> script = new ScriptedProducer;
    std::unique_ptr<VelChiDesktopHelper> desktop = DesktopHelperTestAccess::create();
    std::unique_ptr<VelImgSubHelper> imgSub;
};

INSTANTIATE_TEST_SUITE_P(Paths, AProducerPath, testing::Values(kFramePath, kImgSubPath),
                         [](const auto& info) { return info.param.name; });

TEST_P(AProducerPath, ConnectsAsTheCameraAndAllowsSixBuffersWhateverTheQueueSays) {
    EXPECT_NE(lend(6), nullptr) << "the queue refused both";
    EXPECT_EQ(script->calls(), kConnectCalls + (Texts{path.dequeue, "request 6"}));
    EXPECT_EQ(logged().back(), with(path.reallocated, 6));
}

struct Answer {
    int status, slot;
    status_t requestStatus;
    Texts calls;
    std::string Path::*text;  // the log line, null for none
    bool hasBuffer;
    int lentSlot;
};

TEST_P(AProducerPath, LendsWhatTheQueueAnswersWith) {
    const Answer answers[] = {
        {0, 2, 0, {}, nullptr, true, 2},
        {1, 6, 0, {"request 6"}, &Path::reallocated, true, 6},
        {0, 6, 0, {}, nullptr, true, 6},
        {1, 3, BAD_VALUE, {"request 3"}, &Path::requestFailed, false, 2},
        {1, 7, 0, {}, &Path::slotsExhausted, false, 2},
        {1, INT32_MAX, 0, {}, &Path::slotsExhausted, false, 2},
        {1, -3, 0, {}, &Path::slotsExhausted, false, 2},
        {1, INT32_MIN, 0, {}, &Path::slotsExhausted, false, 2},
        {0, 5, 0, {}, nullptr, false, 5},  // never requested
        {0, 7, 0, {}, nullptr, false, 7},
        {0, 9, 0, {}, nullptr, false, 9},
        {0, -3, 0, {}, nullptr, false, -3},
    };
    for (const Answer& answer : answers) {
        SCOPED_TRACE("status " + std::to_string(answer.status) + " slot " + std::to_string(answer.slot));
        lendAndForget(2);
        script->onDequeue({answer.status, answer.slot});
        if (answer.requestStatus != 0) script->onRequest({answer.requestStatus, nullptr});
        EXPECT_EQ(getFrame() != nullptr, answer.hasBuffer);
        EXPECT_EQ(script->calls(), Texts{path.dequeue} + answer.calls);
        EXPECT_EQ(logged(), answer.text ? Texts{with(path.*answer.text, answer.slot)} : Texts());
        EXPECT_EQ(lentSlot(), answer.lentSlot);
        queueFrame(1);
        EXPECT_EQ(script->calls().back(), "queue " + std::to_string(answer.lentSlot));
    }
}

TEST_P(AProducerPath, AnyOtherStatusMakesTheConnectionAnew) {
    for (int status : {2, 3, -19, -32, -38, INT32_MIN}) {
        lendAndForget(2);
        script->onDequeue({status, 1});
        script->onDisconnect(status == -32 ? -22 : NO_ERROR);
        EXPECT_EQ(getFrame(), nullptr);
        EXPECT_EQ(lentSlot(), 2) << "what was lent stays lent";
        EXPECT_EQ(script->calls().size(), path.reconnectsAtOnce ? 4u : 2u);
        EXPECT_NE(lend(0), nullptr);
        EXPECT_EQ(script->calls(), Texts({path.dequeue, "disconnect api 4 mode 0"}) + kConnectCalls +
                                       Texts({path.dequeue, "request 0"}));
        const Texts refusal = status == -32 ? Texts{with(path.disconnectFailed, -22)} : Texts();
        EXPECT_EQ(logged(), Texts{with(path.dequeueFailed, status)} + path.disconnected + refusal +
                                path.connected + Texts{with(path.reallocated, 0)});
    }
}

TEST_P(AProducerPath, LateFenceCancelsTheBufferButKeepsItCached) {
    lendAndForget(2);
    SignalFence late;
    script->onDequeue({1, 4, late.fence()});
    EXPECT_EQ(getFrame(), nullptr);
    EXPECT_THAT(script->calls(), ElementsAre(path.dequeue, "request 4", "cancel 4"));
    EXPECT_EQ(logged(), (Texts{with(path.reallocated, 4), path.fenceLate}));
    EXPECT_EQ(lentSlot(), 2);
    late.signal();
    EXPECT_EQ(script->cancelledFences().at(0)->wait(0), NO_ERROR) << "cancelled with the fence it came with";
    script->onDequeue({0, 4, late.fence()});
    EXPECT_NE(getFrame(), nullptr) << "a signalled fence holds nothing up";
}

TEST_P(AProducerPath, QueuesTheLastLoanOnceWithEveryValueInItsPlace) {
    lend(1);
    lendAndForget(2);
    queueFrame(INT64_MIN);
    queueFrame(0);
    EXPECT_THAT(script->calls(), ElementsAre("queue 2"));
    const IGraphicBufferProducer::QueueBufferInput input = script->queued().at(0).input;
    EXPECT_EQ(input.timestamp, INT64_MIN);
    EXPECT_EQ(input.isAutoTimestamp, 0);
    EXPECT_EQ(input.dataSpace, 0x20000);
    EXPECT_EQ(input.crop, Rect(0, 0, path.width, path.height));
    EXPECT_EQ(input.scalingMode, 1);
    EXPECT_EQ(input.transform, 0u);
    EXPECT_EQ(input.stickyTransform, 0u);
    EXPECT_FALSE(input.fence->isValid());
    EXPECT_FALSE(input.getFrameTimestamps);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_P(AProducerPath, FailedQueueForgetsTheFrame) {
    lendAndForget(1);
    script->onQueue(BAD_VALUE);
    queueFrame(1);
    queueFrame(2);
    EXPECT_THAT(script->calls(), ElementsAre("queue 1"));
    EXPECT_EQ(logged(), Texts{path.queueFailed});
}

// What adapters never let through is met by the shared steps alone.
TEST(ProducerSlots, MissingAndUnwaitableFencesCountAsSignalled) {
    constexpr producer_slots::Log kSilent = {[] {}, [] {}, [](int) {},     [](status_t) {},
                                             [] {}, [] {}, [](status_t) {}};
    const sp<ScriptedProducer> script(new ScriptedProducer);
    const sp<Fence> fences[] = {nullptr, Fence::NO_FENCE, new Fence, new Fence(1 << 20)};
    for (const sp<Fence>& fence : fences) {
        producer_slots::CachedBuffers cache;
        sp<GraphicBuffer> buffer;
        int32_t slot = -1;
        script->onDequeue({1, 5, fence});
        EXPECT_EQ(producer_slots::dequeue(*script, {1, 1, 1, 0}, cache, kSilent, slot, buffer),
                  producer_slots::Dequeued::LENT);
        EXPECT_EQ(slot, 5);
        EXPECT_EQ(buffer, cache[5]);
    }
    EXPECT_THAT(script->cancelledFences(), IsEmpty());
}

}  // namespace
