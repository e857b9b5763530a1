#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Capture.h"
#include "JsonMessage.h"
#include "LogCapture.h"
#include "MetadataHandler.h"

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
