#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

using namespace Kestrane;

namespace {

LogMessage message(const std::string& text, LogMessage::Type type) {
    return LogMessage(text, type, "g");
}

class RecordingProgress : public Progress {
public:
    explicit RecordingProgress(int* destroyed) : m_destroyed(destroyed) {}
    ~RecordingProgress() override { ++*m_destroyed; }
    bool handleLogMessage(const LogMessage& message) override {
        texts.push_back(message.text());
        return message.type() != LogMessage::Error;
    }
    std::vector<std::string> texts;

private:
    int* m_destroyed;
};

} // namespace

TEST(ProgressTest, IsAnAbstractInterface) {
    static_assert(std::is_abstract<Progress>::value, "Progress must be abstract");
    static_assert(std::has_virtual_destructor<Progress>::value,
                  "Progress must be deletable through its base");
    int destroyed = 0;
    std::unique_ptr<Progress> progress = std::make_unique<RecordingProgress>(&destroyed);
    EXPECT_TRUE(progress->handleLogMessage(message("one", LogMessage::Info)));
    EXPECT_FALSE(progress->handleLogMessage(message("two", LogMessage::Error)));
    EXPECT_EQ(static_cast<RecordingProgress&>(*progress).texts,
              (std::vector<std::string>{"one", "two"}));
    progress.reset();
    EXPECT_EQ(destroyed, 1);
}
