// ks-demo: starts ks-request-server, talks to it over loopback and stops it, printing one line
// per step with its outcome and timing.
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <limits.h>
#include <poll.h>
#include <string>
#include <unistd.h>

using namespace Kestrane;
using Clock = std::chrono::steady_clock;

namespace {

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string programDirectory() {
    char path[PATH_MAX] = {0};
    ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    std::string self = n > 0 ? std::string(path, n) : std::string("./ks-demo");
    return self.substr(0, self.rfind('/'));
}

// First line of the child's standard output, waiting at most `limitMs`.
std::string readLine(int fd, int limitMs) {
    std::string line;
    auto start = Clock::now();
    char c;
    while (msSince(start) < limitMs) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0)
            continue;
        if (::read(fd, &c, 1) != 1 || c == '\n')
            break;
        line += c;
    }
    return line;
}

int fail(const std::string& what) {
    std::printf("FAILED: %s\n", what.c_str());
    return 1;
}

} // namespace

int main() {
    Logging::setLevel(LogLevel::Warn); // the demo speaks through its own lines
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string server = programDirectory() + "/ks-request-server";
    std::printf("Kestrane Remote Computation demo\n");

    auto start = Clock::now();
    Computing::Process process(server, {"-logLevel", "WARN"});
    process.captureStandardOutput();
    process.captureStandardError();
    if (!process.start(Computing::Detached))
        return fail(process.getErrorMessage());
    std::string line = readLine(process.getStandardOutputFd(), 10000);
    if (line.rfind("PORT ", 0) != 0)
        return fail("ks-request-server did not announce its port (got '" + line + "')");
    int port = std::stoi(line.substr(5));
    std::printf("1. Started ks-request-server (pid %d), listening on port %d  [%.1f ms]\n",
                process.getPid(), port, msSince(start));

    start = Clock::now();
    bool answered = RequestServer::ping("127.0.0.1", port);
    std::printf("2. Ping on a new connection (connect, PING, PONG, CLOSE): %s  [%.3f ms]\n",
                answered ? "PONG received" : "no answer", msSince(start));
    if (!answered)
        return fail("ping");

    const int rounds = 1000;
    Computing::ClientSocket socket;
    socket.connect("127.0.0.1", port);
    start = Clock::now();
    int pongs = 0;
    for (int i = 0; i < rounds; ++i) {
        SocketPacket::send("C", "PING", socket, "demo");
        auto reply = SocketPacket::receive(socket, "demo");
        if (reply->getType() == "C" && *reply->getData() == "PONG")
            ++pongs;
    }
    double elapsed = msSince(start);
    SocketPacket::send("C", "CLOSE_CONNECTION", socket, "demo");
    std::printf("3. %d pings on one open connection: %d PONGs, %.1f us per round trip  "
                "[%.1f ms]\n",
                rounds, pongs, elapsed * 1000.0 / rounds, elapsed);

    start = Clock::now();
    Computing::ClientSocket bad;
    bad.connect("127.0.0.1", port);
    std::string garbage = "C abc ";
    bad.sendDataBlock(garbage.data(), garbage.size());
    std::string answer;
    bad.receiveDataBlock(answer, 64);
    bool survived = RequestServer::ping("127.0.0.1", port);
    std::printf("4. Garbage on a connection: connection ended by the server, server %s  "
                "[%.1f ms]\n",
                survived ? "still answers" : "GONE", msSince(start));
    std::string logged = readLine(process.getStandardErrorFd(), 2000);
    if (!logged.empty())
        std::printf("   server log: %s\n", logged.c_str());

    start = Clock::now();
    process.kill(SIGTERM);
    int code = -1;
    if (!process.waitFor(10000, code))
        return fail("ks-request-server did not stop within 10 s");
    std::printf("5. Sent SIGTERM: ks-request-server stopped cleanly with exit code %d  "
                "[%.1f ms]\n",
                code, msSince(start));
    return code == 0 && survived && pongs == rounds ? 0 : 1;
}
