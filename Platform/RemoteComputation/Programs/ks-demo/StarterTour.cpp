#include "StarterTour.h"

#include "DemoSupport.h"

#include "Platform/RemoteComputation/Programs/ks/KsClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/RequestHandling/JobSchedulerRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RemoteServiceRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingUtility.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/CoresStatus.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStatusLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <unistd.h>

namespace Kestrane {

namespace {

const uint64_t c_travelSize = 16ull * 1024 * 1024;

std::string portText(unsigned int port) {
    return std::to_string(port);
}

// The first file called `name` below `directory` whose content equals `original`.
std::string findCopy(const std::string& directory, const std::string& name,
                     const std::string& original) {
    std::error_code ignored;
    for (auto it = std::filesystem::recursive_directory_iterator(directory, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored))
        if (it->path().filename() == name && sameContent(original, it->path().string()))
            return it->path().string();
    return "";
}

// Stops the starter service should the tour end early.
struct ServiceStop {
    Computing::Process& service;
    ~ServiceStop() {
        if (service.isRunning()) {
            service.kill(SIGKILL);
            service.wait();
        }
    }
};

} // namespace

const char* const StarterTour::c_secondHostName = "ks-demo-host2";

StarterTour::StarterTour(StepLog& log, const std::string& binDirectory, const std::string& tmp)
    : m_log(log), m_bin(binDirectory), m_tmp(tmp) {}

void StarterTour::run() {
    // The started servers keep their files apart from this process's, and the adapters their
    // records of ended jobs within the demo's directory.
    ::setenv("KS_PATH_TMP", (m_tmp + "/started").c_str(), 1);
    ::setenv("KS_JOB_STATE_DIR", (m_tmp + "/jobs").c_str(), 1);
    local();
    secondHost();
    slurm();
}

std::unique_ptr<TcpRequestClient>
StarterTour::startWith(std::shared_ptr<RequestServerStarter> starter, std::string& why) {
    auto client = std::make_unique<TcpRequestClient>("demo", starter);
    auto status = client->sendGetStatusRequest();
    if (starter->getRequestServerPort() == 0) {
        why = starter->getErrorMessage();
        return nullptr;
    }
    if (!status || status->getType() != "GetStatusReply") {
        auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(status);
        why = "no status reply" + (unreachable ? ": " + unreachable->getErrorMessage() : "");
        return nullptr;
    }
    return client;
}

bool StarterTour::useAndStop(TcpRequestClient& client, std::string& why) {
    RequestEncoder nop("TestRequest");
    nop.addElement("command", "NOP", "  ");
    auto reply = client.handleRequest(nop, nullptr, "");
    if (!reply || reply->getElement("data") != "OK") {
        why = "NOP not answered 'OK'";
        return false;
    }
    const std::string host = client.getHost().getIpOrName();
    const auto port = static_cast<unsigned int>(client.getHost().getRequestServerPort());
    client.shutdownRequestServer();
    for (auto start = Clock::now(); msSince(start) < 10000;) {
        if (!listening(host, static_cast<int>(port)))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    why = "the server still answers after its shutdown";
    return false;
}

void StarterTour::local() {
    auto begin = Clock::now();
    auto starter = std::make_shared<LocalRequestServerStarter>(m_bin + "/ks-request-server",
                                                               GenericJobId(), "");
    std::string why;
    auto client = startWith(starter, why);
    m_log.step(client != nullptr,
               "Local starter (as ks start local): ks-request-server started as a process of its "
               "own, called back on localhost:" +
                   portText(starter->getRequestServerPort()) + ", status answered" +
                   (client ? "" : " (" + why + ")"),
               msSince(begin));
    if (!client)
        return;
    begin = Clock::now();
    bool used = useAndStop(*client, why);
    m_log.step(used, "Local server: NOP answered 'OK', shut down" + (used ? "" : " (" + why + ")"),
               msSince(begin));
}

void StarterTour::secondHost() {
    if (::geteuid() != 0 || ::access("/usr/bin/unshare", X_OK) != 0) {
        m_log.notTaken("Starter service on a second host: not run (a host name of its own needs "
                       "root for unshare --uts)");
        return;
    }
    // The service and this process share a key; nobody else can start anything through it.
    auto begin = Clock::now();
    const std::string key = m_tmp + "/remote-service.key";
    std::string message;
    if (!RemoteServiceKey::create(key, message)) {
        m_log.step(false, "Key for the starter service: " + message, msSince(begin));
        return;
    }
    RequestServerConfiguration::getRegisteredInstance()->setValue("remoteServiceKeyFile", key);
    const std::string server = m_bin + "/ks-request-server";
    Computing::Process service("/usr/bin/unshare",
                               {"--uts", "--", "/bin/sh", "-c", "hostname \"$0\" && exec \"$@\"",
                                c_secondHostName, m_bin + "/ks-remote-service", "--bind",
                                "127.0.0.2", "--allow", server, "--key-file", key, "--log-dir",
                                m_tmp + "/host2-logs", "-logLevel", "WARN"});
    service.captureStandardOutput();
    service.captureStandardError();
    ServiceStop stop{service};
    ::setenv("KS_PATH_TMP", (m_tmp + "/host2").c_str(), 1);
    bool started = service.start(Computing::Detached);
    ::setenv("KS_PATH_TMP", (m_tmp + "/started").c_str(), 1);
    ErrorDrain serviceLog(started ? service.getStandardErrorFd() : -1);
    std::string portLine = started ? readLine(service.getStandardOutputFd(), 10000) : "";
    if (portLine.rfind("PORT ", 0) != 0) {
        m_log.step(false,
                   "ks-remote-service did not announce its port (" +
                       (started ? "got '" + portLine + "'" : service.getErrorMessage()) + ")",
                   msSince(begin));
        return;
    }
    const int servicePort = std::stoi(portLine.substr(5));
    unsigned int cores = 0, freeCores = 0;
    bool counted = Computing::CoresStatus("127.0.0.2", servicePort).get(cores, freeCores, message);
    m_log.step(counted,
               "Started ks-remote-service (pid " + std::to_string(service.getPid()) +
                   ") on 127.0.0.2:" + std::to_string(servicePort) + " as host '" +
                   c_secondHostName + "', allowed to start ks-request-server only; " +
                   (counted
                        ? std::to_string(cores) + " cores, " + std::to_string(freeCores) + " free"
                        : "cores not told (" + message + ")"),
               msSince(begin));

    begin = Clock::now();
    auto starter = std::make_shared<RemoteServiceRequestServerStarter>(
        server, "127.0.0.2", static_cast<unsigned int>(servicePort), GenericJobId(), "");
    std::string why;
    auto client = startWith(starter, why);
    std::string hostName;
    if (client)
        hostName = HostInfo(client->sendGetStatusRequest()->getDomElement("replyHost")).getName();
    bool secondHost = client && hostName == c_secondHostName;
    m_log.step(secondHost,
               "Remote starter (as ks start remote 127.0.0.2:" + std::to_string(servicePort) +
                   "): server started on host '" + hostName +
                   "', called back on 127.0.0.2:" + portText(starter->getRequestServerPort()) +
                   ", status answered" + (client ? "" : " (" + why + ")"),
               msSince(begin));
    if (!client)
        return;

    // Host and user differ: a file goes over the connection although both see the same disk.
    const std::string file = m_tmp + "/demo-16MB.bin";
    begin = Clock::now();
    KsClient ks("127.0.0.2", static_cast<int>(starter->getRequestServerPort()), std::cout);
    ks.setQuiet(true);
    ks.setTimeout(120);
    bool written = writeTestFile(file, c_travelSize);
    ClientOutcome put = ks.test({"PUT_FILE", std::to_string(c_travelSize), true, file, false});
    std::string copy = findCopy(m_tmp + "/host2", "demo-16MB.bin", file);
    ClientOutcome get = ks.test({"GET_FILE", "", false, "", false});
    auto element = get.reply ? get.reply->getKSData("file") : nullptr;
    bool back = element && element->getFileTransfered() &&
                sameContent(file, element->getFilePath().toString());
    bool travelled = written && put.exitCode == KsExit::Success && !copy.empty() &&
                     get.exitCode == KsExit::Success && back;
    m_log.step(travelled,
               "PUT_FILE and GET_FILE of 16 MB without forced transfer: this process is " +
                   HostAndUserId().toString() + ", the server " + c_secondHostName + "#" +
                   Computing::Utility::getUserName() + ", so the file travelled " +
                   (copy.empty() ? "NOT to the second host" : "to the second host") + " and " +
                   (back ? "back" : "NOT back") + ", content equal",
               msSince(begin));

    begin = Clock::now();
    bool used = useAndStop(*client, why);
    service.kill(SIGTERM);
    int code = -1;
    bool ended = service.waitFor(10000, code) && code == 0;
    m_log.step(used && ended,
               "Second host: NOP answered 'OK', server shut down, ks-remote-service stopped" +
                   std::string(ended ? " (exit code 0)" : " (NOT cleanly)") +
                   (used ? "" : " (" + why + ")"),
               msSince(begin));
}

std::string StarterTour::slurmAdapter() const {
    const std::string installed = m_bin + "/../share/kestrane/job-schedulers/slurm";
    if (::access(installed.c_str(), X_OK) == 0)
        return installed;
    return KS_SOURCE_DIR "/scripts/job-schedulers/slurm";
}

void StarterTour::slurm() {
    const char* wanted = std::getenv("KS_DEMO_SLURM");
    if (!wanted || std::string(wanted) != "1") {
        m_log.notTaken("Job scheduler starter: not run (KS_DEMO_SLURM=1 runs it on the Slurm "
                       "cluster that SLURM_CONF names)");
        return;
    }
    auto begin = Clock::now();
    const char* conf = std::getenv("SLURM_CONF");
    if (!conf || !*conf) {
        m_log.step(false,
                   "KS_DEMO_SLURM=1, but SLURM_CONF is not set (start a cluster with "
                   "shared/tools/slurm/start-local-slurm.sh, then . $SCHED_DIR/env.sh)",
                   0);
        return;
    }
    const std::string adapter = slurmAdapter();
    auto starter = std::make_shared<JobSchedulerRequestServerStarter>(
        m_bin + "/ks-request-server", GenericJobId(), "", "ks-demo", adapter, 1, 1, nullptr);
    std::string why;
    auto client = startWith(starter, why);
    const std::string job = std::to_string(starter->getJobSchedulerJobId());
    m_log.step(client != nullptr,
               "Job scheduler starter (as ks start scheduler " + adapter + "): Slurm job " + job +
                   " runs the server, which called back on " + starter->getDescription() +
                   "; status answered" + (client ? "" : " (" + why + ")"),
               msSince(begin));
    if (!client)
        return;
    begin = Clock::now();
    bool used = useAndStop(*client, why);
    Computing::LSFJobStatus status = Computing::LSFJobStatus::Unknown;
    std::string message;
    bool done = false;
    for (auto start = Clock::now(); !done && msSince(start) < 20000;) {
        done = Computing::JobStatusLSF().execute(starter->getJobSchedulerJobId(), adapter, status,
                                                 message) &&
               status == Computing::LSFJobStatus::Done;
        if (!done)
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    m_log.step(used && done,
               "Slurm server: NOP answered 'OK', shut down; job " + job + " ended " +
                   (done ? "(DONE)" : "NOT cleanly (" + Computing::toString(status) + ")") +
                   (used ? "" : " (" + why + ")"),
               msSince(begin));
}

} // namespace Kestrane
