// The duty to check a Return.

#include <gtest/gtest.h>
#include <hidl/Status.h>
#include <utils/RefBase.h>

#include <utility>

namespace {

using android::RefBase, android::sp;
using android::hardware::Return;
using android::hardware::Status;
using android::hardware::Void;

Status dead() {
    return Status::fromStatusT(android::DEAD_OBJECT);
}

Status refused() {
    return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "refused");
}

constexpr char kNotChecked[] = "a failed Return was not checked";
constexpr char kNoValue[] = "a failed Return has no value";

TEST(AReturn, IsSafeOnceCheckedOrRecognisedAsDead) {
    EXPECT_FALSE(Return<bool>(refused()).isOk());
    EXPECT_TRUE(Return<void>(dead()).isDeadObject());
    EXPECT_EQ(Return<int32_t>(5).withDefault(7), 5);
    EXPECT_EQ(Return<int32_t>(dead()).withDefault(7), 7);
    Return<void> source = dead();
    EXPECT_FALSE(Return<void>(std::move(source)).isOk()) << "the duty moves on";
}

TEST(AReturnDeathTest, AbortsWhenAFailureIsDroppedUncheckedOrItsValueIsTaken) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // anew, so that threads of other cases do no harm
    EXPECT_DEATH({ const Return<void> result = dead(); }, kNotChecked);
    EXPECT_DEATH({ const Return<bool> result = refused(); }, kNotChecked);
    EXPECT_DEATH({ (void)Return<void>(refused()).isDeadObject(); }, kNotChecked);
    EXPECT_DEATH(Return<void>{dead()} = Void(), kNotChecked);
    EXPECT_DEATH({ sp<RefBase> object = Return<sp<RefBase>>(dead()); }, kNoValue);
}

}  // namespace
