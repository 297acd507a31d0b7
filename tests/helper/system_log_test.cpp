// A log that takes its time, or is told too much, costs its teller nothing.
#include "helper/system_log.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

namespace ferovane::testing {
namespace {

TEST(SystemLogTest, LeavesOutWhatIsTooMuchAndSaysSo) {
    double now = 5;
    std::string taken;
    std::promise<void> began, opens;
    const auto open = opens.get_future().share();
    SystemLog log(
        [&](bool failure, const char* line) {
            if (taken.empty()) {
                began.set_value();
            }
            taken += (failure ? "!" : "") + std::string(line) + "|";
            open.wait();
        },
        [&] { return now; });
    std::string expected = "0|!有 23 行未记录|";
    for (int i = 0; i < 40; ++i) {
        log.tell(LogLine({std::to_string(i)}));
        if (i == 0) {
            began.get_future().wait();
        } else if (i <= 16) {
            expected += std::to_string(i) + "|";
        }
    }
    log.settle();  // gives up: the log hangs
    opens.set_value();
    for (int i = 0; i < 200; ++i) {
        log.settle();
        log.tell(LogLine({"x"}));
        expected += i < SystemLog::kLogLinesPerMinute - 17 ? "x|" : "";
    }
    log.tell(LogLine({"failed"}, true));  // no flood hides a failure
    log.settle();
    now += 60;
    log.tell(LogLine({"later\n", std::string(193, 'y'), "é"}));
    log.settle();
    EXPECT_EQ(taken, expected + "!有 157 行未记录|!failed|later " + std::string(193, 'y') + "|");
}

}  // namespace
}  // namespace ferovane::testing
