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
    void setResults(const std::string& list) {
        android::JsonMessage message;
        EXPECT_TRUE(message.parse(list)) << list;
        handler.setResultsOfInterest(message.root());
    }
    void setRequests(const std::string& list) {
        android::JsonMessage message;
        EXPECT_TRUE(message.parse(list)) << list;
        handler.setRequestsOfInterest(message.root());
    }
    void import(Capture& capture, const std::string& object) {
        android::JsonMessage message;
        EXPECT_TRUE(message.parse(object)) << object;
        handler.convertToMetadata(capture.md, message.root());
    }
    std::string exported(Capture& capture) {
        android::JsonMessage message;
        handler.convertFromMetadata(capture.md, message.root(), message.allocator());
        return message.toText();
    }
    void resolveBy(const VendorTags& tags) { handler.setVendorTagCallback(tags.resolver()); }
    std::vector<std::string> logged() const { return log.texts("MetadataHandler"); }

    LogCapture log;
    MetadataHandler handler;
};
