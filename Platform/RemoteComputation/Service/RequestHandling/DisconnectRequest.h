#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"

#include <string>

namespace Kestrane {

// Tells a server that the client of a request goes away. Changes nothing on the server: the reply
// is delivered or cached as any other.
class DisconnectRequest : public Request {
public:
    explicit DisconnectRequest(const xercesc::DOMElement* element);
    ~DisconnectRequest() override;

    const std::string& getOriginalRequestId() const { return m_originalRequestId; }

private:
    std::string m_originalRequestId;
};

} // namespace Kestrane
