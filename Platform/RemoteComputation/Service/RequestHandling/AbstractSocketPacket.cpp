#include "Platform/RemoteComputation/Service/RequestHandling/AbstractSocketPacket.h"

namespace Kestrane {

AbstractSocketPacket::~AbstractSocketPacket() = default;

} // namespace Kestrane
