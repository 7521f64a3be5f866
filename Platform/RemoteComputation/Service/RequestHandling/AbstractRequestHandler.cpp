#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"

namespace Kestrane {

AbstractRequestHandler::~AbstractRequestHandler() = default;

} // namespace Kestrane
