#pragma once

#include <string>

namespace Kestrane {

// Offered to hosts: where a request hands the status of the job it runs. The library only
// stores and passes it on.
class RemoteJobStatusInterface {
public:
    virtual ~RemoteJobStatusInterface();
    // The job status element of a progress message, as XML text.
    virtual void updateJobStatus(const std::string& jobStatusXml) = 0;
};

} // namespace Kestrane
