#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace Kestrane;

namespace {

class RecordingJobLog : public AbstractJobLog {
public:
    explicit RecordingJobLog(std::shared_ptr<int> context) : m_context(std::move(context)) {}
    ~RecordingJobLog() override = default;

    std::string getName() override { return "Recording"; }
    int logMessage(const std::string& text, int64_t value, bool flag) override {
        m_lines.push_back(text + "|" + std::to_string(value) + "|" + (flag ? "1" : "0"));
        return 0;
    }
    std::shared_ptr<void> getJobContext() override { return m_context; }
    int flush() override { return static_cast<int>(m_lines.size()); }

    const std::vector<std::string>& lines() const { return m_lines; }

private:
    std::shared_ptr<int> m_context;
    std::vector<std::string> m_lines;
};

} // namespace

TEST(AbstractJobLogTest, CallsReachTheDerivedLogThroughTheBase) {
    auto context = std::make_shared<int>(42);
    auto recording = std::make_shared<RecordingJobLog>(context);
    std::shared_ptr<AbstractJobLog> log = recording;

    EXPECT_EQ(log->getName(), "Recording");
    EXPECT_EQ(log->logMessage("Finished retrieving results.\n\n", -1, true), 0);
    EXPECT_EQ(log->getJobContext().get(), context.get());
    EXPECT_EQ(log->flush(), 1);
    ASSERT_EQ(recording->lines().size(), 1u);
    EXPECT_EQ(recording->lines()[0], "Finished retrieving results.\n\n|-1|1");

    // The last owner may be the base pointer: the derived destructor still runs.
    recording.reset();
    EXPECT_EQ(context.use_count(), 2);
    log.reset();
    EXPECT_EQ(context.use_count(), 1);
}
