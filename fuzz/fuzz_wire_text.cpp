// Texts on the bus: any text comes back as it was, and of what a peer sends in its place only a sealed memory
// file of the promised length is read.

#include <fcntl.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/mman.h>
#include <unistd.h>

#include "FuzzTarget.h"
#include "WireTypes.h"

// Exported, but in no header: a message without a bus.
namespace sdbus {
PlainMessage createPlainMessage();
}

namespace {

using vel::desktop_bus::WireText;

sdbus::PlainMessage messageOf(const std::function<void(sdbus::Message&)>& write) {
    sdbus::PlainMessage message = sdbus::createPlainMessage();
    write(message);
    message.seal();
    message.rewind(true);
    return message;
}

void checkRoundTrip(const std::string& text) {
    const auto wire = WireText::encode(text.data(), text.size());
    require(wire.has_value());
    sdbus::PlainMessage message = messageOf([&](sdbus::Message& to) { wire->write(to); });
    require(WireText::read(message).decode() == text);
}

void checkForeignFile(Bytes& input) {
    static constexpr int kNeeded = F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW;
    const int seals = input.below(2) != 0 ? kNeeded : input.next<uint8_t>() & kNeeded;
    const uint64_t promised = input.below(2) != 0 ? input.below(64) : input.next<uint64_t>();
    const std::string text = input.rest();
    const int memory = memfd_create("text", MFD_ALLOW_SEALING | MFD_CLOEXEC);
    require(memory >= 0 && write(memory, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    fcntl(memory, F_ADD_SEALS, seals);
    sdbus::PlainMessage message = messageOf([&](sdbus::Message& to) {
        to << sdbus::Variant(sdbus::Struct<sdbus::UnixFd, uint64_t>(sdbus::UnixFd(memory), promised));
    });
    close(memory);
    const auto read = WireText::read(message).decode();
    require(!read || (seals == kNeeded && promised <= text.size() && *read == text.substr(0, promised)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    checkRoundTrip(std::string(reinterpret_cast<const char*>(data), size));
    Bytes input(data, size);
    checkForeignFile(input);
    return 0;
}
