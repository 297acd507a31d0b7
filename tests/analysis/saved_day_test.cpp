// What a monitor saved is there again, whatever happens to the program or the file.
//
// FEROVANE_SAVE_KILLS=N: how often the program is killed while it saves, instead of 20 times.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "core/analysis/saved_day.h"
#include "core/control/control_request.h"
#include "tests/analysis/observation.h"
#include "tests/support/failure_text.h"

namespace ferovane::testing {
namespace {

namespace fs = std::filesystem;

// Figures that wander as real ones do, and a session that is asked for things.
class Monitor {
public:
    Monitor(unsigned seed, int sensors) : dice_(seed) {
        for (int i = 0; i < sensors; ++i) {
            now_.sensors.push_back({"S" + std::to_string(i), "传感器" + std::to_string(i), 50});
        }
        now_.fans = {{0, 2000, 1200, 6000, false, true}, {1, std::nullopt, 1200, {}, true, false}};
        now_.additionalSensors = {{"PSTR", "整机功耗", HardwareSensorKind::power, 30}};
    }

    void sample(MonitorHistories& histories, Date date) {
        now_.date = date;
        now_.cpuUsage = dice_.maybe(50, double(dice_.upTo(100)));
        now_.turbo = dice_.oneIn(99) ? TurboState::driverNotLoaded : now_.turbo;
        now_.turbo = dice_.oneIn(99) ? TurboState::disabledDriverLoaded : now_.turbo;
        for (SensorReading& sensor : now_.sensors) {
            sensor.celsius += 0.2 * noise_(dice_.engine());
        }
        *now_.fans[0].rpm += 10 * noise_(dice_.engine());
        histories.add(SystemTelemetry{date, 80, -18.25, true, 300, 9.5e9, 1.6e12});
        histories.add(now_, std::vector<FanTarget>{{0, 2000}});
        if (dice_.oneIn(150)) {
            histories.noteChange(date);
            histories.note(date, RecordedEventKind::request,
                           ControlRequest{.command = "profile", .label = "老板的模式"});
        }
        using Symptom = DiagnosticKind;
        DiagnosticReport report;
        report.date = date;
        if (std::fmod(date.secondsSinceReference, 198) < 99) {
            report.findings = {{"cpu:7-1", Symptom::sustainedCPU, {}, {}, "秘密", 95, {}, {}},
                               {"temperature", Symptom::temperature, {}, {}, "CPU", 91, {}, {}}};
        }
        histories.add(report);
    }

private:
    Dice dice_;
    Snapshot now_ = unremarkable(0).snapshot;
    std::normal_distribution<double> noise_;
};

// Whether everything is the same that records and tables tell, but for what a file rounds.
template <class Value>
bool same(const Value& a, const Value& b) {
    if constexpr (std::is_same_v<Value, Date>) {
        return a == b;
    } else if constexpr (std::is_floating_point_v<Value>) {
        return std::abs(a - b) <= 0.000501 || (std::isnan(a) && std::isnan(b));
    } else if constexpr (std::is_same_v<Value, FigureTable>) {
        return same(a.dates, b.dates) && same(a.columns, b.columns);
    } else if constexpr (std::is_same_v<Value, FigureTable::Column>) {
        return a.label == b.label && same(a.values, b.values);
    } else if constexpr (std::is_same_v<Value, SavedDay::Metric>) {
        return a.label == b.label && a.kind == b.kind && same(a.minutes, b.minutes) &&
               same(a.hours, b.hours);
    } else if constexpr (requires { a.has_value(); }) {
        return a.has_value() == b.has_value() && (!a || same(*a, *b));
    } else if constexpr (requires { a.second; }) {
        return a.first == b.first && same(a.second, b.second);
    } else if constexpr (JsonRecord<Value>) {
        const auto is = [&](auto field) { return same(a.*field.member, b.*field.member); };
        return std::apply([&](auto... field) { return (is(field) && ...); }, Value::jsonFields());
    } else if constexpr (requires { a.begin(); } && !std::is_same_v<Value, std::string>) {
        return std::ranges::equal(a, b, [](const auto& x, const auto& y) { return same(x, y); });
    } else {
        return a == b;
    }
}

class SavedDayTest : public ::testing::Test {
protected:
    SavedDayTest() {
        std::string path = (fs::temp_directory_path() / "day-XXXXXX").string();
        folder_ = ::mkdtemp(path.data());
        file_ = folder_ / "day";
    }
    ~SavedDayTest() override { fs::remove_all(folder_); }

    static std::string contentOf(const fs::path& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static void write(const fs::path& file, std::string_view bytes) {
        fs::remove(file);  // some file systems sync what is truncated
        std::ofstream(file, std::ios::binary) << bytes;
    }

    fs::path folder_, file_;
};

TEST_F(SavedDayTest, TellsEverythingAgainAndGoesOnAfterAGap) {
    for (unsigned seed = 0; seed < 4; ++seed) {
        SCOPED_TRACE(seed);
        Dice dice(seed);
        Clock clock(dice, seed % 2 == 0 ? 1 : 9.25, 200);
        MonitorHistories lived, read, again;
        Monitor monitor(seed, 3);
        Date last;
        for (int i = 0; i < 900; ++i) {
            monitor.sample(lived, last = clock.next() + dice.upTo(999'999) * 1e-9);
        }
        EXPECT_FALSE(DayFile::load(file_, read));  // a first run
        DayFile::save(file_, lived);
        ASSERT_TRUE(DayFile::load(file_, read));
        EXPECT_EQ(fs::status(file_).permissions(), fs::perms(0600));
        const SavedDay before = lived.state(), after = read.state();
        EXPECT_TRUE(same(before, after));
        EXPECT_TRUE(same(before.load.spans, after.load.spans));
        EXPECT_TRUE(same(before.load.day, after.load.day));
        EXPECT_TRUE(same(before.assessment.before, after.assessment.before));
        EXPECT_TRUE(same(before.assessment.after, after.assessment.after) ||
                    lived.assessment().assess().windowSeconds < 120);  // begins anew
        DayFile::save(file_, read);
        const std::string bytes = contentOf(file_);
        ASSERT_TRUE(DayFile::load(file_, again));
        DayFile::save(file_, again);
        EXPECT_TRUE(contentOf(file_) == bytes) << "rounded twice";
        monitor.sample(read, last + 1);
        for (const auto& [id, metric] : read.metrics().all()) {
            EXPECT_TRUE(metric.history.hours().buckets().back().afterGap) << id;
        }
        fs::remove(file_);
    }
}

std::string withChecksum(std::string bytes) {
    std::uint64_t hash = 0xCBF29CE484222325;
    for (const char byte : bytes.replace(24, 8, 8, '\0')) {
        hash = (hash ^ std::uint8_t(byte)) * 0x100000001B3;
    }
    return bytes.replace(24, 8, std::bit_cast<std::array<char, 8>>(hash).data(), 8);
}

TEST_F(SavedDayTest, RefusesWhatIsNoDayAndLeavesItAlone) {
    MonitorHistories lived, read;
    Monitor monitor(1, 1);
    for (int i = 0; i < 40; ++i) {
        monitor.sample(lived, kStart + i);
    }
    lived.add(SystemTelemetry{kStart + 40, 1e300, {}, {}, {}, {}, 0});  // no reason to lose the day
    const fs::path victim = folder_ / "victim";
    write(victim, "mine");
    fs::create_symlink(victim, file_.string() + ".new");  // planted: not followed
    DayFile::save(file_, lived);
    EXPECT_EQ(contentOf(victim), "mine");
    const std::string day = contentOf(file_), damaged = "监测历史文件已损坏";
    const auto expectRefusal = [&](const std::string& bytes, const std::string& why) {
        write(file_, bytes);
        ASSERT_EQ(failureOf([&] { DayFile::load(file_, read); }), why);
        ASSERT_EQ(failureOf([&] { DayFile::save(file_, lived); }), why + "；没有覆盖");
        ASSERT_TRUE(contentOf(file_) == bytes);
        ASSERT_TRUE(read.metrics().all().empty());
    };
    for (std::size_t size = 0; size < day.size(); ++size) {
        ASSERT_NO_FATAL_FAILURE(expectRefusal(day.substr(0, size), damaged));
    }
    std::string newer = day;
    newer[8] = 2;
    expectRefusal(newer, "监测历史文件由另一个版本的程序保存");
    expectRefusal("timestamp,cpu\n", "不是监测历史文件");
    Dice dice(2);
    for (int i = 0; i < 300; ++i) {
        std::string bad = day;
        const auto place = 16 + dice.bits() % (day.size() - 16);
        bad[place] = char(bad[place] ^ 1 << dice.upTo(7));
        ASSERT_NO_FATAL_FAILURE(expectRefusal(bad, damaged));
        // As if a program had written it so: refused, or a day that can be used.
        write(file_,
              withChecksum(bad.replace(place, 1, std::size_t(dice.upTo(3)), char(dice.bits()))));
        MonitorHistories any;
        const std::string why = failureOf([&] { DayFile::load(file_, any); });
        ASSERT_TRUE(why.empty() || why == damaged) << why;
        monitor.sample(any, kStart + 200);
        any.recorder().text();
        any.recorder().heatDay(CurveSensor::hottest);
    }
    DayFile::save(file_, lived, DayFile::Unreadable::replace);
    EXPECT_TRUE(contentOf(file_) == day && DayFile::load(file_, read));
    EXPECT_EQ(failureOf([&] { DayFile::load(folder_, read); }), "不是监测历史文件");
    const int other = ::open(folder_.c_str(), O_RDONLY);
    ASSERT_EQ(::flock(other, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(failureOf([&] { DayFile::save(file_, lived); }), "另一个程序正在保存监测历史");
    ::close(other);
    EXPECT_EQ(failureOf([&] { DayFile::save(file_ / "day", lived); }),
              "无法保存监测历史文件（错误 20）");
    EXPECT_EQ(failureOf([&] { DayFile::save(folder_ / "no" / "day", lived); }),
              "无法保存监测历史文件（错误 2）");
}

TEST_F(SavedDayTest, HoldsTheLastWholeDayWheneverItsProgramIsKilled) {
    const char* const told = std::getenv("FEROVANE_SAVE_KILLS");
    MonitorHistories lived;
    Monitor monitor(unsigned(::getpid()), 20);
    Dice dice(unsigned(::getpid()));
    std::size_t saved = 0;
    DayFile::save(file_, lived);
    for (int kill = told != nullptr ? std::atoi(told) : 20; kill > 0; --kill) {
        const pid_t child = ::fork();
        for (std::size_t second = saved; child == 0; ++second) {
            monitor.sample(lived, kStart + double(second));
            DayFile::save(file_, lived);
        }
        ::usleep(unsigned(3000 + dice.upTo(60'000)));
        ::kill(child, SIGKILL);
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        ASSERT_TRUE(DayFile::load(file_, lived));
        ASSERT_GE(lived.recorder().state().figures.dates.size(), saved);
        saved = lived.recorder().state().figures.dates.size();
    }
    EXPECT_GT(saved, 0u);
}

TEST(RecorderTest, KeepsWhatWasReadInTheLastHalfHour) {
    for (unsigned seed = 0; seed < 6; ++seed) {
        Dice dice(seed);
        Clock clock(dice, 5, 40);
        ObservationClock counts;
        Recorder recorder;
        std::vector<std::pair<Date, std::optional<double>>> model;
        for (int i = 0; i < 900; ++i) {
            Snapshot now;
            now.date = clock.next();
            now.cpuUsage = dice.maybe(9, double(dice.upTo(99)));
            recorder.add(now, {});
            const auto step = counts.advance(now.date);
            if (step == ObservationClock::Step::ignored) {
                continue;
            }
            std::erase_if(model, [&](const auto& row) {
                return row.first >= now.date || row.first < now.date - 1800;
            });
            model.emplace_back(now.date, now.cpuUsage);
            const FigureTable& table = recorder.state().figures;
            ASSERT_EQ(table.dates.size(), model.size()) << seed << ", " << i;
            const auto column = table.columns.find("cpuUsage");
            for (std::size_t row = 0; row < model.size(); ++row) {
                ASSERT_EQ(table.dates[row], model[row].first) << seed << ", " << i;
                const double told =
                    column == table.columns.end() ? kNaN : column->second.values[row];
                ASSERT_TRUE(same(told, model[row].second.value_or(kNaN))) << seed << ", " << i;
            }
        }
    }
}

TEST(RecorderTest, TellsEventsInTheOrderOfTimeALineEach) {
    Recorder recorder;
    Snapshot now = unremarkable(60).snapshot;
    now.fans = {{0, 2000, 1200, 6000, false, true}};
    recorder.add(SystemTelemetry{Date{kNaN}, 1, {}, {}, {}, {}, 0});
    recorder.add(now, {});
    for (const double second : {61., 5., 40., 70.}) {
        recorder.add({kStart + second, RecordedEventKind::reply, "a\nb\x1B", "\r"});
    }
    now.date = kStart + 50;  // the clock is set back
    recorder.add(now, {});
    const auto& events = recorder.state().events;
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].date, kStart + 5);
    EXPECT_EQ(events[1].date, kStart + 40);
    const std::string text = recorder.text(true);
    EXPECT_NE(text.find("\t回复\ta b \t \n"), text.npos) << text;
    EXPECT_EQ(recorder.state().figures.columns.count("batteryPercent"), 0u);
    EXPECT_EQ(recorder.state().figures.columns.count("fan:0:rpm"), 0u);
    EXPECT_EQ(recorder.state().figures.columns.at("fan:0").values, (std::deque<double>{2000}));
}

TEST(RecorderTest, IsBoundedAndTellsEachCurveItsDie) {
    Recorder recorder;
    Snapshot now = unremarkable(0).snapshot;
    now.sensors = {{"TC0P", "", 50}, {"TG0P", "", 60}};
    now.fans = {{0, 2000, 1200, 6000, false, true}};
    for (int i = 0; i < 700; ++i) {
        now.date = kStart + i;
        recorder.add(now, {});
        recorder.add({now.date, RecordedEventKind::reply, std::string(5000, 'x'), {}});
    }
    const std::pair<CurveSensor, double> dies[]{
        {CurveSensor::cpu, 50}, {CurveSensor::gpu, 60}, {CurveSensor::hottest, 60}};
    for (const auto& [sensor, die] : dies) {
        const RecordedDay day = recorder.heatDay(sensor);
        EXPECT_NEAR(double(day.steps.size()), 350, 5);
        EXPECT_EQ(day.steps.at(9).die, die);
    }
    EXPECT_EQ(recorder.state().events.size(), 256 * 1024 / (4096 + sizeof(RecordedEvent)));
    for (int i = 0; i < 900; ++i) {
        now.sensors.push_back({"S" + std::to_string(i), "", 1});
    }
    for (int i = 0; i < 400; ++i) {
        now.date = now.date + 1;
        recorder.add(now, {});
    }
    const FigureTable& table = recorder.state().figures;
    EXPECT_LE(table.dates.size() * table.columns.size(), Recorder::kMostFigures);
    EXPECT_GT((table.dates.size() + 1) * table.columns.size(), Recorder::kMostFigures);
    now.sensors.resize(2);
    for (int i = 0; i < 400; ++i) {
        now.date = now.date + 1;
        recorder.add(now, std::vector<FanTarget>(i == 399 ? 1 : 0));
    }
    EXPECT_LT(table.columns.size(), 50u);  // without those that are gone
}

TEST_F(SavedDayTest, TellsABugReportNobodysNameUnlessAsked) {
    MonitorHistories lived;
    Monitor monitor(3, 2);
    for (int i = 0; i < 400; ++i) {
        monitor.sample(lived, kStart + i);
    }
    const std::string quiet = lived.recorder().text(), all = lived.recorder().text(true);
    for (const char* name : {"秘密", "老板的模式", "7-1"}) {
        EXPECT_EQ(quiet.find(name), quiet.npos) << name;
    }
    for (const char* row :
         {"\t出现\tcpu\t95.00\t秘密\n", "\t请求\t{\"command\":\"profile\"}\t老板的模式\n"}) {
        EXPECT_NE(all.find(row), all.npos) << row << all.substr(0, 900);
    }
    for (const char* row : {"\n2023-03-08T20:26:40Z\t", "\t消失\ttemperature\tCPU\n", "传感器1",
                            "整机功耗", "fan:0:target", "turbo", "一天"}) {
        EXPECT_NE(quiet.find(row), quiet.npos) << row << quiet.substr(0, 900);
    }
}

}  // namespace
}  // namespace ferovane::testing
