// Any object that an application may answer with: it is written into captures with and without metadata, and
// what the captures then hold is exported, imported and compared.

#include <string>

#include "Capture.h"
#include "FuzzTarget.h"
#include "JsonMessage.h"
#include "MetadataHandler.h"
#include "MetadataSubject.h"

using android::JsonMessage;

namespace {

void exportTo(JsonMessage& message, MetadataHandler& handler, Capture& capture) {
    handler.convertFromMetadata(capture.md, message.root(), message.allocator());
}

// What was exported can be imported again and gives the same export.
void checkRoundTrip(MetadataHandler& handler, JsonMessage& exported) {
    const std::string text = exported.toText();
    if (text.empty()) return;  // a number beyond float's range became an infinity
    Capture again;
    JsonMessage message;
    handler.convertToMetadata(again.md, exported.root());
    exportTo(message, handler, again);
    require(message.toText() == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static MetadataHandler handler;
    static const bool knowsVendorTags = (handler.setVendorTagCallback(vendorTags().resolver()), true);
    require(knowsVendorTags);
    JsonMessage input;
    if (!input.parse(std::string(reinterpret_cast<const char*>(data), size)) || !input.root().IsObject())
        return 0;
    const ReplyContents contents(handler, input.root());
    if (!contents.isReadable) return 0;
    handler.setResultsOfInterest(contents.names.root());

    for (const camera_metadata_t* start : {static_cast<camera_metadata_t*>(nullptr), filledBuffer().get()}) {
        // An update to no values spoils a buffer; growing it then leaks the refused copy, as it is meant to.
        const bool mayUpdate = start != nullptr || contents.hasDuplicates;
        if (mayUpdate && contents.hasEmptyArray) continue;
        Capture capture{CameraMetadata(clone_camera_metadata(start))};
        JsonMessage exported;
        handler.convertToMetadata(capture.md, input.root());
        exportTo(exported, handler, capture);
        require(capture.md.isMetadataReplaced == (capture.current != capture.original.get()));
        require(capture.current == nullptr ||
                validate_camera_metadata_structure(capture.current, nullptr) == 0);
        checkRoundTrip(handler, exported);
    }
    return 0;
}
