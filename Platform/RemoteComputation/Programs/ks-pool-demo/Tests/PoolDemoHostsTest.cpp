// ks-pool-demo with its workers started through real ks-remote-service processes: one on
// 127.0.0.1, and one as a second host of its own name on 127.0.0.2.
#include "PoolDemoProcesses.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/CoresStatus.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RunningJob.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"
#include "Platform/RemoteComputation/TestSupport/RemoteServiceProcess.h"

#include <gtest/gtest.h>

#include <sys/prctl.h>

using namespace Kestrane;
using namespace Kestrane::PoolDemoTesting;
using Kestrane::Testing::RemoteServiceProcess;

namespace {

const unsigned long long c_primesBelow2e6 = 148933ULL;
const unsigned long long c_primesBelow1e8 = 5761455ULL;
const std::regex c_workerLog("ks-pool-demo-.*\\.log");
const std::string c_binDirectory = KS_BINARY_DIR "/bin";

struct Cores {
    unsigned int all = 0;
    unsigned int free = 0;
};

class PoolDemoHostsTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Workers left by a service or a master come to this process, which reaps them.
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        env.set("KS_LOG_LEVEL", "INFO");
        env.unset("KS_COMPUTATION_CORES");
        env.unset("KS_CONFIG_FILE");
    }
    void TearDown() override {
        // The workers that a service started outlive it: they are ours to end.
        for (auto& service : services)
            for (const auto& log : pidsOfLogs(service->logDirectory(), c_workerLog))
                killLeftover(log.second);
        services.clear();
        RequestServerConfiguration::getRegisteredInstance()->setValue("remoteServiceKeyFile", "");
    }

    // A service allowed to start the programs of the build's bin directory, with a registry of
    // its own (its KS_PATH_TMP, which its workers inherit) and the first service's key.
    RemoteServiceProcess& startService(const std::string& name,
                                       RemoteServiceProcess::Options options,
                                       const std::string& computationCores = "") {
        options.allow = {c_binDirectory};
        options.createKey = services.empty();
        ScopedEnvironment serviceEnvironment;
        serviceEnvironment.set("KS_PATH_TMP", tmp.directory(name));
        if (!computationCores.empty())
            serviceEnvironment.set("KS_COMPUTATION_CORES", computationCores);
        services.push_back(std::make_unique<RemoteServiceProcess>(options));
        RemoteServiceProcess& service = *services.back();
        if (services.size() > 1)
            copyKey(services.front()->keyFile(), service.keyFile());
        EXPECT_TRUE(service.start()) << service.standardError();
        if (services.size() == 1) {
            RequestServerConfiguration::getRegisteredInstance()->setValue("remoteServiceKeyFile",
                                                                          service.keyFile());
            env.set("KS_REMOTE_SERVICE_KEY_FILE", service.keyFile());
        }
        return service;
    }
    static void copyKey(const std::string& from, const std::string& to) {
        TestSupport::writeFile(to, readWholeFile(from), 0600);
    }
    static Cores coresOf(RemoteServiceProcess& service) {
        Cores cores;
        std::string message;
        EXPECT_TRUE(Computing::CoresStatus(service.host(), service.port())
                        .get(cores.all, cores.free, message))
            << message;
        return cores;
    }
    // Runs a master of its own KS_PATH_TMP to its end.
    std::unique_ptr<DemoRun> runDemo(const std::vector<std::string>& args) {
        env.set("KS_PATH_TMP", tmp.directory("master"));
        auto demo = std::make_unique<DemoRun>(args);
        EXPECT_TRUE(demo->started()) << demo->startError();
        EXPECT_EQ(demo->waitForExit(60000ms), 0) << demo->describe();
        return demo;
    }
    static std::vector<std::string> workerLogsOf(RemoteServiceProcess& service) {
        return filesIn(service.logDirectory(), c_workerLog);
    }

    TestSupport::TempDir tmp;
    ScopedEnvironment env;
    std::vector<std::unique_ptr<RemoteServiceProcess>> services;
};

size_t countIn(const std::string& text, const std::string& piece) {
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        ++count;
    return count;
}

} // namespace

TEST_F(PoolDemoHostsTest, HostWithoutMaximumGetsOneWorkerPerFreeCore) {
    RemoteServiceProcess& service = startService("host", {});
    const Cores cores = coresOf(service);
    // Without KS_COMPUTATION_CORES the service offers the host's online cores, none in use yet.
    EXPECT_EQ(cores.all, static_cast<unsigned int>(::sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_EQ(cores.free, cores.all);

    auto demo = runDemo({"--hosts", "127.0.0.1:" + std::to_string(service.port()) + ":0", "--below",
                         "2000000", "--tasks", "40"});
    auto result = demo->result();
    ASSERT_TRUE(result) << demo->describe();
    EXPECT_EQ(result->primes, c_primesBelow2e6);
    EXPECT_EQ(result->tasks, 40u);
    EXPECT_EQ(result->failed, 0u);
    EXPECT_EQ(result->workers, cores.free);
    EXPECT_NE(demo->out().text().find("Starting " + std::to_string(cores.free) +
                                      " workers on 127.0.0.1..."),
              std::string::npos)
        << demo->describe();
    // The service started the one worker process, and its workers did the count.
    auto logs = workerLogsOf(service);
    ASSERT_EQ(logs.size(), 1u);
    const std::string log = readWholeFile(logs[0]);
    EXPECT_EQ(countIn(log, "Starting execution of DistributedWorker"), cores.free);
    EXPECT_EQ(countIn(log, "Results from worker"), 40u);
}

TEST_F(PoolDemoHostsTest, CoresHeldOnTheHostAreLeftToTheirJobs) {
    RemoteServiceProcess& service = startService("host", {});
    const Cores idle = coresOf(service);
    if (idle.all < 2)
        GTEST_SKIP() << "needs a host of two cores at least";
    // A job of this test holds one core in the host's registry.
    PathConfiguration::setKsPathTmp(FileName(tmp.directory("host")));
    Computing::RunningJob job("test job");
    ASSERT_TRUE(job.add(0, 1, 0, "test job holding a core"));
    const Cores held = coresOf(service);
    EXPECT_EQ(held.free, idle.all - 1);

    auto demo = runDemo({"--hosts", "127.0.0.1:" + std::to_string(service.port()),
                         "--separate-processes", "--below", "2000000", "--tasks", "40"});
    job.remove();
    PathConfiguration::setKsPathTmp(FileName());
    auto result = demo->result();
    ASSERT_TRUE(result) << demo->describe();
    EXPECT_EQ(result->primes, c_primesBelow2e6);
    EXPECT_EQ(result->failed, 0u);
    EXPECT_EQ(result->workers, held.free);
    EXPECT_EQ(workerLogsOf(service).size(), held.free);
}

TEST_F(PoolDemoHostsTest, ComputationCoresOfTheServiceLimitTheWorkers) {
    RemoteServiceProcess& service = startService("host", {}, "1");
    const Cores cores = coresOf(service);
    EXPECT_EQ(cores.all, 1u);
    EXPECT_EQ(cores.free, 1u);
    auto demo = runDemo({"--hosts", "127.0.0.1:" + std::to_string(service.port()), "--below",
                         "2000000", "--tasks", "40"});
    auto result = demo->result();
    ASSERT_TRUE(result) << demo->describe();
    EXPECT_EQ(result->primes, c_primesBelow2e6);
    EXPECT_EQ(result->workers, 1u);
    EXPECT_NE(demo->out().text().find("Starting 1 worker on 127.0.0.1..."), std::string::npos);
}

TEST_F(PoolDemoHostsTest, SecondHostRunsItsWorkerUnderItsOwnName) {
    if (::geteuid() != 0 || ::access("/usr/bin/unshare", X_OK) != 0)
        GTEST_SKIP() << "a host name of its own needs root and unshare --uts";
    RemoteServiceProcess& first = startService("host1", {});
    RemoteServiceProcess::Options secondOptions;
    secondOptions.hostName = "ks-pool-host2";
    RemoteServiceProcess& second = startService("host2", secondOptions);
    ASSERT_EQ(second.host(), "127.0.0.2");

    auto demo = runDemo({"--hosts",
                         "127.0.0.1:" + std::to_string(first.port()) +
                             ":1,127.0.0.2:" + std::to_string(second.port()) + ":1",
                         // Enough work that the first worker cannot finish it all before the
                         // second has started.
                         "--separate-processes", "--below", "100000000", "--tasks", "40"});
    auto result = demo->result();
    ASSERT_TRUE(result) << demo->describe();
    EXPECT_EQ(result->primes, c_primesBelow1e8);
    EXPECT_EQ(result->tasks, 40u);
    EXPECT_EQ(result->failed, 0u);
    EXPECT_EQ(result->workers, 2u);
    const std::string out = demo->out().text();
    EXPECT_NE(out.find("Starting 1 worker on 127.0.0.1..."), std::string::npos) << out;
    EXPECT_NE(out.find("Starting 1 worker on 127.0.0.2..."), std::string::npos) << out;

    // Each service started one worker process; the second host's says its own name, and the
    // master watched it there.
    auto firstLogs = workerLogsOf(first);
    auto secondLogs = workerLogsOf(second);
    ASSERT_EQ(firstLogs.size(), 1u);
    ASSERT_EQ(secondLogs.size(), 1u);
    const std::string firstLog = readWholeFile(firstLogs[0]);
    const std::string secondLog = readWholeFile(secondLogs[0]);
    char name[256] = {};
    ::gethostname(name, sizeof(name) - 1);
    EXPECT_NE(firstLog.find(std::string("local=") + name + ":"), std::string::npos) << firstLog;
    EXPECT_NE(secondLog.find("local=ks-pool-host2:"), std::string::npos) << secondLog;
    EXPECT_EQ(countIn(firstLog, "Results from worker") + countIn(secondLog, "Results from worker"),
              40u);
    EXPECT_GT(countIn(secondLog, "Results from worker"), 0u);
    EXPECT_NE(demo->err().text().find("Subscribed to topic alive on tcp://127.0.0.2:"),
              std::string::npos);
}
