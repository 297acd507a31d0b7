#include "examples/page.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "core/analysis/curve_what_if.h"
#include "core/analysis/sensor_catalog.h"
#include "core/fan/profile.h"
#include "core/model/date.h"
#include "core/model/number_text.h"
#include "core/model/scope_error.h"
#include "core/model/utf8.h"
#include "examples/finding_text.h"
#include "examples/page_style.h"

namespace {

using namespace ferovane;

constexpr std::size_t kMostApplications = 30, kMostMembers = 20, kMostEvents = 200;
constexpr double kPlaces = 1000;  // of a drawing, across and up
constexpr double kWishedCelsius = 85;
// Of kPageScript: no other script runs, whatever else were to be wrong with the page.
constexpr char kScriptHash[] = "sha256-qS7EJbmJf9atHsyLy75V5YgyAKSIjiOV61hG9XF7Ac4=";

// A literal is markup, and all other text is escaped: no name that a machine or a process bears
// becomes markup.
class Html {
public:
    template <std::size_t N>
    Html& operator<<(const char (&markup)[N]) {
        text_.append(markup, N - 1);
        return *this;
    }
    Html& operator<<(const Html& markup) {
        text_ += markup.text_;
        return *this;
    }
    Html& operator<<(std::string_view text) {
        for (const char c : repairUtf8(text)) {
            const bool control = c >= 0 && c < ' ' && c != '\n' && c != '\t';
            text_ += c == '&'              ? "&amp;"
                     : c == '<'            ? "&lt;"
                     : c == '>'            ? "&gt;"
                     : c == '"'            ? "&quot;"
                     : c == '\''           ? "&#39;"
                     : control || c == 127 ? kReplacementCharacter
                                           : std::string_view(&c, 1);
        }
        return *this;
    }
    bool empty() const { return text_.empty(); }
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

std::string fixed(double value, int digits = 0) {
    std::array<char, kFixed2MaxLength> text{};
    std::snprintf(text.data(), text.size(), "%.*f", digits, value);
    return text.data();
}
std::string fixed(std::optional<double> value, const char* unit, int digits = 0) {
    return value ? fixed(*value, digits) + unit : "—";
}
std::string bytes(std::optional<double> count, const char* per = "") {
    constexpr double kKilo = 1e3, kMega = 1e6, kGiga = 1e9;
    return !count            ? "—"
           : *count >= kGiga ? fixed(*count / kGiga, 2) + " GB" + per
           : *count >= kMega ? fixed(*count / kMega, 1) + " MB" + per
                             : fixed(*count / kKilo) + " KB" + per;
}
std::string lasting(double seconds) {
    const long minutes = std::lround(seconds / 60), hours = minutes / 60;
    return seconds < 60 ? fixed(seconds) + " 秒"
           : hours == 0 ? std::to_string(minutes) + " 分钟"
                        : std::to_string(hours) + " 小时 " + std::to_string(minutes % 60) + " 分钟";
}
std::string unitText(MetricKind kind) {
    return unit(kind).empty() ? "" : " " + std::string(unit(kind));
}
// The title of a state; empty for a kind that has none, and where there is no such state.
std::string stateText(MetricKind kind, double value) {
    if (kind == MetricKind::thermalState) {
        Snapshot snapshot;
        snapshot.thermalState = int(std::lround(value));
        return std::string(snapshot.thermalTitle());
    }
    const auto pressure = fromRawValue<MemoryPressure>(int(std::lround(value)));
    return kind == MetricKind::memoryPressure && pressure ? std::string(title(*pressure)) : "";
}
bool isState(MetricKind kind) {
    return kind == MetricKind::thermalState || kind == MetricKind::memoryPressure;
}
std::string figure(double value, MetricKind kind) {
    using enum MetricKind;
    return isState(kind) ? stateText(kind, value)
                         : fixed(value, kind == voltage || kind == current ? 2 : kind != fan);
}

// What a chart shows of time, and how finely.
struct Window {
    Date from, to;
    int columns = 0, ticks = 0;
    std::size_t clockLength = 5;  // "HH:MM"

    double place(Date date) const { return std::clamp((date - from) / (to - from), 0.0, 1.0); }
};

ChartFrame frameOf(MetricKind kind, std::span<const MetricBucket> buckets, const Window& window) {
    using enum MetricKind;
    auto [low, high] =
        MetricChart::range(buckets, window.from, window.to).value_or(ChartRange{0, 1});
    if (kind == percent || isState(kind)) {
        low = kind == memoryPressure ? 1 : 0;
        high = kind == percent ? 100 : kind == thermalState ? 3 : 4;
    } else {
        const bool fromZero = kind == fan || kind == power || kind == current;
        const double least = kind == fan ? 500 : kind == voltage || kind == current ? 0.1 : 3;
        low = fromZero ? std::min(low, 0.0) : low;
        const double margin = std::max((high - low) * 0.06, (least - (high - low)) / 2);
        low -= fromZero && low == 0 ? 0 : margin;
        high += margin;
    }
    return {window.from, window.to, low, high, window.columns};
}

std::string place(double at) {
    return fixed(at * kPlaces);
}
std::string point(double x, double y) {
    return place(x) + " " + place(1 - y);
}

// The plot's frame: "hits" are what kPageScript shows under the cursor.
Html plot(std::string_view names, std::string_view unit, std::string_view hits, const Html& drawing,
          const Html& ticks, bool strip = false) {
    Html html;
    html << "<div class=\"plot" << (strip ? " strip" : "") << "\" data-names=\"" << names
         << "\" data-unit=\"" << unit << "\" data-hits=\"" << hits
         << "\"><svg viewBox=\"0 0 1000 1000\" "
            "preserveAspectRatio=\"none\">"
         << drawing << "</svg>" << ticks << "</div>";
    return html;
}

Html row(std::initializer_list<std::string_view> cells, bool heading = false) {
    Html html;
    html << "<tr>";
    for (const std::string_view cell : cells) {
        heading ? html << "<th>" << cell << "</th>" : html << "<td>" << cell << "</td>";
    }
    return html << "</tr>";
}

class Page {
public:
    Page(const MonitorHistories& histories, const PageMoment& moment)
        : histories_(histories), moment_(moment) {}

    Html head() const {
        Html html;
        html << "<h1>" << textOf(moment_.report.state) << "</h1><p class=\"soft\">" << when(now())
             << " · " << moment_.snapshot.assessment() << "</p><section><div class=\"tiles\">";
        std::vector<HardwareSensorReading> readings;
        for (const SensorReading& it : moment_.snapshot.sensors) {
            readings.push_back({it.key, it.label, HardwareSensorKind::temperature, it.celsius});
        }
        if (const auto& more = moment_.snapshot.additionalSensors) {
            readings.insert(readings.end(), more->begin(), more->end());
        }
        for (const auto& it : SensorCatalog::common(readings, currentNamingPlatform())) {
            html << "<div class=\"tile\" title=\"" << it.explanation << "\">" << it.title << "<b>"
                 << fixed(it.value, " ") << unit(it.kind) << "</b></div>";
        }
        return html << "</div></section>";
    }

    Html findings() const {
        Html html;
        const auto applications = histories_.processes().applications();
        for (const DiagnosticFinding& finding : moment_.report.findings) {
            constexpr std::array<std::string_view, 3> kSeverities{"", "warning", "critical"},
                kConfidences{"系统确认", "根据观察推断", "缺少数据"};
            html << "<li><span class=\"name " << kSeverities[std::size_t(finding.severity)] << "\">"
                 << textOf(finding) << "</span> <small>"
                 << kConfidences[std::size_t(finding.confidence)] << "</small>";
            if (finding.action) {
                auto meant = applicationsFor(*finding.action, applications);
                meant.resize(std::min<std::size_t>(meant.size(), 3));
                for (const ApplicationActivity& it : meant) {
                    html << "<small> · </small><span class=\"name soft\">" << it.name << "</span>";
                }
            }
            html << "</li>";
        }
        return html.empty() ? none("没有需要注意的情况") : Html() << "<ul>" << html << "</ul>";
    }

    Html trends() const {
        Html html;
        const auto pair = [&](const Metric& metric) {
            html << "<div class=\"pair\">"
                 << chart(metric, metric.history.hours().buckets(), day_, "24 小时")
                 << chart(metric, metric.history.minutes().buckets(), halfHour_, "30 分钟")
                 << "</div>";
        };
        using M = MetricHistories;
        const auto& metrics = histories_.metrics();
        for (const auto id : {M::kCpuTemperature, M::kGpuTemperature, M::kCpuUsage}) {
            if (const Metric* metric = metrics.find(id)) {
                pair(*metric);
            }
        }
        for (const auto& [id, metric] : metrics.all()) {
            if (id.starts_with("fan:")) {
                pair(metric);
            }
        }
        html << "<div class=\"cards\">";
        for (const auto id :
             {M::kMemoryPercent, M::kMemoryPressure, M::kThermalState, M::kBatteryPercent,
              M::kBatteryWatts, M::kSpeedLimit, M::kSchedulerLimit}) {
            if (const Metric* metric = metrics.find(id)) {
                html << chart(*metric, metric->history.hours().buckets(), card_, "24 小时");
            }
        }
        return html << "</div>";
    }

    Html load() const {
        std::array<std::string, kCpuLoadBands> areas;
        std::string names, hits;
        Html html, drawing;
        html << "<p>";
        for (const auto& [band, number] : RawEnum<CpuLoadBand>::cases) {
            names += (names.empty() ? "" : "|") + std::string(title(band));
            html << legend(number, title(band));
        }
        const auto& stretches = histories_.load().day();
        for (const ChartBar& bar : MetricChart::loadBars(stretches, day_.from, day_.to)) {
            double below = 0;
            const Date from = day_.from + bar.left * (day_.to - day_.from);
            hits +=
                place(bar.left) + "|" + span(from, day_.from + bar.right * (day_.to - day_.from));
            for (std::size_t band = 0; band < kCpuLoadBands; ++band) {
                const double top = bar.tops[band];
                areas[band] += "M" + point(bar.left, below) + "H" + place(bar.right) + "V" +
                               place(1 - top) + "H" + place(bar.left) + "Z";
                hits += "|" + (top > below ? fixed((top - below) * 100) + " %" : "");
                below = top;
            }
            hits += ";" + place(bar.right) + "|;";
        }
        for (std::size_t band = 0; band < kCpuLoadBands; ++band) {
            drawing << "<path class=\"b" << std::to_string(band) << "\" d=\"" << areas[band]
                    << "\"/>";
        }
        html << "</p>" << plot(names, "", hits, drawing, timeTicks(day_)) << "<h3>持续负载</h3>";
        auto periods = histories_.sustained().ended();
        if (const auto current = histories_.sustained().current()) {
            periods.push_back(*current);
        }
        if (periods.empty()) {
            return html << none("没有");
        }
        Strip strip(*this);
        Html rows;
        for (const SustainedLoadPeriod& it : periods) {
            const std::string mean = fixed(it.mean) + " %", peak = fixed(it.peak) + " %";
            strip.add(it.from, it.to, 3, "平均 " + mean + "，最高 " + peak);
            rows << row({span(it.from, it.to), lasting(it.seconds()), mean, peak});
        }
        return html << strip.html() << "<details><summary>" << std::to_string(periods.size())
                    << " 段</summary>" << table({"时间", "持续", "平均", "最高"}, rows)
                    << "</details>";
    }

    Html turbo() const {
        Strip strip(*this);
        for (const TurboPeriod& it : histories_.turbo().periods()) {
            const int band = it.state == TurboState::disabledDriverLoaded ? 1
                             : it.state == TurboState::driverNotLoaded    ? 3
                                                                          : 0;
            strip.add(it.from, it.to, band,
                      std::string(title(it.state)) + "，负载 " + measure(it.load, " %") + "，CPU " +
                          measure(it.temperature, " °C"));
        }
        Html rows;
        for (const TurboChange& it : histories_.turbo().changes()) {
            rows << row({when(it.date), title(it.state),
                         measure(it.loadBefore, " %") + " → " + measure(it.loadAfter, " %"),
                         measure(it.temperatureBefore, " °C") + " → " +
                             measure(it.temperatureAfter, " °C")});
        }
        return legend(1, title(TurboState::disabledDriverLoaded))
               << legend(3, title(TurboState::driverNotLoaded)) << strip.html()
               << table({"更改", "状态", "前后一分钟的负载", "CPU 温度"}, rows);
    }

    Html assessment() const {
        const OptimizationProgress progress = histories_.assessment().progress();
        const OptimizationResult result = histories_.assessment().assess();
        Html html, rows;
        html << "<p>" << title(progress.phase);
        if (progress.interruption) {
            html << "（" << title(*progress.interruption) << "）";
        }
        if (progress.secondsLeft > 0) {
            html << "，还需 " << lasting(progress.secondsLeft);
        }
        if (progress.phase == OptimizationPhase::noChange) {
            return html << "</p>";
        }
        html << " · <b>" << title(result.verdict) << "</b></p>";
        const auto compare = [&](const char* name, const char* unit, const auto& it) {
            if (it) {
                rows << row({name, fixed(it->before, 1) + unit, fixed(it->after, 1) + unit,
                             (it->change() > 0 ? "+" : "") + fixed(it->change(), 1) + unit});
            }
        };
        compare("处理器使用率", " %", result.cpuUsage);
        compare("CPU 温度", " °C", result.cpuTemperature);
        compare("最快的风扇", " RPM", result.fanRpm);
        compare("功率", " W", result.watts);
        return html << table({"中位数", "更改前", "更改后", "变化"}, rows);
    }

    Html applications() const {
        auto all = histories_.processes().applications();
        std::ranges::stable_sort(all, std::ranges::greater{}, [](const auto& it) {
            return std::pair(it.figures.averageCPU.value_or(-1), it.figures.memoryBytes);
        });
        const std::size_t left = all.size() - std::min(all.size(), kMostApplications);
        all.resize(all.size() - left);
        Html rows;
        for (const ApplicationActivity& it : all) {
            Html name;
            name << "<details><summary>" << it.name << " <small>"
                 << std::to_string(it.members.size()) << "</small></summary>";
            for (std::size_t i = 0; i < std::min(it.members.size(), kMostMembers); ++i) {
                const auto& [pid, uid, process, used] = it.members[i];
                name << "<p class=\"soft\">" << std::to_string(pid) << " " << process << " · "
                     << fixed(used.averageCPU, " %", 1) << " · " << bytes(used.averageRead, "/s")
                     << " · " << bytes(used.averageWritten, "/s") << " · "
                     << bytes(double(used.memoryBytes)) << " · " << std::to_string(uid) << "</p>";
            }
            rows << "<tr><td class=\"name\">" << name << "</details></td>";
            for (const std::string& cell :
                 {fixed(it.figures.averageCPU, " %", 1), fixed(it.figures.currentCPU, " %", 1),
                  bytes(it.figures.averageRead, "/s"), bytes(it.figures.currentRead, "/s"),
                  bytes(it.figures.averageWritten, "/s"), bytes(it.figures.currentWritten, "/s"),
                  bytes(double(it.figures.memoryBytes)), std::to_string(it.uid)}) {
                rows << "<td>" << cell << "</td>";
            }
            rows << "</tr>";
        }
        Html html =
            table({"应用", "处理器", "目前", "读取", "目前", "写入", "目前", "内存", "用户"}, rows);
        if (left > 0) {
            html << "<p class=\"soft\">另有 " << std::to_string(left) << " 个</p>";
        }
        return html;
    }

    Html health() const {
        Html html, rows;
        for (const HealthFinding& finding : histories_.health().findings()) {
            html << "<li class=\"name\">" << text(finding) << "</li>";
        }
        html = html.empty() ? none("风扇、传感器和散热没有发现异常")
                            : Html() << "<ul>" << html << "</ul>";
        for (const FanReading& fan : moment_.snapshot.fans) {
            rows << row({std::to_string(fan.id + 1), fixed(fan.rpm, ""), fixed(fan.minimum, ""),
                         fixed(fan.maximum, ""),
                         !fan.manual   ? "—"
                         : *fan.manual ? "手动"
                                       : "系统自动"});
        }
        return html << table({"风扇", "RPM", "额定最低", "额定最高", "控制"}, rows);
    }

    // The inventory: every sensor of the day, vanished ones too, by the part that it belongs to.
    Html sensors() const {
        const auto last = MetricHistories::readings(moment_.snapshot);
        std::array<Html, kAllSensorComponents.size()> cards;
        for (const auto& [id, metric] : histories_.metrics().all()) {
            constexpr std::string_view kPrefix = "sensor:";
            if (!id.starts_with(kPrefix)) {
                continue;
            }
            const std::string key = id.substr(kPrefix.size());
            const auto kind = fromRawValue<HardwareSensorKind>(rawValue(metric.kind));
            const auto meaning =
                kind ? SensorCatalog::meaning({key, metric.label, *kind}, currentNamingPlatform())
                     : std::nullopt;
            const auto reading = std::ranges::find(last, id, &MetricReading::id);
            const bool gone = reading == last.end() || !reading->value;
            auto& html =
                cards[std::size_t(meaning ? meaning->component : SensorComponent::unknown)];
            html << "<div>"
                 << chart(metric, metric.history.hours().buckets(), card_,
                          gone ? key + " 已消失" : key,
                          meaning ? std::string(meaning->explanation) : "")
                 << "</div>";
        }
        Html html;
        for (const SensorComponent component : kAllSensorComponents) {
            const Html& some = cards[std::size_t(component)];
            if (!some.empty()) {
                html << "<details"
                     << (component == SensorComponent::unknown ? Html() : Html() << " open=\"\"")
                     << "><summary>" << title(component) << "</summary><div class=\"cards\">"
                     << some << "</div></details>";
            }
        }
        return html;
    }

    // What the common curves would have done on these days, and the quietest for a wish.
    Html curves() const {
        FanRange range;
        const auto& fans = moment_.snapshot.fans;
        for (const FanReading& fan : fans) {
            range.minimum += fan.minimum.value_or(NAN) / double(fans.size());
            range.maximum += fan.maximum.value_or(NAN) / double(fans.size());
        }
        const HeatFit fit = HeatFit::of(moment_.days, range);
        if (fit.refusal) {
            return none(title(*fit.refusal));
        }
        Html html;
        const auto answer = [&](std::string_view name, const auto& curveOf) {
            html << "<h3>" << name << "</h3>";
            try {
                const FanCurve curve = curveOf();
                html << "<p class=\"soft\">";
                for (const CurvePoint& it : curve.points) {
                    html << fixed(it.temperature) << " °C " << fixed(it.percent) << " % · ";
                }
                const CurveWhatIf told = whatIf(fit, moment_.days, std::nullopt, curve);
                Html rows;
                for (std::size_t i = 0; i < kCurveFigures; ++i) {
                    const auto& [change, low, high] = told.differences[i];
                    rows << row({title(CurveFigure(i)), fixed(told.before[i], 1),
                                 fixed(told.after[i], 1), fixed(change, 1),
                                 fixed(low, 1) + " – " + fixed(high, 1)});
                }
                for (const CurveNote note : told.notes) {
                    html << title(note) << "。";
                }
                html << "</p>" << table({"每天", "系统自动", "曲线", "变化", "范围"}, rows);
            } catch (const ScopeError& error) {
                html << describe(error) << "</p>";
            }
        };
        for (const Profile it : {Profile::quiet, Profile::balanced, Profile::performance}) {
            answer(rawValue(it), [&] { return curve(it); });
        }
        answer("不超过 " + fixed(kWishedCelsius) + " °C 的最安静曲线",
               [&] { return quietestCurve(fit, moment_.days, kWishedCelsius, CurveSensor::cpu); });
        return html;
    }

    Html events() const {
        const auto& all = histories_.recorder().state().events;
        Html rows;
        for (std::size_t i = all.size() - std::min(all.size(), kMostEvents); i < all.size(); ++i) {
            rows << row({when(all[i].date), rawValue(all[i].kind), all[i].names, all[i].text});
        }
        return rows.empty() ? none("没有")
                            : Html() << "<div class=\"texts\">"
                                     << table({"时间", "事件", "名称", "内容"}, rows) << "</div>";
    }

private:
    // Periods of the day side by side.
    class Strip {
    public:
        explicit Strip(const Page& page) : page_(page) {}
        void add(Date from, Date to, int band, const std::string& text) {
            const double left = page_.day_.place(from), right = page_.day_.place(to);
            drawing_ << "<path class=\"b" << std::to_string(band) << "\" d=\"M" << point(left, 0)
                     << "V0H" << place(right) << "V1000Z\"/>";
            hits_ +=
                place(left) + "|" + page_.span(from, to) + "|" + text + ";" + place(right) + "|;";
        }
        Html html() const {
            return plot("", "", hits_, drawing_, page_.timeTicks(page_.day_), true);
        }

    private:
        const Page& page_;
        Html drawing_;
        std::string hits_;
    };

    Date now() const { return moment_.snapshot.date; }
    std::string when(Date date) const {
        std::string text = iso8601(date + moment_.offset(date)).substr(0, 19);
        return text.replace(10, 1, " ");
    }
    std::string clock(Date date, std::size_t length = 5) const {
        return when(date).substr(11, length);
    }
    std::string span(Date from, Date to, std::size_t length = 5) const {
        const std::string first = clock(from, length), last = clock(to, length);
        return first == last ? first : first + "–" + last;
    }
    static std::string measure(const std::optional<TurboMeasure>& it, const char* unit) {
        return it ? fixed(it->mean, 1) + unit : "—";
    }
    static Html legend(int band, std::string_view title) {
        return Html() << "<span class=\"key\"><i class=\"b" << std::to_string(band) << "\"></i>"
                      << title << "</span> ";
    }
    static Html none(std::string_view text) {
        return Html() << "<p class=\"soft\">" << text << "</p>";
    }
    static Html table(std::initializer_list<std::string_view> heading, const Html& rows) {
        return rows.empty() ? Html()
                            : Html() << "<div class=\"wide\"><table>" << row(heading, true) << rows
                                     << "</table></div>";
    }
    Html timeTicks(const Window& window) const {
        Html html;
        const ChartFrame frame{window.from, window.to, 0, 1, window.columns};
        for (const auto& [at, label] :
             MetricChart::timeTicks(frame, window.ticks, moment_.offset)) {
            html << "<span class=\"x\" style=\"left:" << fixed(at * 100, 1) << "%\">" << label
                 << "</span>";
        }
        return html;
    }

    Html chart(const Metric& metric, std::span<const MetricBucket> buckets, const Window& window,
               std::string_view note, std::string_view explanation = {}) const {
        const ChartFrame frame = frameOf(metric.kind, buckets, window);
        const auto stretches = MetricChart::stretches(buckets, frame);
        std::string line, band, rules, hits;
        for (const ChartStretch& stretch : stretches) {
            std::string upper, lower;
            for (const ChartColumn& it : stretch) {
                line += (upper.empty() ? "M" : "L") + point(it.x, it.mean);
                upper += (upper.empty() ? "M" : "L") + point(it.x, it.high);
                lower.insert(0, "L" + point(it.x, it.low));
            }
            line += stretch.size() == 1 ? "h0" : "";
            band += upper + lower + "Z";
        }
        std::optional<MetricBucket> before;
        for (int column = 0; column < window.columns; ++column) {
            const double left = double(column) / window.columns;
            const auto it = MetricChart::bucketAt(stretches, frame, left + 0.5 / window.columns);
            if (column == 0 || it != before) {
                hits += place(left) + "|";
                hits += !it ? ";"
                            : span(it->first, it->last, window.clockLength) + "|" +
                                  (isState(metric.kind) ? "" : figure(it->mean, metric.kind)) +
                                  "|" + figure(it->minimum, metric.kind) + "|" +
                                  figure(it->maximum, metric.kind) + ";";
            }
            before = it;
        }
        Html ticks = timeTicks(window);
        for (const auto& [at, label] : MetricChart::valueTicks(frame, 4)) {
            rules += "M0 " + place(1 - at) + "H1000";
            ticks << "<span class=\"y\" style=\"bottom:" << fixed(at * 100, 1) << "%\">"
                  << (isState(metric.kind) ? stateText(metric.kind, std::stod(label)) : label)
                  << "</span>";
        }
        Html html, drawing;
        html << "<figure title=\"" << explanation << "\"><figcaption><span class=\"name\">"
             << metric.label << "</span><small>" << note << "</small><b>";
        if (const auto last = metric.history.minutes().buckets(); !last.empty()) {
            html << figure(last.back().mean, metric.kind) << unitText(metric.kind);
        }
        drawing << "<path class=\"rule\" d=\"" << rules << "\"/><path class=\"band\" d=\"" << band
                << "\"/><path class=\"line\" d=\"" << line << "\"/>";
        return html << "</b></figcaption>"
                    << plot("平均|最低|最高", unitText(metric.kind), hits, drawing, ticks)
                    << "</figure>";
    }

    const MonitorHistories& histories_;
    const PageMoment& moment_;
    const Window day_{now() - MetricHistory::kHoursSpanSeconds, now(), 288, 9};
    const Window halfHour_{now() - MetricHistory::kMinutesSpanSeconds, now(), 180, 4, 8};
    const Window card_{day_.from, day_.to, 96, 4};
};

}  // namespace

std::string pageOf(const MonitorHistories& histories, const PageMoment& moment) {
    const Page page(histories, moment);
    Html html;
    html << "<!DOCTYPE html>\n<html lang=\"zh-Hans\"><head>"
            "<meta charset=\"utf-8\"/><meta http-equiv=\"Content-Security-Policy\" content=\""
            "default-src 'none'; style-src 'unsafe-inline'; base-uri 'none'; form-action 'none'; "
            "script-src '"
         << kScriptHash
         << "'\"/><meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>"
            "<title>"
         << textOf(moment.report.state) << "</title><style>" << kPageStyle
         << "</style></head><body><main>" << page.head();
    for (const auto& [title, content] : std::initializer_list<std::pair<std::string_view, Html>>{
             {"诊断", page.findings()},
             {"风扇与传感器健康", page.health()},
             {"趋势", page.trends()},
             {"处理器负载", page.load()},
             {"应用", page.applications()},
             {"睿频", page.turbo()},
             {"优化评估", page.assessment()},
             {"曲线试算", page.curves()},
             {"传感器", page.sensors()},
             {"记录", page.events()}}) {
        html << "<section><h2>" << title << "</h2>" << content << "</section>";
    }
    html << "</main><div id=\"tip\"></div><script>" << kPageScript << "</script></body></html>\n";
    return html.text();
}
