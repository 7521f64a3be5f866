#include "ServerStart.h"

#include "ProgressPrinter.h"

#include "Platform/RemoteComputation/Service/RequestHandling/JobSchedulerRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RemoteServiceRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobRemoveLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <chrono>
#include <climits>
#include <cstdlib>
#include <unistd.h>

namespace Kestrane {

namespace {
using Clock = std::chrono::steady_clock;

// The number that the job scheduler starter puts in front of every message it sends.
const std::string c_jobMessagePrefix = "18446744073709551615 ";
} // namespace

// Shows the job scheduler's messages as progress lines, and remembers the job's number so
// that a Ctrl-C can remove the job.
class ServerStart::JobProgress : public Progress {
public:
    JobProgress(std::ostream& out, bool quiet) : m_lines(out, "  ", false), m_quiet(quiet) {}

    bool handleLogMessage(const LogMessage& message) override {
        std::string text = message.text();
        if (text.compare(0, c_jobMessagePrefix.size(), c_jobMessagePrefix) == 0)
            text = text.substr(c_jobMessagePrefix.size());
        const std::string submitted = "Job submitted to job scheduler. ID = ";
        if (text.compare(0, submitted.size(), submitted) == 0)
            m_jobId = std::atoi(text.c_str() + submitted.size());
        if (!m_quiet) {
            size_t start = 0, end;
            while ((end = text.find('\n', start)) != std::string::npos || start < text.size()) {
                if (end == std::string::npos)
                    end = text.size();
                if (end > start)
                    m_lines.line("job", text.substr(start, end - start));
                start = end + 1;
            }
        }
        return true;
    }
    int jobId() const { return m_jobId; }

private:
    ProgressLines m_lines;
    bool m_quiet;
    std::atomic<int> m_jobId{0};
};

ServerStart::ServerStart(const ClientOptions& options, std::ostream& progress)
    : m_options(options), m_progress(progress) {}

ServerStart::~ServerStart() = default;

std::string ServerStart::defaultExecutable() {
    char path[PATH_MAX];
    ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0)
        return "ks-request-server";
    std::string self(path, static_cast<size_t>(length));
    return self.substr(0, self.rfind('/') + 1) + "ks-request-server";
}

std::vector<std::string> ServerStart::serverArguments() const {
    std::vector<std::string> args;
    if (Logging::getLevel() == LogLevel::Off) {
        const char* level = std::getenv("KS_LOG_LEVEL");
        args = {"-logLevel", level && *level ? level : "INFO"};
    }
    args.insert(args.end(), m_options.serverArgs.begin(), m_options.serverArgs.end());
    return args;
}

std::shared_ptr<RequestServerStarter> ServerStart::makeStarter() {
    const std::string executable =
        m_options.executable.empty() ? defaultExecutable() : m_options.executable;
    std::shared_ptr<RequestServerStarter> starter;
    switch (m_options.startKind) {
    case ClientOptions::StartKind::Local:
        starter = std::make_shared<LocalRequestServerStarter>(executable, GenericJobId(), "");
        break;
    case ClientOptions::StartKind::Remote:
        starter = std::make_shared<RemoteServiceRequestServerStarter>(
            executable, m_options.host, static_cast<unsigned int>(m_options.port), GenericJobId(),
            "");
        break;
    case ClientOptions::StartKind::Scheduler:
        m_jobProgress = std::make_shared<JobProgress>(m_progress, m_options.quiet);
        starter = std::make_shared<JobSchedulerRequestServerStarter>(
            executable, GenericJobId(), "", m_options.jobName, m_options.script, m_options.cores,
            m_options.minimumCores, m_jobProgress);
        break;
    }
    starter->setExtraArguments(serverArguments());
    return starter;
}

ClientOutcome ServerStart::run() {
    ClientOutcome outcome;
    auto begin = Clock::now();
    // The server calls back to this process's own request server.
    if (!RequestServer::getInstance(-1, 0)) {
        outcome.exitCode = KsExit::LocalError;
        outcome.error = "Cannot start the request server of this process, which receives the "
                        "server's callback: " +
                        RequestServer::getErrorMessage();
        return outcome;
    }
    if (m_options.timeout > 0)
        RequestServerConfiguration::getRegisteredInstance()->setValue(
            "callbackTimeout", std::to_string(m_options.timeout));
    m_starter = makeStarter();

    // A status request proves the whole road: the start, a request, and its reply back here.
    TcpRequestClient client("ks", m_starter);
    auto reply = client.sendGetStatusRequest();
    outcome.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    outcome.reply = reply;
    if (m_starter->getRequestServerPort() == 0) {
        outcome.exitCode = KsExit::Failed;
        outcome.error = m_starter->getErrorMessage();
        return outcome;
    }
    if (auto local = std::dynamic_pointer_cast<LocalRequestServerStarter>(m_starter);
        local && !m_options.quiet && !local->getOutputFile().empty())
        m_progress << "  server output goes to " << local->getOutputFile() << std::endl;
    if (!reply || reply->getType() != "GetStatusReply") {
        auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(reply);
        outcome.exitCode = KsExit::Unreachable;
        outcome.error = "The server started at " + m_starter->getDescription() +
                        " does not answer: " +
                        (unreachable ? unreachable->getErrorMessage()
                         : reply     ? "a " + reply->getType()
                                     : std::string("no reply"));
        return outcome;
    }
    outcome.lines.push_back("STARTED " + m_starter->getRequestServerHost() + ":" +
                            std::to_string(m_starter->getRequestServerPort()) + " " +
                            client.getReconnectString());
    return outcome;
}

bool ServerStart::cancel() {
    if (!m_jobProgress || m_jobProgress->jobId() == 0)
        return false;
    std::string message;
    Computing::JobRemoveLSF().execute(m_jobProgress->jobId(), m_options.script, message);
    return true;
}

} // namespace Kestrane
