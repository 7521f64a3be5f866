#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"

#include <string>

namespace Kestrane {

// Points the reply of a running request at the sender of this request, and has cached replies sent
// again.
class ReconnectRequest : public Request {
public:
    explicit ReconnectRequest(const xercesc::DOMElement* element);
    ~ReconnectRequest() override;

    const std::string& getOriginalRequestId() const { return m_originalRequestId; }

private:
    std::string m_originalRequestId;
};

} // namespace Kestrane
