// The duty to check a Return, action by action.

#include <gtest/gtest.h>
#include <hidl/Status.h>
#include <unistd.h>
#include <utils/RefBase.h>

#include <optional>
#include <utility>

namespace {

using android::RefBase;
using android::sp;
using android::hardware::Return;
using android::hardware::Status;
using android::hardware::Void;

class Object : public RefBase {};

Status dead() {
    return Status::fromStatusT(android::DEAD_OBJECT);
}

Status refused() {
    return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "refused");
}

constexpr char kNotChecked[] = "a failed Return was not checked";
constexpr char kNoValue[] = "a failed Return has no value";

// Death tests start the program anew, so threads of other cases do no harm.
class AReturn : public testing::Test {
  protected:
    AReturn() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
using AReturnDeathTest = AReturn;

TEST_F(AReturn, IsSafeWhenOkOrOnceCheckedOrRecognisedAsDead) {
    { const Return<sp<Object>> result = new Object; }
    { const Return<void> result = Void(); }
    EXPECT_FALSE(Return<bool>(refused()).isOk());
    EXPECT_TRUE(Return<void>(dead()).isDeadObject());
    EXPECT_EQ(Return<int32_t>(5).withDefault(7), 5);
    EXPECT_EQ(Return<int32_t>(dead()).withDefault(7), 7);
    EXPECT_EQ(Return<sp<Object>>(dead()).withDefault(nullptr), nullptr);
}

TEST_F(AReturnDeathTest, AbortsWhenAFailureIsDroppedUnchecked) {
    EXPECT_DEATH({ const Return<void> result = dead(); }, kNotChecked);
    EXPECT_DEATH({ const Return<sp<Object>> result = refused(); }, kNotChecked);
    EXPECT_DEATH({ (void)Return<void>(refused()).isDeadObject(); }, kNotChecked);
    EXPECT_DEATH(
        {
            Return<void> result = dead();
            result = Void();
            _exit(0);
        },
        kNotChecked);
}

TEST_F(AReturnDeathTest, HasNoValueAfterAFailureEvenWhenChecked) {
    EXPECT_DEATH(
        {
            const Return<bool> result = dead();
            if (!result.isOk()) (void)static_cast<bool>(result);
        },
        kNoValue);
    EXPECT_DEATH({ sp<Object> object = Return<sp<Object>>(dead()); }, kNoValue);
}

TEST_F(AReturnDeathTest, PassesItsDutyOnWhenMoved) {
    std::optional<Return<void>> source(dead());
    Return<void> target = std::move(*source);
    source.reset();
    EXPECT_FALSE(target.isOk());
    EXPECT_DEATH(
        {
            Return<void> first = dead();
            const Return<void> second = std::move(first);
        },
        kNotChecked);
}

}  // namespace
