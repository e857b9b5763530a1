// The duty to check a Return, action by action.

#include <gtest/gtest.h>
#include <hidl/Status.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>

#include "LogCapture.h"

namespace {

using android::RefBase;
using android::sp;
using android::hardware::HidlReturnRestriction;
using android::hardware::Return;
using android::hardware::setProcessHidlReturnRestriction;
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

// Death tests start the program anew, so threads of other cases do no harm.
class AReturn : public testing::Test {
  protected:
    AReturn() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    ~AReturn() override { setProcessHidlReturnRestriction(HidlReturnRestriction::NONE); }
};
using AReturnDeathTest = AReturn;

TEST_F(AReturn, ThatIsOkMayBeDroppedUnchecked) {
    { const Return<void> result = Void(); }
    { const Return<bool> result = true; }
    { const Return<sp<Object>> result = new Object; }
}

TEST_F(AReturnDeathTest, ThatFailedAbortsWhenDroppedUnchecked) {
    EXPECT_DEATH({ const Return<void> result = dead(); }, kNotChecked);
    EXPECT_DEATH({ const Return<bool> result = refused(); }, kNotChecked);
    EXPECT_DEATH({ const Return<sp<Object>> result = dead(); }, kNotChecked);
    for (const auto restriction :
         {HidlReturnRestriction::ERROR_IF_UNCHECKED, HidlReturnRestriction::FATAL_IF_UNCHECKED}) {
        setProcessHidlReturnRestriction(restriction);
        EXPECT_DEATH({ const Return<void> result = dead(); }, kNotChecked);
    }
}

TEST_F(AReturn, IsSafeOnceIsOkWasAsked) {
    (void)Return<void>(dead()).isOk();
    const Return<bool> result = refused();
    EXPECT_FALSE(result.isOk());
}

TEST_F(AReturn, IsSafeOnceADeadObjectWasRecognised) {
    const Return<void> result = dead();
    EXPECT_TRUE(result.isDeadObject());
}

TEST_F(AReturnDeathTest, IsNotSavedByAskingForADeadObjectInVain) {
    EXPECT_DEATH(
        {
            const Return<void> result = refused();
            if (result.isDeadObject()) _exit(0);
        },
        kNotChecked);
    EXPECT_DEATH(
        {
            const Return<void> result = Status::fromStatusT(android::FAILED_TRANSACTION);
            if (result.isDeadObject()) _exit(0);
        },
        kNotChecked);
}

TEST_F(AReturnDeathTest, IsNotSavedByADescriptionOrAnUncheckedLook) {
    EXPECT_DEATH({ (void)Return<void>(refused()).description(); }, kNotChecked);
    EXPECT_DEATH({ (void)Return<void>(refused()).isOkUnchecked(); }, kNotChecked);
}

TEST_F(AReturnDeathTest, HasNoValueAfterAFailureEvenWhenChecked) {
    constexpr char kNoValue[] = "a failed Return has no value";
    EXPECT_DEATH(
        {
            const Return<bool> result = dead();
            if (!result.isOk()) (void)static_cast<bool>(result);
        },
        kNoValue);
    EXPECT_DEATH({ sp<Object> object = Return<sp<Object>>(dead()); }, kNoValue);
}

TEST_F(AReturn, GivesItsValueOrTheDefault) {
    EXPECT_EQ(Return<int32_t>(5).withDefault(7), 5);
    EXPECT_EQ(Return<int32_t>(dead()).withDefault(7), 7);
    const sp<Object> object = new Object;
    EXPECT_EQ(Return<sp<Object>>(object).withDefault(nullptr), object);
    EXPECT_EQ(Return<sp<Object>>(dead()).withDefault(nullptr), nullptr);
    const sp<Object> converted = Return<sp<Object>>(object);
    EXPECT_EQ(converted, object);
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

TEST_F(AReturnDeathTest, AbortsWhenAFailureIsAssignedOverUnchecked) {
    EXPECT_DEATH(
        {
            Return<void> result = dead();
            result = Void();
            _exit(0);
        },
        kNotChecked);
    Return<void> checked = dead();
    EXPECT_FALSE(checked.isOk());
    checked = Void();
    EXPECT_TRUE(checked.isOk());
}

TEST_F(AReturnDeathTest, AssertsThatItIsOk) {
    EXPECT_DEATH(Return<void>(refused()).assertOk(), "a Return should be OK.*refused");
    Return<void>(Void()).assertOk();
}

TEST_F(AReturnDeathTest, ThatIsOkMustBeCheckedUnderARestriction) {
    setProcessHidlReturnRestriction(HidlReturnRestriction::ERROR_IF_UNCHECKED);
    {
        LogCapture log;
        { const Return<void> result = Void(); }
        EXPECT_EQ(log.count("a Return was not checked"), 1u);
    }
    setProcessHidlReturnRestriction(HidlReturnRestriction::FATAL_IF_UNCHECKED);
    EXPECT_DEATH({ const Return<void> result = Void(); }, "a Return was not checked");
    EXPECT_TRUE(Return<bool>(true).withDefault(false));
}

TEST(AStatus, TellsItsKind) {
    EXPECT_TRUE(Status::ok().isOk());
    EXPECT_TRUE(Status::fromStatusT(android::OK).isOk());

    const Status transport = Status::fromStatusT(android::TIMED_OUT);
    EXPECT_EQ(transport.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(transport.transactionError(), android::TIMED_OUT);

    EXPECT_EQ(refused().exceptionCode(), Status::EX_ILLEGAL_STATE);
    EXPECT_STREQ(refused().exceptionMessage(), "refused");
    EXPECT_EQ(refused().transactionError(), android::OK);
}

}  // namespace
