#pragma once

#include <boost/thread/mutex.hpp>

#include <cstdint>
#include <string>

namespace Kestrane {

// Base of the process's request server, so that the service layer can reach it.
class AbstractRequestServer {
public:
    virtual ~AbstractRequestServer();
    virtual std::string getHostName() = 0;
    virtual void setIp(const std::string& ip) = 0;
    virtual std::string getIp() = 0;
    virtual uint16_t getPort() = 0;

protected:
    static AbstractRequestServer* s_instance;
    static boost::mutex s_instanceMutex;
};

} // namespace Kestrane
