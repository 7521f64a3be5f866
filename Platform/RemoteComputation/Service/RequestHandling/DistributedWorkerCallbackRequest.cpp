#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerCallbackRequest.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

DistributedWorkerCallbackRequest::DistributedWorkerCallbackRequest(
    const xercesc::DOMElement* element)
    : DistributedWorkerRequest(element), m_workerId(boost::lexical_cast<unsigned int>(
                                             XmlUtils::getElementContent("workerId", element))),
      m_host(XmlUtils::getElement("workerHost", element)) {}

DistributedWorkerCallbackRequest::~DistributedWorkerCallbackRequest() = default;

bool DistributedWorkerCallbackRequest::sendCallback(const std::string& poolId,
                                                    const std::string& poolHost,
                                                    unsigned int poolPort, unsigned int workerId) {
    HostInfo pool;
    pool.setIpOrName(poolHost);
    pool.setRequestServerPort(static_cast<int>(poolPort));
    HostInfo own;
    try {
        RequestServer* server = RequestServer::getInstance(-1, 0);
        if (!server)
            throw std::runtime_error("no request server: " + RequestServer::getErrorMessage());
        own.setName(server->getHostName());
        own.setIp(server->getIp());
        own.setRequestServerPort(server->getPort());
        own.setPublisherPort(Publisher::getInstance()->getPort());
        KS_INFO("Sending worker " << workerId << " callback to pool (" << pool.toString()
                                  << "). Worker HostInfo:" << own.toString());
        RequestEncoder encoder("DistributedWorkerCallbackRequest");
        encoder.addElement("poolId", poolId, "   ");
        encoder.addElement("workerId", workerId, "   ");
        encoder.addText(own.toXmlString("workerHost", "   ", "   "), "", false);
        TcpRequestClient client("Pool", pool);
        std::shared_ptr<Reply> reply = client.handleRequest(encoder, nullptr, "");
        if (!reply || reply->getType() != "AckReply") {
            KS_ERROR("Unexpected reply to DistributedWorker callback.");
            return false;
        }
        const std::string status = reply->getElement("status");
        if (status == "OK") {
            KS_INFO("DistributedWorker callback sucesfully sent. Waiting for request server to "
                    "shut down...");
            return true;
        }
        if (status == "STOP") {
            KS_INFO("DistributedWorker callback sucesfully sent. Pool is stopping: terminate "
                    "worker...");
            return false;
        }
        KS_INFO("Unexpected status in reply to DistributedWorker callback: " << status);
        return false;
    } catch (const std::exception& e) {
        KS_FATAL("Exception sending worker callback to pool (" << pool.toString() << "):\n"
                                                               << e.what());
    } catch (...) {
        KS_FATAL("Exception sending worker callback to pool (" << pool.toString()
                                                               << "):\nUnknown exception");
    }
    return false;
}

} // namespace Kestrane
