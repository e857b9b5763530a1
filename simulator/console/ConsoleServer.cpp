#include "ConsoleServer.h"

#include <httplib.h>

#include <atomic>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <stdexcept>
#include <thread>

#include "Access.h"
#include "Connection.h"
#include "EventFeed.h"
#include "JsonObject.h"
#include "PictureFeed.h"
#include "StartThread.h"

namespace vel::sim {

namespace {

using httplib::DataSink;
using httplib::Request;
using httplib::Response;

constexpr char kHost[] = "127.0.0.1";
constexpr char kChartFile[] = "/usr/share/javascript/chart.js/chart.min.js";
constexpr size_t kMaxBodyBytes = size_t{64} << 10;
// A stream holds a thread. What is left of the threads is for everything else, so that it always gets one; a
// browser opens connections ahead, too, which hold one until it uses them.
constexpr int kMaxStreams = 120;
constexpr size_t kThreads = kMaxStreams + 120;
constexpr int kBacklog = 128;
constexpr int kSendBufferBytes = 256 << 10;  // the kernel's, a connection
constexpr std::chrono::seconds kReadLimit{5};
constexpr std::chrono::seconds kWriteLimit{3};

constexpr char kPlain[] = "text/plain; charset=utf-8";
constexpr char kJson[] = "application/json";
constexpr char kBoundary[] = "--picture\r\n";

const httplib::Headers kHeaders = {
    {"Content-Security-Policy",
     "default-src 'self'; img-src 'self'; style-src 'self'; base-uri 'none'; form-action 'none'; "
     "frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cache-Control", "no-store"},
};

// With a provider, whose content is not compressed: on one machine that takes longer than it saves.
void setContent(Response& response, std::string content, const std::string& type) {
    const auto text = std::make_shared<const std::string>(std::move(content));
    if (text->empty()) return response.set_content("", type);
    response.set_content_provider(text->size(), type, [text](size_t offset, size_t length, DataSink& sink) {
        return sink.write(text->data() + offset, length);
    });
}

void refuse(Response& response, int status, const std::string& why) {
    response.status = status;
    setContent(response, why + "\n", kPlain);
}

std::string typeOf(const std::filesystem::path& file) {
    static const std::map<std::string, std::string> types = {{".html", "text/html; charset=utf-8"},
                                                             {".css", "text/css; charset=utf-8"},
                                                             {".js", "text/javascript; charset=utf-8"},
                                                             {".svg", "image/svg+xml"},
                                                             {".png", "image/png"},
                                                             {".ico", "image/x-icon"}};
    const auto type = types.find(file.extension());
    return type == types.end() ? kPlain : type->second;
}

// Read each time, so that a changed page needs no restart.
void sendFile(Response& response, const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file || !std::filesystem::is_regular_file(path))
        return refuse(response, 404, "there is no such page");
    setContent(response, {std::istreambuf_iterator<char>(file), {}}, typeOf(path));
}

uint64_t numberOf(const std::string& text) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

}  // namespace

class ConsoleServer::Http : private httplib::Server {
  public:
    Http(const ConsoleServer::Options& options, EventFeed& events, PictureFeed& pictures, Perform perform)
        : mFolder(options.folder),
          mTags(options.tags),
          mEvents(events),
          mPictures(pictures),
          mPerform(std::move(perform)),
          mPort(bind(options.port)),
          mAccess(mPort) {
        setLimits();
        setChecks();
        setRoutes();
        std::promise<void> listening;
        new_task_queue = [&listening] {
            listening.set_value();
            return new httplib::ThreadPool(kThreads);
        };
        mThread = startThread("the server", [this] { listen_after_bind(); });
        listening.get_future().wait();
    }

    ~Http() override {
        mEvents.close();
        mPictures.close();
        stop();
        mThread.join();
    }

    std::string address() const {
        return "http://" + std::string(kHost) + ":" + std::to_string(mPort) + "/?token=" + mAccess.token();
    }

  private:
    // One request a connection: an idle one would hold a thread.
    bool process_and_close_socket(socket_t socket) override {
        Connection connection(socket, kReadLimit, kWriteLimit);
        bool isClosed = false;
        return connection.is_readable() && process_request(connection, true, isClosed, [](Request&) {});
    }

    int bind(int port) {
        set_address_family(AF_INET);
        set_socket_options([](socket_t socket) {
            const int yes = 1;
            setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
            setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof(kSendBufferBytes));
        });
        const int bound = port == 0 ? bind_to_any_port(kHost) : bind_to_port(kHost, port) ? port : -1;
        if (bound < 0) throw std::runtime_error("port " + std::to_string(port) + " cannot be had");
        ::listen(svr_sock_, kBacklog);  // many browsers may come at once
        return bound;
    }

    void setLimits() {
        set_tcp_nodelay(true);
        set_payload_max_length(kMaxBodyBytes);
    }

    void setChecks() {
        set_default_headers(kHeaders);
        set_pre_routing_handler([this](const Request& request, Response& response) {
            const auto refusal = check(request);
            if (!refusal) return HandlerResponse::Unhandled;
            refuse(response, refusal->status, refusal->why);
            return HandlerResponse::Handled;
        });
        set_error_handler([](const Request&, Response& response) {
            if (!response.body.empty() || response.content_provider_) return;
            const char* const why = response.status == 404   ? "there is no such page"
                                    : response.status == 413 ? "the request is too large"
                                                             : "the request is not understood";
            refuse(response, response.status, why);
        });
    }

    std::optional<Refusal> check(const Request& request) const {
        const auto refusal =
            mAccess.check({request.get_header_value_count("Host"), request.get_header_value("Host"),
                           request.get_header_value("Origin"), request.get_param_value("token"),
                           request.get_header_value("Cookie")});
        if (refusal) return refusal;
        if (request.method != "GET" && request.method != "HEAD" && request.method != "POST")
            return Refusal{405, "only GET, HEAD and POST are understood"};
        // Their size would not be limited.
        if (request.has_header("Transfer-Encoding") || request.has_header("Content-Encoding"))
            return Refusal{400, "a request must be plain and tell its length"};
        if (request.method == "POST" && !request.has_header("Content-Length"))
            return Refusal{400, "a request must be plain and tell its length"};
        return std::nullopt;
    }

    void setRoutes() {
        Get("/", [this](const Request&, Response& response) {
            response.set_header("Set-Cookie", mAccess.cookie());
            sendFile(response, mFolder / "index.html");
        });
        Get("/chart\\.js", [](const Request&, Response& response) { sendFile(response, kChartFile); });
        Get("/([A-Za-z0-9_-]{1,64}\\.(?:js|css|svg|png|ico))",
            [this](const Request& request, Response& response) {
                sendFile(response, mFolder / request.matches[1].str());
            });
        Get("/tags", [this](const Request&, Response& response) { setContent(response, mTags, kJson); });
        Get("/events", [this](const Request& request, Response& response) { sendEvents(request, response); });
        Get("/pictures/([0-3])", [this](const Request& request, Response& response) {
            sendPictures(static_cast<uint32_t>(numberOf(request.matches[1])), response);
        });
        Post("/do", [this](const Request& request, Response& response) {
            const bool isJson = request.get_header_value("Content-Type").rfind(kJson, 0) == 0;
            const Answer answer =
                isJson ? mPerform(request.body) : errorAnswer(400, "the request must be application/json");
            response.status = answer.status;
            setContent(response, answer.json, kJson);
        });
    }

    // One of the streams that may be open at a time, until it goes; null when all are taken.
    std::shared_ptr<void> takeStream() {
        if (mStreams.fetch_add(1) < kMaxStreams)
            return std::shared_ptr<void>(this, [this](void*) { --mStreams; });
        --mStreams;
        return nullptr;
    }

    void sendEvents(const Request& request, Response& response) {
        const auto stream = takeStream();
        if (stream == nullptr) return refuse(response, 503, "too many browsers");
        const auto reader = std::make_shared<EventFeed::Reader>(
            mEvents.open(numberOf(request.get_header_value("Last-Event-ID"))));
        response.set_content_provider("text/event-stream", [this, stream, reader](size_t, DataSink& sink) {
            const auto text = mEvents.next(*reader);
            if (!text) sink.done();
            return text && sink.is_writable() && sink.write(text->data(), text->size());
        });
    }

    void sendPictures(uint32_t index, Response& response) {
        const auto stream = takeStream();
        if (stream == nullptr) return refuse(response, 503, "too many browsers");
        const auto viewer = std::make_shared<PictureFeed::Viewer>(mPictures, index);
        const auto send = [stream, viewer](size_t offset, DataSink& sink) {
            const auto jpeg = viewer->next();
            if (jpeg == nullptr) return !viewer->isOver() && sink.is_writable();
            // The next boundary goes out with the picture: browsers show it once they see that.
            const std::string text =
                (offset == 0 ? kBoundary : "") +
                ("Content-Type: image/jpeg\r\nContent-Length: " + std::to_string(jpeg->size()) + "\r\n\r\n" +
                 *jpeg + "\r\n" + kBoundary);
            return sink.write(text.data(), text.size());
        };
        response.set_content_provider("multipart/x-mixed-replace; boundary=picture", send);
    }

    const std::filesystem::path mFolder;
    const std::string mTags;
    EventFeed& mEvents;
    PictureFeed& mPictures;
    const Perform mPerform;
    const int mPort;
    const Access mAccess;
    std::atomic<int> mStreams{0};
    std::thread mThread;
};

ConsoleServer::ConsoleServer(const Options& options, EventFeed& events, PictureFeed& pictures,
                             Perform perform)
    : mHttp(std::make_unique<Http>(options, events, pictures, std::move(perform))) {}

ConsoleServer::~ConsoleServer() = default;

std::string ConsoleServer::address() const {
    return mHttp->address();
}

ConsoleServer::Answer okAnswer() {
    return {200, R"({"ok":true})"};
}

ConsoleServer::Answer errorAnswer(int status, const std::string& error) {
    return {status, JsonObject().add("ok", false).add("error", error).text()};
}

}  // namespace vel::sim
