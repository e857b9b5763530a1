#pragma once

#include <string>
#include <vector>

#include "FakeDesktopService.h"

// The calls as texts, for example "registerCallback 2", "setSurface 7 null", "sendCommand 0 {}".
inline std::vector<std::string> describe(const std::vector<FakeDesktopService::Call>& calls) {
    using Operation = FakeDesktopService::Operation;
    std::vector<std::string> texts;
    for (const FakeDesktopService::Call& call : calls) {
        const std::string type = " " + std::to_string(static_cast<int>(call.type));
        switch (call.operation) {
            case Operation::REGISTER_CALLBACK:
                texts.push_back("registerCallback" + type);
                break;
            case Operation::SEND_COMMAND:
                texts.push_back("sendCommand" + type + " " + call.command);
                break;
            case Operation::SET_SURFACE:
                texts.push_back("setSurface" + type + (call.object == nullptr ? " null" : " producer"));
                break;
            case Operation::GET_SURFACE:
                texts.push_back("getSurface" + type);
                break;
        }
    }
    return texts;
}
