#include <kest/kernel_frame/log_capture.h>
#include <kest/kernel_frame/log_sink.h>
#include <kest/kernel_frame/scale.h>
#include <tests/test_util.h>

#include <thread>

namespace {

std::string taken;
void Take(const char* line) {
    taken += line;
}

void Fail() {
    float scale = kInf;
    EXPECT_NE(0, util::ProcessScale(scale));
}
const std::string kLine = "[ERROR][ProcessScale][] Not support scale is +inf.\n";  // but for the line number

TEST(LogSink, TakesTheLinesInsteadOfStandardOutput) {
    EXPECT_EQ(nullptr, util::SetLogSink(Take));
    EXPECT_EQ("", LogOf(Fail));
    EXPECT_EQ(kLine.substr(0, 22), taken.substr(0, 22));
    EXPECT_EQ(kLine.substr(22), taken.substr(taken.size() - 29));
    EXPECT_EQ(&Take, util::SetLogSink(nullptr));
    taken.clear();
    EXPECT_EQ(kLine, LogOf(Fail));
    EXPECT_EQ("", taken);
}

TEST(LogSink, CapturesTakeTheLinesOfTheirThread) {
    util::LogCapture outer;
    Fail();
    const std::string one = outer.lines;
    EXPECT_NE("", one);
    {
        util::LogCapture inner;
        Fail();
        EXPECT_EQ(one, inner.lines);
        EXPECT_EQ(kLine, LogOf([&] { std::thread(Fail).join(); }));
        EXPECT_EQ(one, inner.lines);
    }
    Fail();
    EXPECT_EQ(one + one, outer.lines);
}

TEST(LogSink, FirstCaptureWhileOthersPrint) {
    const auto captured = [] {
        const util::LogCapture capture;
        Fail();
        EXPECT_EQ(kLine.size(), capture.lines.size() - 2);  // the line number
    };
    const std::string printed = LogOf([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) threads.emplace_back(Fail), threads.emplace_back(captured);
        for (std::thread& thread : threads) thread.join();
    });
    EXPECT_EQ(kLine + kLine + kLine + kLine, printed);
}

}  // namespace
