// The starter service's side of its protocol. The first input byte picks the way in:
//   0  a whole conversation (RemoteService::converse) on a connection whose peer sent the
//      rest of the input: nonce out, command frame and AUTH frame in, key check, refusal.
//   1  RemoteServiceProtocol::readFrame alone, frame after frame.
//   2  what follows authentication: ServiceCommands::execute on the rest as a command.
//   3  RemoteServiceProtocol::decodeArguments, and encodeArguments on what it gave.
// The allow list is empty and the launcher may run no process, so no START can start anything.

#include "FuzzSupport.h"

#include "Platform/RemoteComputation/Programs/ks-remote-service/AllowList.h"
#include "Platform/RemoteComputation/Programs/ks-remote-service/ProcessLauncher.h"
#include "Platform/RemoteComputation/Programs/ks-remote-service/RemoteService.h"
#include "Platform/RemoteComputation/Programs/ks-remote-service/ServiceCommands.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>

using namespace Kestrane;

namespace {

struct Service {
    AllowList allowList;
    ProcessLauncher launcher;
    ServiceCommands commands;
    std::string keyFile;
    std::unique_ptr<RemoteService> service;

    explicit Service(const std::string& directory)
        : launcher(directory, 0), commands(allowList, launcher),
          keyFile(directory + "/remote-service.key") {
        std::string message;
        if (!RemoteServiceKey::create(keyFile, message)) {
            std::fprintf(stderr, "fuzz_remote_service: no key: %s\n", message.c_str());
            std::abort();
        }
        service = std::make_unique<RemoteService>(commands, keyFile, 1);
    }
};

Service* s_service = nullptr;
std::string s_directory;

void removeDirectory() {
    std::string key = s_directory + "/remote-service.key";
    ::unlink(key.c_str());
    ::rmdir(s_directory.c_str());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KestraneFuzz::quietLogging();
    char pattern[] = "/tmp/ks-fuzz-remote-service-XXXXXX";
    const char* directory = ::mkdtemp(pattern);
    if (!directory)
        std::abort();
    s_directory = directory;
    s_service = new Service(s_directory);
    std::atexit(removeDirectory);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > KestraneFuzz::Feed::c_maxBytes)
        return 0;
    const std::string rest = KestraneFuzz::text(data + 1, size - 1);
    switch (data[0] % 4) {
    case 0: {
        KestraneFuzz::Feed feed(rest);
        s_service->service->converse(feed.takeReader());
        // Every conversation begins with a nonce frame.
        const std::string answers = feed.drainAnswers();
        if (answers.compare(0, 9, "NONCE 64 ") != 0)
            __builtin_trap();
        break;
    }
    case 1: {
        KestraneFuzz::Feed feed(rest);
        Computing::Socket socket(feed.takeReader());
        RemoteServiceProtocol::Frame frame;
        std::string error;
        for (int frames = 0; frames < 64; ++frames) {
            auto result = RemoteServiceProtocol::readFrame(socket, frame, error);
            if (result != RemoteServiceProtocol::ReadResult::Ok)
                break;
            if (frame.payload.size() > RemoteServiceProtocol::c_maxPayload ||
                frame.type.size() > RemoteServiceProtocol::c_maxTypeLength)
                __builtin_trap();
        }
        break;
    }
    case 2: {
        ServiceCommands::Outcome outcome = s_service->commands.execute(rest);
        // Nothing may start: the allow list is empty.
        if (outcome.ok && rest.compare(0, 6, "START ") == 0)
            __builtin_trap();
        break;
    }
    default: {
        std::vector<std::string> arguments;
        std::string error;
        if (RemoteServiceProtocol::decodeArguments(rest, arguments, error)) {
            // Whatever decodes must come back the same way.
            std::vector<std::string> again;
            if (!RemoteServiceProtocol::decodeArguments(
                    RemoteServiceProtocol::encodeArguments(arguments), again, error) ||
                again != arguments)
                __builtin_trap();
        }
        break;
    }
    }
    return 0;
}
