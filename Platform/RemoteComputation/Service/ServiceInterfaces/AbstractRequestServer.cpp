#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestServer.h"

namespace Kestrane {

AbstractRequestServer* AbstractRequestServer::s_instance = nullptr;
boost::mutex AbstractRequestServer::s_instanceMutex;

AbstractRequestServer::~AbstractRequestServer() = default;

} // namespace Kestrane
