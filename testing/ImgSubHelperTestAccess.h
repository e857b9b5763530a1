#pragma once

#include "VelImgSubHelper.h"

/** The one friend of VelImgSubHelper: lets a test look into it. */
struct ImgSubHelperTestAccess {
    static int32_t lentSlot(VelImgSubHelper& helper, uint32_t streamIndex) {
        std::lock_guard<std::mutex> lock(helper.mLock);
        return helper.mDequeuedSlots[streamIndex];
    }
    static std::mutex& lock(VelImgSubHelper& helper) { return helper.mLock; }
    static bool isAppConnected(const VelImgSubHelper& helper) { return helper.mImgSubAppConnected; }
    static bool mergesStreams(const VelImgSubHelper& helper) { return helper.mMergeStreams; }
    static uint32_t maxStreamIndex(VelImgSubHelper& helper) { return helper.mMaxStreamIndex; }
    static std::shared_ptr<AImage> received(VelImgSubHelper& helper, uint32_t streamIndex) {
        std::lock_guard<std::mutex> lock(helper.mLock);
        return helper.mReceivedImages[streamIndex];
    }
    static std::shared_ptr<AImage> held(VelImgSubHelper& helper, uint32_t streamIndex) {
        std::lock_guard<std::mutex> lock(helper.mLock);
        return helper.mHeldImages[streamIndex];
    }
};
