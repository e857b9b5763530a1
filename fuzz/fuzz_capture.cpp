// What an application's filter and answer do to captures, through the whole exchange. An input is a JSON
// object with "filter", a list of names, and "reply", an object or a text.

#include <string>

#include "Capture.h"
#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "FuzzTarget.h"
#include "JsonUtils.h"
#include "MetadataHandler.h"
#include "MetadataSubject.h"

using android::JsonMessage;
using android::JsonUtils;

namespace {

using rapidjson::Value;

std::string textOf(const Value& value) {
    JsonMessage message;
    message.root().CopyFrom(value, message.allocator());
    return message.toText();
}

class Exchange {
  public:
    Exchange() {
        mService->setReply(FakeDesktopService::ClientType::CLIENT_APP,
                           [this](auto, const std::string& text) { return mSent = text, mReply; });
        mHelper->setVendorTagCallback(vendorTags().resolver());
    }

    void filter(const Value& names) {
        const std::string command = "{\"filter-results\":" + textOf(names) + "}";
        require(mHelper->handleCommand(command) == "OK_HAL");
    }
    // The application's answer to the capture; returns what it was sent of it.
    std::string run(Capture& capture, const std::string& reply) {
        mReply = reply;
        mHelper->handleCaptureMetadata(capture.md, 0);
        mService->forgetCalls();
        JsonMessage sent;
        const Value* result = nullptr;
        require(sent.parse(mSent) && JsonUtils::parseValue(sent.root(), "result", &result, -1) == 0);
        require(result->IsObject());
        return textOf(*result);
    }

  private:
    std::string mSent, mReply;
    const android::sp<FakeDesktopService> mService = FakeDesktopService::start();
    VelChiDesktopHelper* const mHelper = DesktopHelperTestAccess::create().release();
};

// The answer's text; empty when it breaks the contract, which ends the process, or when it spoils a buffer,
// whose refused copy is then kept.
std::string acceptable(const Value& reply) {
    static MetadataHandler handler;
    static const bool knowsVendorTags = (handler.setVendorTagCallback(vendorTags().resolver()), true);
    if (reply.IsString()) {
        JsonMessage broken;
        const std::string text(reply.GetString(), reply.GetStringLength());
        return broken.parse(text) ? "" : text;
    }
    if (!reply.IsObject()) return "";
    const ReplyContents contents(handler, reply);
    return knowsVendorTags && contents.isReadable && !contents.hasEmptyArray ? textOf(reply) : "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Exchange* const exchange = new Exchange;
    JsonMessage input;
    const Value *names = nullptr, *reply = nullptr;
    if (!input.parse(std::string(reinterpret_cast<const char*>(data), size)) ||
        JsonUtils::parseValue(input.root(), "filter", &names, -1) != 0 ||
        JsonUtils::parseValue(input.root(), "reply", &reply, -1) != 0) {
        return 0;
    }
    exchange->filter(*names);
    Capture capture{CameraMetadata(clone_camera_metadata(filledBuffer().get()))};
    exchange->run(capture, acceptable(*reply));
    require(validate_camera_metadata_structure(capture.current, nullptr) == 0);

    // What a capture holds, put into another, is what that one holds.
    const std::string result = exchange->run(capture, "");
    if (result.find("[]") != std::string::npos) return 0;
    Capture copy;
    exchange->run(copy, result);
    require(exchange->run(copy, "") == result);
    return 0;
}
