#include "InterfaceObject.h"

#include <sdbus-c++/sdbus-c++.h>

namespace vel::desktop_bus {

void InterfaceObject::write(sdbus::Message& message) const {
    message << sdbus::make_struct(busName, sdbus::ObjectPath(isNull() ? "/" : path));
}

InterfaceObject InterfaceObject::read(sdbus::Message& message) {
    sdbus::Struct<std::string, sdbus::ObjectPath> value;
    message >> value;
    if (std::get<0>(value).empty()) return {};
    return {std::get<0>(value), std::get<1>(value)};
}

}  // namespace vel::desktop_bus
