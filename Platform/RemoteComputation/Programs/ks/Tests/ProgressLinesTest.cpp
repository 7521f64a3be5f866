#include "../ProgressPrinter.h"
#include "../StatusText.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

using namespace Kestrane;
using namespace std::chrono_literals;

namespace {
// The lines of `text` without their time stamp ("12:00:01.123 ").
std::vector<std::string> untimed(const std::string& text, const std::string& indent) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    std::regex stamp("^" + indent + "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ");
    while (std::getline(in, line)) {
        std::smatch match;
        EXPECT_TRUE(std::regex_search(line, match, stamp)) << line;
        lines.push_back(match.suffix());
    }
    return lines;
}

struct FakeClock {
    ProgressLines::Clock::time_point now{};
    std::function<ProgressLines::Clock::time_point()> function() {
        return [this] { return now; };
    }
};
} // namespace

TEST(ProgressLinesTest, EveryLineWhenNotCondensed) {
    std::ostringstream out;
    {
        ProgressLines lines(out, "> ", false);
        lines.line("logMsg", "INFO [G] waiting...");
        lines.line("logMsg", "INFO [G] waiting...");
        lines.line("alive", "RequestServer running");
    }
    EXPECT_EQ(untimed(out.str(), "> "),
              (std::vector<std::string>{"logMsg INFO [G] waiting...", "logMsg INFO [G] waiting...",
                                        "alive  RequestServer running"}));
}

TEST(ProgressLinesTest, CondensedRepeatsShowOnceASecondWithTheirCount) {
    std::ostringstream out;
    FakeClock clock;
    ProgressLines lines(out, "", true);
    lines.setClock(clock.function());
    lines.line("logMsg", "starting...");
    for (int i = 0; i < 25; ++i) {
        clock.now += 100ms;
        lines.line("logMsg", "waiting...");
    }
    // A heartbeat in between does not break the run of another topic.
    lines.line("alive", "running");
    clock.now += 100ms;
    lines.line("logMsg", "done.");
    lines.flush();
    // First "waiting..." at 0.1 s; repeats 2..11 reach 1.1 s (x10), 12..21 reach 2.1 s (x10),
    // and the last four are shown when "done." comes.
    EXPECT_EQ(
        untimed(out.str(), ""),
        (std::vector<std::string>{"logMsg starting...", "logMsg waiting...",
                                  "logMsg waiting...  (x10)", "logMsg waiting...  (x10)",
                                  "alive  running", "logMsg waiting...  (x4)", "logMsg done."}));
}

TEST(ProgressLinesTest, FlushShowsWhatIsHeldBack) {
    std::ostringstream out;
    FakeClock clock;
    ProgressLines lines(out, "", true);
    lines.setClock(clock.function());
    lines.line("file", "50% (100/200MB)");
    lines.line("file", "50% (100/200MB)");
    lines.line("file", "50% (100/200MB)");
    EXPECT_EQ(untimed(out.str(), "").size(), 1u);
    lines.flush();
    EXPECT_EQ(untimed(out.str(), ""),
              (std::vector<std::string>{"file   50% (100/200MB)", "file   50% (100/200MB)  (x2)"}));
}

TEST(ProgressLinesTest, TransferLogLinesLoseTheirLineBreak) {
    std::ostringstream out;
    ProgressLines lines(out, "", false);
    TransferProgressLog log(lines);
    EXPECT_EQ(log.logMessage("Starting transfer of file big.bin...\n", -1, true), 0);
    EXPECT_EQ(log.logMessage(" 42% (84/200MB)\n", -1, true), 0);
    EXPECT_EQ(log.getLines(), 2u);
    EXPECT_EQ(untimed(out.str(), ""),
              (std::vector<std::string>{"file   Starting transfer of file big.bin...",
                                        "file    42% (84/200MB)"}));
}

TEST(StatusTextTest, Bytes) {
    EXPECT_EQ(StatusText::bytes(-1), "unknown");
    EXPECT_EQ(StatusText::bytes(0), "0 B");
    EXPECT_EQ(StatusText::bytes(1023), "1023 B");
    EXPECT_EQ(StatusText::bytes(1536), "1.5 KB");
    EXPECT_EQ(StatusText::bytes(200ll * 1024 * 1024), "200.0 MB");
    EXPECT_EQ(StatusText::bytes(3ll * 1024 * 1024 * 1024 * 1024 * 1024), "3072.0 TB");
}

TEST(StatusTextTest, HostWithTheFieldsThatAreSet) {
    HostInfo host("127.0.0.1", "node1");
    host.setRequestServerPort(4000);
    host.setPublisherPort(4001);
    EXPECT_EQ(StatusText::describeHost(host),
              "node1, address 127.0.0.1, request server port 4000, publisher port 4001");
    HostInfo nameOnly("node2", "");
    EXPECT_EQ(StatusText::describeHost(nameOnly), "node2");
    EXPECT_EQ(StatusText::describeHost(HostInfo()), "-");
}

TEST(StatusTextTest, LocalTime) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    EXPECT_EQ(StatusText::localTime(0), "1970-01-01 00:00:00");
    EXPECT_EQ(StatusText::localTime(1790000000), "2026-09-21 14:13:20");
}
