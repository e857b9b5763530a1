#include "MetadataSubject.h"

#include <set>

#include "MetadataHandler.h"

namespace {

using rapidjson::Value;

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

}  // namespace

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

const CameraMetadata& filledBuffer() {
    static const CameraMetadata filled = [] {
        CameraMetadata buffer = makeMetadata(3, 64);
        addValues<int64_t>(buffer.get(), ANDROID_SENSOR_TIMESTAMP, {1});
        addValues<uint8_t>(buffer.get(), VENDOR_SECTION_START, {1, 2});
        addValues<int64_t>(buffer.get(), VENDOR_SECTION_START + 3, {1, 2});
        return buffer;
    }();
    return filled;
}

ReplyContents::ReplyContents(MetadataHandler& handler, const Value& object) {
    std::set<unsigned> seen;
    names.root().SetArray();
    for (const auto& member : object.GetObject()) {
        names.root().PushBack(Value(member.name.GetString(), names.allocator()), names.allocator());
        unsigned id = 0;
        if (!member.value.IsArray() || !handler.findMetadataTagId(member.name.GetString(), &id)) continue;
        if (!seen.insert(id).second) hasDuplicates = true;
        if (member.value.Empty()) hasEmptyArray = true;
        const int type = get_camera_metadata_tag_type(id);
        for (const Value& element : member.value.GetArray()) {
            if (!isReadableAs(type, element)) isReadable = false;
        }
    }
}
