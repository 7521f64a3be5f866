#include "ServiceFixture.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/CoresStatus.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RunningJob.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <regex>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

struct ProgramRun {
    int exitCode = -2;
    std::string out;
    std::string err;
};

// Runs ks-remote-service with `args` to its end (a few seconds at most).
ProgramRun runService(const std::vector<std::string>& args) {
    Computing::Process process(RemoteServiceProcess::c_program, args);
    process.captureStandardOutput();
    process.captureStandardError();
    ProgramRun run;
    if (!process.start(Computing::Detached))
        return run;
    auto all = [](const std::string&) { return false; };
    run.out = readPipe(process.getStandardOutputFd(), 5000ms, all);
    run.err = readPipe(process.getStandardErrorFd(), 5000ms, all);
    if (!process.waitFor(5000, run.exitCode)) {
        process.kill(SIGKILL);
        process.wait();
    }
    return run;
}

mode_t modeOf(const std::string& path) {
    struct stat status {};
    ::stat(path.c_str(), &status);
    return status.st_mode & 07777;
}

off_t sizeOf(const std::string& path) {
    struct stat status {};
    ::stat(path.c_str(), &status);
    return status.st_size;
}

} // namespace

// Sets environment variables (an empty value unsets one) for what starts meanwhile, and puts
// the previous values back.
class ScopedEnvironment {
public:
    explicit ScopedEnvironment(const std::map<std::string, std::string>& variables) {
        // Made before the change: this process keeps the settings it had.
        RequestServerConfiguration::getRegisteredInstance();
        for (const auto& [name, value] : variables) {
            const char* previous = std::getenv(name.c_str());
            m_previous.emplace_back(name,
                                    previous ? std::optional<std::string>(previous) : std::nullopt);
            if (value.empty())
                ::unsetenv(name.c_str());
            else
                ::setenv(name.c_str(), value.c_str(), 1);
        }
    }
    ~ScopedEnvironment() {
        for (const auto& [name, value] : m_previous)
            if (value)
                ::setenv(name.c_str(), value->c_str(), 1);
            else
                ::unsetenv(name.c_str());
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> m_previous;
};

class RemoteServiceProgramTest : public ServiceFixture {};

TEST_F(RemoteServiceProgramTest, PrintsPortFirstAndAnswersPing) {
    startService();
    std::string error;
    EXPECT_GT(port(), 0);
    EXPECT_TRUE(ping(error)) << error;
    EXPECT_NE(logLine("ks-remote-service listening on 127.0.0.1 port " + std::to_string(port()) +
                      "; allowed: " + m_allowDirectory),
              "");
}

TEST_F(RemoteServiceProgramTest, BindsOnlyTheGivenAddress) {
    RemoteServiceProcess::Options options;
    options.bindAddress = "127.0.0.2";
    startService({}, options);
    std::string error;
    EXPECT_TRUE(ping(error)) << error;
    RemoteServiceClient loopback("127.0.0.1", port());
    std::string answer;
    EXPECT_FALSE(loopback.call(Protocol::c_ping, answer, error));
    EXPECT_NE(error.find("Connection refused"), std::string::npos) << error;
}

TEST_F(RemoteServiceProgramTest, TakenPortIsAnError) {
    Computing::ListenSocket taken(0, 1, 4, "127.0.0.1");
    std::string port = std::to_string(taken.getListenPort());
    RemoteServiceProcess::Options options;
    options.allow = {m_allowDirectory};
    options.arguments = {"--port", port};
    RemoteServiceProcess service(options);
    EXPECT_FALSE(service.start(3000ms));
    EXPECT_EQ(service.waitForExit(5000ms), 1);
    EXPECT_NE(service.standardError().find("ks-remote-service: cannot listen on 127.0.0.1 port " +
                                           port + ": bind to port " + port +
                                           ": Address already in use"),
              std::string::npos)
        << service.standardError();
}

TEST_F(RemoteServiceProgramTest, CreatesKeysWithoutReplacingThem) {
    std::string path = m_temp.file("keys/new.key");
    ProgramRun created = runService({"--create-key", path});
    EXPECT_EQ(created.exitCode, 0) << created.err;
    EXPECT_NE(created.out.find("Created key file " + path), std::string::npos) << created.out;
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(sizeOf(path), 32);
    std::string key = readFile(path);

    ProgramRun again = runService({"--create-key", path});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_NE(again.err.find("Key file '" + path + "' exists already; it is not replaced"),
              std::string::npos)
        << again.err;
    EXPECT_EQ(readFile(path), key);

    // Without a file: the key file option, else the configured path.
    std::string option = m_temp.file("option.key");
    EXPECT_EQ(runService({"--key-file", option, "--create-key"}).exitCode, 0);
    EXPECT_EQ(sizeOf(option), 32);
    std::string configured = m_temp.file("configured.key");
    ::setenv("KS_REMOTE_SERVICE_KEY_FILE", configured.c_str(), 1);
    ProgramRun fromEnvironment = runService({"--create-key"});
    ::unsetenv("KS_REMOTE_SERVICE_KEY_FILE");
    EXPECT_EQ(fromEnvironment.exitCode, 0) << fromEnvironment.err;
    EXPECT_EQ(modeOf(configured), 0600u);
    EXPECT_NE(readFile(configured), readFile(option));
}

TEST_F(RemoteServiceProgramTest, BadCommandLinesExitWithTwo) {
    writeFile(m_temp.file("text"), "not a program", 0644);
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    std::vector<Case> cases = {
        {{"--port", "x"}, "Invalid value 'x' for option --port"},
        {{"--nonsense"}, "Unknown option '--nonsense'"},
        {{"--max-processes", "0"}, "Invalid value '0' for option --max-processes"},
        {{"--timeout"}, "Missing value for option --timeout"},
        {{"-logLevel", "LOUD"}, "Invalid value 'LOUD' for option -logLevel"},
        {{"--allow", "allow/probe"}, "--allow 'allow/probe' is not an absolute path"},
        {{"--allow", m_temp.file("missing")},
         "--allow '" + m_temp.file("missing") + "': No such file or directory"},
        {{"--allow", m_temp.file("text")},
         "--allow '" + m_temp.file("text") +
             "' is neither an executable regular file nor a directory"},
    };
    for (const auto& c : cases) {
        ProgramRun run = runService(c.args);
        EXPECT_EQ(run.exitCode, 2) << c.args[0];
        EXPECT_NE(run.err.find("ks-remote-service: " + c.message), std::string::npos) << run.err;
        EXPECT_NE(run.err.find("Usage: ks-remote-service"), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "");
    }
    ProgramRun help = runService({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_EQ(help.out.rfind("Usage: ks-remote-service", 0), 0u) << help.out;
}

TEST_F(RemoteServiceProgramTest, LogDirectoryDefaultsToTheTemporaryDirectory) {
    std::string key = m_temp.file("default.key"), message;
    ASSERT_TRUE(RemoteServiceKey::create(key, message)) << message;
    useClientKey(key);
    std::string tmp = m_temp.directory("ks-tmp");
    ::setenv("KS_PATH_TMP", tmp.c_str(), 1);
    Computing::Process service(RemoteServiceProcess::c_program,
                               {"--key-file", key, "--allow", m_allowDirectory});
    service.captureStandardOutput();
    service.setOutputFile(m_temp.file("default-service.err"));
    ASSERT_TRUE(service.start(Computing::Detached));
    ::unsetenv("KS_PATH_TMP");
    struct StopAtEnd {
        Computing::Process& process;
        ~StopAtEnd() {
            if (process.isRunning()) {
                process.kill(SIGKILL);
                process.wait();
            }
        }
    } stopAtEnd{service};
    std::string line = readPipe(service.getStandardOutputFd(), 5000ms, [](const std::string& t) {
        return t.find('\n') != std::string::npos;
    });
    ASSERT_EQ(line.rfind("PORT ", 0), 0u) << line;
    std::string rec = record("default");
    Computing::JobStart job("127.0.0.1", std::stoi(line.substr(5)));
    ASSERT_TRUE(job.execute(probeCommand(m_probe, rec, 0))) << job.getErrorMessage();
    m_startedPids.insert(job.getPid());
    ASSERT_TRUE(ProbeProgram::waitForStart(rec));
    EXPECT_EQ(modeOf(tmp + "/remote-service"), 0700u);
    bool found = waitUntil([&] {
        for (const auto& entry : std::filesystem::directory_iterator(tmp + "/remote-service"))
            if (readFile(entry.path()).find("probe stdout " + std::to_string(job.getPid())) !=
                std::string::npos)
                return true;
        return false;
    });
    EXPECT_TRUE(found);
    service.kill(SIGTERM);
    int code = -1;
    EXPECT_TRUE(service.waitFor(5000, code));
    EXPECT_EQ(code, 0);
}

TEST_F(RemoteServiceProgramTest, UnusableLogDirectoryIsAnError) {
    writeFile(m_temp.file("plain"), "x");
    std::string key = m_temp.file("k"), message;
    ASSERT_TRUE(RemoteServiceKey::create(key, message)) << message;
    ProgramRun run = runService({"--key-file", key, "--log-dir", m_temp.file("plain/logs")});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("ks-remote-service: Cannot create log directory '" +
                           m_temp.file("plain/logs") + "': Not a directory"),
              std::string::npos)
        << run.err;
    EXPECT_EQ(run.out, "");
}

TEST_F(RemoteServiceProgramTest, StartsAnAllowedProgramWithItsArgumentsIntact) {
    startService();
    std::string rec = record("probe1");
    std::vector<std::string> more = {"two words",   "'single'", "\"double\"", "$HOME",      "a;b",
                                     "line\nbreak", "",         "tab\there",  "back\\slash"};
    auto argv = probeCommand(m_probe, rec, 10, more);
    std::string error;
    pid_t pid = start(argv, error);
    ASSERT_GT(pid, 0) << error;
    ASSERT_TRUE(ProbeProgram::waitForStart(rec)) << m_service->standardError();
    EXPECT_EQ(ProbeProgram::arguments(rec), argv);

    auto info = ProbeProgram::info(rec);
    EXPECT_EQ(info["pid"], std::to_string(pid));
    EXPECT_EQ(info["sid"], std::to_string(pid)) << "a session of its own";
    EXPECT_EQ(::getsid(pid), pid);
    EXPECT_EQ(info["stdin"], "/dev/null");
    EXPECT_EQ(info["sigblk"], "0000000000000000") << "the service's blocked signals leaked";

    std::string started = logLine("Started process " + std::to_string(pid) + ": ");
    EXPECT_NE(started.find(" INFO "), std::string::npos) << started;
    EXPECT_NE(started.find("'" + m_probe + "' '" + rec +
                           "' '10' 'two words' '\\'single\\'' '\"double\"' '$HOME' 'a;b' "
                           "'line\\nbreak' '' 'tab\\there' 'back\\\\slash'; output in " +
                           m_service->logDirectory() + "/probe-"),
              std::string::npos)
        << started;
    std::smatch match;
    ASSERT_TRUE(std::regex_search(
        started, match, std::regex("output in (.*/probe-[0-9]{8}-[0-9]{6}-[0-9]+-1\\.log)$")))
        << started;
    std::string logFile = match[1];
    EXPECT_TRUE(waitUntil([&] {
        std::string text = readFile(logFile);
        return text.find("probe stdout " + std::to_string(pid)) != std::string::npos &&
               text.find("probe stderr " + std::to_string(pid)) != std::string::npos;
    })) << readFile(logFile);

    ProbeProgram::release(rec);
    EXPECT_NE(logLine("Process " + std::to_string(pid) + " (probe) ended with exit code 3"), "")
        << m_service->standardError();
    EXPECT_TRUE(waitUntil([&] { return processState(pid) == 0; }, 2000ms))
        << "state " << processState(pid);
}

TEST_F(RemoteServiceProgramTest, StartedProgramsBlockNoSignals) {
    // No shell: a shell may clear its signal mask itself and hide what it inherited.
    const std::string grep = "/usr/bin/grep";
    if (::access(grep.c_str(), X_OK) != 0)
        GTEST_SKIP() << grep << " is missing";
    RemoteServiceProcess::Options options;
    options.allow = {m_allowDirectory, grep};
    startService({}, options);
    std::string error;
    pid_t pid = start({grep, "^SigBlk", "/proc/self/status"}, error);
    ASSERT_GT(pid, 0) << error;
    ASSERT_NE(logLine("Process " + std::to_string(pid) + " (grep) ended with exit code 0"), "");
    std::smatch match;
    std::string started = logLine("Started process " + std::to_string(pid) + ": ");
    ASSERT_TRUE(std::regex_search(started, match, std::regex("output in (.*\\.log)$")));
    EXPECT_EQ(readFile(match[1]), "SigBlk:\t0000000000000000\n");
}

TEST_F(RemoteServiceProgramTest, StartedProgramsInheritNoDescriptors) {
    const std::string ls = "/usr/bin/ls";
    if (::access(ls.c_str(), X_OK) != 0)
        GTEST_SKIP() << ls << " is missing";
    RemoteServiceProcess::Options options;
    options.allow = {ls};
    // A log file of the service's own is a descriptor that must not reach the programs.
    startService({"-logFile", m_temp.file("service.log")}, options);
    std::string error;
    pid_t pid = start({ls, "-l", "/proc/self/fd/"}, error);
    ASSERT_GT(pid, 0) << error;
    ASSERT_NE(logLine("Process " + std::to_string(pid) + " (ls) ended with exit code 0"), "");
    std::smatch match;
    std::string started = logLine("Started process " + std::to_string(pid) + ": ");
    ASSERT_TRUE(std::regex_search(started, match, std::regex("output in (.*\\.log)$")));
    std::string logFile = match[1];
    std::string listing = readFile(logFile);
    std::map<int, std::string> descriptors;
    std::regex entry(" ([0-9]+) -> (.*)");
    for (auto it = std::sregex_iterator(listing.begin(), listing.end(), entry);
         it != std::sregex_iterator(); ++it)
        descriptors[std::stoi((*it)[1])] = (*it)[2];
    std::map<int, std::string> expected = {{0, "/dev/null"},
                                           {1, logFile},
                                           {2, logFile},
                                           // ls reading the directory
                                           {3, "/proc/" + std::to_string(pid) + "/fd"}};
    EXPECT_EQ(descriptors, expected) << listing;
}

TEST_F(RemoteServiceProgramTest, SymlinkInsideTheListStartsItsTarget) {
    startService();
    std::string link = m_allowDirectory + "/alias";
    ASSERT_EQ(::symlink(m_probe.c_str(), link.c_str()), 0);
    std::string rec = record("alias");
    std::string error;
    ASSERT_GT(start(probeCommand(link, rec, 0), error), 0) << error;
    ASSERT_TRUE(ProbeProgram::waitForStart(rec));
    // The canonical path was started, not the link.
    EXPECT_EQ(ProbeProgram::arguments(rec)[0], m_probe);
}

TEST_F(RemoteServiceProgramTest, ReportsTheOnlineCores) {
    // A registry of its own, so that jobs running elsewhere on this host don't count.
    std::string tmp = m_temp.directory("ks-tmp");
    {
        ScopedEnvironment environment({{"KS_PATH_TMP", tmp}, {"KS_COMPUTATION_CORES", ""}});
        startService();
    }
    unsigned int expected = static_cast<unsigned int>(::sysconf(_SC_NPROCESSORS_ONLN));
    for (int i = 0; i < 2; ++i) {
        unsigned int cores = 0, freeCores = 0;
        std::string message;
        ASSERT_TRUE(Computing::CoresStatus(host(), port()).get(cores, freeCores, message))
            << message;
        EXPECT_EQ(cores, expected);
        EXPECT_EQ(freeCores, expected);
    }
}

TEST_F(RemoteServiceProgramTest, FreeCoresAreWhatRunningJobsOfTheHostLeave) {
    std::string tmp = m_temp.directory("ks-tmp");
    {
        ScopedEnvironment environment({{"KS_PATH_TMP", tmp}, {"KS_COMPUTATION_CORES", "4"}});
        startService();
    }
    PathConfiguration::setKsPathTmp(FileName(tmp));
    auto cores = [&] {
        unsigned int all = 0, freeCores = 0;
        std::string message;
        if (!Computing::CoresStatus(host(), port()).get(all, freeCores, message))
            return "<" + message + ">";
        return std::to_string(all) + " " + std::to_string(freeCores);
    };
    EXPECT_EQ(cores(), "4 4");
    {
        Computing::RunningJob job("test job");
        ASSERT_TRUE(job.add(4, 3, 0, "test job"));
        EXPECT_EQ(cores(), "4 1");
    }
    EXPECT_EQ(cores(), "4 4");
    // A job in a process that gets killed: its cores come back without anybody removing it.
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        auto job = new Computing::RunningJob("child job");
        char byte = job->add(4, 6, 0, "child job") ? '1' : '0';
        (void)!::write(ready[1], &byte, 1);
        ::pause();
        ::_exit(0);
    }
    ::close(ready[1]);
    char byte = 0;
    bool added = ::read(ready[0], &byte, 1) == 1 && byte == '1';
    ::close(ready[0]);
    std::string whileRunning = cores();
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ASSERT_TRUE(added);
    // More than the host has, alone: nothing is free, never less.
    EXPECT_EQ(whileRunning, "4 0");
    EXPECT_EQ(cores(), "4 4");
    PathConfiguration::setKsPathTmp(FileName());
}

TEST_F(RemoteServiceProgramTest, MaxProcessesIsKeptAndFreedWhenAProgramEnds) {
    startService({"--max-processes", "1"});
    std::string first = record("first"), second = record("second"), third = record("third");
    std::string error;
    pid_t pid = start(probeCommand(m_probe, first, 10), error);
    ASSERT_GT(pid, 0) << error;
    ASSERT_TRUE(ProbeProgram::waitForStart(first));
    expectStartRefused(probeCommand(m_probe, second, 0),
                       "the service runs 1 started program already, its --max-processes limit; "
                       "wait until one ends or start the service with a higher limit",
                       second);
    ProbeProgram::release(first);
    ASSERT_NE(logLine("Process " + std::to_string(pid) + " (probe) ended with exit code 3"), "");
    EXPECT_GT(start(probeCommand(m_probe, third, 0), error), 0) << error;
    EXPECT_TRUE(ProbeProgram::waitForStart(third));
}

TEST_F(RemoteServiceProgramTest, MissingKeyAtStartIsOnlyAWarning) {
    RemoteServiceProcess::Options options;
    options.createKey = false;
    startService({}, options);
    EXPECT_NE(logLine("No usable key yet, every command is refused until it is fixed: Key file '" +
                      m_service->keyFile() + "' does not exist"),
              "");
    std::string message;
    ASSERT_TRUE(RemoteServiceKey::create(m_service->keyFile(), message)) << message;
    std::string error;
    EXPECT_TRUE(ping(error)) << error;
}

TEST_F(RemoteServiceProgramTest, WithoutAllowEntriesEveryStartIsRefused) {
    RemoteServiceProcess::Options options;
    options.allow = {};
    auto service = std::make_unique<RemoteServiceProcess>(options);
    ASSERT_TRUE(service->start());
    m_service = std::move(service);
    useClientKey(m_service->keyFile());
    EXPECT_NE(logLine("No --allow given: every start will be refused"), "");
    std::string rec = record("none");
    expectStartRefused(probeCommand(m_probe, rec, 0),
                       "the service allows no programs; start it with --allow for '" + m_probe +
                           "' or its directory",
                       rec);
}

TEST_F(RemoteServiceProgramTest, SigtermFinishesOpenConversationsAndLeavesProgramsRunning) {
    // The started program outlives the service; this process becomes its parent then, and not
    // an init process that might leave it a zombie.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    startService();
    std::string rec = record("survivor");
    std::string error;
    pid_t child = start(probeCommand(m_probe, rec, 10), error);
    ASSERT_GT(child, 0) << error;
    ASSERT_TRUE(ProbeProgram::waitForStart(rec));

    auto open = connect();
    ASSERT_TRUE(m_service->process().kill(SIGTERM));
    ASSERT_NE(logLine("Received signal 15, stopping"), "");
    RemoteServiceKey key;
    ASSERT_TRUE(key.load(m_service->keyFile(), error)) << error;
    Protocol::writeFrame(open->socket, Protocol::c_command, Protocol::c_ping);
    Protocol::writeFrame(open->socket, Protocol::c_auth, key.sign(open->nonce, Protocol::c_ping));
    EXPECT_EQ(nextPacket(open->socket), "OK PONG");

    EXPECT_EQ(m_service->waitForExit(5000ms), 0) << m_service->standardError();
    EXPECT_NE(m_service->standardError().find(
                  "ks-remote-service stopped; 1 started program still running"),
              std::string::npos)
        << m_service->standardError();
    char state = processState(child);
    EXPECT_TRUE(state != 0 && state != 'Z') << "state " << state;
    EXPECT_EQ(::kill(child, SIGKILL), 0);
    // Orphaned, it came to this process (a subreaper), which reaps it.
    EXPECT_TRUE(waitUntil([&] { return ::waitpid(child, nullptr, WNOHANG) == child; }, 2000ms));
}

TEST_F(RemoteServiceProgramTest, SigintStopsTheService) {
    startService();
    ASSERT_TRUE(m_service->process().kill(SIGINT));
    EXPECT_EQ(m_service->waitForExit(5000ms), 0);
    EXPECT_NE(m_service->standardError().find("Received signal 2, stopping"), std::string::npos);
}

TEST_F(RemoteServiceProgramTest, RunsAsASecondHostUnderItsOwnName) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "a UTS namespace of its own needs root";
    RemoteServiceProcess::Options options;
    options.hostName = "ks-second-host";
    startService({}, options);
    EXPECT_EQ(host(), "127.0.0.2");
    std::string rec = record("host");
    std::string error;
    ASSERT_GT(start(probeCommand(m_probe, rec, 0), error), 0) << error;
    ASSERT_TRUE(ProbeProgram::waitForStart(rec)) << m_service->standardError();
    EXPECT_EQ(ProbeProgram::info(rec)["host"], "ks-second-host");
    char name[256] = {};
    ::gethostname(name, sizeof(name) - 1);
    EXPECT_NE(std::string(name), "ks-second-host") << "this host was renamed";
    RemoteServiceClient loopback("127.0.0.1", port());
    std::string answer;
    EXPECT_FALSE(loopback.call(Protocol::c_ping, answer, error));
}

TEST_F(RemoteServiceProgramTest, StartTakesLittleTime) {
    startService();
    std::vector<double> times;
    for (int i = 0; i < 9; ++i) {
        std::string rec = record("quick" + std::to_string(i));
        std::string error;
        auto begin = std::chrono::steady_clock::now();
        ASSERT_GT(start(probeCommand(m_probe, rec, 0), error), 0) << error;
        times.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
                .count());
    }
    std::sort(times.begin(), times.end());
    std::cout << "START connect to OK: median " << times[times.size() / 2] << " ms, min "
              << times.front() << " ms, max " << times.back() << " ms\n";
    EXPECT_LT(times[times.size() / 2], 500.0);
}
