#pragma once

#include <string>
#include <tuple>

namespace sdbus {
class Message;
}

namespace vel::desktop_bus {

// An interface as an argument: the object at a path of the process that has a unique bus name. Travels as
// "(so)"; null is ("", "/").
struct InterfaceObject {
    std::string busName;
    std::string path;

    bool isNull() const { return busName.empty(); }
    bool operator==(const InterfaceObject& other) const {
        return busName == other.busName && path == other.path;
    }

    // On the thread of the message's connection; throw sdbus::Error.
    void write(sdbus::Message& message) const;
    static InterfaceObject read(sdbus::Message& message);
};

}  // namespace vel::desktop_bus
