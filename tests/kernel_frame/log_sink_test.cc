#include <kest/kernel_frame/log_sink.h>
#include <kest/kernel_frame/scale.h>
#include <tests/test_util.h>

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

}  // namespace
