// The command lines of ks-pool-demo: the person's (master) and the ones that starters and job
// schedulers give its worker processes.
#include "Platform/RemoteComputation/Programs/ks-pool-demo/PoolDemoOptions.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Kestrane;
using ::testing::HasSubstr;

namespace {

using Args = std::vector<std::string>;

// The message of the std::invalid_argument that parsing throws; any other exception fails the
// test on its own.
std::string masterError(const Args& args) {
    try {
        PoolDemoOptions::parse(args);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "(parsed without error)";
}

std::string workerError(const Args& args) {
    try {
        WorkerCommandLine::parse(args);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "(parsed without error)";
}

} // namespace

TEST(PoolDemoOptionsTest, NoArgumentsGiveTheDefaults) {
    const PoolDemoOptions options = PoolDemoOptions::parse({});
    EXPECT_EQ(options.workers, 2u);
    EXPECT_TRUE(options.hosts.empty());
    EXPECT_EQ(options.scheduler, "");
    EXPECT_EQ(options.jobs, 0u);
    EXPECT_EQ(options.tasks, 200u);
    EXPECT_EQ(options.below, 100000000ULL);
    EXPECT_FALSE(options.separateProcesses);
    EXPECT_FALSE(options.killAWorkerAfter.has_value());
    EXPECT_FALSE(options.help);
}

TEST(PoolDemoOptionsTest, EachOptionIsTaken) {
    EXPECT_EQ(PoolDemoOptions::parse({"--workers", "5"}).workers, 5u);
    EXPECT_EQ(PoolDemoOptions::parse({"--workers", "1024"}).workers, 1024u);
    EXPECT_EQ(PoolDemoOptions::parse({"--tasks", "7"}).tasks, 7u);
    EXPECT_EQ(PoolDemoOptions::parse({"--below", "1000"}).below, 1000ULL);
    EXPECT_EQ(PoolDemoOptions::parse({"--below", "2", "--tasks", "2"}).below, 2ULL);
    EXPECT_EQ(PoolDemoOptions::parse({"--below", "9999999999"}).below, 9999999999ULL);
    EXPECT_TRUE(PoolDemoOptions::parse({"--separate-processes"}).separateProcesses);
    EXPECT_EQ(PoolDemoOptions::parse({"--kill-a-worker-after", "3"}).killAWorkerAfter,
              std::optional<unsigned int>(3));
    // 0 is a time too: at the first look, not never.
    EXPECT_EQ(PoolDemoOptions::parse({"--kill-a-worker-after", "0"}).killAWorkerAfter,
              std::optional<unsigned int>(0));
    EXPECT_TRUE(PoolDemoOptions::parse({"--help"}).help);
    EXPECT_TRUE(PoolDemoOptions::parse({"-h"}).help);

    const PoolDemoOptions scheduled =
        PoolDemoOptions::parse({"--jobs", "4", "--scheduler", "/opt/adapters/slurm"});
    EXPECT_EQ(scheduled.scheduler, "/opt/adapters/slurm");
    EXPECT_EQ(scheduled.jobs, 4u);

    const PoolDemoOptions all =
        PoolDemoOptions::parse({"--workers", "3", "--tasks", "11", "--below", "5000",
                                "--separate-processes", "--kill-a-worker-after", "9"});
    EXPECT_EQ(all.workers, 3u);
    EXPECT_EQ(all.tasks, 11u);
    EXPECT_EQ(all.below, 5000ULL);
    EXPECT_TRUE(all.separateProcesses);
    EXPECT_EQ(all.killAWorkerAfter, std::optional<unsigned int>(9));
}

TEST(PoolDemoOptionsTest, HostsAreSplitIntoNamePortAndMaximum) {
    const PoolDemoOptions options =
        PoolDemoOptions::parse({"--hosts", "127.0.0.1:4000:0,node-b.example:65535:3,c:1"});
    ASSERT_EQ(options.hosts.size(), 3u);
    EXPECT_EQ(options.hosts[0].name, "127.0.0.1");
    EXPECT_EQ(options.hosts[0].port, 4000u);
    EXPECT_EQ(options.hosts[0].maxWorkers, 0u);
    EXPECT_EQ(options.hosts[1].name, "node-b.example");
    EXPECT_EQ(options.hosts[1].port, 65535u);
    EXPECT_EQ(options.hosts[1].maxWorkers, 3u);
    EXPECT_EQ(options.hosts[2].name, "c");
    EXPECT_EQ(options.hosts[2].port, 1u);
    // Left out: as many workers as the host has free cores.
    EXPECT_EQ(options.hosts[2].maxWorkers, 0u);
    // Given twice, both lists count.
    EXPECT_EQ(PoolDemoOptions::parse({"--hosts", "a:1", "--hosts", "b:2"}).hosts.size(), 2u);
}

TEST(PoolDemoOptionsTest, ValuesThatAreNotNumbersNameTheOption) {
    for (const char* option :
         {"--workers", "--tasks", "--below", "--jobs", "--kill-a-worker-after"}) {
        for (const char* value : {"two", "", "-1", "1x", "1e6", " 3", "0x10", "+4"}) {
            Args args{option, value};
            if (std::string(option) == "--jobs")
                args.insert(args.end(), {"--scheduler", "s"});
            const std::string error = masterError(args);
            EXPECT_THAT(error, HasSubstr(option)) << option << " '" << value << "'";
            EXPECT_THAT(error, HasSubstr("'" + std::string(value) + "'"))
                << option << " '" << value << "'";
        }
    }
}

TEST(PoolDemoOptionsTest, NumbersOutOfRangeNameTheOption) {
    EXPECT_THAT(masterError({"--workers", "0"}), HasSubstr("--workers"));
    EXPECT_THAT(masterError({"--workers", "1025"}), HasSubstr("--workers"));
    EXPECT_THAT(masterError({"--tasks", "0"}), HasSubstr("--tasks"));
    EXPECT_THAT(masterError({"--below", "1"}), HasSubstr("--below"));
    EXPECT_THAT(masterError({"--jobs", "0", "--scheduler", "s"}), HasSubstr("--jobs"));
    EXPECT_THAT(masterError({"--kill-a-worker-after", "86401"}),
                HasSubstr("--kill-a-worker-after"));
    // More tasks than numbers to count leaves tasks without a range.
    EXPECT_THAT(masterError({"--tasks", "10", "--below", "5"}), HasSubstr("--tasks"));
}

TEST(PoolDemoOptionsTest, MissingValuesNameTheOption) {
    for (const char* option : {"--workers", "--hosts", "--scheduler", "--jobs", "--tasks",
                               "--below", "--kill-a-worker-after"}) {
        EXPECT_EQ(masterError({option}), "Missing value for option " + std::string(option));
        EXPECT_EQ(masterError({"--separate-processes", option}),
                  "Missing value for option " + std::string(option));
    }
    // The next option is no value: taken as one, it is refused as a number.
    EXPECT_THAT(masterError({"--workers", "--tasks", "5"}), HasSubstr("option --workers"));
    EXPECT_THAT(masterError({"--scheduler", ""}), HasSubstr("--scheduler"));
}

TEST(PoolDemoOptionsTest, ModesExcludeEachOther) {
    for (const Args& args :
         {Args{"--workers", "2", "--hosts", "a:1"},
          Args{"--workers", "2", "--scheduler", "s", "--jobs", "1"},
          Args{"--hosts", "a:1", "--scheduler", "s", "--jobs", "1"},
          Args{"--hosts", "a:1", "--workers", "3", "--scheduler", "s", "--jobs", "1"}}) {
        const std::string error = masterError(args);
        EXPECT_THAT(error, HasSubstr("exclude each other")) << args[0] << " " << args[2];
        EXPECT_THAT(error, HasSubstr(args[0]));
        EXPECT_THAT(error, HasSubstr(args[2]));
    }
}

TEST(PoolDemoOptionsTest, SchedulerAndJobsComeTogether) {
    EXPECT_THAT(masterError({"--scheduler", "/opt/slurm"}), HasSubstr("--scheduler"));
    EXPECT_THAT(masterError({"--scheduler", "/opt/slurm"}), HasSubstr("--jobs"));
    EXPECT_THAT(masterError({"--jobs", "3"}), HasSubstr("--jobs"));
    EXPECT_THAT(masterError({"--jobs", "3", "--workers", "2"}), HasSubstr("--jobs"));
}

TEST(PoolDemoOptionsTest, BadHostsNameTheOptionAndTheHost) {
    for (const char* hosts : {"a", ":80", "a:", "a:x", "a:0", "a:65536", "a:1:2:3", "a:1:x",
                              "a:1:1025", "a:1,,b:2", "a:1,", "a:-1", "a::3"}) {
        const std::string error = masterError({"--hosts", hosts});
        EXPECT_THAT(error, HasSubstr("--hosts")) << hosts;
    }
    // The broken entry is named, not just the list.
    EXPECT_THAT(masterError({"--hosts", "good:1,nohost"}), HasSubstr("'nohost'"));
    EXPECT_THAT(masterError({"--hosts", "good:1,bad:99999"}), HasSubstr("'99999'"));
}

TEST(PoolDemoOptionsTest, UnknownOptionsAreNamed) {
    EXPECT_EQ(masterError({"--frobnicate"}), "Unknown option '--frobnicate'");
    EXPECT_EQ(masterError({"--workers", "2", "extra"}), "Unknown option 'extra'");
    // A worker's option is not the master's.
    EXPECT_EQ(masterError({"-jobId", "x"}), "Unknown option '-jobId'");
}

// The bound's whole range, up to 10^12: numbers of more than ten digits included.
TEST(PoolDemoOptionsTest, BelowTakesItsWholeRange) {
    EXPECT_EQ(PoolDemoOptions::parse({"--below", "10000000000"}).below, 10000000000ULL);
    EXPECT_EQ(PoolDemoOptions::parse({"--below", "1000000000000"}).below, 1000000000000ULL);
    EXPECT_THAT(masterError({"--below", "1000000000001"}), HasSubstr("--below"));
}

TEST(PoolDemoOptionsTest, UsageNamesEveryOption) {
    const std::string usage = PoolDemoOptions::usage();
    for (const char* option : {"--workers", "--hosts", "--scheduler", "--jobs", "--tasks",
                               "--below", "--separate-processes", "--kill-a-worker-after"})
        EXPECT_THAT(usage, HasSubstr(option));
}

// ---- worker command lines

TEST(PoolDemoWorkerCommandLineTest, MasterCommandLinesAreNoWorkers) {
    EXPECT_FALSE(WorkerCommandLine::parse({}).has_value());
    EXPECT_FALSE(WorkerCommandLine::parse({"--workers", "2", "--tasks", "5"}).has_value());
    EXPECT_FALSE(WorkerCommandLine::parse({"-jobId", "X"}).has_value());
}

TEST(PoolDemoWorkerCommandLineTest, StarterWorkerHasItsCallbackAndJob) {
    auto worker = WorkerCommandLine::parse({"-c", "vm:41234:7", "-jobId", "ABC-DEF.primes"});
    ASSERT_TRUE(worker.has_value());
    EXPECT_EQ(worker->callback, "vm:41234:7");
    EXPECT_EQ(worker->jobId, "ABC-DEF.primes");
    EXPECT_FALSE(worker->jobSchedulerWorker());
    EXPECT_EQ(worker->poolId, "");

    auto plain = WorkerCommandLine::parse({"-c", "h:1:2"});
    ASSERT_TRUE(plain.has_value());
    EXPECT_EQ(plain->callback, "h:1:2");
    EXPECT_EQ(plain->jobId, "");
}

TEST(PoolDemoWorkerCommandLineTest, JobSchedulerWorkerAsThePoolSubmitsIt) {
    // What DistributedWorkerPool gives the job scheduler: "-jobName" stands without a value of
    // its own before the job id's option, and the logging options come last.
    Args args{
        "-jobName", "-jobId", "X", "-logFileSuffix", "S",   "-jobSchedulerDistributedWorker", "P",
        "H",        "123",    "4", "-logLevel",      "INFO"};
    // Not yet taken by the logging settings, they are no worker options.
    EXPECT_THAT(workerError(args), HasSubstr("-logFileSuffix"));

    LoggingSettings::get()->parseCommandLine(args);
    EXPECT_EQ(args, (Args{"-jobName", "-jobId", "X", "-jobSchedulerDistributedWorker", "P", "H",
                          "123", "4"}));
    EXPECT_EQ(LoggingSettings::get()->getLogFileSuffix(), "S");
    // A suffix alone names no file: the log stays where it was.
    EXPECT_EQ(LoggingSettings::get()->getEffectiveLogFile(), "");

    auto worker = WorkerCommandLine::parse(args);
    ASSERT_TRUE(worker.has_value());
    EXPECT_TRUE(worker->jobSchedulerWorker());
    EXPECT_EQ(worker->jobId, "X");
    EXPECT_EQ(worker->poolId, "P");
    EXPECT_EQ(worker->poolHost, "H");
    EXPECT_EQ(worker->poolPort, 123u);
    EXPECT_EQ(worker->workerId, 4u);
    EXPECT_EQ(worker->callback, "");

    // The same with logging removed beforehand, in another order.
    auto reordered = WorkerCommandLine::parse(
        {"-jobSchedulerDistributedWorker", "P2", "node7", "65535", "0", "-jobName", "-jobId", "Y"});
    ASSERT_TRUE(reordered.has_value());
    EXPECT_EQ(reordered->poolId, "P2");
    EXPECT_EQ(reordered->poolHost, "node7");
    EXPECT_EQ(reordered->poolPort, 65535u);
    EXPECT_EQ(reordered->workerId, 0u);
    EXPECT_EQ(reordered->jobId, "Y");
}

TEST(PoolDemoWorkerCommandLineTest, JobNameMayCarryAValueOfItsOwn) {
    auto named = WorkerCommandLine::parse({"-jobName", "myjob", "-c", "h:1:2"});
    ASSERT_TRUE(named.has_value());
    EXPECT_EQ(named->jobId, "myjob");
    auto both = WorkerCommandLine::parse({"-jobName", "myjob", "-jobId", "X", "-c", "h:1:2"});
    ASSERT_TRUE(both.has_value());
    EXPECT_EQ(both->jobId, "X");
    // Last on the line, with nothing behind it.
    auto last = WorkerCommandLine::parse({"-c", "h:1:2", "-jobName"});
    ASSERT_TRUE(last.has_value());
    EXPECT_EQ(last->jobId, "");
}

TEST(PoolDemoWorkerCommandLineTest, BrokenWorkerCommandLinesNameTheOption) {
    EXPECT_EQ(workerError({"-c"}), "Missing value for option -c");
    EXPECT_EQ(workerError({"-c", "h:1:2", "-jobId"}), "Missing value for option -jobId");
    EXPECT_THAT(workerError({"-jobSchedulerDistributedWorker", "P", "H", "port", "4"}),
                HasSubstr("-jobSchedulerDistributedWorker"));
    EXPECT_THAT(workerError({"-jobSchedulerDistributedWorker", "P", "H", "0", "4"}),
                HasSubstr("-jobSchedulerDistributedWorker"));
    EXPECT_THAT(workerError({"-jobSchedulerDistributedWorker", "P", "H", "123", "x"}),
                HasSubstr("-jobSchedulerDistributedWorker"));
    EXPECT_THAT(workerError({"-jobSchedulerDistributedWorker", "", "H", "123", "4"}),
                HasSubstr("-jobSchedulerDistributedWorker"));
    EXPECT_THAT(workerError({"-jobSchedulerDistributedWorker", "P", "", "123", "4"}),
                HasSubstr("-jobSchedulerDistributedWorker"));
    const std::string both =
        workerError({"-c", "h:1:2", "-jobSchedulerDistributedWorker", "P", "H", "1", "2"});
    EXPECT_THAT(both, HasSubstr("-c"));
    EXPECT_THAT(both, HasSubstr("-jobSchedulerDistributedWorker"));
    EXPECT_EQ(workerError({"-c", "h:1:2", "--workers", "2"}), "Unknown worker option '--workers'");
}

// A job scheduler worker's option takes four values; missing ones are blamed on the option.
TEST(PoolDemoWorkerCommandLineTest, MissingPoolValuesNameTheOption) {
    EXPECT_THAT(workerError({"-jobSchedulerDistributedWorker", "P", "H", "123"}),
                HasSubstr("-jobSchedulerDistributedWorker"));
    EXPECT_THAT(workerError({"-jobSchedulerDistributedWorker", "P"}),
                HasSubstr("-jobSchedulerDistributedWorker"));
}
