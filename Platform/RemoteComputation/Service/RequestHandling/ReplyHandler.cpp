#include "Platform/RemoteComputation/Service/RequestHandling/ReplyHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcessWatcher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/chrono.hpp>
#include <boost/lexical_cast.hpp>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

using Clock = boost::chrono::steady_clock;

// Waits shorter than this are not worth entering.
constexpr int64_t s_shortestWaitMs = 101;
constexpr int s_missingSerialWaitSeconds = 300;

int64_t millisecondsUntil(Clock::time_point when) {
    return boost::chrono::duration_cast<boost::chrono::milliseconds>(when - Clock::now()).count();
}

const std::string& requestIdOf(const ReplyPackage& package) {
    static const std::string none;
    auto reply = package.getReply();
    return reply ? reply->getRequestId() : none;
}
} // namespace

ReplyHandler::ReplyHandler() = default;
ReplyHandler::~ReplyHandler() = default;

void ReplyHandler::waitForNotHandledSerial(const ReplyPackage& package, Lock& lock) {
    const std::string& id = requestIdOf(package);
    int serial = static_cast<int>(package.getSerial());
    if (serial == 0)
        return;
    auto marker = lastHandledSerials.find(id);
    if (marker != lastHandledSerials.end() && marker->second == -1)
        marker->second = serial - 1;
    auto deadline = Clock::now() + boost::chrono::seconds(s_missingSerialWaitSeconds);
    auto lastHandled = [&] {
        auto found = lastHandledSerials.find(id);
        return found == lastHandledSerials.end() ? -1 : found->second;
    };
    for (;;) {
        auto found = lastHandledSerials.find(id);
        if (found != lastHandledSerials.end() && found->second >= serial - 1)
            return;
        KS_DEBUG("Waiting for reply packets with serial < "
                 << serial << " (requestId=" << id << ", lastHandledSerial=" << lastHandled()
                 << ") to be handled");
        int64_t left = millisecondsUntil(deadline);
        bool timedOut = false;
        if (left < s_shortestWaitMs) {
            KS_DEBUG("Skipping short wait: " << left << "ms");
            timedOut = true;
        } else {
            timedOut = condition.wait_until(lock, deadline) == boost::cv_status::timeout;
        }
        if (timedOut)
            break;
    }
    KS_ERROR("Missing reply packet(s) with serial < "
             << serial << " (requestId=" << id << ", lastHandledSerial=" << lastHandled() << ")");
}

void ReplyHandler::handleReply(std::shared_ptr<ReplyPackage> package) {
    std::string id = requestIdOf(*package);
    {
        Lock lock(mutex);
        KS_TRACE("Received reply for request " << id);
        waitForNotHandledSerial(*package, lock);
        replies[id] = package;
    }
    // After the lock: the woken waiter takes it at once instead of blocking on it again.
    condition.notify_all();
    replyReceived(id);
}

void ReplyHandler::handleProgress(std::shared_ptr<ReplyPackage> package) {
    std::string id = requestIdOf(*package);
    int serial = static_cast<int>(package->getSerial());
    std::shared_ptr<Progress> sink;
    {
        Lock lock(mutex);
        KS_TRACE("Received progress update for request " << id);
        waitForNotHandledSerial(*package, lock);
        auto found = progressHandlers.find(id);
        if (found != progressHandlers.end() && found->second) {
            sink = found->second;
            KS_TRACE("prgoress=" << sink.get() << " for request " << id);
        } else if (!pendingRequests.count(id)) {
            KS_INFO("Received progress update for request that is not pending. Caching progress "
                    "update...");
            cachedProgress[id].push_back(package);
            lastHandledSerials[id] = serial;
            return;
        }
    }
    KS_TRACE("ReplyHandler::handleProgress");
    if (sink)
        passLogMessages(*package, *sink);
    Lock lock(mutex);
    int& last = lastHandledSerials[id];
    if (last >= serial) {
        if (serial != 0)
            KS_ERROR("Last handled serial for request " << id << " not sequential!  " << last
                                                        << " !< " << serial);
    } else {
        last = serial;
        KS_DEBUG("Last handled serial for request " << id << ": " << serial);
    }
    KS_TRACE("ReplyHandler::handleProgress - end");
    lock.unlock();
    condition.notify_all();
}

void ReplyHandler::passLogMessages(const ReplyPackage& package, Progress& progress) {
    auto reply = package.getReply();
    if (!reply)
        return;
    for (auto* element : XmlUtils::getElements("requestLogMessage", reply->getRootDomElement())) {
        std::string group = XmlUtils::getAttribute("messageGroup", element);
        std::string text = XmlUtils::getContent(element);
        KS_TRACE("ReplyHandler::handleProgress - sendLogMessage - " << group << " " << text);
        LogMessage message(
            text, LogMessage::stringToType(XmlUtils::getAttribute("messageType", element)), "");
        message.setGroup(group);
        message.setTimeStamp(
            boost::lexical_cast<int64_t>(XmlUtils::getAttribute("timestamp", element)));
        progress.handleLogMessage(message);
    }
}

std::shared_ptr<ReplyPackage> ReplyHandler::receiveReply(
    const std::string& requestId, TcpRequestClient* client, std::shared_ptr<Progress> progress,
    std::shared_ptr<AbstractJobLog> jobLog, int publisherPort, bool propagateAliveMessages,
    unsigned int maxWaitTime, FileName replyAttachmentPath) {
    // Declared before the lock, so that it is stopped and joined after the lock is released.
    std::shared_ptr<LivingProcessWatcher> watcher;
    Lock lock(mutex);
    KS_TRACE("Waiting for reply to request " << requestId);
    pendingRequests.insert(requestId);
    if (progress)
        progressHandlers[requestId] = progress;
    auto cached = cachedProgress.find(requestId);
    if (cached != cachedProgress.end()) {
        KS_INFO("Handling cached progress updates...");
        auto packages = std::move(cached->second);
        cachedProgress.erase(cached);
        for (auto& package : packages)
            handleProgress(package);
    }
    KS_TRACE("replyJobLog = " << jobLog.get());
    if (jobLog)
        replyJobLogs[requestId] = jobLog;
    if (!replyAttachmentPath.empty()) {
        KS_DEBUG("Setting replyAttachmentPath for request "
                 << requestId << " to '" << replyAttachmentPath.toNativeString() << "'");
        replyAttachmentPaths[requestId] = replyAttachmentPath;
    }

    auto answered = [&] {
        return replies.count(requestId) != 0 || cancelledRequests.count(requestId) != 0;
    };
    auto verdict = [&](const std::string& text) {
        pendingRequests.erase(requestId);
        forgetAliveInfo(requestId);
        return std::make_shared<RequestServerUnreachableReplyPackage>(text);
    };

    if (!client) {
        while (!answered()) {
            KS_TRACE("Waiting for reply to request " << requestId);
            condition.wait(lock);
        }
    } else {
        auto config = RequestServerConfiguration::getRegisteredInstance();
        auto interval = boost::chrono::seconds(
            client->isLocal() ? config->getLocalRPingIntervalSec() : config->getRPingIntervalSec());
        auto nextCheck = Clock::now() + interval;
        if (publisherPort >= 0) {
            watcher = std::make_shared<LivingProcessWatcher>(client->getHost(), -1, -1,
                                                             propagateAliveMessages);
            watcher->start(true);
        }
        auto deadline = Clock::now() + boost::chrono::seconds(maxWaitTime);
        while (!answered()) {
            if (maxWaitTime != 0) {
                if (Clock::now() >= deadline) {
                    KS_WARN("Max wait time reached (" << maxWaitTime << "s)");
                    return verdict("No reply before max wait time (" + std::to_string(maxWaitTime) +
                                   "s)");
                }
                nextCheck = std::min(nextCheck, deadline);
            }
            int64_t left = millisecondsUntil(nextCheck);
            bool timedOut = true;
            if (left < s_shortestWaitMs)
                KS_DEBUG("Skipping short wait: " << left << "ms");
            else
                timedOut = condition.wait_until(lock, nextCheck) == boost::cv_status::timeout;
            if (!timedOut)
                continue;
            if (watcher) {
                int age = watcher->getLastAliveAge();
                if (age > static_cast<int>(config->getMaxAliveAge())) {
                    std::string text =
                        "Remote process not alive anymore? age = " + std::to_string(age);
                    KS_WARN("LivingProcessWatcher age = " << age);
                    KS_ERROR(text);
                    if (progress)
                        progress->handleLogMessage(LogMessage("RequestServer unreachable (" +
                                                                  client->getDescription() + ")!",
                                                              LogMessage::Error, ""));
                    progressHandlers.erase(requestId);
                    return verdict(text);
                }
                KS_TRACE("LivingProcessWatcher alive age = " << age);
                int change = watcher->getLastChangeAge();
                if (change > static_cast<int>(config->getMaxChangeAge())) {
                    KS_WARN("LivingProcessWatcher change age = " << change);
                    std::string text = "Remote process hanging? age = " + std::to_string(change);
                    KS_ERROR(text);
                    return verdict(text);
                }
                KS_TRACE("LivingProcessWatcher change age = " << change);
            }
            nextCheck = Clock::now() + interval;
        }
    }

    if (cancelledRequests.count(requestId)) {
        cancelledRequests.erase(requestId);
        progressHandlers.erase(requestId);
        pendingRequests.erase(requestId);
        KS_TRACE("Cancelled reply for request " << requestId);
        forgetAliveInfo(requestId);
        replyJobLogs.erase(requestId);
        replyAttachmentPaths.erase(requestId);
        return nullptr;
    }
    auto package = takeReply(requestId);
    KS_TRACE("Received reply for request " << requestId);
    forgetAliveInfo(requestId);
    return package;
}

std::shared_ptr<ReplyPackage> ReplyHandler::takeReply(const std::string& requestId) {
    auto package = replies[requestId];
    replies.erase(requestId);
    lastHandledSerials.erase(requestId);
    progressHandlers.erase(requestId);
    pendingRequests.erase(requestId);
    replyJobLogs.erase(requestId);
    replyAttachmentPaths.erase(requestId);
    return package;
}

std::shared_ptr<ReplyPackage> ReplyHandler::getReply(const std::string& requestId) {
    Lock lock(mutex);
    if (!replies.count(requestId)) {
        KS_WARN("Reply for " << requestId << " not available");
        return nullptr;
    }
    auto package = takeReply(requestId);
    KS_TRACE("Got reply for request " << requestId);
    forgetAliveInfo(requestId);
    return package;
}

void ReplyHandler::cancellReceiveReply(const std::string& requestId) {
    Lock lock(mutex);
    cancelledRequests.insert(requestId);
    forgetAliveInfo(requestId);
    replyJobLogs.erase(requestId);
    replyAttachmentPaths.erase(requestId);
    condition.notify_all();
}

void ReplyHandler::forgetAliveInfo(const std::string& requestId) {
    lastAliveMessages.erase(requestId);
    lastAliveTimes.erase(requestId);
    lastChangeTexts.erase(requestId);
}

void ReplyHandler::registerProgress(const std::string& requestId,
                                    std::shared_ptr<Progress> progress) {
    Lock lock(mutex);
    progressHandlers[requestId] = std::move(progress);
}

void ReplyHandler::setLastReplySerial(const std::string& requestId, int serial) {
    // Called before the request's packages can arrive, hence no lock.
    lastHandledSerials[requestId] = serial;
}

void ReplyHandler::setReplyJobLog(const std::string& requestId,
                                  std::shared_ptr<AbstractJobLog> jobLog) {
    Lock lock(mutex);
    KS_TRACE("Set reply JobLog for request " << requestId << " to " << jobLog.get());
    replyJobLogs[requestId] = std::move(jobLog);
}

std::shared_ptr<AbstractJobLog> ReplyHandler::getReplyJobLog(const std::string& requestId) {
    Lock lock(mutex);
    auto found = replyJobLogs.find(requestId);
    return found == replyJobLogs.end() ? nullptr : found->second;
}

FileName ReplyHandler::getReplyAttachmentPath(const std::string& requestId) {
    Lock lock(mutex);
    auto found = replyAttachmentPaths.find(requestId);
    return found == replyAttachmentPaths.end() ? FileName() : found->second;
}

int ReplyHandler::getPendingRepliesCount() {
    Lock lock(mutex);
    return static_cast<int>(pendingRequests.size());
}

bool ReplyHandler::getLastAliveInfo(const std::string& requestId, std::string& message,
                                    std::string& time, std::string& change) {
    Lock lock(mutex);
    auto found = lastAliveMessages.find(requestId);
    if (found == lastAliveMessages.end())
        return false;
    message = found->second;
    time = lastAliveTimes[requestId].getTimeStampString();
    change = lastChangeTexts[requestId];
    return true;
}

} // namespace Kestrane
