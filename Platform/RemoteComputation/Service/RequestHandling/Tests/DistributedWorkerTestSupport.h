#pragma once

#include "HandlerTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorker.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerCallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerPool.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerPoolSettings.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandlerImpl.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerResultRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/GetDistributedWorkerInputRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RunDistributedWorkerRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Kestrane {
namespace Testing {

const char* const c_testRunRequestType = "RunTestDistributedWorkerRequest";
// A run request that no implementation of the tests takes.
const char* const c_otherRunRequestType = "RunOtherTestDistributedWorkerRequest";
const char* const c_testInputReplyType = "TestWorkerInputReply";
const char* const c_requestIndent = "   ";

// The test program's own run request and input reply, derived from the worker protocol's base
// types as a real program's are.
class DistributedWorkerTestSchema : public AbstractRequestSchema {
public:
    DistributedWorkerTestSchema() {
        m_schemaText += R"XSD(  <!-- DistributedWorkerTestSchema -->
  <xs:complexType name="RunTestDistributedWorkerRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:RunDistributedWorkerRequest"/>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="RunOtherTestDistributedWorkerRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:RunDistributedWorkerRequest"/>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="TestWorkerInputReply">
    <xs:complexContent>
      <xs:extension base="ksrq:GetDistributedWorkerInputReply">
        <xs:sequence minOccurs="0">
          <xs:element name="payload" type="xs:string"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>
)XSD";
    }
};

// The default handler brings the standard schema; the test types come on top.
inline void registerTestSchemas() {
    RequestHandler::getDefaultRequestHandler();
    RequestXmlHelper::getInstance()->addSchema(DistributedWorkerTestSchema());
}

class TestRunRequest : public RunDistributedWorkerRequest {
public:
    explicit TestRunRequest(const xercesc::DOMElement* element)
        : RunDistributedWorkerRequest(element) {}
};

// Decodes an encoded request the way a server does (validating it against the schema).
template <typename RequestType>
std::shared_ptr<RequestType> decodeAs(const RequestEncoder& encoder) {
    XmlRequest xml(encoder.getEncodedRequest(), true);
    return std::make_shared<RequestType>(xml.getRootElement());
}

inline RequestEncoder inputEncoder(const std::string& poolId, const std::string& name) {
    RequestEncoder encoder("GetDistributedWorkerInputRequest");
    encoder.addElement("poolId", poolId, c_requestIndent);
    encoder.addElement("name", name, c_requestIndent);
    return encoder;
}

inline std::shared_ptr<GetDistributedWorkerInputRequest> inputRequest(const std::string& poolId,
                                                                      const std::string& name) {
    return decodeAs<GetDistributedWorkerInputRequest>(inputEncoder(poolId, name));
}

// `errorMessage` goes in as given: the caller escapes it as the sender would.
inline RequestEncoder resultEncoder(const std::string& poolId, const std::string& taskId,
                                    const std::string& status,
                                    const std::string* errorMessage = nullptr) {
    RequestEncoder encoder("DistributedWorkerResultRequest");
    encoder.addElement("poolId", poolId, c_requestIndent);
    encoder.addElement("taskId", taskId, c_requestIndent);
    encoder.addElement("status", status, c_requestIndent);
    if (errorMessage)
        encoder.addElement("errorMessage", *errorMessage, c_requestIndent);
    return encoder;
}

inline std::shared_ptr<DistributedWorkerResultRequest>
resultRequest(const std::string& poolId, const std::string& taskId, const std::string& status) {
    return decodeAs<DistributedWorkerResultRequest>(resultEncoder(poolId, taskId, status));
}

inline RequestEncoder callbackEncoder(const std::string& poolId, unsigned int workerId,
                                      const HostInfo& host) {
    RequestEncoder encoder("DistributedWorkerCallbackRequest");
    encoder.addElement("poolId", poolId, c_requestIndent);
    encoder.addElement("workerId", workerId, c_requestIndent);
    encoder.addText(host.toXmlString("workerHost", c_requestIndent, c_requestIndent), "", false);
    return encoder;
}

inline std::shared_ptr<DistributedWorkerCallbackRequest>
callbackRequest(const std::string& poolId, unsigned int workerId, const HostInfo& host) {
    return decodeAs<DistributedWorkerCallbackRequest>(callbackEncoder(poolId, workerId, host));
}

inline RequestEncoder runEncoder(const std::string& poolId, const std::string& name,
                                 const GenericJobId& jobId, unsigned int cores, bool releaseCores,
                                 const std::string& type = c_testRunRequestType) {
    RequestEncoder encoder(type);
    encoder.addElement("poolId", poolId, c_requestIndent);
    encoder.addElement("name", name, c_requestIndent);
    encoder.addText(jobId.toXml(c_requestIndent, c_requestIndent), "", false);
    encoder.addElement("cores", cores, c_requestIndent);
    encoder.addElement("releaseCores", releaseCores, c_requestIndent);
    return encoder;
}

// A pool's reply text as a worker would read it.
inline std::shared_ptr<Reply> decodeReply(const std::shared_ptr<std::string>& text) {
    if (!text)
        return nullptr;
    return Reply::decode(*text);
}

class TestTask : public DistributedWorkerTask {
public:
    explicit TestTask(int number, bool dummy = false)
        : DistributedWorkerTask(number), dummy(dummy) {}
    bool isDummy() const override { return dummy; }

    const bool dummy;
    // When set, giving the task's input to a worker throws it.
    std::function<void()> throwOnInput;
};

// Keeps every line of the job log.
class RecordingJobLog : public AbstractJobLog {
public:
    std::string getName() override { return "Recording"; }
    int logMessage(const std::string& text, int64_t, bool) override {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(text);
        return 0;
    }
    std::shared_ptr<void> getJobContext() override { return nullptr; }
    int flush() override { return 0; }

    std::vector<std::string> all() {
        std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }
    bool contains(const std::string& line) {
        for (const auto& entry : all())
            if (entry == line)
                return true;
        return false;
    }
    std::string text() {
        std::string joined;
        for (const auto& entry : all())
            joined += entry;
        return joined;
    }

private:
    std::mutex mutex;
    std::vector<std::string> lines;
};

struct PoolOptions {
    DistributedWorkerPoolSettings settings;
    std::string workerExecutable = "/nonexistent/distributed-worker-test-program";
    std::string workerName = "TestWorker";
    std::string jobName = "poolTestJob";
    unsigned int coresPerWorker = 1;
    bool releaseCoresAfterEachTask = false;
    bool separateProcesses = false;
    unsigned int inputWaitMs = 0;
    std::string inputReplyType = c_testInputReplyType;
    unsigned int workerMaxAliveAge = 60;
    unsigned int workerMaxChangeAge = 600;
};

// A pool with a plain task type that records what the library tells it.
class TestPool : public DistributedWorkerPool {
public:
    struct Failure {
        std::shared_ptr<DistributedWorkerTask> task;
        std::string worker;
        std::string reason;
        std::thread::id thread;
    };
    struct Result {
        std::string taskId;
        std::string status;
        std::string errorMessage;
        // What taskEnded gave back.
        std::shared_ptr<DistributedWorkerTask> endedTask;
    };

    explicit TestPool(PoolOptions options = PoolOptions())
        : DistributedWorkerPool(options.settings, options.workerExecutable,
                                GenericJobId(UniqueID::generateId(), options.jobName),
                                options.workerName, options.coresPerWorker,
                                options.releaseCoresAfterEachTask, options.separateProcesses,
                                options.inputWaitMs),
          options(options) {}

    // While the derived part is still there: stopping may wake threads that call into it, and
    // a protocol call under way may still be inside it.
    ~TestPool() override {
        stopWorkers();
        endProtocolCalls();
    }

    using DistributedWorkerPool::slotWorkerNotResponding;
    using DistributedWorkerPool::taskEnded;

    std::shared_ptr<std::string> resultReceived(DistributedWorkerResultRequest& request) override {
        auto task = taskEnded(&request);
        if (whileTakingResult)
            whileTakingResult();
        {
            std::lock_guard<std::mutex> lock(mutex);
            results.push_back(
                {request.getTaskId(), request.getStatus(), request.getErrorMessage(), task});
            changed.notify_all();
        }
        ReplyEncoder reply("AckReply", request);
        reply.addElement("status", "OK");
        return std::make_shared<std::string>(reply.getEncodedReply("  ", "   "));
    }
    const std::string& getRunRequestType() override { return runRequestType; }
    void addRunRequestContent(RequestEncoder&) override {}
    const std::string& getInputReplyType() override { return options.inputReplyType; }
    void addTaskInput(ReplyEncoder& encoder, std::shared_ptr<DistributedWorkerTask> task,
                      const std::string&) override {
        auto test = std::dynamic_pointer_cast<TestTask>(task);
        if (test && test->throwOnInput)
            test->throwOnInput();
        encoder.addElement("payload", "task " + std::to_string(task->getTask4UId()));
    }
    unsigned int getWorkerMaxAliveAge() override { return options.workerMaxAliveAge; }
    unsigned int getWorkerMaxChangeAge() override { return options.workerMaxChangeAge; }
    unsigned int getJobSchedulerWorkerCores() override { return 1; }
    void taskFailed(std::shared_ptr<DistributedWorkerTask> task, const std::string& workerName,
                    const std::string& reason) override {
        std::lock_guard<std::mutex> lock(mutex);
        failures.push_back({task, workerName, reason, std::this_thread::get_id()});
        changed.notify_all();
    }

    std::vector<Failure> getFailures() {
        std::lock_guard<std::mutex> lock(mutex);
        return failures;
    }
    std::vector<Result> getResults() {
        std::lock_guard<std::mutex> lock(mutex);
        return results;
    }
    bool waitForResults(size_t count, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return results.size() >= count; });
    }
    bool waitForFailures(size_t count, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return failures.size() >= count; });
    }

    // What the pool was made with.
    const PoolOptions options;
    // Called in resultReceived after taskEnded: the program's own handling of the result.
    std::function<void()> whileTakingResult;

private:
    const std::string runRequestType = c_testRunRequestType;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Failure> failures;
    std::vector<Result> results;
};

// A worker program whose work the test supplies; records each call.
class TestWorkerImpl : public DistributedWorkerRequestHandlerImpl {
public:
    using Work =
        std::function<std::shared_ptr<RequestEncoder>(DistributedWorker*, std::shared_ptr<Reply>)>;

    std::shared_ptr<Request> decodeRequest(XmlRequest& request) override {
        ++decodeCalls;
        if (request.getType() != c_testRunRequestType || !acceptRunRequests)
            return nullptr;
        return std::make_shared<TestRunRequest>(request.getRootElement());
    }
    bool canHandle(Request* request) override {
        ++canHandleCalls;
        return acceptRunRequests && dynamic_cast<TestRunRequest*>(request) != nullptr &&
               request->getType() == c_testRunRequestType;
    }
    std::shared_ptr<RequestEncoder> doWork(DistributedWorker* worker,
                                           std::shared_ptr<Reply> input) override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            inputs.push_back(input);
            starts.push_back(std::chrono::steady_clock::now());
        }
        std::shared_ptr<RequestEncoder> result =
            work ? work(worker, input) : okResult(worker, input);
        std::lock_guard<std::mutex> lock(mutex);
        ends.push_back(std::chrono::steady_clock::now());
        changed.notify_all();
        return result;
    }
    void stopWork() override { ++stopWorkCalls; }
    const std::string& getInputReplyType() override { return inputReplyType; }
    unsigned int getCoreCheckIntervalS() const override { return coreCheckIntervalS; }
    unsigned int getInputWaitIntervalS() const override { return inputWaitIntervalS; }
    unsigned int getPoolMaxAliveAge() const override { return 60; }
    unsigned int getPoolMaxChangeAge() const override { return 300; }

    static std::shared_ptr<RequestEncoder> okResult(DistributedWorker* worker,
                                                    const std::shared_ptr<Reply>& input) {
        auto result = std::make_shared<RequestEncoder>("DistributedWorkerResultRequest");
        result->addElement("poolId", worker->getPoolId(), c_requestIndent);
        result->addElement("taskId", input->getElement("taskId"), c_requestIndent);
        result->addElement("status", "OK", c_requestIndent);
        return result;
    }

    size_t doWorkCalls() {
        std::lock_guard<std::mutex> lock(mutex);
        return ends.size();
    }
    bool waitForDoWork(size_t count, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return ends.size() >= count; });
    }
    std::vector<std::shared_ptr<Reply>> getInputs() {
        std::lock_guard<std::mutex> lock(mutex);
        return inputs;
    }
    std::vector<std::chrono::steady_clock::time_point> getStarts() {
        std::lock_guard<std::mutex> lock(mutex);
        return starts;
    }
    std::vector<std::chrono::steady_clock::time_point> getEnds() {
        std::lock_guard<std::mutex> lock(mutex);
        return ends;
    }

    Work work;
    std::string inputReplyType = c_testInputReplyType;
    unsigned int coreCheckIntervalS = 10;
    unsigned int inputWaitIntervalS = 10;
    bool acceptRunRequests = true;
    std::atomic<int> decodeCalls{0};
    std::atomic<int> canHandleCalls{0};
    std::atomic<int> stopWorkCalls{0};

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::shared_ptr<Reply>> inputs;
    std::vector<std::chrono::steady_clock::time_point> starts;
    std::vector<std::chrono::steady_clock::time_point> ends;
};

// A worker's run() on a thread of its own, which the test can wait for with a deadline. A worker
// still running at the end is stopped, so that no test hangs on it.
class WorkerThread {
public:
    explicit WorkerThread(std::shared_ptr<DistributedWorker> worker) : worker(std::move(worker)) {
        auto promise = std::make_shared<std::promise<void>>();
        ended = promise->get_future();
        thread = std::thread([this, promise] {
            this->worker->run();
            promise->set_value();
        });
    }
    ~WorkerThread() {
        if (!hasEnded(std::chrono::milliseconds(0)))
            worker->stop();
        thread.join();
    }
    bool hasEnded(std::chrono::milliseconds limit) {
        return ended.wait_for(limit) == std::future_status::ready;
    }

private:
    std::shared_ptr<DistributedWorker> worker;
    std::future<void> ended;
    std::thread thread;
};

// The index of the first message equal to `message` at or after `from`, or -1.
inline int indexOfMessage(const std::vector<std::string>& messages, const std::string& message,
                          size_t from = 0) {
    for (size_t i = from; i < messages.size(); ++i)
        if (messages[i] == message)
            return static_cast<int>(i);
    return -1;
}

inline long long millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

// Every test works below a temporary directory of its own: the core accounting registry and
// every other file of this process go there. Settings and paths are put back afterwards, for a
// run of several tests in one process.
class DistributedWorkerTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* path = std::getenv("KS_PATH_TMP");
        hadPathEnvironment = path != nullptr;
        oldPathEnvironment = path ? path : "";
        oldPath = PathConfiguration::getKsPathTmp();
        ::setenv("KS_PATH_TMP", tmp.file("ks").c_str(), 1);
        PathConfiguration::setKsPathTmp(FileName(tmp.file("ks")));
        registerTestSchemas();
    }
    void TearDown() override {
        for (const auto& entry : savedSettings)
            settings()->setValue(entry.first, entry.second);
        PathConfiguration::setKsPathTmp(oldPath);
        if (hadPathEnvironment)
            ::setenv("KS_PATH_TMP", oldPathEnvironment.c_str(), 1);
        else
            ::unsetenv("KS_PATH_TMP");
    }

    void setSetting(const std::string& name, const std::string& value) {
        savedSettings.emplace(name, settings()->getValueText(name));
        settings()->setValue(name, value);
    }

    TestSupport::TempDir tmp;
    LogCapture capture;

private:
    std::map<std::string, std::string> savedSettings;
    bool hadPathEnvironment = false;
    std::string oldPathEnvironment;
    FileName oldPath;
};

} // namespace Testing
} // namespace Kestrane
