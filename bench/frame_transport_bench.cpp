// A frame lent and queued on the queue of an application in another process, by the size of the frame, beside
// the bare exchange of its packets, a copy of such a frame into shared memory, and the same frames through
// GStreamer's shared memory elements. 4:2:0 pictures.

#include <benchmark/benchmark.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "Packet.h"
#include "Percentiles.h"
#include "RatioReporter.h"
#include "ServicePeers.h"

#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <hardware/gralloc.h>
#include <system/window.h>
#include <ui/Fence.h>

namespace {

using android::hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;

namespace fs = std::filesystem;
using vel::sim::ChildProcess;

const std::string kSubject = "us a frame between processes";
constexpr size_t kCopySlots = 6;  // as many as the frame path may hold
constexpr size_t kGstreamerSlots = 16;
constexpr int kGstreamerStartFrames = 50;
constexpr std::chrono::seconds kGstreamerLimit{6};

struct Size {
    const char* name;
    uint32_t width;
    uint32_t height;
    int gstreamerFrames;

    size_t bytes() const { return size_t{width} * height * 3 / 2; }
};
constexpr Size kSizes[] = {
    {"640x480", 640, 480, 2000}, {"1920x1080", 1920, 1080, 1500}, {"3840x2160", 3840, 2160, 400}};

// --- Processes and processors ---

std::vector<pid_t> children() {
    std::vector<pid_t> all;
    for (const fs::directory_entry& task : fs::directory_iterator("/proc/self/task")) {
        std::ifstream listed(task.path() / "children");
        for (pid_t child = 0; listed >> child;)
            all.push_back(child);
    }
    return all;
}

// Keeps this process and its children on the first processor for as long as it lives. A call that wakes a
// sleeping processor can take ten times as long, and the kernel's choice may stay for a whole run.
class OneProcessor {
  public:
    OneProcessor() {
        sched_getaffinity(0, sizeof(mUsual), &mUsual);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(firstOf(mUsual), &one);
        keepOn(one);
    }
    ~OneProcessor() { keepOn(mUsual); }

  private:
    static int firstOf(const cpu_set_t& processors) {
        int first = 0;
        while (first < CPU_SETSIZE - 1 && !CPU_ISSET(first, &processors))
            ++first;
        return first;
    }
    static void keepOn(const cpu_set_t& processors) {
        std::vector<pid_t> all = children();
        all.push_back(getpid());
        for (const pid_t process : all) {
            std::error_code ended;
            for (const auto& task :
                 fs::directory_iterator("/proc/" + std::to_string(process) + "/task", ended))
                sched_setaffinity(std::stoi(task.path().filename()), sizeof(processors), &processors);
        }
    }

    cpu_set_t mUsual;
};

double secondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

double secondsOf(int who) {
    rusage usage = {};
    getrusage(who, &usage);
    return secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime);
}

// Processor time of this process and of every child that it ever had.
double cpuSeconds() {
    double sum = secondsOf(RUSAGE_SELF) + secondsOf(RUSAGE_CHILDREN);
    for (const pid_t child : children()) {
        clockid_t clock;
        timespec time = {};
        if (clock_getcpuclockid(child, &clock) == 0 && clock_gettime(clock, &time) == 0)
            sum += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    }
    return sum;
}

template <typename Work>
void measureWithCpu(benchmark::State& state, Work work) {
    const double before = cpuSeconds();
    measureEach(state, work);
    state.counters["cpu_us"] = (cpuSeconds() - before) * 1e6 / static_cast<double>(state.iterations());
}

// --- The product, the packets and the copy ---

void lend(benchmark::State& state, const Size& size) {
    VelChiDesktopHelper& helper = ServicePeers::get().helper();
    const auto frame = [&] {
        if (helper.getFrameToFill() == nullptr) state.SkipWithError("no frame was lent");
        helper.queueFilledFrame(0);
    };
    if (!helper.connectProducer(size.width, size.height, HAL_PIXEL_FORMAT_YCBCR_420_888))
        return state.SkipWithError("no connection to the queue");
    for (int i = 0; i < 16; ++i)  // until every slot has a buffer of the size
        frame();
    measureWithCpu(state, frame);
}

void lendOnOneProcessor(benchmark::State& state, const Size& size) {
    (void)ServicePeers::get();  // first, so that they are kept there too
    const OneProcessor here;
    lend(state, size);
}

// Another process, which has an answer to each packet at once.
class EchoProcess {
  public:
    EchoProcess() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::system_error(errno, std::generic_category(), "socketpair");
        mSocket.reset(ends[0]);
        mChild = fork();
        if (mChild == 0) answer(ends);
        close(ends[1]);
    }
    ~EchoProcess() {
        mSocket.reset();
        waitpid(mChild, nullptr, 0);
    }

    bool exchange() {
        return send(mSocket, &mRequest, sizeof(mRequest), MSG_NOSIGNAL) > 0 &&
               recv(mSocket, &mReply, sizeof(mReply), 0) > 0;
    }

  private:
    [[noreturn]] void answer(const int* ends) {
        close(ends[0]);
        while (recv(ends[1], &mRequest, sizeof(mRequest), 0) > 0)
            (void)send(ends[1], &mReply, sizeof(mReply), MSG_NOSIGNAL);
        _exit(0);
    }

    android::base::unique_fd mSocket;
    pid_t mChild = -1;
    vel::queue_channel::Request mRequest;
    vel::queue_channel::Reply mReply;
};

// What a frame lent and queued costs the kernel.
void echo(benchmark::State& state, const Size&) {
    const OneProcessor here;
    EchoProcess other;
    const auto exchangeTwice = [&] {
        if (!other.exchange() || !other.exchange()) state.SkipWithError("the other process is gone");
    };
    for (int i = 0; i < 16; ++i)
        exchangeTwice();
    measureWithCpu(state, exchangeTwice);
}

// The bare calls that a lent and queued frame cannot do without, on the same queue.
void lendBare(benchmark::State& state, const Size& size) {
    using namespace android;
    ServicePeers& peers = ServicePeers::get();
    const OneProcessor here;
    peers.helper().disconnectProducer();  // one connection at a time
    const sp<IGraphicBufferProducer> producer = new H2BGraphicBufferProducer(
        peers.service().getSurface(VelChiDesktopHelper::ClientType::CLIENT_APP).withDefault(nullptr));
    IGraphicBufferProducer::QueueBufferOutput output;
    if (producer->connect(nullptr, NATIVE_WINDOW_API_CAMERA, false, &output) != NO_ERROR)
        return state.SkipWithError("no connection to the queue");
    producer->setMaxDequeuedBufferCount(kCopySlots);
    const auto frame = [&] {
        int slot = -1;
        sp<Fence> fence;
        sp<GraphicBuffer> buffer;
        const status_t status =
            producer->dequeueBuffer(&slot, &fence, size.width, size.height, HAL_PIXEL_FORMAT_YCBCR_420_888,
                                    GRALLOC_USAGE_SW_WRITE_RARELY, nullptr, nullptr);
        if (status == IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION)
            producer->requestBuffer(slot, &buffer);
        const IGraphicBufferProducer::QueueBufferInput input(
            0, false, HAL_DATASPACE_STANDARD_BT601_625, Rect(size.width, size.height), 1, 0, Fence::NO_FENCE);
        if (producer->queueBuffer(slot, input, &output) != NO_ERROR)
            state.SkipWithError("no frame was queued");
    };
    for (int i = 0; i < 16; ++i)
        frame();
    measureEach(state, frame);
    producer->disconnect(NATIVE_WINDOW_API_CAMERA, IGraphicBufferProducer::DisconnectMode::Api);
}

void copy(benchmark::State& state, const Size& size) {
    const std::vector<uint8_t> picture(size.bytes(), 16);
    const size_t bytes = size.bytes() * kCopySlots;
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return state.SkipWithError("no shared memory");
    std::memset(memory, 1, bytes);
    size_t slot = 0;
    measureEach(state, [&] {
        std::memcpy(static_cast<uint8_t*>(memory) + slot * size.bytes(), picture.data(), size.bytes());
        slot = (slot + 1) % kCopySlots;
    });
    munmap(memory, bytes);
}

// --- GStreamer ---

// What makes the frames: fakesrc hands out memory of its own, which the sink copies. filesrc writes zeros
// into the sink's shared memory; when the receiver has not given enough of it back, they are copied after
// all.
std::vector<std::string> copiedFrames(const Size& size) {
    return {"fakesrc", "sizetype=fixed", "sizemax=" + std::to_string(size.bytes())};
}
std::vector<std::string> framesWrittenInPlace(const Size& size) {
    return {"filesrc", "location=/dev/zero", "blocksize=" + std::to_string(size.bytes())};
}

// The sending end in a directory of its own; both go with this object.
class GstreamerSender {
  public:
    GstreamerSender(const Size& size, std::vector<std::string> elements) {
        char directory[] = "/tmp/vel-bench-XXXXXX";
        if (mkdtemp(directory) == nullptr) throw std::system_error(errno, std::generic_category(), "mkdtemp");
        mDirectory = directory;
        try {
            elements.insert(elements.end(), {"!", "shmsink", "socket-path=" + socket(),
                                             "shm-size=" + std::to_string(size.bytes() * kGstreamerSlots),
                                             "wait-for-connection=true", "sync=false"});
            mChild = launch(std::move(elements));
        } catch (const std::exception&) {
            fs::remove(mDirectory);
            throw;
        }
    }
    ~GstreamerSender() {
        end();
        std::error_code ignored;
        fs::remove_all(mDirectory, ignored);
    }

    // Starts the receiving end; it ends after that many frames.
    std::unique_ptr<ChildProcess> startReceiver(int frames) const {
        const auto limit = std::chrono::steady_clock::now() + kGstreamerLimit;
        while (!fs::exists(socket()) && std::chrono::steady_clock::now() < limit)
            usleep(1000);
        return launch({"shmsrc", "socket-path=" + socket(), "num-buffers=" + std::to_string(frames), "!",
                       "fakesink", "sync=false"});
    }

  private:
    std::string socket() const { return mDirectory + "/frames"; }

    static std::unique_ptr<ChildProcess> launch(std::vector<std::string> elements) {
        ChildProcess::Options options;
        options.command = std::move(elements);
        options.command.insert(options.command.begin(), {"gst-launch-1.0", "-q"});
        return std::make_unique<ChildProcess>(std::move(options));
    }

    // Asked to end it gives its shared memory back; killed it does not.
    void end() {
        mChild->kill(SIGINT);
        if (mChild->wait(std::chrono::seconds(2))) return;
        mChild->kill(SIGKILL);
        (void)mChild->wait();
        const std::string pid = std::to_string(mChild->pid());
        std::error_code ignored;
        for (const fs::directory_entry& file : fs::directory_iterator("/dev/shm", ignored)) {
            const std::string name = file.path().filename();
            if (name.rfind("shmpipe.", 0) == 0 && name.find(pid) != std::string::npos)
                fs::remove(file.path(), ignored);
        }
    }

    std::string mDirectory;
    std::unique_ptr<ChildProcess> mChild;
};

struct Cost {
    double seconds = 0;
    double cpuSeconds = 0;
};

// What that many frames cost with the start of the receiving end.
Cost receive(const Size& size, const std::vector<std::string>& source, int frames) {
    const GstreamerSender sender(size, source);
    const auto start = std::chrono::steady_clock::now();
    const double cpuBefore = cpuSeconds();
    if (sender.startReceiver(frames)->wait(kGstreamerLimit) != 0)
        throw std::runtime_error("it hung or failed");
    return Cost{std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                cpuSeconds() - cpuBefore};
}

// The difference of a long and a short run, so that the start of the programs does not count.
template <std::vector<std::string> (*source)(const Size&)>
void gstreamer(benchmark::State& state, const Size& size) {
    try {
        const Cost few = receive(size, source(size), kGstreamerStartFrames);
        const Cost many = receive(size, source(size), kGstreamerStartFrames + size.gstreamerFrames);
        for (auto _ : state)
            state.SetIterationTime((many.seconds - few.seconds) / size.gstreamerFrames);
        state.counters["cpu_us"] = (many.cpuSeconds - few.cpuSeconds) * 1e6 / size.gstreamerFrames;
    } catch (const std::exception& error) {
        state.SkipWithError(error.what());
    }
}

bool registerAll() {
    std::vector<std::string> sizes;
    for (const Size& size : kSizes) {
        const auto add = [&size](const std::string& name, void (*run)(benchmark::State&, const Size&)) {
            return benchmark::RegisterBenchmark((kSubject + "/" + name + " " + size.name).c_str(), run, size)
                ->Unit(benchmark::kMicrosecond);
        };
        add("lent", lend)->Iterations(1000)->UseRealTime();
        add("lent nearby", lendOnOneProcessor)->Iterations(1000)->UseRealTime();
        add("echo", echo)->Iterations(1000)->UseRealTime();
        add("memcpy", copy)->Iterations(200)->UseRealTime();
        add("GStreamer copied", gstreamer<copiedFrames>)->Iterations(1)->Repetitions(3)->UseManualTime();
        add("GStreamer in place", gstreamer<framesWrittenInPlace>)
            ->Iterations(1)
            ->Repetitions(3)
            ->UseManualTime();
        addAim({kSubject, "p50_us", 2.5, std::string("lent nearby ") + size.name,
                std::string("echo ") + size.name});
        sizes.emplace_back(size.name);
    }
    addAim({kSubject, "p50_us", 1.1, "lent nearby 3840x2160", "lent nearby 640x480"});
    const std::string subject = "frame to another process";
    for (const auto& [name, run] :
         {std::pair("/product", &lendOnOneProcessor), std::pair("/floor", &lendBare)}) {
        benchmark::RegisterBenchmark((subject + name).c_str(), run, kSizes[0])
            ->UseRealTime()
            ->Iterations(2000)
            ->Unit(benchmark::kMicrosecond);
    }
    addAim({subject, "p50_us", 1.05});
    addTable({kSubject,
              sizes,
              {{"lent and queued, median", "lent", "p50_us"},
               {"lent and queued, 99th percentile", "lent", "p99_us"},
               {"lent and queued, CPU of all processes", "lent", "cpu_us"},
               {"on one processor, median", "lent nearby", "p50_us"},
               {"on one processor, 99th percentile", "lent nearby", "p99_us"},
               {"on one processor, CPU of all processes", "lent nearby", "cpu_us"},
               {"bare packets on one processor, median", "echo", "p50_us"},
               {"bare packets on one processor, 99th percentile", "echo", "p99_us"},
               {"bare packets on one processor, CPU of both", "echo", "cpu_us"},
               {"memcpy into shared memory, median", "memcpy", "p50_us"},
               {"GStreamer with a copy, elapsed", "GStreamer copied", "real"},
               {"GStreamer with a copy, CPU of all processes", "GStreamer copied", "cpu_us"},
               {"GStreamer written in place, elapsed", "GStreamer in place", "real"},
               {"GStreamer written in place, CPU of all processes", "GStreamer in place", "cpu_us"}}});
    return true;
}

const bool kRegistered = registerAll();

}  // namespace
