#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "CameraMetadata.h"
#include "JsonMessage.h"
#include "LogCapture.h"
#include "MetadataHandler.h"

// One capture as the HAL holds it: the buffer it came with, and what is put in its place.
struct Capture {
    enum Kind { RESULT, REQUEST };

    explicit Capture(CameraMetadata buffer = nullptr, Kind kind = RESULT)
        : original(std::move(buffer)), current(original.get()) {
        md.metadata = &current;
        md.isRequest = kind == REQUEST;
    }
    ~Capture() {
        if (current != original.get()) free_camera_metadata(current);
    }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    const CameraMetadata original;
    camera_metadata_t* current;
    DesktopCaptureMetadata md;
};

class AMetadataHandler : public ::testing::Test {
  protected:
    void setResults(const std::string& list) { handler.setResultsOfInterest(parsed(list).root()); }
    void setRequests(const std::string& list) { handler.setRequestsOfInterest(parsed(list).root()); }
    void import(Capture& capture, const std::string& object) {
        handler.convertToMetadata(capture.md, parsed(object).root());
    }
    std::string exported(Capture& capture) {
        JsonMessage message;
        handler.convertFromMetadata(capture.md, message.root(), message.allocator());
        return message.toText();
    }
    std::vector<std::string> logged() const { return log.texts("MetadataHandler"); }

    LogCapture log;
    MetadataHandler handler;

  private:
    JsonMessage& parsed(const std::string& text) {
        EXPECT_TRUE(mInput.parse(text)) << text;
        return mInput;
    }

    JsonMessage mInput;
};
