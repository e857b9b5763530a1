// The steps that both ways of frames to an application share. What each way says, and how it recovers, is in
// frame_path_test.cpp and img_sub_helper_test.cpp.
#include "ProducerSlots.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "ScriptedProducer.h"
#include "SignalFence.h"

using namespace android;
using producer_slots::Dequeued;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kDequeue[] = "dequeue 640x480 format 1 usage 0x20";

std::vector<std::string> gEvents;

constexpr producer_slots::Log kLog = {
    [] { gEvents.push_back("slots exhausted"); },
    [] { gEvents.push_back("request failed"); },
    [](int slot) { gEvents.push_back("reallocated " + std::to_string(slot)); },
    [](status_t status) { gEvents.push_back("dequeue failed " + std::to_string(status)); },
    [] { gEvents.push_back("fence late"); },
    [] { gEvents.push_back("queue failed"); },
    [](status_t status) { gEvents.push_back("disconnect failed " + std::to_string(status)); },
};

// A queue that answers as told; slot 2 is lent.
class AProducerQueue : public testing::Test {
  protected:
    AProducerQueue() {
        EXPECT_EQ(dequeue({1, 2}), Dequeued::LENT);
        forget();
    }
    Dequeued dequeue(const ScriptedProducer::Dequeue& answer) {
        script->onDequeue(answer);
        return producer_slots::dequeue(*script, {640, 480, 1, 0x20}, cache, kLog, slot, buffer);
    }
    void forget() {
        script->forgetCalls();
        gEvents.clear();
        slot = 2;
        buffer = nullptr;
    }

    const sp<ScriptedProducer> script = new ScriptedProducer;
    producer_slots::CachedBuffers cache;
    int32_t slot = -1;
    sp<GraphicBuffer> buffer;
};

TEST_F(AProducerQueue, IsConnectedResetAndDisconnectedWhateverItSays) {
    script->onConnect(BAD_VALUE);
    for (int i = 0; i < 3; i++)
        script->onSetMax(BAD_VALUE);
    producer_slots::connect(*script);
    producer_slots::reset(*script);
    EXPECT_THAT(gEvents, IsEmpty());
    for (const status_t status : {0, -22}) {
        script->onDisconnect(status);
        sp<IGraphicBufferProducer> producer = script;
        producer_slots::disconnect(producer, kLog);
        EXPECT_EQ(producer, nullptr);
        producer_slots::disconnect(producer, kLog);
    }
    EXPECT_THAT(script->calls(), ElementsAre("connect api 4", "setMax 6", "setMax 0", "setMax 6",
                                             "disconnect api 4 mode 0", "disconnect api 4 mode 0"));
    EXPECT_THAT(gEvents, ElementsAre("disconnect failed -22"));
}

TEST_F(AProducerQueue, LendsWhatItAnswersWithAndIsGivenUpForAnyOtherStatus) {
    const std::string exhausted = "slots exhausted";
    struct Answer {
        int status, slot;
        Dequeued outcome;
        std::string event;  // empty for none
        bool hasBuffer;
    };
    std::vector<Answer> answers = {{0, 2, Dequeued::LENT, "", true},
                                   {1, 6, Dequeued::LENT, "reallocated 6", true},
                                   {0, 6, Dequeued::LENT, "", true},
                                   {0, 5, Dequeued::LENT, "", false}};  // never requested
    for (const int outside : {7, 9, -3, INT32_MAX, INT32_MIN}) {
        answers.push_back({0, outside, Dequeued::LENT, "", false});
        answers.push_back({1, outside, Dequeued::NO_BUFFER, exhausted, false});
    }
    for (const int status : {2, 3, -19, -32, -38, INT32_MIN})
        answers.push_back(
            {status, 1, Dequeued::QUEUE_FAILED, "dequeue failed " + std::to_string(status), false});
    for (const Answer& answer : answers) {
        SCOPED_TRACE("status " + std::to_string(answer.status) + " slot " + std::to_string(answer.slot));
        forget();
        EXPECT_EQ(dequeue({answer.status, answer.slot}), answer.outcome);
        EXPECT_EQ(slot, answer.outcome == Dequeued::LENT ? answer.slot : 2) << "what was lent stays lent";
        EXPECT_EQ(buffer != nullptr, answer.hasBuffer);
        EXPECT_EQ(gEvents, answer.event.empty() ? decltype(gEvents)() : decltype(gEvents){answer.event});
        if (answer.slot == 6 && answer.status == 1)
            EXPECT_THAT(script->calls(), ElementsAre(kDequeue, "request 6"));
        else
            EXPECT_THAT(script->calls(), ElementsAre(kDequeue));
    }
}

TEST_F(AProducerQueue, KeepsASlotWhoseRequestItRefuses) {
    for (const int refused : {3, 2}) {
        forget();
        script->onRequest({BAD_VALUE, nullptr});
        EXPECT_EQ(dequeue({1, refused}), Dequeued::NO_BUFFER);
        EXPECT_EQ(slot, 2);
        EXPECT_THAT(script->calls(), ElementsAre(kDequeue, "request " + std::to_string(refused)));
        EXPECT_THAT(gEvents, ElementsAre("request failed"));
    }
    EXPECT_EQ(dequeue({0, 2}), Dequeued::LENT);
    EXPECT_NE(buffer, nullptr) << "the one it had before";
}

TEST_F(AProducerQueue, GetsABufferBackWhoseFenceIsLateButItStaysCached) {
    SignalFence late;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(dequeue({1, 4, late.fence()}), Dequeued::NO_BUFFER);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_EQ(slot, 2);
    EXPECT_THAT(script->calls(), ElementsAre(kDequeue, "request 4", "cancel 4"));
    EXPECT_THAT(script->cancelledFences(), ElementsAre(late.fence()));
    EXPECT_THAT(gEvents, ElementsAre("reallocated 4", "fence late"));
    late.signal();
    EXPECT_EQ(dequeue({0, 4, late.fence()}), Dequeued::LENT) << "a signalled fence holds nothing up";
    EXPECT_NE(buffer, nullptr);
}

TEST_F(AProducerQueue, LendsWithAMissingOrUnwaitableFence) {
    for (const sp<Fence>& fence : {sp<Fence>(), Fence::NO_FENCE, sp<Fence>(new Fence(1 << 20))})
        EXPECT_EQ(dequeue({1, 5, fence}), Dequeued::LENT);
    EXPECT_THAT(script->cancelledFences(), IsEmpty());
}

TEST_F(AProducerQueue, GetsAWholeFrameWithEveryValueInItsPlace) {
    producer_slots::queue(script, 2, 640, 480, INT64_MIN, kLog);
    EXPECT_THAT(script->calls(), ElementsAre("queue 2"));
    const IGraphicBufferProducer::QueueBufferInput input = script->queued().at(0);
    EXPECT_EQ(input.timestamp, INT64_MIN);
    EXPECT_EQ(input.isAutoTimestamp, 0);
    EXPECT_EQ(input.dataSpace, 0x20000);
    EXPECT_EQ(input.crop, Rect(0, 0, 640, 480));
    EXPECT_EQ(input.scalingMode, 1);
    EXPECT_EQ(input.transform, 0u);
    EXPECT_EQ(input.stickyTransform, 0u);
    EXPECT_FALSE(input.fence->isValid());
    EXPECT_FALSE(input.getFrameTimestamps);
    EXPECT_THAT(gEvents, IsEmpty());
    script->onQueue(BAD_VALUE);
    producer_slots::queue(script, 2, 640, 480, 0, kLog);
    producer_slots::queue(nullptr, 2, 640, 480, 0, kLog);
    EXPECT_THAT(gEvents, ElementsAre("queue failed", "queue failed"));
}

}  // namespace
