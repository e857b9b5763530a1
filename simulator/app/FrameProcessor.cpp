#include "FrameProcessor.h"

#include <stdexcept>

#include "FieldList.h"
#include "FrameConfiguration.h"
#include "FrameHeader.h"
#include "Preview.h"
#include "Program.h"
#include "Substitution.h"

namespace vel::sim {

using android::sp;
using ClientType = ServiceClient::ClientType;

namespace {
constexpr char kVerb[] = "frames";
constexpr char kEffectVerb[] = "effect";
}  // namespace

FrameProcessor::FrameProcessor(ServiceClient& client) : mClient(client) {}

FrameProcessor::~FrameProcessor() {
    end();
}

bool FrameProcessor::isCommand(const std::string& line) {
    const std::string verb = FieldList::verbOf(line);
    return verb == kVerb || verb == kEffectVerb;
}

bool FrameProcessor::execute(const std::string& line) try {
    if (FieldList::verbOf(line) == kEffectVerb) {
        changeEffect(line);
        return true;
    }
    end();
    return FieldList(line).word(1) == "end" || start(line);
} catch (const std::invalid_argument& error) {
    printLine("error %s", error.what());
    return false;
}

void FrameProcessor::changeEffect(const std::string& line) {
    const FieldList words(line);
    words.rejectOthers(2);
    const Effect effect = parseEffect(words.word(1));
    if (mSubstitution == nullptr) throw std::invalid_argument("there are no frames to change");
    mSubstitution->setEffect(effect);
}

void FrameProcessor::configureHal(const FrameConfiguration& configuration) {
    const auto reply = mClient.send(ClientType::CLIENT_CAMERA_HAL, configurationCommand(configuration));
    if (acceptedRowBytes(reply.text) != static_cast<int>(frameRowBytes(configuration.size)))
        throw std::invalid_argument("the HAL refused the frames: " + reply.text);
}

// The reader's surface is fetched before the application's own takes its place at the service.
bool FrameProcessor::start(const std::string& line) {
    const FrameConfiguration configuration = readFrameConfiguration(line);
    const auto service = mClient.service();
    if (service == nullptr) throw std::invalid_argument("the desktop service is not there");
    configureHal(configuration);
    const sp<HidlProducer> reader = service->getSurface(ClientType::CLIENT_IMG_SUB).withDefault(nullptr);
    if (reader == nullptr) throw std::invalid_argument("the HAL has no reader for replacements");

    auto substitution = std::make_unique<Substitution>(configuration, reader);
    if (substitution->status() != android::NO_ERROR) {
        throw std::invalid_argument("the HAL's reader refused: status " +
                                    std::to_string(substitution->status()));
    }
    mSubstitution = std::move(substitution);
    mPreview = new Preview(configuration);
    mPreview->queue().consumer->setFrameAvailableListener(mPreview);
    if (!service->setSurface(ClientType::CLIENT_APP, mPreview->queue().surface).isOk() ||
        !service->setSurface(ClientType::CLIENT_IMG_SUB, mSubstitution->queue().surface).isOk()) {
        throw std::invalid_argument("the desktop service went away");
    }
    printLine("frames of %dx%d configured, effect %s", configuration.size.width, configuration.size.height,
              effectName(configuration.effect).c_str());
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
