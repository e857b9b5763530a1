// Any object that an application may answer with: it is written into captures with and without metadata, and
// what the captures then hold is exported, imported and compared.

#include <set>
#include <string>

#include "Capture.h"
#include "FuzzTarget.h"
#include "JsonMessage.h"
#include "MetadataHandler.h"

using android::JsonMessage;

namespace {

using rapidjson::Value;

// Short names for every type, and one that no type fits.
const VendorTags& vendorTags() {
    static const VendorTags tags("v", {{"byte", TYPE_BYTE},
                                       {"int32", TYPE_INT32},
                                       {"float", TYPE_FLOAT},
                                       {"int64", TYPE_INT64},
                                       {"double", TYPE_DOUBLE},
                                       {"rational", TYPE_RATIONAL},
                                       {"odd", 77}});
    return tags;
}

// Elements of the wrong kind end the process by contract; texts that hold one are passed over.
bool isReadableAs(int type, const Value& element) {
    switch (type) {
        case TYPE_BYTE:
            return element.IsInt64() || element.IsUint64();
        case TYPE_INT32:
            return element.IsInt();
        case TYPE_INT64:
            return element.IsInt64();
        case TYPE_FLOAT:
        case TYPE_DOUBLE:
            return element.IsNumber();
        case TYPE_RATIONAL:
            return !element.IsArray() || element.Size() != 2 || (element[0].IsInt() && element[1].IsInt());
        default:
            return true;
    }
}

// What the object holds, as the handler will see it.
struct Contents {
    bool isReadable = true;  // without ending the process
    bool hasDuplicates = false;
    bool hasEmptyArray = false;
    JsonMessage names;
};

void inspect(MetadataHandler& handler, const Value& object, Contents& contents) {
    std::set<unsigned> seen;
    contents.names.root().SetArray();
    for (const auto& member : object.GetObject()) {
        contents.names.root().PushBack(Value(member.name.GetString(), contents.names.allocator()),
                                       contents.names.allocator());
        unsigned id = 0;
        if (!member.value.IsArray() || !handler.findMetadataTagId(member.name.GetString(), &id)) continue;
        if (!seen.insert(id).second) contents.hasDuplicates = true;
        if (member.value.Empty()) contents.hasEmptyArray = true;
        const int type = get_camera_metadata_tag_type(id);
        for (const Value& element : member.value.GetArray()) {
            if (!isReadableAs(type, element)) contents.isReadable = false;
        }
    }
}

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
    static const CameraMetadata filled = [] {
        handler.setVendorTagCallback(vendorTags().resolver());
        CameraMetadata buffer = makeMetadata(3, 64);
        addValues<int64_t>(buffer.get(), ANDROID_SENSOR_TIMESTAMP, {1});
        addValues<uint8_t>(buffer.get(), VENDOR_SECTION_START, {1, 2});
        addValues<int64_t>(buffer.get(), VENDOR_SECTION_START + 3, {1, 2});
        return buffer;
    }();

    JsonMessage input;
    Contents contents;
    if (!input.parse(std::string(reinterpret_cast<const char*>(data), size)) || !input.root().IsObject())
        return 0;
    inspect(handler, input.root(), contents);
    if (!contents.isReadable) return 0;
    handler.setResultsOfInterest(contents.names.root());

    for (const camera_metadata_t* start : {static_cast<camera_metadata_t*>(nullptr), filled.get()}) {
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
