#pragma once

#include <functional>
#include <memory>
#include <string>

namespace vel::sim {

class EventFeed;
class PictureFeed;

/**
 * The console's HTTP server, on the loopback address alone: the page, the events, the pictures and what the
 * page asks for. The routes are in README.md. Runs on threads of its own.
 */
class ConsoleServer {
  public:
    struct Answer {
        int status = 200;
        std::string json;
    };
    // Carries out what the page asks for, a text of JSON; on threads of the server, several at a time.
    using Perform = std::function<Answer(const std::string& request)>;

    struct Options {
        int port = 0;        // 0 for any that is free
        std::string folder;  // of the page
        std::string tags;    // the answer to /tags
    };

    /**
     * Serves from then on. Throws std::runtime_error with one line when the port is taken. The feeds must
     * outlive this object.
     */
    ConsoleServer(const Options& options, EventFeed& events, PictureFeed& pictures, Perform perform);
    /** Closes the feeds and ends every connection: one to a browser that does not read takes three seconds.
     */
    ~ConsoleServer();
    ConsoleServer(const ConsoleServer&) = delete;
    ConsoleServer& operator=(const ConsoleServer&) = delete;

    /** What to open in a browser. */
    std::string address() const;

  private:
    class Http;
    std::unique_ptr<Http> mHttp;
};

/** {"ok":true}, or with a text the error that it tells. */
ConsoleServer::Answer okAnswer();
ConsoleServer::Answer errorAnswer(int status, const std::string& error);

}  // namespace vel::sim
