#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Signals.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/TimeStamp.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Kestrane {

class AbstractJobLog;
class Progress;
class ReplyPackage;
class TcpRequestClient;

// Where client threads waiting for replies meet the connection tasks that bring them in. Puts
// the packages of one request in the order of their serial and turns a silent server into a
// verdict (a RequestServerUnreachableReplyPackage), never a hang.
class ReplyHandler : public Signals::Private::Trackable {
public:
    ReplyHandler();
    ~ReplyHandler();
    ReplyHandler(const ReplyHandler&) = delete;
    ReplyHandler& operator=(const ReplyHandler&) = delete;

    // Blocks until the reply, a cancel (null) or a verdict. `client` null: no verdict at all.
    // `publisherPort` below 0: no heartbeat watching. `maxWaitTime` 0: no limit.
    std::shared_ptr<ReplyPackage>
    receiveReply(const std::string& requestId, TcpRequestClient* client,
                 std::shared_ptr<Progress> progress, std::shared_ptr<AbstractJobLog> jobLog,
                 int publisherPort, bool propagateAliveMessages, unsigned int maxWaitTime,
                 FileName replyAttachmentPath);
    void handleReply(std::shared_ptr<ReplyPackage> package);
    void handleProgress(std::shared_ptr<ReplyPackage> package);
    // Fetches without blocking; null (and a warning) when nothing is there.
    std::shared_ptr<ReplyPackage> getReply(const std::string& requestId);
    void cancellReceiveReply(const std::string& requestId);
    void registerProgress(const std::string& requestId, std::shared_ptr<Progress> progress);
    // -1: accept the next package as the first, whatever its serial.
    void setLastReplySerial(const std::string& requestId, int serial);
    void setReplyJobLog(const std::string& requestId, std::shared_ptr<AbstractJobLog> jobLog);
    std::shared_ptr<AbstractJobLog> getReplyJobLog(const std::string& requestId);
    FileName getReplyAttachmentPath(const std::string& requestId);
    int getPendingRepliesCount();
    bool getLastAliveInfo(const std::string& requestId, std::string& message, std::string& time,
                          std::string& change);

    Signals::Private::SignalHandler& getReplyReceivedSignal() { return replyReceived; }

private:
    using Lock = boost::unique_lock<boost::recursive_mutex>;

    void waitForNotHandledSerial(const ReplyPackage& package, Lock& lock);
    void forgetAliveInfo(const std::string& requestId);
    // Everything a fetched reply leaves behind; returns the package.
    std::shared_ptr<ReplyPackage> takeReply(const std::string& requestId);
    static void passLogMessages(const ReplyPackage& package, Progress& progress);

    Signals::Private::SignalHandler replyReceived;
    std::map<std::string, std::shared_ptr<ReplyPackage>> replies;
    std::map<std::string, int> lastHandledSerials;
    std::set<std::string> cancelledRequests;
    std::map<std::string, std::shared_ptr<Progress>> progressHandlers;
    std::map<std::string, std::vector<std::shared_ptr<ReplyPackage>>> cachedProgress;
    boost::recursive_mutex mutex;
    boost::condition_variable_any condition;
    std::set<std::string> pendingRequests;
    std::map<std::string, std::string> lastAliveMessages;
    std::map<std::string, TimeStamp> lastAliveTimes;
    std::map<std::string, std::string> lastChangeTexts;
    std::map<std::string, std::shared_ptr<AbstractJobLog>> replyJobLogs;
    std::map<std::string, FileName> replyAttachmentPaths;
};

} // namespace Kestrane
