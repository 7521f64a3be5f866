#include "Platform/RemoteComputation/Service/RequestHandling/RequestClient.h"

namespace Kestrane {

RequestClient::~RequestClient() = default;

} // namespace Kestrane
