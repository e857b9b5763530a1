#pragma once

#include <optional>
#include <string>

namespace vel::sim {

/** Why a request is refused. */
struct Refusal {
    int status;
    const char* why;
};

/** What a request says of where it comes from; an absent header is an empty text. */
struct RequestOrigin {
    size_t hostHeaders = 0;
    std::string host;
    std::string origin;
    std::string token;    // of the query
    std::string cookies;  // the whole header
};

/**
 * Who may use a server on the loopback address: whoever has the token, which is new in each session, and asks
 * by a name of this machine, so that no page from elsewhere reaches the server through its reader's browser.
 * Any thread may call.
 */
class Access {
  public:
    /** Draws the token. Throws std::system_error. */
    explicit Access(int port);

    std::optional<Refusal> check(const RequestOrigin& request) const;
    const std::string& token() const { return mToken; }
    /** The value of a Set-Cookie header that stands for the token. */
    std::string cookie() const;

  private:
    bool isOwnName(const std::string& host) const;
    bool isToken(const std::string& text) const;

    const std::string mPort;
    const std::string mCookieName;  // with the port: a browser sends a host's cookies to all its ports
    const std::string mToken;
};

}  // namespace vel::sim
