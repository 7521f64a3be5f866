#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <cstdlib>
#include <string>

#ifndef KS_SOURCE_DIR
#error "KS_SOURCE_DIR names the source tree"
#endif

namespace Kestrane {
namespace Testing {

// The LSF adapter with stand-ins for bsub, bjobs and bkill that run jobs on this host: while an
// object lives, they come first on PATH, and their records and the jobs' end files go to a
// directory of the object's own.
class FakeLsf {
public:
    FakeLsf() {
        const char* path = std::getenv("PATH");
        m_oldPath = path ? path : "";
        ::setenv("PATH",
                 (std::string(KS_SOURCE_DIR) + "/Platform/RemoteComputation/TestSupport/fake-lsf:" +
                  m_oldPath)
                     .c_str(),
                 1);
        ::setenv("FAKE_LSF_DIR", m_dir.file("lsf").c_str(), 1);
        ::setenv("KS_JOB_STATE_DIR", m_dir.file("state").c_str(), 1);
    }
    ~FakeLsf() {
        ::setenv("PATH", m_oldPath.c_str(), 1);
        ::unsetenv("FAKE_LSF_DIR");
        ::unsetenv("KS_JOB_STATE_DIR");
    }
    FakeLsf(const FakeLsf&) = delete;
    FakeLsf& operator=(const FakeLsf&) = delete;

    std::string file(const std::string& name) const { return m_dir.file(name); }
    static std::string adapter() {
        return std::string(KS_SOURCE_DIR) + "/scripts/job-schedulers/lsf";
    }

private:
    TestSupport::TempDir m_dir;
    std::string m_oldPath;
};

} // namespace Testing
} // namespace Kestrane
