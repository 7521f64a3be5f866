#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobRemoveLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobSchedulerScript.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStatusLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobSubmitLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"
#include "Platform/RemoteComputation/TestSupport/FakeLsf.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <vector>

using namespace Kestrane;
using namespace Kestrane::Computing;
using namespace std::chrono_literals;
using TestSupport::TempDir;

namespace {

// An adapter written by the test: `body` runs after the arguments have been recorded,
// NUL-terminated, in the file "args".
class ScriptedAdapter {
public:
    explicit ScriptedAdapter(const std::string& body) : m_path(m_dir.file("adapter")) {
        TestSupport::writeFile(m_path, "#!/bin/bash\nprintf '%s\\0' \"$@\" > '" +
                                           m_dir.file("args") + "'\n" + body + "\n");
        ::chmod(m_path.c_str(), 0755);
    }
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_dir.file(name); }
    std::vector<std::string> arguments() const {
        std::vector<std::string> args;
        std::string all = TestSupport::readFile(m_dir.file("args"));
        size_t start = 0, end;
        while ((end = all.find('\0', start)) != std::string::npos) {
            args.push_back(all.substr(start, end - start));
            start = end + 1;
        }
        return args;
    }

private:
    TempDir m_dir;
    std::string m_path;
};

LSFSubmitInfo infoFor(const std::string& script) {
    LSFSubmitInfo info;
    info.jobName = "calc job";
    info.cores = 4;
    info.minimumCores = 2;
    info.script = script;
    info.tmpPath = "/shared/tmp";
    return info;
}

bool processExists(pid_t pid) {
    return ::kill(pid, 0) == 0;
}

} // namespace

// ---- the adapter run ----

TEST(JobSchedulerCommandsTest, SubmitPassesTheContractsArgumentsAndReadsTheJobLine) {
    ScriptedAdapter adapter("echo 'Submitted it'; echo 'JOB 4711'; echo 'bye' >&2");
    JobSubmitLSF submit;
    std::string message;
    const std::vector<std::string> command{"/opt/ks/server", "-c", "host:1:2", "a b", "", "$x;y"};
    EXPECT_EQ(submit.execute(command, infoFor(adapter.path()), message), 4711);
    EXPECT_EQ(message, "Submitted it\nJOB 4711\nbye\n");
    EXPECT_EQ(submit.getErrorMessage(), "");
    EXPECT_EQ(adapter.arguments(),
              (std::vector<std::string>{"submit", "--job-name", "calc job", "--cores", "4",
                                        "--min-cores", "2", "--tmp", "/shared/tmp", "--",
                                        "/opt/ks/server", "-c", "host:1:2", "a b", "", "$x;y"}));
}

TEST(JobSchedulerCommandsTest, SubmitWithoutANameNamesTheJobAfterTheProgram) {
    ScriptedAdapter adapter("echo 'JOB 1'");
    LSFSubmitInfo info = infoFor(adapter.path());
    info.jobName.clear();
    info.cores = 0;
    info.minimumCores = 0;
    std::string message;
    EXPECT_EQ(JobSubmitLSF().execute({"/opt/ks/server"}, info, message), 1);
    auto args = adapter.arguments();
    ASSERT_GE(args.size(), 7u);
    EXPECT_EQ(args[2], "server");
    EXPECT_EQ(args[4], "1");
    EXPECT_EQ(args[6], "0");
}

TEST(JobSchedulerCommandsTest, SubmitFailuresGiveZeroAndSayWhy) {
    std::string message;
    {
        ScriptedAdapter adapter("echo 'sbatch: error: invalid partition'; exit 1");
        JobSubmitLSF submit;
        EXPECT_EQ(submit.execute({"/x"}, infoFor(adapter.path()), message), 0);
        EXPECT_EQ(message, "sbatch: error: invalid partition\n");
        EXPECT_EQ(submit.getErrorMessage(),
                  "Job scheduler script '" + adapter.path() + " submit' failed with exit code 1");
    }
    {
        ScriptedAdapter adapter("echo 'all fine'; echo 'JOB 0'; echo 'JOB x'");
        JobSubmitLSF submit;
        EXPECT_EQ(submit.execute({"/x"}, infoFor(adapter.path()), message), 0);
        EXPECT_EQ(submit.getErrorMessage(), "Job scheduler script '" + adapter.path() +
                                                " submit' printed no line 'JOB <number>'");
    }
    {
        JobSubmitLSF submit;
        EXPECT_EQ(submit.execute({"/x"}, infoFor("/no/such/adapter"), message), 0);
        EXPECT_EQ(message, "");
        EXPECT_EQ(submit.getErrorMessage(),
                  "Cannot run job scheduler script '/no/such/adapter submit': Cannot start "
                  "'/no/such/adapter': No such file or directory");
    }
    {
        JobSubmitLSF submit;
        EXPECT_EQ(submit.execute({"/x"}, infoFor(""), message), 0);
        EXPECT_EQ(submit.getErrorMessage(), "No job scheduler script given");
        EXPECT_EQ(submit.execute({}, infoFor("/bin/true"), message), 0);
        EXPECT_EQ(submit.getErrorMessage(), "Nothing to submit: the command line is empty");
    }
}

TEST(JobSchedulerCommandsTest, StatusWordsMapOntoTheStatesInOrder) {
    const std::vector<std::pair<std::string, LSFJobStatus>> words{
        {"PENDING", LSFJobStatus::Pending},
        {"RUNNING", LSFJobStatus::Running},
        {"DONE", LSFJobStatus::Done},
        {"EXIT", LSFJobStatus::Exit},
        {"UNKNOWN", LSFJobStatus::Unknown}};
    int order = 0;
    for (const auto& [word, expected] : words) {
        EXPECT_EQ(static_cast<int>(expected), order++);
        ScriptedAdapter adapter("echo 'Slurm job 5: whatever'; echo 'STATUS " + word + "'");
        LSFJobStatus status = LSFJobStatus::Unknown;
        std::string message;
        JobStatusLSF query;
        ASSERT_TRUE(query.execute(5, adapter.path(), status, message)) << word;
        EXPECT_EQ(status, expected) << word;
        EXPECT_EQ(toString(status), word);
        EXPECT_EQ(message, "Slurm job 5: whatever\nSTATUS " + word + "\n");
        EXPECT_EQ(adapter.arguments(), (std::vector<std::string>{"status", "5"}));
    }
}

TEST(JobSchedulerCommandsTest, StatusFailuresPutTheReasonIntoTheMessage) {
    LSFJobStatus status = LSFJobStatus::Running;
    std::string message;
    {
        ScriptedAdapter adapter("echo 'Unable to contact slurm controller' >&2; exit 1");
        JobStatusLSF query;
        EXPECT_FALSE(query.execute(9, adapter.path(), status, message));
        EXPECT_EQ(message, "Unable to contact slurm controller\nJob scheduler script '" +
                               adapter.path() + " status' failed with exit code 1");
    }
    {
        ScriptedAdapter adapter("echo 'STATUS SLEEPING'");
        JobStatusLSF query;
        EXPECT_FALSE(query.execute(9, adapter.path(), status, message));
        EXPECT_EQ(message, "STATUS SLEEPING\nJob scheduler script '" + adapter.path() +
                               " status' printed no line 'STATUS "
                               "<PENDING|RUNNING|DONE|EXIT|UNKNOWN>'");
        EXPECT_EQ(query.getErrorMessage(), "Job scheduler script '" + adapter.path() +
                                               " status' printed no line 'STATUS "
                                               "<PENDING|RUNNING|DONE|EXIT|UNKNOWN>'");
    }
    // A word only counts at the start of a line.
    ScriptedAdapter adapter("echo 'the STATUS DONE is not a line of its own'");
    EXPECT_FALSE(JobStatusLSF().execute(9, adapter.path(), status, message));
}

TEST(JobSchedulerCommandsTest, RemoveRunsKillAndPassesTheFailureOn) {
    std::string message;
    {
        ScriptedAdapter adapter("echo 'Cancelled Slurm job 3'");
        JobRemoveLSF remove;
        EXPECT_TRUE(remove.execute(3, adapter.path(), message));
        EXPECT_EQ(message, "Cancelled Slurm job 3\n");
        EXPECT_EQ(adapter.arguments(), (std::vector<std::string>{"kill", "3"}));
    }
    {
        ScriptedAdapter adapter("printf 'scancel: error: Access denied'; exit 2");
        JobRemoveLSF remove;
        EXPECT_FALSE(remove.execute(3, adapter.path(), message));
        EXPECT_EQ(message, "scancel: error: Access denied\nJob scheduler script '" +
                               adapter.path() + " kill' failed with exit code 2");
    }
}

TEST(JobSchedulerCommandsTest, AHangingAdapterIsStoppedWithEverythingItStarted) {
    RequestServerConfiguration::getRegisteredInstance()->setValue("jobSchedulerCommandTimeout",
                                                                  "1");
    ScriptedAdapter adapter("sleep 60 &\necho $! > \"$(dirname \"$0\")/child\"\n"
                            "echo 'asking the controller...'\nwait");
    JobSchedulerScript script(adapter.path());
    std::string output;
    auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(script.run({"status", "1"}, output));
    auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, 900ms);
    EXPECT_LT(took, 3s);
    EXPECT_EQ(output, "asking the controller...\n");
    EXPECT_EQ(script.getErrorMessage(), "Job scheduler script '" + adapter.path() +
                                            " status' did not finish within 1 s and was stopped");
    const pid_t child = static_cast<pid_t>(std::stol(TestSupport::readFile(adapter.file("child"))));
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !processExists(child); }, 2000ms))
        << "the adapter's own child still runs";
}

TEST(JobSchedulerCommandsTest, ABackgroundChildHoldingTheOutputDoesNotHoldTheCaller) {
    // Like a submit command that leaves a daemon behind with the pipe still open.
    ScriptedAdapter adapter("sleep 30 &\necho $! > \"$(dirname \"$0\")/child\"\necho 'JOB 8'");
    JobSchedulerScript script(adapter.path());
    std::string output;
    auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(script.run({"submit"}, output));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
    EXPECT_EQ(output, "JOB 8\n");
    const pid_t child = static_cast<pid_t>(std::stol(TestSupport::readFile(adapter.file("child"))));
    ::kill(child, SIGKILL);
}

TEST(JobSchedulerCommandsTest, FindValueTakesWholeLinesOnly) {
    std::string value;
    EXPECT_TRUE(JobSchedulerScript::findValue("a\nJOB 12\r\nJOB 13\n", "JOB", value));
    EXPECT_EQ(value, "12");
    EXPECT_FALSE(JobSchedulerScript::findValue("XJOB 12\nJOB\n", "JOB", value));
    int number = 0;
    EXPECT_TRUE(JobSchedulerScript::findNumber("JOB 2147483647", "JOB", number));
    EXPECT_EQ(number, 2147483647);
    for (const std::string bad : {"JOB 2147483648", "JOB -1", "JOB 0", "JOB 012", "JOB 1x", "JOB "})
        EXPECT_FALSE(JobSchedulerScript::findNumber(bad, "JOB", number)) << bad;
}

// ---- through the LSF adapter and the fake LSF commands ----

TEST(JobSchedulerCommandsTest, LsfJobIsSubmittedWatchedAndKilled) {
    Testing::FakeLsf lsf;
    const std::string marker = lsf.file("ran");
    LSFSubmitInfo info;
    info.jobName = "ks server";
    info.cores = 2;
    info.minimumCores = 1;
    info.script = Testing::FakeLsf::adapter();
    info.tmpPath = lsf.file("tmp");
    std::string message;
    JobSubmitLSF submit;
    const int job = submit.execute(
        {"/bin/sh", "-c", "echo \"$1\" > '" + marker + "'; exec sleep 30", "sh", "it's \"here\""},
        info, message);
    ASSERT_GT(job, 0) << submit.getErrorMessage() << "\n" << message;
    EXPECT_NE(message.find("Submitted LSF job " + std::to_string(job)), std::string::npos)
        << message;
    ASSERT_TRUE(TestSupport::waitUntil(
        [&] { return TestSupport::readFile(marker) == "it's \"here\"\n"; }, 5000ms))
        << TestSupport::readFile(marker);

    LSFJobStatus status = LSFJobStatus::Unknown;
    ASSERT_TRUE(JobStatusLSF().execute(job, info.script, status, message)) << message;
    EXPECT_EQ(status, LSFJobStatus::Running) << message;

    ASSERT_TRUE(JobRemoveLSF().execute(job, info.script, message)) << message;
    EXPECT_NE(message.find("Job <" + std::to_string(job) + "> is being terminated"),
              std::string::npos)
        << message;
    ASSERT_TRUE(TestSupport::waitUntil(
        [&] {
            return JobStatusLSF().execute(job, info.script, status, message) &&
                   status == LSFJobStatus::Exit;
        },
        5000ms))
        << message;
    EXPECT_FALSE(JobStatusLSF().execute(job, "/no/such/adapter", status, message));
}
