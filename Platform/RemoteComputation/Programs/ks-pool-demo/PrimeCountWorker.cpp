#include "PrimeCountWorker.h"

#include "PrimeSieve.h"

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorker.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerResultRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/CommandLineValue.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>

#include <cstdlib>
#include <unistd.h>

namespace Kestrane {

namespace {
const char* c_indent = "   ";

unsigned int elementNumber(const char* name, const xercesc::DOMElement* element) {
    return boost::lexical_cast<unsigned int>(XmlUtils::getElementContent(name, element));
}

unsigned int environmentSeconds(const char* name, unsigned int fallback) {
    const char* value = std::getenv(name);
    if (!value || !*value)
        return fallback;
    return static_cast<unsigned int>(CommandLineValue::parseNumber(name, value, 0, 86400));
}
} // namespace

const std::string PrimeCountRunRequest::c_type = "RunPrimeCountWorkerRequest";
const std::string PrimeCountWorker::c_inputReplyType = "PrimeCountInputReply";
const std::string PrimeCountWorker::c_resultType = "PrimeCountResultRequest";

PrimeCountTiming PrimeCountTiming::fromEnvironment() {
    PrimeCountTiming timing;
    timing.coreCheckIntervalS =
        environmentSeconds("KS_POOL_DEMO_CORE_CHECK_S", timing.coreCheckIntervalS);
    timing.inputWaitIntervalS =
        environmentSeconds("KS_POOL_DEMO_INPUT_WAIT_S", timing.inputWaitIntervalS);
    timing.poolMaxAliveAge =
        environmentSeconds("KS_POOL_DEMO_POOL_MAX_ALIVE_AGE", timing.poolMaxAliveAge);
    timing.poolMaxChangeAge =
        environmentSeconds("KS_POOL_DEMO_POOL_MAX_CHANGE_AGE", timing.poolMaxChangeAge);
    timing.workerMaxAliveAge =
        environmentSeconds("KS_POOL_DEMO_WORKER_MAX_ALIVE_AGE", timing.workerMaxAliveAge);
    timing.workerMaxChangeAge =
        environmentSeconds("KS_POOL_DEMO_WORKER_MAX_CHANGE_AGE", timing.workerMaxChangeAge);
    return timing;
}

void PrimeCountTiming::addTo(RequestEncoder& request) const {
    request.addElement("coreCheckIntervalS", coreCheckIntervalS, c_indent);
    request.addElement("inputWaitIntervalS", inputWaitIntervalS, c_indent);
    request.addElement("poolMaxAliveAge", poolMaxAliveAge, c_indent);
    request.addElement("poolMaxChangeAge", poolMaxChangeAge, c_indent);
}

PrimeCountRunRequest::PrimeCountRunRequest(const xercesc::DOMElement* element)
    : RunDistributedWorkerRequest(element) {
    timing.coreCheckIntervalS = elementNumber("coreCheckIntervalS", element);
    timing.inputWaitIntervalS = elementNumber("inputWaitIntervalS", element);
    timing.poolMaxAliveAge = elementNumber("poolMaxAliveAge", element);
    timing.poolMaxChangeAge = elementNumber("poolMaxChangeAge", element);
}

PrimeCountResultRequest::PrimeCountResultRequest(const xercesc::DOMElement* element)
    : DistributedWorkerResultRequest(element) {
    // An error result carries no count.
    const std::string count = XmlUtils::getElementContent("primes", element);
    if (!count.empty())
        primes = boost::lexical_cast<uint64_t>(count);
    const std::string pid = XmlUtils::getElementContent("workerPid", element);
    if (!pid.empty())
        workerPid = boost::lexical_cast<unsigned int>(pid);
}

std::shared_ptr<Request> PrimeCountWorker::decodeRequest(XmlRequest& request) {
    if (request.getType() == c_resultType)
        return std::make_shared<PrimeCountResultRequest>(request.getRootElement());
    if (request.getType() != PrimeCountRunRequest::c_type)
        return nullptr;
    auto run = std::make_shared<PrimeCountRunRequest>(request.getRootElement());
    const PrimeCountTiming& timing = run->getTiming();
    // A core check interval of 0 would make the waits for a core spin.
    coreCheckIntervalS = timing.coreCheckIntervalS > 0 ? timing.coreCheckIntervalS : 1;
    inputWaitIntervalS = timing.inputWaitIntervalS;
    poolMaxAliveAge = timing.poolMaxAliveAge;
    poolMaxChangeAge = timing.poolMaxChangeAge;
    return run;
}

bool PrimeCountWorker::canHandle(Request* request) {
    return dynamic_cast<PrimeCountRunRequest*>(request) != nullptr;
}

std::shared_ptr<RequestEncoder> PrimeCountWorker::doWork(DistributedWorker* worker,
                                                         std::shared_ptr<Reply> input) {
    const std::string taskId = input->getElement("taskId");
    const auto from = boost::lexical_cast<uint64_t>(input->getElement("from"));
    const auto to = boost::lexical_cast<uint64_t>(input->getElement("to"));
    // A new text for every task: the pool reads a heartbeat that stops changing as a hang.
    worker->alive("counting " + std::to_string(from) + ".." + std::to_string(to));
    const uint64_t primes = countPrimes(from, to);
    auto result = std::make_shared<RequestEncoder>(c_resultType);
    result->addElement("poolId", worker->getPoolId(), c_indent);
    result->addElement("taskId", taskId, c_indent);
    result->addElement("status", "OK", c_indent);
    result->addElement("primes", primes, c_indent);
    result->addElement("workerPid", static_cast<unsigned int>(::getpid()), c_indent);
    return result;
}

} // namespace Kestrane
