#include "ConsoleRequest.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <stdexcept>

#include "Effects.h"
#include "JsonMessage.h"

namespace vel::sim {

namespace {

constexpr int kMaxFps = 120;
constexpr int kMaxStreams = 4;

[[noreturn]] void refuse(const std::string& why) {
    throw std::invalid_argument(why);
}

/** The members of a request, each asked for once. */
class Members {
  public:
    explicit Members(const rapidjson::Value& object) : mObject(object) {}

    std::optional<std::string> text(const char* name) {
        const rapidjson::Value* const value = find(name);
        if (value == nullptr) return std::nullopt;
        if (!value->IsString()) refuse(std::string(name) + " must be a text");
        return std::string(value->GetString(), value->GetStringLength());
    }
    std::string choice(const char* name, const std::set<std::string>& choices) {
        const auto chosen = text(name);
        if (chosen && choices.count(*chosen) != 0) return *chosen;
        std::string all;
        for (const std::string& choice : choices)
            all += " " + choice;
        refuse(std::string(name) + " must be one of" + all);
    }
    std::optional<int> number(const char* name, int most) {
        const rapidjson::Value* const value = find(name);
        if (value == nullptr) return std::nullopt;
        if (!value->IsInt() || value->GetInt() < 1 || value->GetInt() > most)
            refuse(std::string(name) + " must be a number from 1 to " + std::to_string(most));
        return value->GetInt();
    }
    void rejectOthers() const {
        for (const auto& member : mObject.GetObject()) {
            if (mAsked.count(member.name.GetString()) == 0)
                refuse("there are members that mean nothing here");
        }
    }

  private:
    const rapidjson::Value* find(const char* name) {
        mAsked.insert(name);
        const auto member = mObject.FindMember(name);
        return member == mObject.MemberEnd() ? nullptr : &member->value;
    }

    const rapidjson::Value& mObject;
    std::set<std::string> mAsked;
};

bool isControl(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7f;
}

void readLine(Members& members, ConsoleRequest& request) {
    request.kind = ConsoleRequest::Kind::LINE;
    request.peer = members.choice("peer", {"app", "camera_server"});
    request.line = members.text("line").value_or("");
    if (request.line.empty()) refuse("a line is missing");
    if (std::any_of(request.line.begin(), request.line.end(), isControl))
        refuse("a line must not hold line ends or control characters");
}

FrameSize readSize(const std::string& text) {
    FrameSize size;
    char rest = 0;
    if (std::sscanf(text.c_str(), "%4dx%4d%c", &size.width, &size.height, &rest) != 2 || !isFrameSize(size))
        refuse("size must be as in 1280x720");
    return size;
}

void readFrames(Members& members, ConsoleRequest& request) {
    request.kind = ConsoleRequest::Kind::FRAMES;
    if (const auto size = members.text("size")) request.size = readSize(*size);
    request.fps = members.number("fps", kMaxFps);
    request.streams = members.number("streams", kMaxStreams);
    request.effect = members.text("effect");
    if (request.effect) (void)parseEffect(*request.effect);
}

void readFault(Members& members, ConsoleRequest& request) {
    request.kind = ConsoleRequest::Kind::FAULT;
    request.peer = members.choice("peer", {"app", "service"});
    request.action = members.choice("action", {"kill", "stop", "continue", "restart"});
}

}  // namespace

ConsoleRequest readConsoleRequest(const std::string& json) {
    android::JsonMessage message;
    if (!message.parse(json) || !message.root().IsObject()) refuse("the request must be a JSON object");
    Members members(message.root());
    ConsoleRequest request;
    const std::string kind = members.choice("do", {"line", "frames", "fault", "save"});
    if (kind == "line") readLine(members, request);
    if (kind == "frames") readFrames(members, request);
    if (kind == "fault") readFault(members, request);
    members.rejectOthers();
    return request;
}

}  // namespace vel::sim
