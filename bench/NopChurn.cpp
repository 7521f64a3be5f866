// NOP round trips against a request server from a few threads for a while, each on fresh
// connections as every round trip makes them: the load that runs a host out of ports when the
// wrong side of each connection keeps its TIME_WAIT.
//   NopChurn HOST:PORT SECONDS THREADS
// Prints "CLIENT_PORT <port>" (this process's own server, where the replies come in), then
// "REQUESTS <ok> FAILURES <n> SECONDS <s> RATE <per second>"; exits 0 only without failures.
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/CommandLineValue.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using Clock = std::chrono::steady_clock;

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "Usage: NopChurn HOST:PORT SECONDS THREADS\n";
        return 2;
    }
    const std::string target = argv[1];
    const size_t colon = target.rfind(':');
    unsigned long long port = 0, seconds = 0, threads = 0;
    try {
        if (colon == std::string::npos)
            throw std::invalid_argument("HOST:PORT expected");
        port = CommandLineValue::parseNumber("PORT", target.substr(colon + 1), 1, 65535);
        seconds = CommandLineValue::parseNumber("SECONDS", argv[2], 1, 86400);
        threads = CommandLineValue::parseNumber("THREADS", argv[3], 1, 256);
    } catch (const std::exception& e) {
        std::cerr << "NopChurn: " << e.what() << "\n";
        return 2;
    }
    RequestServer* own = RequestServer::getInstance(-1, 0);
    if (!own) {
        std::cerr << "NopChurn: " << RequestServer::getErrorMessage() << "\n";
        return 3;
    }
    std::printf("CLIENT_PORT %u\n", static_cast<unsigned int>(own->getPort()));
    std::fflush(stdout);

    HostInfo host(target.substr(0, colon), target.substr(0, colon));
    host.setRequestServerPort(static_cast<int>(port));
    std::atomic<unsigned long long> done{0}, failed{0};
    std::mutex firstErrorMutex;
    std::string firstError;
    const auto start = Clock::now();
    const auto deadline = start + std::chrono::seconds(seconds);
    std::vector<std::thread> workers;
    for (unsigned long long i = 0; i < threads; ++i)
        workers.emplace_back([&] {
            TcpRequestClient client("churn", host);
            while (Clock::now() < deadline) {
                RequestEncoder nop("TestRequest");
                nop.addElement("command", "NOP", "  ");
                std::string error;
                try {
                    auto reply = client.handleRequest(nop, nullptr, "");
                    if (reply && reply->getElement("data") == "OK") {
                        ++done;
                        continue;
                    }
                    error = reply ? "reply " + reply->getType() : "no reply";
                } catch (const std::exception& e) {
                    error = e.what();
                }
                ++failed;
                std::lock_guard<std::mutex> lock(firstErrorMutex);
                if (firstError.empty())
                    firstError = error;
            }
        });
    for (auto& worker : workers)
        worker.join();
    const double took = std::chrono::duration<double>(Clock::now() - start).count();
    if (!firstError.empty())
        std::printf("FIRST_ERROR %s\n", firstError.c_str());
    std::printf("REQUESTS %llu FAILURES %llu SECONDS %.1f RATE %.0f\n", done.load(), failed.load(),
                took, static_cast<double>(done.load()) / took);
    std::fflush(stdout);
    // Other threads of the library may still run: no static destructors under them.
    std::_Exit(failed.load() == 0 ? 0 : 1);
}
