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

TEST(LogSink, TakesTheLinesInsteadOfStandardOutput) {
    float scale = kInf;
    const auto fail = [&] { EXPECT_NE(0, util::ProcessScale(scale)); };
    EXPECT_EQ(nullptr, util::SetLogSink(Take));
    EXPECT_EQ("", LogOf(fail));
    EXPECT_EQ("[ERROR][ProcessScale][", taken.substr(0, 22));
    EXPECT_EQ("] Not support scale is +inf.\n", taken.substr(taken.size() - 29));
    EXPECT_EQ(&Take, util::SetLogSink(nullptr));
    taken.clear();
    EXPECT_EQ("[ERROR][ProcessScale][] Not support scale is +inf.\n", LogOf(fail));
    EXPECT_EQ("", taken);
}

TEST(LogSink, CapturesTakeTheLinesOfTheirThread) {
    const auto fail = [] {
        float scale = kInf;
        EXPECT_NE(0, util::ProcessScale(scale));
    };
    util::LogCapture outer;
    fail();
    const std::string one = outer.lines;
    EXPECT_NE("", one);
    {
        util::LogCapture inner;
        fail();
        EXPECT_EQ(one, inner.lines);
        EXPECT_NE("", LogOf([&] { std::thread(fail).join(); }));
        EXPECT_EQ(one, inner.lines);
    }
    fail();
    EXPECT_EQ(one + one, outer.lines);
}

TEST(LogSink, FirstCaptureWhileOthersPrint) {
    float scale = kInf;
    const std::string line = "[ERROR][ProcessScale][] Not support scale is +inf.\n";
    const std::string printed = LogOf([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back([=]() mutable {
                if (t % 2 == 0) {
                    util::ProcessScale(scale);
                } else {
                    const util::LogCapture capture;
                    util::ProcessScale(scale);
                    EXPECT_EQ(line.size(), capture.lines.size() - 2);  // the line number
                }
            });
        for (std::thread& thread : threads) thread.join();
    });
    EXPECT_EQ(line + line + line + line, printed);
}

}  // namespace
