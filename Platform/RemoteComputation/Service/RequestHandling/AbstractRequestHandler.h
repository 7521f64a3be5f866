#pragma once

#include <memory>
#include <string>

namespace Kestrane {

class Request;
class XmlRequest;

// A link of the chain that turns requests into replies: it says whether it can decode an XML
// request and whether it can handle a decoded one, and handles it.
class AbstractRequestHandler {
public:
    AbstractRequestHandler(const AbstractRequestHandler&) = default;
    AbstractRequestHandler& operator=(const AbstractRequestHandler&) = default;

    // The decoded request, or null when this handler does not know the type.
    virtual std::shared_ptr<Request> decodeRequest(XmlRequest& request) const = 0;
    virtual bool canHandle(Request* request) = 0;
    // The reply's XML.
    virtual std::shared_ptr<std::string> handle(Request* request) = 0;
    virtual std::string getDescription() const { return m_name; }
    virtual ~AbstractRequestHandler();

protected:
    explicit AbstractRequestHandler(const std::string& name) : m_name(name) {}

    std::string m_name;
};

} // namespace Kestrane
