// The exchange of capture metadata: the whole hook and its two conversions against bare RapidJSON and the
// metadata library, and what an export costs by the sizes of buffer and filter.

#include <benchmark/benchmark.h>
#include <hidl_host/LocalServices.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "AllocationCounter.h"
#include "Capture.h"
#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "JsonMessage.h"
#include "RatioReporter.h"

using android::JsonMessage;

namespace {

using android::hardware::hidl_string;
using android::hardware::Return;
using android::hardware::Void;
using rapidjson::Value;
using Allocator = rapidjson::Document::AllocatorType;
using Tags = std::vector<uint32_t>;

using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
constexpr auto kApp = FakeDesktopService::ClientType::CLIENT_APP;
constexpr uint32_t kFrame = 118;

// A result as a sensor reports it, every type but double.
const Tags kResultTags = {
    ANDROID_SENSOR_TIMESTAMP,      ANDROID_SENSOR_EXPOSURE_TIME,       ANDROID_SENSOR_SENSITIVITY,
    ANDROID_SENSOR_FRAME_DURATION, ANDROID_CONTROL_AE_STATE,           ANDROID_CONTROL_AF_STATE,
    ANDROID_CONTROL_AWB_STATE,     ANDROID_LENS_FOCUS_DISTANCE,        ANDROID_COLOR_CORRECTION_GAINS,
    ANDROID_LENS_POSE_ROTATION,    ANDROID_COLOR_CORRECTION_TRANSFORM, ANDROID_SCALER_CROP_REGION};

// What the application answers.
const std::string kReply =
    R"({"android.sensor.sensitivity":[400],)"
    R"("android.colorCorrection.transform":[[1,128],[2,128],[3,128],[4,128],[5,128],[6,128],[7,128],[8,128],[9,128]]})";

const std::string kAddingReply = R"({"android.control.aeExposureCompensation":[2]})";
constexpr uint32_t kAddedTag = ANDROID_CONTROL_AE_EXPOSURE_COMPENSATION;

// --- Buffers and filters ---

std::string nameOf(uint32_t tag) {
    return std::string(get_camera_metadata_section_name(tag)) + "." + get_camera_metadata_tag_name(tag);
}

std::vector<std::string> namesOf(const Tags& tags) {
    std::vector<std::string> names;
    std::transform(tags.begin(), tags.end(), std::back_inserter(names), nameOf);
    return names;
}

size_t countOf(uint32_t tag) {
    switch (tag) {
        case ANDROID_COLOR_CORRECTION_TRANSFORM:
            return 9;
        case ANDROID_COLOR_CORRECTION_GAINS:
        case ANDROID_LENS_POSE_ROTATION:
        case ANDROID_SCALER_CROP_REGION:
            return 4;
        default:
            return 1;
    }
}

void addEntry(camera_metadata_t* buffer, uint32_t tag) {
    const size_t count = countOf(tag);
    switch (get_camera_metadata_tag_type(tag)) {
        case TYPE_BYTE:
            return (void)addValues(buffer, tag, std::vector<uint8_t>(count, 2));
        case TYPE_INT32:
            return (void)addValues(buffer, tag, std::vector<int32_t>(count, 4000));
        case TYPE_FLOAT:
            return (void)addValues(buffer, tag, std::vector<float>(count, 0.1f));
        case TYPE_INT64:
            return (void)addValues(buffer, tag, std::vector<int64_t>(count, 52301113000));
        case TYPE_DOUBLE:
            return (void)addValues(buffer, tag, std::vector<double>(count, 0.1));
        default:
            return (void)addValues(buffer, tag, std::vector<camera_metadata_rational_t>(count, {1, 128}));
    }
}

CameraMetadata makeBuffer(const Tags& tags, bool sorted = false) {
    CameraMetadata buffer = makeMetadata(tags.size(), 80 * tags.size());
    for (uint32_t tag : tags)
        addEntry(buffer.get(), tag);
    if (sorted) sort_camera_metadata(buffer.get());
    return buffer;
}

// That many standard tags, in an order of no meaning but always the same.
Tags anyTags(size_t count) {
    Tags all;
    for (const auto& [first, end] : camera_metadata_section_bounds) {
        for (uint32_t tag = first; tag < end; ++tag)
            all.push_back(tag);
    }
    std::shuffle(all.begin(), all.end(), std::mt19937(1));
    all.resize(std::min(count, all.size()));
    return all;
}

std::string listOf(const Tags& tags) {
    std::string text;
    for (uint32_t tag : tags)
        text += (text.empty() ? "[\"" : "\",\"") + nameOf(tag);
    return text + "\"]";
}

// --- The least that the job can cost ---

Value floorElement(const camera_metadata_entry_t& entry, size_t i, Allocator& allocator) {
    switch (entry.type) {
        case TYPE_BYTE:
            return Value(entry.data.u8[i]);
        case TYPE_INT32:
            return Value(entry.data.i32[i]);
        case TYPE_FLOAT:
            return Value(static_cast<double>(entry.data.f[i]));
        case TYPE_INT64:
            return Value(entry.data.i64[i]);
        case TYPE_DOUBLE:
            return Value(entry.data.d[i]);
    }
    Value pair(rapidjson::kArrayType);
    pair.PushBack(entry.data.r[i].numerator, allocator).PushBack(entry.data.r[i].denominator, allocator);
    return pair;
}

void floorExport(camera_metadata_t* buffer, const Tags& tags, const std::vector<std::string>& names,
                 Value& out, Allocator& allocator) {
    for (size_t t = 0; t < tags.size(); ++t) {
        camera_metadata_entry_t entry;
        if (find_camera_metadata_entry(buffer, tags[t], &entry) != 0) continue;
        Value array(rapidjson::kArrayType);
        array.Reserve(static_cast<rapidjson::SizeType>(entry.count), allocator);
        for (size_t i = 0; i < entry.count; ++i)
            array.PushBack(floorElement(entry, i, allocator), allocator);
        out.AddMember(rapidjson::StringRef(names[t].data(), names[t].size()), array, allocator);
    }
}

using TagsByName = std::unordered_map<std::string_view, uint32_t>;

TagsByName byName(const Tags& tags, const std::vector<std::string>& names) {
    TagsByName result;
    for (size_t i = 0; i < tags.size(); ++i)
        result[names[i]] = tags[i];
    return result;
}

// Of int32 and rational tags.
void floorImport(camera_metadata_t* buffer, const TagsByName& tags, const Value& in) {
    for (const auto& member : in.GetObject()) {
        const uint32_t tag = tags.find({member.name.GetString(), member.name.GetStringLength()})->second;
        int32_t values[18];
        int32_t* next = values;
        const auto array = member.value.GetArray();
        for (const Value& element : array) {
            *next++ = element.IsArray() ? element[0].GetInt() : element.GetInt();
            if (element.IsArray()) *next++ = element[1].GetInt();
        }
        camera_metadata_entry_t entry;
        if (find_camera_metadata_entry(buffer, tag, &entry) == 0)
            update_camera_metadata_entry(buffer, entry.index, values, array.Size(), nullptr);
    }
}

CameraMetadata floorGrow(const camera_metadata_t* buffer, uint32_t tag, int32_t value) {
    CameraMetadata grown =
        makeMetadata(get_camera_metadata_entry_count(buffer) + 1, get_camera_metadata_data_count(buffer));
    append_camera_metadata(grown.get(), buffer);
    if (validate_camera_metadata_structure(grown.get(), nullptr) != 0) std::abort();
    add_camera_metadata_entry(grown.get(), tag, &value, 1);
    return grown;
}

std::string floorMessage(camera_metadata_t* buffer, const Tags& tags, const std::vector<std::string>& names) {
    rapidjson::Document document(rapidjson::kObjectType);
    Allocator& allocator = document.GetAllocator();
    Value ids(rapidjson::kObjectType), metadata(rapidjson::kObjectType);
    ids.AddMember("originalId", 0, allocator).AddMember("overrideId", 4, allocator);
    floorExport(buffer, tags, names, metadata, allocator);
    document.AddMember("cameraIds", ids, allocator).AddMember("frame_number", kFrame, allocator);
    document.AddMember("result", metadata, allocator);
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    document.Accept(writer);
    return std::string(text.GetString(), text.GetSize());
}

// --- The two sides of the exchange ---

// Answers every command by the same text and remembers none.
class AnsweringService : public FakeDesktopService {
  public:
    explicit AnsweringService(const std::string& reply) : mReply(reply) {}
    Return<void> sendCommand(ClientType, const hidl_string& command, sendCommand_cb answer) override {
        benchmark::DoNotOptimize(command.size());
        hidl_string text;
        text.setToExternal(mReply.data(), mReply.size());
        answer(text);
        return Void();
    }

  private:
    const std::string mReply;
};

// What a helper finds when it looks this service up, and nobody else does.
android::sp<ICameraDesktop> proxyOf(const android::sp<AnsweringService>& service) {
    if (service->registerAsService() != android::OK) std::abort();
    const android::sp<ICameraDesktop> proxy = ICameraDesktop::tryGetService("default", false);
    vel::host::clearLocalServices();
    return proxy;
}

// A helper that has only this service, with a filter for results; framework camera 0 is open as 4.
std::unique_ptr<VelChiDesktopHelper> connectedHelper(const android::sp<AnsweringService>& service,
                                                     const Tags& filter) {
    if (service->registerAsService() != android::OK) std::abort();
    auto helper = DesktopHelperTestAccess::create();
    vel::host::clearLocalServices();
    DesktopHelperTestAccess::settings(*helper, 0).currentOverrideId = 4;
    helper->handleCommand("{\"filter-results\":" + listOf(filter) + "}");
    return helper;
}

std::string send(ICameraDesktop& service, const std::string& command) {
    std::string reply;
    hidl_string text;
    text.setToExternal(command.data(), command.size());
    const auto result = service.sendCommand(
        kApp, text, [&](const hidl_string& answer) { reply.assign(answer.c_str(), answer.size()); });
    if (!result.isOk()) std::abort();
    return reply;
}

void reportAllocations(benchmark::State& state, const AllocationCounter& allocations) {
    state.counters["allocs"] =
        static_cast<double>(allocations.count()) / static_cast<double>(state.iterations());
}

void hookProduct(benchmark::State& state, const Tags& tags, const std::string& reply) {
    const android::sp<AnsweringService> service = new AnsweringService(reply);
    const auto helper = connectedHelper(service, tags);
    const CameraMetadata buffer = makeBuffer(tags);
    AllocationCounter allocations;
    for (auto _ : state) {
        camera_metadata_t* current = buffer.get();
        DesktopCaptureMetadata capture;
        capture.metadata = &current;
        capture.frameNumber = kFrame;
        helper->handleCaptureMetadata(capture, 4);
        if (capture.isMetadataReplaced) free_camera_metadata(current);
    }
    reportAllocations(state, allocations);
}

void hookFloor(benchmark::State& state, bool grows) {
    const auto service = proxyOf(new AnsweringService(grows ? kAddingReply : kReply));
    const CameraMetadata buffer = makeBuffer(kResultTags);
    const std::vector<std::string> names = namesOf(kResultTags);
    const TagsByName tags = byName(kResultTags, names);
    for (auto _ : state) {
        rapidjson::Document answer;
        answer.Parse(send(*service, floorMessage(buffer.get(), kResultTags, names)).c_str());
        if (!grows) {
            floorImport(buffer.get(), tags, answer);
            continue;
        }
        benchmark::DoNotOptimize(floorGrow(buffer.get(), kAddedTag, answer.MemberBegin()->value[0].GetInt()));
    }
}

// --- The conversions alone ---

void exportProduct(benchmark::State& state, const Tags& filter, const Tags& tags, bool sorted) {
    MetadataHandler handler;
    JsonMessage list;
    list.parse(listOf(filter));
    handler.setResultsOfInterest(list.root());
    Capture capture(makeBuffer(tags, sorted));
    AllocationCounter allocations;
    for (auto _ : state) {
        JSON_UNCLEARED JsonMessage message;
        handler.convertFromMetadata(capture.md, message.root(), message.allocator());
        benchmark::DoNotOptimize(message.root().MemberCount());
    }
    reportAllocations(state, allocations);
}

void exportFloor(benchmark::State& state) {
    const CameraMetadata buffer = makeBuffer(kResultTags);
    const std::vector<std::string> names = namesOf(kResultTags);
    for (auto _ : state) {
        rapidjson::Document document(rapidjson::kObjectType);
        floorExport(buffer.get(), kResultTags, names, document, document.GetAllocator());
        benchmark::DoNotOptimize(document.MemberCount());
    }
}

void importProduct(benchmark::State& state) {
    MetadataHandler handler;
    JsonMessage list, reply;
    list.parse(listOf(kResultTags));
    handler.setResultsOfInterest(list.root());
    reply.parse(kReply);
    Capture capture(makeBuffer(kResultTags));
    AllocationCounter allocations;
    for (auto _ : state)
        handler.convertToMetadata(capture.md, reply.root());
    reportAllocations(state, allocations);
}

void importFloor(benchmark::State& state) {
    JsonMessage reply;
    reply.parse(kReply);
    const CameraMetadata buffer = makeBuffer(kResultTags);
    const std::vector<std::string> names = namesOf(kResultTags);
    const TagsByName tags = byName(kResultTags, names);
    for (auto _ : state)
        floorImport(buffer.get(), tags, reply.root());
}

BENCHMARK_CAPTURE(hookProduct, change, kResultTags, kReply)->Name("capture, 2 changes/product");
BENCHMARK_CAPTURE(hookFloor, change, false)->Name("capture, 2 changes/floor");
BENCHMARK_CAPTURE(hookProduct, add, kResultTags, kAddingReply)->Name("capture, a tag added/product");
BENCHMARK_CAPTURE(hookFloor, add, true)->Name("capture, a tag added/floor");
BENCHMARK_CAPTURE(exportProduct, result, kResultTags, kResultTags, false)->Name("export, 12 tags/product");
BENCHMARK(exportFloor)->Name("export, 12 tags/floor");
BENCHMARK(importProduct)->Name("import, 2 tags/product");
BENCHMARK(importFloor)->Name("import, 2 tags/floor");

// Right-aligned, so that the names sort by it.
std::string aligned(size_t size) {
    const std::string digits = std::to_string(size);
    return std::string(3 - digits.size(), ' ') + digits;
}

void registerBySize() {
    for (const size_t filter : {1, 12, 100}) {
        const Tags tags = anyTags(filter);
        benchmark::RegisterBenchmark(("capture, no change, filter " + aligned(filter)).c_str(), hookProduct,
                                     tags, std::string());
        for (const size_t held : {12, 100, 256}) {
            for (const bool sorted : {true, false}) {
                const std::string name = "export, filter " + aligned(filter) + ", buffer " + aligned(held) +
                                         (sorted ? ", sorted" : ", unsorted");
                Tags buffer = anyTags(held);
                std::reverse(buffer.begin(), buffer.end());  // what the filter names is found last
                benchmark::RegisterBenchmark(name.c_str(), exportProduct, tags, buffer, sorted);
            }
        }
    }
}

const bool kRegistered = [] {
    for (const char* subject : {"capture, 2 changes", "capture, a tag added", "export, 12 tags"})
        addAim({subject, "cpu", 1.3});
    addAim({"import, 2 tags", "cpu", 2.5});
    registerBySize();
    return true;
}();

}  // namespace
