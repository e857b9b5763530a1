#include "Access.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <sstream>
#include <system_error>

namespace vel::sim {

namespace {

std::string randomToken() {
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        throw std::system_error(errno, std::generic_category(), "no random numbers");
    std::string token;
    for (const unsigned char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        token += digits;
    }
    return token;
}

// In a header as in "a=1; b=2"; empty when there is none.
std::string cookieIn(const std::string& header, const std::string& name) {
    std::istringstream cookies(header);
    for (std::string cookie; std::getline(cookies >> std::ws, cookie, ';');) {
        if (cookie.compare(0, name.size() + 1, name + "=") == 0) return cookie.substr(name.size() + 1);
    }
    return "";
}

}  // namespace

Access::Access(int port)
    : mPort(std::to_string(port)), mCookieName("vel_console_" + mPort), mToken(randomToken()) {}

std::string Access::cookie() const {
    return mCookieName + "=" + mToken + "; Path=/; HttpOnly; SameSite=Strict";
}

bool Access::isOwnName(const std::string& host) const {
    return host == "127.0.0.1:" + mPort || host == "localhost:" + mPort;
}

// Takes as long for any text, so that the time tells nothing of the token.
bool Access::isToken(const std::string& text) const {
    unsigned difference = text.size() == mToken.size() ? 0 : 1;
    for (size_t i = 0; i < mToken.size(); ++i)
        difference |= static_cast<unsigned char>(mToken[i]) ^
                      static_cast<unsigned char>(text.empty() ? 0 : text[i % text.size()]);
    return difference == 0;
}

std::optional<Refusal> Access::check(const RequestOrigin& request) const {
    static constexpr char kScheme[] = "http://";
    if (request.hostHeaders != 1) return Refusal{400, "a request needs one Host header"};
    if (!isOwnName(request.host)) return Refusal{403, "this server has another name"};
    if (!request.origin.empty() && (request.origin.compare(0, sizeof(kScheme) - 1, kScheme) != 0 ||
                                    !isOwnName(request.origin.substr(sizeof(kScheme) - 1)))) {
        return Refusal{403, "requests of other pages are refused"};
    }
    if (!isToken(request.token) && !isToken(cookieIn(request.cookies, mCookieName)))
        return Refusal{401, "open the whole address that the console printed, with its token"};
    return std::nullopt;
}

}  // namespace vel::sim
