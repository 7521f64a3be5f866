#include "HandlerTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/JobSchedulerRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RemoteServiceRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerConnectionException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace Kestrane;
using namespace Kestrane::Testing;

namespace {

// Opens the protected command line of the starters to the tests.
template <typename Starter> class Probe : public Starter {
public:
    using RequestServerStarter::createCommandLine;
    using RequestServerStarter::joinCommandLine;
    using Starter::Starter;
    std::vector<std::string> commandLine(const std::string& callbackId) const {
        std::vector<std::string> args;
        this->createCommandLine(args, callbackId);
        return args;
    }
};

const GenericJobId c_job("0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF", "calc");

std::vector<std::string> loggingArgs() {
    return LoggingSettings::get()->getCmdArgs();
}

std::vector<std::string> concat(std::vector<std::string> first,
                                const std::vector<std::string>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::string ownPort() {
    return std::to_string(ownServer()->getPort());
}

} // namespace

// ---- command line ----

TEST(RequestServerStarterTest, CommandLineOfALocalStarterCallsBackToLocalhost) {
    Probe<LocalRequestServerStarter> starter("/opt/ks/bin/server", c_job, "_w1");
    EXPECT_EQ(starter.commandLine("7"),
              concat({"/opt/ks/bin/server", "-c", "localhost:" + ownPort() + ":7", "-jobId",
                      c_job.toString(), "-logFileSuffix", "_w1"},
                     loggingArgs()));
}

TEST(RequestServerStarterTest, CommandLineOfARemoteStarterNamesThisHost) {
    Probe<RemoteServiceRequestServerStarter> starter("/opt/ks/bin/server", "node3", 4000, c_job,
                                                     "_w1");
    EXPECT_EQ(
        starter.commandLine("12"),
        concat({"/opt/ks/bin/server", "-c", ownServer()->getHostName() + ":" + ownPort() + ":12",
                "-jobId", c_job.toString(), "-logFileSuffix", "_w1"},
               loggingArgs()));
}

TEST(RequestServerStarterTest, EmptySuffixAndInvalidJobLeaveTheirOptionsOut) {
    Probe<JobSchedulerRequestServerStarter> starter("/x/server", GenericJobId(), "", "job",
                                                    "/x/slurm", 1, 1, nullptr);
    auto args = starter.commandLine("3");
    EXPECT_EQ(args, concat({"/x/server", "-c", ownServer()->getHostName() + ":" + ownPort() + ":3"},
                           loggingArgs()));
}

TEST(RequestServerStarterTest, LoggingArgumentsFollowTheSettingsAndExtraArgumentsComeLast) {
    LoggingSettings::get()->setLevel(LogLevel::Debug);
    Probe<LocalRequestServerStarter> starter("/x/server", GenericJobId(), "");
    starter.setExtraArguments({"--port-range", "5"});
    EXPECT_EQ(starter.commandLine("1"),
              (std::vector<std::string>{"/x/server", "-c", "localhost:" + ownPort() + ":1",
                                        "-logLevel", "DEBUG", "--port-range", "5"}));
}

TEST(RequestServerStarterTest, JoinedCommandLineHasABlankBehindEveryArgument) {
    EXPECT_EQ(Probe<LocalRequestServerStarter>::joinCommandLine({"a", "b c", ""}), "a b c  ");
    EXPECT_EQ(Probe<LocalRequestServerStarter>::joinCommandLine({}), "");
}

// ---- descriptions ----

TEST(RequestServerStarterTest, DescriptionsBeforeTheStart) {
    LocalRequestServerStarter local("/x/server", c_job, "");
    RemoteServiceRequestServerStarter remote("/x/server", "node3", 4000, c_job, "");
    JobSchedulerRequestServerStarter job("/x/server", c_job, "", "job", "/x/slurm", 1, 1, nullptr);
    EXPECT_EQ(local.getDescription(), "localhost");
    EXPECT_EQ(remote.getDescription(), "node3");
    EXPECT_EQ(job.getDescription(), ":0");
    EXPECT_EQ(local.getRequestServerHost(), "localhost");
    EXPECT_EQ(local.getRequestServerPort(), 0u);
    EXPECT_EQ(remote.getRequestServerHost(), "");
}

// ---- which starter ----

TEST(RequestServerStarterTest, LocalhostGivesALocalStarterWhateverThePort) {
    for (unsigned int port : {0u, 1u, 4000u, 65535u}) {
        auto starter =
            RemoteServiceRequestServerStarter::createRemoteServiceOrLocalRequestServerStarter(
                "/x/server", "localhost", port, c_job, "_s");
        ASSERT_NE(std::dynamic_pointer_cast<LocalRequestServerStarter>(starter), nullptr) << port;
        EXPECT_EQ(starter->getExecutable(), "/x/server");
        EXPECT_EQ(starter->getJobId(), c_job);
    }
    auto testName =
        RemoteServiceRequestServerStarter::createRemoteServiceOrLocalRequestServerStarter(
            "/x/server", "secondNameForLocalhostForTesting", 4000, c_job, "");
    EXPECT_NE(std::dynamic_pointer_cast<LocalRequestServerStarter>(testName), nullptr);
    for (const std::string host : {"127.0.0.1", "LOCALHOST", "localhost.", "node3"}) {
        auto starter =
            RemoteServiceRequestServerStarter::createRemoteServiceOrLocalRequestServerStarter(
                "/x/server", host, 4000, c_job, "");
        auto remote = std::dynamic_pointer_cast<RemoteServiceRequestServerStarter>(starter);
        ASSERT_NE(remote, nullptr) << host;
        EXPECT_EQ(remote->getRemoteHost(), host);
        EXPECT_EQ(remote->getRemoteServicePort(), 4000u);
    }
}

// ---- reconnect strings ----

TEST(RequestServerStarterTest, ReconnectStringsJoinTheirFieldsWithColons) {
    EXPECT_EQ(LocalRequestServerStarter("/x/server", c_job, "_s").getReconnectString(),
              "Local:/x/server:" + c_job.toString());
    EXPECT_EQ(RemoteServiceRequestServerStarter("/x/server", "node3", 4000, c_job, "")
                  .getReconnectString(),
              "RemoteService:/x/server:node3:4000:" + c_job.toString());
    EXPECT_EQ(
        JobSchedulerRequestServerStarter("/x/server", c_job, "", "job", "/x/slurm", 2, 1, nullptr)
            .getReconnectString(),
        "JobScheduler:/x/server:" + c_job.toString());
    EXPECT_EQ(LocalRequestServerStarter("/x/server", GenericJobId(), "").getReconnectString(),
              "Local:/x/server:");
    EXPECT_EQ(LocalRequestServerStarter::getReconnectStringPrefix(), "Local");
    EXPECT_EQ(RemoteServiceRequestServerStarter::getReconnectStringPrefix(), "RemoteService");
    EXPECT_EQ(JobSchedulerRequestServerStarter::getReconnectStringPrefix(), "JobScheduler");
}

TEST(RequestServerStarterTest, LocalAndRemoteReconnectStringsRoundTrip) {
    ownServer();
    LocalRequestServerStarter local("/x/server", c_job, "_s");
    auto rebuiltLocal = RequestServerStarter::createFromReconnectString(local.getReconnectString());
    ASSERT_NE(std::dynamic_pointer_cast<LocalRequestServerStarter>(rebuiltLocal), nullptr);
    EXPECT_EQ(rebuiltLocal->getReconnectString(), local.getReconnectString());
    EXPECT_EQ(rebuiltLocal->getExecutable(), "/x/server");
    EXPECT_EQ(rebuiltLocal->getJobId(), c_job);

    RemoteServiceRequestServerStarter remote("/x/server", "node3", 4000, c_job, "");
    auto rebuiltRemote =
        RequestServerStarter::createFromReconnectString(remote.getReconnectString());
    auto asRemote = std::dynamic_pointer_cast<RemoteServiceRequestServerStarter>(rebuiltRemote);
    ASSERT_NE(asRemote, nullptr);
    EXPECT_EQ(asRemote->getReconnectString(), remote.getReconnectString());
    EXPECT_EQ(asRemote->getRemoteHost(), "node3");
    EXPECT_EQ(asRemote->getRemoteServicePort(), 4000u);
    EXPECT_EQ(asRemote->getJobId(), c_job);
}

TEST(RequestServerStarterTest, RebuiltStartersLeaveTheServerHostEmptyAndCallBackToThisHost) {
    auto local = RequestServerStarter::createFromReconnectString("Local:/x/server:");
    ASSERT_NE(local, nullptr);
    // Unlike the first constructor, the reconnect form does not name "localhost".
    EXPECT_EQ(local->getRequestServerHost(), "");
    Probe<LocalRequestServerStarter> rebuilt("Local:/x/server:");
    auto args = rebuilt.commandLine("5");
    ASSERT_GE(args.size(), 3u);
    EXPECT_EQ(args[2], ownServer()->getHostName() + ":" + ownPort() + ":5");
}

TEST(RequestServerStarterTest, JobSchedulerAndUnknownPrefixesGiveNoStarter) {
    EXPECT_EQ(RequestServerStarter::createFromReconnectString("JobScheduler:x:y"), nullptr);
    EXPECT_EQ(RequestServerStarter::createFromReconnectString("JobScheduler"), nullptr);
    EXPECT_EQ(RequestServerStarter::createFromReconnectString("Lokal:x:y"), nullptr);
    EXPECT_EQ(RequestServerStarter::createFromReconnectString("local:x:y"), nullptr);
    EXPECT_EQ(RequestServerStarter::createFromReconnectString(""), nullptr);
    EXPECT_NE(RequestServerStarter::createFromReconnectString("Local"), nullptr);
}

TEST(RequestServerStarterTest, JobSchedulerReconnectConstructorLooksAtNothing) {
    JobSchedulerRequestServerStarter starter("JobScheduler:/x/server:" + c_job.toString());
    EXPECT_EQ(starter.getExecutable(), "");
    EXPECT_FALSE(starter.getJobId().isValid());
    EXPECT_EQ(starter.getScript(), "");
    EXPECT_EQ(starter.getJobSchedulerJobId(), 0);
    EXPECT_EQ(starter.getReconnectString(), "JobScheduler::");
}

TEST(RequestServerStarterTest, LocalReconnectLogsForAValidIdAndNotForAnInvalidOne) {
    ownServer();
    LogCapture capture;
    LocalRequestServerStarter invalid("Local:/x/server:not-a-job-id");
    EXPECT_FALSE(invalid.getJobId().isValid());
    EXPECT_FALSE(capture.containsSubstring("Error getting JobId from reconnect string"));

    LocalRequestServerStarter valid("Local:/x/server:" + c_job.toString());
    EXPECT_EQ(valid.getJobId(), c_job);
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Error getting JobId from reconnect string: "));
}

TEST(RequestServerStarterTest, RemoteReconnectLogsForAnInvalidIdOnly) {
    ownServer();
    LogCapture capture;
    RemoteServiceRequestServerStarter valid("RemoteService:/x/server:node3:4000:" +
                                            c_job.toString());
    EXPECT_FALSE(capture.containsSubstring("Error getting JobId from reconnect string"));
    RemoteServiceRequestServerStarter invalid("RemoteService:/x/server:node3:4000:nonsense");
    EXPECT_TRUE(capture.contains(
        LogLevel::Error, "Error getting JobId from reconnect string: Invalid job id 'nonsense': "
                         "'nonsense' is not a unique id."));
}

TEST(RequestServerStarterTest, RemoteReconnectWithABadPortThrowsBadLexicalCast) {
    EXPECT_THROW(RemoteServiceRequestServerStarter("RemoteService:/x/server:node3:port:"),
                 boost::bad_lexical_cast);
    EXPECT_THROW(RemoteServiceRequestServerStarter("RemoteService:/x/server:node3"),
                 boost::bad_lexical_cast);
    EXPECT_THROW(RequestServerStarter::createFromReconnectString("RemoteService:/x:node3:4k:"),
                 boost::bad_lexical_cast);
}

TEST(RequestServerStarterTest, AColonInAFieldShiftsTheLaterFields) {
    LocalRequestServerStarter local("C:/ks/server", c_job, "");
    auto rebuilt = RequestServerStarter::createFromReconnectString(local.getReconnectString());
    ASSERT_NE(rebuilt, nullptr);
    EXPECT_EQ(rebuilt->getExecutable(), "C");
    EXPECT_FALSE(rebuilt->getJobId().isValid());

    RemoteServiceRequestServerStarter remote("/x/server", "fe80::1", 4000, c_job, "");
    // "fe80", "", "1" take the places of host, port and job id: the port is not a number.
    EXPECT_THROW(RequestServerStarter::createFromReconnectString(remote.getReconnectString()),
                 boost::bad_lexical_cast);
}

// ---- clients made from reconnect strings ----

TEST(RequestServerStarterTest, ClientFromALocalReconnectStringIsLocal) {
    auto starter = std::make_shared<LocalRequestServerStarter>("/x/server", c_job, "");
    // A client made with a starter has no host until its first start: the text of one that
    // has been started is made here by hand.
    TcpRequestClient fresh("worker", starter, loopbackHost(4242));
    EXPECT_EQ(fresh.getReconnectString(), ":-1:worker:Local:/x/server:" + c_job.toString());
    const std::string text = "127.0.0.1:4242:worker:" + starter->getReconnectString();
    TcpRequestClient rebuilt(text);
    EXPECT_TRUE(rebuilt.isLocal());
    EXPECT_EQ(rebuilt.getStarter()->getReconnectString(), starter->getReconnectString());
    EXPECT_EQ(rebuilt.getReconnectString(), text);
}

TEST(RequestServerStarterTest, ClientFromARemoteReconnectStringIsNotLocal) {
    auto starter =
        std::make_shared<RemoteServiceRequestServerStarter>("/x/server", "node3", 4000, c_job, "");
    TcpRequestClient client("worker", starter, loopbackHost(4242));
    TcpRequestClient rebuilt(client.getReconnectString());
    EXPECT_FALSE(rebuilt.isLocal());
    ASSERT_NE(rebuilt.getStarter(), nullptr);
    EXPECT_EQ(rebuilt.getReconnectString(), client.getReconnectString());
}

TEST(RequestServerStarterTest, ClientFromAJobSchedulerReconnectStringHasNoStarter) {
    auto starter = std::make_shared<JobSchedulerRequestServerStarter>("/x/server", c_job, "", "job",
                                                                      "/x/slurm", 1, 1, nullptr);
    TcpRequestClient client("worker", starter, loopbackHost(4242));
    EXPECT_FALSE(client.isLocal());
    TcpRequestClient rebuilt(client.getReconnectString());
    EXPECT_EQ(rebuilt.getStarter(), nullptr);
    EXPECT_FALSE(rebuilt.isLocal());
    LogCapture capture;
    rebuilt.killJobSchedulerJob();
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Killing jobScheduler job..."));
    EXPECT_TRUE(capture.contains(
        LogLevel::Error,
        "Kill failed. RequestServerStarter is not JobSchedulerRequestServerStarter."));
    // Without a host and without a starter nothing can be reached.
    rebuilt.clearReconnect();
    EXPECT_THROW(
        rebuilt.sendRequest(testRequest("NOP").getEncodedRequest(), nullptr, true, "", nullptr),
        RequestServerConnectionException);
}

// ---- killing a job ----

TEST(RequestServerStarterTest, KillBeforeTheStartSaysTheIdIsNotSet) {
    JobSchedulerRequestServerStarter starter("/x/server", c_job, "", "job", "/x/slurm", 1, 1,
                                             nullptr);
    LogCapture capture;
    starter.killJobSchedulerjob();
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Can't kill job: job ID not set!"));
    EXPECT_FALSE(capture.containsSubstring("Killing job"));
}

TEST(RequestServerStarterTest, ClientKillsThroughItsJobSchedulerStarter) {
    auto starter = std::make_shared<JobSchedulerRequestServerStarter>("/x/server", c_job, "", "job",
                                                                      "/x/slurm", 1, 1, nullptr);
    TcpRequestClient client("worker", starter);
    LogCapture capture;
    client.killJobSchedulerJob();
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Killing jobScheduler job..."));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Can't kill job: job ID not set!"));
    EXPECT_FALSE(capture.containsSubstring("Kill failed."));
}

TEST(RequestServerStarterTest, ClientWithALocalStarterCannotKillAJob) {
    TcpRequestClient client("worker",
                            std::make_shared<LocalRequestServerStarter>("/x/server", c_job, ""));
    EXPECT_TRUE(client.isLocal());
    LogCapture capture;
    client.killJobSchedulerJob();
    EXPECT_TRUE(capture.contains(
        LogLevel::Error,
        "Kill failed. RequestServerStarter is not JobSchedulerRequestServerStarter."));
}
