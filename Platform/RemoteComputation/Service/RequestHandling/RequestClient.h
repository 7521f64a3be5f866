#pragma once

#include <memory>
#include <string>

namespace Kestrane {

class Progress;
class Reply;
class RequestEncoder;

// A way to get a request handled: in this process or by a server over TCP.
class RequestClient {
public:
    RequestClient(const RequestClient&) = default;
    RequestClient& operator=(const RequestClient&) = default;
    virtual ~RequestClient();

    virtual std::shared_ptr<Reply> handleRequest(const RequestEncoder& request,
                                                 std::shared_ptr<Progress> progress,
                                                 const std::string& remoteDirName) = 0;
    virtual std::shared_ptr<Reply> handleRequest(const std::string& request,
                                                 const std::string& requestId,
                                                 std::shared_ptr<Progress> progress,
                                                 const std::string& remoteDirName) = 0;
    virtual void abortRequest(const std::string& requestId) = 0;
    virtual std::string getDescription() const { return m_description; }

protected:
    explicit RequestClient(const std::string& description) : m_description(description) {}

    std::string m_description;
};

} // namespace Kestrane
