#pragma once

#include <string>
#include <vector>

namespace Kestrane {

// Exit codes of ks. A bad command line shares the code of an unreachable server: in both cases
// nothing was asked of a server.
namespace KsExit {
constexpr int Success = 0;
// An ExceptionReply, a reply that says the request did not succeed, or a send that broke off.
constexpr int Failed = 1;
// No server at that address, no answer to the ping, or no reply in time.
constexpr int Unreachable = 2;
constexpr int BadCommandLine = 2;
// Something on this side: the file to send is missing, no own request server could start.
constexpr int LocalError = 3;
} // namespace KsExit

// Command line of ks:
//   ks ping HOST:PORT
//   ks status HOST:PORT
//   ks test HOST:PORT COMMAND [DATA] [--file PATH] [--force-transfer]
//   ks abort HOST:PORT REQUEST_ID
//   ks shutdown HOST:PORT
//   ks start local | remote HOST:PORT | scheduler SCRIPT [--executable PATH] [--cores N]
//            [--min-cores M] [--job-name NAME] [-- SERVER-ARGS]
// with --timeout S and --quiet for every command, and --help.
struct ClientOptions {
    enum class Command { None, Ping, Status, Test, Abort, Shutdown, Start };
    // How `start` brings a server up: a process here, the starter service at HOST:PORT, or a
    // job through a job scheduler adapter.
    enum class StartKind { Local, Remote, Scheduler };

    Command command = Command::None;
    std::string host;
    int port = 0;
    // test: the command word and its argument.
    std::string testCommand;
    std::string data;
    bool hasData = false;
    // test: a file that goes with the request.
    std::string file;
    bool forceTransfer = false;
    // abort: the id of the running request.
    std::string requestId;
    // start: how, the program (empty: the ks-request-server beside ks), the arguments it gets
    // besides those of the starter, and for a job its cores and name.
    StartKind startKind = StartKind::Local;
    std::string script;
    std::string executable;
    std::vector<std::string> serverArgs;
    int cores = 1;
    int minimumCores = 1;
    std::string jobName = "ks-request-server";
    // Seconds to wait for a reply; 0: no limit (the heartbeat still tells a dead server).
    unsigned int timeout = 0;
    // No progress lines, only the outcome.
    bool quiet = false;
    bool help = false;

    // Throws std::invalid_argument naming what is wrong.
    static ClientOptions parse(const std::vector<std::string>& args);
    static std::string usage();
    static std::string commandName(Command command);
};

} // namespace Kestrane
