#pragma once

#include <xercesc/dom/DOMElement.hpp>

#include <map>
#include <string>

namespace Kestrane {

// Where the workers of a distributed pool run, as a program's documents carry it (schema type
// KSDistributedWorkerPoolSettings): named hosts with a starter service each, or whatever
// machines a job scheduler script gets. A script, when there is one, wins over the hosts.
class DistributedWorkerPoolSettings {
public:
    struct WorkerHost {
        std::string hostNameOrIp;
        unsigned int remoteServicePort = 0;
        // 0: as many as the host reports free cores.
        unsigned int maxWorkersOnHost = 0;
    };

    DistributedWorkerPoolSettings() = default;
    explicit DistributedWorkerPoolSettings(const std::string& jobSchedulerScript);
    // Reads the children of `element`, whatever its own name. Throws boost::bad_lexical_cast
    // for a missing or non-numeric maxParallelTasks, port or worker count (a negative one
    // included), KsException for a workerHost without hostNameOrIp. With a jobSchedulerScript
    // the workerHost children are not read. Texts go through XmlUtils::fromXml once more after
    // the parser, so that a reference the writer escaped twice ("&amp;lt;") reads as "<".
    explicit DistributedWorkerPoolSettings(xercesc::DOMElement* element);

    // Replaces an earlier host of the same name.
    void addWorkerHost(const std::string& hostNameOrIp, unsigned int remoteServicePort,
                       unsigned int maxWorkersOnHost);
    const std::map<std::string, WorkerHost>& getWorkerHosts() const { return m_workerHosts; }
    const std::string& getJobSchedulerScript() const { return m_jobSchedulerScript; }
    void setJobSchedulerScript(const std::string& script) { m_jobSchedulerScript = script; }
    // 0: no limit of its own.
    unsigned int getMaxParallelTasks() const { return m_maxParallelTasks; }
    void setMaxParallelTasks(unsigned int tasks) { m_maxParallelTasks = tasks; }
    bool useJobScheduler() const { return !m_jobSchedulerScript.empty(); }

    // <distributedWorkerPoolSettings> with one element a line, each line ending with "\n":
    // `indent` before the outer tags, one `indentStep` more per level inside.
    std::string toXmlString(const std::string& indent, const std::string& indentStep) const;

private:
    std::map<std::string, WorkerHost> m_workerHosts;
    std::string m_jobSchedulerScript;
    unsigned int m_maxParallelTasks = 0;
};

} // namespace Kestrane
