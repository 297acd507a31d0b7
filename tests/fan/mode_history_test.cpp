#include "core/fan/mode_history.h"

#include <gtest/gtest.h>

#include <limits>

namespace ferovane {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Sample {
    double seconds;
    std::optional<std::string> mode = "A";
    std::optional<std::string> session = std::nullopt;
    std::optional<double> temperature = 50;
};

ModeHistory historyOf(const std::vector<Sample>& samples) {
    ModeHistory history;
    for (const Sample& sample : samples) {
        history.append(Date{sample.seconds}, sample.mode, sample.session, sample.temperature, 0.5);
    }
    return history;
}

// "A-1@0 A-1@10": each record's line and its place on it.
std::string linesOf(const ModeHistory& history) {
    std::string text;
    for (const ModeRecord& record : history.records()) {
        text += (text.empty() ? "" : " ") + record.series() + "@" +
                std::to_string(static_cast<int>(record.elapsed));
    }
    return text;
}

TEST(ModeHistoryTest, CutsSegmentsWhereARunIsInterrupted) {
    const std::optional<std::string> absent;
    const struct {
        std::vector<Sample> samples;
        const char* lines;
    } cases[] = {
        {{{0}, {10}, {25}}, "A-1@0 A-1@10 A-1@25"},
        {{{0}, {16}, {20}}, "A-1@0 A-2@0 A-2@4"},
        {{{0}, {0}}, "A-1@0 A-2@0"},
        {{{10}, {5}, {6}}, "A-1@0 A-2@0 A-2@1"},
        {{{0, "A"}, {1, "B"}, {2, "A"}}, "A-1@0 B-2@0 A-3@0"},
        {{{0, "A", "s"}, {1, "A", "s"}, {2, "A", "t"}, {3, "A"}}, "A-1@0 A-1@1 A-2@0 A-3@0"},
        {{{0}, {1, "A", absent, std::nullopt}, {2}}, "A-1@0 A-2@0"},
        {{{0}, {1, "A", absent, kNaN}, {2}}, "A-1@0 A-2@0"},
        {{{0}, {1, absent}, {2}}, "A-1@0 A-2@0"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(linesOf(historyOf(c.samples)), c.lines);
    }
}

TEST(ModeHistoryTest, RecordsWhatItIsGiven) {
    const ModeHistory history = historyOf({{7}});
    ASSERT_EQ(history.records().size(), 1u);
    EXPECT_EQ(history.records().front(), (ModeRecord{Date{7}, "A", 50, 0.5, 1, 0, std::nullopt}));
}

TEST(ModeHistoryTest, KeepsHalfAnHour) {
    std::vector<Sample> samples;
    for (int i = 0; i <= 31 * 6; ++i) {
        samples.push_back({10.0 * i});
    }
    ModeHistory history = historyOf(samples);
    EXPECT_EQ(history.records().front().date, Date{60});
    EXPECT_EQ(history.records().size(), 181u);

    // A sample that is not recorded still ages the others; one at exactly 30 minutes stays.
    history.append(Date{70 + 1800}, std::nullopt, std::nullopt, std::nullopt, std::nullopt);
    EXPECT_EQ(history.records().front().date, Date{70});
}

TEST(ModeHistoryTest, ForgetsOldRecordsBehindNewerOnesAfterTheClockWasSetBack) {
    const ModeHistory history = historyOf({{5000}, {100}, {110}, {1905}});
    EXPECT_EQ(linesOf(history), "A-1@0 A-2@10 A-3@0");
    EXPECT_EQ(linesOf(historyOf({{5000}, {100}, {6801}, {6802}})), "A-3@0 A-3@1");
}

}  // namespace
}  // namespace ferovane
