#include "PrivateBus.h"

#include <android-base/unique_fd.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <stdexcept>
#include <system_error>

namespace vel::sim {
namespace {

using android::base::unique_fd;

constexpr char kAddressPrefix[] = "unix:abstract=";

// Everyone who gets in may own, send and receive everything; only the starting user gets in. The limits are
// those of a session bus: the built-in one for pending replies is far lower.
std::string configuration(const std::string& address) {
    const std::string user = std::to_string(getuid());
    return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>)" +
           address + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <deny user="*"/>
    <allow user=")" +
           user + R"("/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_incoming_unix_fds">250000000</limit>
  <limit name="max_outgoing_unix_fds">250000000</limit>
  <limit name="max_connections_per_user">100000</limit>
  <limit name="max_match_rules_per_connection">50000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
)";
}

// What the daemon says beside its address. That it may not raise its limit of descriptors is harmless and no
// news: few users may.
void passOn(const std::string& line) {
    const bool isAddress = line.compare(0, std::strlen(kAddressPrefix), kAddressPrefix) == 0;
    if (isAddress || line.find("Failed to set fd limit") != std::string::npos) return;
    std::fprintf(stderr, "%s\n", line.c_str());
}

std::string randomName() {
    std::random_device random;
    char name[24];
    std::snprintf(name, sizeof(name), "%08x%08x", random(), random());
    return name;
}

unique_fd memoryFile(const std::string& text) {
    unique_fd file(memfd_create("bus.conf", MFD_CLOEXEC));
    if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::system_error(errno, std::generic_category(), "memfd");
    return file;
}

}  // namespace

PrivateBus::PrivateBus() {
    // The daemon would start, and admit nobody.
    if (getpwuid(getuid()) == nullptr) {
        throw std::runtime_error("the message bus needs a name for user " + std::to_string(getuid()) +
                                 ": there is no entry in the password database");
    }
    start(kAddressPrefix + ("vel-bus-" + randomName()));
}

void PrivateBus::start(const std::string& address) {
    const unique_fd file = memoryFile(configuration(address));
    ChildProcess::Options options;
    options.command = {
        "dbus-daemon", "--config-file=/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file),
        "--nofork",    "--nopidfile",
        "--nosyslog",  "--print-address"};
    options.hasErrorsInOutput = true;
    options.onLine = passOn;
    mDaemon = std::make_unique<ChildProcess>(std::move(options));
    const auto line = mDaemon->waitForLine(kAddressPrefix);
    if (!line) throw std::runtime_error("the private dbus-daemon did not start");
    mAddress = line->substr(0, line->find(','));  // without the bus's own id
}

PrivateBus::~PrivateBus() = default;

void PrivateBus::kill() {
    mDaemon->kill(SIGKILL);
    (void)mDaemon->wait();
}

void PrivateBus::restart() {
    start(std::string(mAddress));
}

void PrivateBus::suspend() {
    mDaemon->kill(SIGSTOP);
}

void PrivateBus::resume() {
    mDaemon->kill(SIGCONT);
}

}  // namespace vel::sim
