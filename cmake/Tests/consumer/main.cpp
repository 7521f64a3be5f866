// A host program built against an installed tree: starts its request server and pings it.
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"

#include <cstdio>

int main() {
    Kestrane::RequestServer* server = Kestrane::RequestServer::getInstance(-1, 0);
    if (!server)
        return 1;
    bool answered = Kestrane::RequestServer::ping("127.0.0.1", server->getPort());
    server->stop();
    server->waitForShutdown();
    std::printf("consumer: ping %s\n", answered ? "answered" : "failed");
    return answered ? 0 : 1;
}
