#include "examples/page.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <functional>
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
constexpr double kWishedCelsius = 85;

// A literal is markup, and all other text is escaped: no name that a machine or a process bears
// becomes markup.
class Html {
public:
    template <class... Parts>
    explicit Html(const Parts&... parts) {
        add(parts...);
    }
    template <class... Parts>
    Html& add(const Parts&... parts) {
        (one(parts), ...);
        return *this;
    }
    bool empty() const { return text_.empty(); }
    const std::string& text() const { return text_; }

private:
    template <std::size_t N>
    void one(const char (&markup)[N]) {
        text_.append(markup, N - 1);
    }
    void one(const Html& markup) { text_ += markup.text_; }
    void one(std::string_view text) {
        for (const char c : repairUtf8(text)) {
            if (std::string_view("&<>\"'").find(c) != std::string_view::npos) {
                text_ += "&#" + std::to_string(int(c)) + ";";
            } else if ((c >= 0 && c < ' ' && c != '\n' && c != '\t') || c == '\x7f') {
                text_ += kReplacementCharacter;
            } else {
                text_ += c;
            }
        }
    }

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
    const long minutes = std::lround(seconds / 60);
    return seconds < 60 ? fixed(seconds) + " 秒"
           : minutes < 60
               ? std::to_string(minutes) + " 分钟"
               : std::to_string(minutes / 60) + " 小时 " + std::to_string(minutes % 60) + " 分钟";
}

bool isState(MetricKind kind) {
    return kind == MetricKind::thermalState || kind == MetricKind::memoryPressure;
}
std::string figure(double value, MetricKind kind) {
    using enum MetricKind;
    Snapshot state;
    state.thermalState = int(std::lround(value));
    if (kind == memoryPressure) {
        const auto pressure = fromRawValue<MemoryPressure>(state.thermalState);
        return pressure ? std::string(title(*pressure)) : "";
    }
    return kind == thermalState
               ? std::string(state.thermalTitle())
               : fixed(value, kind == voltage || kind == current ? 2 : kind != fan);
}
std::string unitOf(MetricKind kind) {
    return unit(kind).empty() ? "" : " " + std::string(unit(kind));
}

// What a chart shows of time, and how finely.
struct Window {
    Date from, to;
    int columns = 0, ticks = 0;
    std::size_t clockLength = 5;  // "HH:MM"
};

ChartFrame frameOf(MetricKind kind, std::span<const MetricBucket> buckets, const Window& window) {
    using enum MetricKind;
    auto [low, high] = MetricChart::range(buckets, window.from, window.to).value_or(ChartRange());
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

// In a drawing, whose sides are a thousand long.
std::string place(double at) {
    return fixed(at * 1000);
}
std::string point(double x, double y) {
    return place(x) + " " + place(1 - y);
}
std::string box(double left, double right, double bottom, double top) {
    return "M" + point(left, bottom) + "H" + place(right) + "V" + place(1 - top) + "H" +
           place(left) + "Z";
}

// What kPageScript shows under the cursor, from a place on.
std::string hit(double at, const std::string& time, std::initializer_list<std::string> figures) {
    std::string text = place(at) + "|" + time;
    for (const std::string& it : figures) {
        text += "|" + it;
    }
    return text + ";";
}

Html plot(std::string_view names, std::string_view unit, std::string_view hits, const Html& drawing,
          const Html& ticks, std::string_view form = "") {
    return Html("<div class=\"plot ", form, "\" data-names=\"", names, "\" data-unit=\"", unit,
                "\" data-hits=\"", hits,
                "\"><svg viewBox=\"0 0 1000 1000\" preserveAspectRatio=\"none\">", drawing,
                "</svg>", ticks, "</div>");
}

Html none(std::string_view text) {
    return Html("<p class=\"soft\">", text, "</p>");
}

Html legend(int band, std::string_view title) {
    return Html("<span class=\"key\"><i class=\"b", std::to_string(band), "\"></i>", title,
                "</span> ");
}

using Cells = std::vector<std::string>;

Html table(const Cells& heading, const std::vector<Cells>& rows, std::string_view form = "") {
    Html html("<div class=\"wide ", form, "\"><table><tr>");
    for (const std::string& cell : heading) {
        html.add("<th>", cell, "</th>");
    }
    for (const Cells& row : rows) {
        html.add("</tr><tr>");
        for (const std::string& cell : row) {
            html.add("<td>", cell, "</td>");
        }
    }
    return rows.empty() ? none("没有") : html.add("</tr></table></div>");
}

struct Period {
    Date from, to;
    int band = 0;  // whose colour it has
    std::string text;
};

class Page {
public:
    Page(const MonitorHistories& histories, const PageMoment& moment)
        : histories_(histories), moment_(moment) {}

    Html head() const {
        Html html("<h1>", textOf(moment_.report.state), "</h1><p class=\"soft\">", when(now_),
                  " · ", moment_.snapshot.assessment(), "</p><section><div class=\"tiles\">");
        for (const CommonSensorReading& it : commonSensors(moment_.snapshot)) {
            html.add("<div class=\"tile\" title=\"", it.explanation, "\">", it.title, "<b>",
                     fixed(it.value, " "), unit(it.kind), "</b></div>");
        }
        return html.add("</div></section>");
    }

    Html findings() const {
        constexpr std::array<std::string_view, 3> kSeverities{"", "warning", "critical"},
            kConfidences{"系统确认", "根据观察推断", "缺少数据"};
        Html html("<ul>");
        for (const DiagnosticFinding& finding : moment_.report.findings) {
            html.add("<li><span class=\"name ", kSeverities[std::size_t(finding.severity)], "\">",
                     textOf(finding), "</span> <small>",
                     kConfidences[std::size_t(finding.confidence)], "</small>");
            auto meant = applicationsFor(finding.action.value_or(DiagnosticAction()),
                                         histories_.processes().applications());
            meant.resize(std::min<std::size_t>(meant.size(), 3));
            for (const ApplicationActivity& it : meant) {
                html.add(" · <small class=\"name\">", it.name, "</small>");
            }
            html.add("</li>");
        }
        return moment_.report.findings.empty() ? none("目前没有发现") : html.add("</ul>");
    }

    Html health() const {
        Html html("<ul>");
        const auto findings = histories_.health().findings();
        for (const HealthFinding& finding : findings) {
            html.add("<li class=\"name\">", text(finding), "</li>");
        }
        std::vector<Cells> rows;
        for (const FanReading& fan : moment_.snapshot.fans) {
            const auto controlled =
                fan.manual ? std::optional(*fan.manual ? "手动" : "系统自动") : std::nullopt;
            rows.push_back({std::to_string(fan.id + 1), fixed(fan.rpm, ""), fixed(fan.minimum, ""),
                            fixed(fan.maximum, ""), controlled.value_or("—")});
        }
        return Html(findings.empty() ? none("目前没有发现异常") : html.add("</ul>"),
                    table({"风扇", "RPM", "额定最低", "额定最高", "控制"}, rows));
    }

    Html trends() const {
        using M = MetricHistories;
        std::vector<std::string_view> wide{M::kCpuTemperature, M::kGpuTemperature, M::kCpuUsage};
        for (const auto& [id, metric] : histories_.metrics().all()) {
            if (id.starts_with("fan:")) {
                wide.push_back(id);
            }
        }
        Html html, cards;
        for (const auto id : wide) {
            if (const Metric* metric = histories_.metrics().find(id)) {
                html.add("<div class=\"pair\">",
                         chart(*metric, metric->history.hours(), day_, "24 小时"),
                         chart(*metric, metric->history.minutes(), halfHour_, "30 分钟"), "</div>");
            }
        }
        for (const auto id :
             {M::kMemoryPercent, M::kMemoryPressure, M::kThermalState, M::kBatteryPercent,
              M::kBatteryWatts, M::kSpeedLimit, M::kSchedulerLimit}) {
            if (const Metric* metric = histories_.metrics().find(id)) {
                cards.add(chart(*metric, metric->history.hours(), card_, "24 小时"));
            }
        }
        return html.add("<div class=\"cards\">", cards, "</div>");
    }

    Html load() const {
        std::array<std::string, kCpuLoadBands> areas;
        std::string names, hits;
        Html keys, drawing;
        for (const auto& bar : MetricChart::loadBars(histories_.load().day(), day_.from, day_.to)) {
            std::array<std::string, kCpuLoadBands> shares;
            for (std::size_t band = 0; band < kCpuLoadBands; ++band) {
                const double below = band == 0 ? 0 : bar.tops[band - 1], top = bar.tops[band];
                areas[band] += box(bar.left, bar.right, below, top);
                shares[band] = top > below ? fixed((top - below) * 100) + " %" : "";
            }
            const double seconds = day_.to - day_.from;
            hits +=
                hit(bar.left, span(day_.from + bar.left * seconds, day_.from + bar.right * seconds),
                    {shares[0], shares[1], shares[2], shares[3], shares[4]}) +
                hit(bar.right, "", {});
        }
        for (const auto& [band, number] : RawEnum<CpuLoadBand>::cases) {
            names += (names.empty() ? "" : "|") + std::string(title(band));
            keys.add(legend(number, title(band)));
            drawing.add("<path class=\"b", std::to_string(number), "\" d=\"",
                        areas[std::size_t(number)], "\"/>");
        }
        auto all = histories_.sustained().ended();
        if (const auto current = histories_.sustained().current()) {
            all.push_back(*current);
        }
        std::vector<Period> periods;
        std::vector<Cells> rows;
        for (const SustainedLoadPeriod& it : all) {
            const std::string mean = fixed(it.mean) + " %", peak = fixed(it.peak) + " %";
            periods.push_back({it.from, it.to, 3, "平均 " + mean + "，最高 " + peak});
            rows.push_back({span(it.from, it.to), lasting(it.seconds()), mean, peak});
        }
        return keys.add(plot(names, "", hits, drawing, timeTicks(day_)), "<h3>持续负载</h3>",
                        strip(periods), "<details><summary>", std::to_string(all.size()),
                        " 段</summary>", table({"时间", "持续", "平均", "最高"}, rows),
                        "</details>");
    }

    Html turbo() const {
        const auto measure = [](const std::optional<TurboMeasure>& it, const char* unit) {
            return it ? fixed(it->mean, 1) + unit : "—";
        };
        std::vector<Period> periods;
        for (const TurboPeriod& it : histories_.turbo().periods()) {
            periods.push_back({it.from, it.to, it.state == TurboState::driverNotLoaded ? 3 : 1,
                               std::string(title(it.state)) + "，负载 " + measure(it.load, " %") +
                                   "，CPU " + measure(it.temperature, " °C")});
        }
        std::vector<Cells> rows;
        for (const TurboChange& it : histories_.turbo().changes()) {
            rows.push_back({when(it.date), std::string(title(it.state)),
                            measure(it.loadBefore, " %") + " → " + measure(it.loadAfter, " %"),
                            measure(it.temperatureBefore, " °C") + " → " +
                                measure(it.temperatureAfter, " °C")});
        }
        return Html(legend(1, title(TurboState::disabledDriverLoaded)),
                    legend(3, title(TurboState::driverNotLoaded)), strip(periods),
                    table({"更改", "状态", "前后一分钟的负载", "CPU 温度"}, rows));
    }

    Html assessment() const {
        const auto [phase, interruption, left] = histories_.assessment().progress();
        const OptimizationResult result = histories_.assessment().assess();
        Html html("<p>", title(phase));
        if (interruption) {
            html.add("（", title(*interruption), "）");
        }
        if (left > 0) {
            html.add("，还需 ", lasting(left));
        }
        if (phase == OptimizationPhase::noChange) {
            return html.add("</p>");
        }
        std::vector<Cells> rows;
        const auto compare = [&](const char* name, const std::string& unit, const auto& it) {
            if (it) {
                rows.push_back({name, fixed(it->before, 1) + unit, fixed(it->after, 1) + unit,
                                (it->change() > 0 ? "+" : "") + fixed(it->change(), 1) + unit});
            }
        };
        compare("处理器使用率", " %", result.cpuUsage);
        compare("CPU 温度", " °C", result.cpuTemperature);
        compare("最快的风扇", " RPM", result.fanRpm);
        compare("功率", " W", result.watts);
        return html.add(" · <b>", title(result.verdict), "</b></p>",
                        table({"中位数", "更改前", "更改后", "变化"}, rows));
    }

    Html applications() const {
        const auto cells = [](const ActivityFigures& it, std::uint32_t uid) {
            return Cells{fixed(it.averageCPU, " %", 1),  fixed(it.currentCPU, " %", 1),
                         bytes(it.averageRead, "/s"),    bytes(it.currentRead, "/s"),
                         bytes(it.averageWritten, "/s"), bytes(it.currentWritten, "/s"),
                         bytes(double(it.memoryBytes)),  std::to_string(uid)};
        };
        auto all = histories_.processes().applications();
        std::ranges::stable_sort(all, std::ranges::greater{}, [](const auto& it) {
            return std::pair(it.figures.averageCPU.value_or(-1), it.figures.memoryBytes);
        });
        const std::size_t shown = std::min(all.size(), kMostApplications);
        Html html(
            "<div class=\"wide\"><table><tr><th>应用</th><th>处理器</th><th>目前</th><th>读取</th>"
            "<th>目前</th><th>写入</th><th>目前</th><th>内存</th><th>用户</th></tr>");
        for (const ApplicationActivity& it : std::span(all).first(shown)) {
            html.add("<tr><td class=\"name\"><details><summary>", it.name, " <small>",
                     std::to_string(it.members.size()), "</small></summary>");
            for (std::size_t i = 0; i < std::min(it.members.size(), kMostMembers); ++i) {
                const ProcessMember& member = it.members[i];
                html.add("<p class=\"soft\">", std::to_string(member.pid), " ", member.name);
                for (const std::string& cell : cells(member.figures, member.uid)) {
                    html.add(" · ", cell);
                }
                html.add("</p>");
            }
            html.add("</details></td>");
            for (const std::string& cell : cells(it.figures, it.uid)) {
                html.add("<td>", cell, "</td>");
            }
            html.add("</tr>");
        }
        return html.add("</table></div><p class=\"soft\">另有 ", std::to_string(all.size() - shown),
                        " 个</p>");
    }

    // The inventory: every sensor of the day, vanished ones too, by the part that it belongs to.
    Html sensors() const {
        constexpr std::string_view kPrefix = "sensor:";
        const auto last = MetricHistories::readings(moment_.snapshot);
        std::array<Html, kAllSensorComponents.size()> cards;
        for (const auto& [id, metric] : histories_.metrics().all()) {
            const auto kind = fromRawValue<HardwareSensorKind>(rawValue(metric.kind));
            if (!id.starts_with(kPrefix) || !kind) {
                continue;
            }
            const std::string key = id.substr(kPrefix.size());
            const auto meaning =
                SensorCatalog::meaning({key, metric.label, *kind}, currentNamingPlatform())
                    .value_or(SensorMeaning());
            std::string note = metric.label.find(key) == std::string::npos ? key : "";
            if (std::ranges::find(last, id, &MetricReading::id) == last.end()) {
                note += " 已消失";
            }
            cards[std::size_t(meaning.component)].add(
                chart(metric, metric.history.hours(), card_, note, meaning.explanation));
        }
        Html html;
        for (const SensorComponent it : kAllSensorComponents) {
            if (const Html& some = cards[std::size_t(it)]; !some.empty()) {
                html.add(it == SensorComponent::unknown ? Html("<details>")
                                                        : Html("<details open=\"\">"),
                         "<summary>", title(it), "</summary><div class=\"cards\">", some,
                         "</div></details>");
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
        Cells heading{"每天", "记录"};
        std::vector<Cells> rows(kCurveFigures);
        const auto answer = [&](const std::string& name, const std::function<FanCurve()>& curveOf) {
            html.add("<p><b>", name, "</b> <span class=\"soft\">");
            try {
                const FanCurve curve = curveOf();
                const CurveWhatIf told = whatIf(fit, moment_.days, std::nullopt, curve);
                for (const CurvePoint& it : curve.points) {
                    html.add(fixed(it.temperature), " °C ", fixed(it.percent), " % · ");
                }
                for (const CurveNote note : told.notes) {
                    html.add(title(note), "。");
                }
                heading.insert(heading.end(), {name, "变化"});
                for (std::size_t i = 0; i < kCurveFigures; ++i) {
                    const auto& [change, low, high] = told.differences[i];
                    rows[i].resize(std::max<std::size_t>(rows[i].size(), 2),
                                   fixed(told.before[i], 1));
                    rows[i][0] = title(CurveFigure(i));
                    rows[i].insert(rows[i].end(), {fixed(told.after[i], 1),
                                                   fixed(low, 1) + " 至 " + fixed(high, 1)});
                }
            } catch (const ScopeError& error) {
                html.add(describe(error));
            }
            html.add("</span></p>");
        };
        for (const Profile it : {Profile::quiet, Profile::balanced, Profile::performance}) {
            answer(std::string(rawValue(it)), [&] { return curve(it); });
        }
        answer("最安静，不超过 " + fixed(kWishedCelsius) + " °C",
               [&] { return quietestCurve(fit, moment_.days, kWishedCelsius, CurveSensor::cpu); });
        return html.add(table(heading, rows));
    }

    Html events() const {
        const auto& all = histories_.recorder().state().events;
        std::vector<Cells> rows;
        for (std::size_t i = all.size() - std::min(all.size(), kMostEvents); i < all.size(); ++i) {
            rows.push_back(
                {when(all[i].date), std::string(rawValue(all[i].kind)), all[i].names, all[i].text});
        }
        return table({"时间", "事件", "名称", "内容"}, rows, "texts");
    }

private:
    std::string when(Date date) const {
        return iso8601(date + moment_.offset(date)).substr(0, 19).replace(10, 1, " ");
    }
    std::string span(Date from, Date to, std::size_t length = 5) const {
        const std::string first = when(from).substr(11, length), last = when(to).substr(11, length);
        return first == last ? first : first + "–" + last;
    }

    Html timeTicks(const Window& window) const {
        Html html;
        const ChartFrame frame{window.from, window.to, 0, 1, window.columns};
        for (const auto& [at, label] :
             MetricChart::timeTicks(frame, window.ticks, moment_.offset)) {
            html.add("<span class=\"x\" style=\"left:", fixed(at * 100, 1), "%\">", label,
                     "</span>");
        }
        return html;
    }

    // Of the day, side by side.
    Html strip(const std::vector<Period>& periods) const {
        const auto at = [this](Date date) {
            return std::clamp((date - day_.from) / (day_.to - day_.from), 0.0, 1.0);
        };
        Html drawing;
        std::string hits;
        for (const auto& [from, to, band, text] : periods) {
            drawing.add("<path class=\"b", std::to_string(band), "\" d=\"",
                        box(at(from), at(to), 0, 1), "\"/>");
            hits += hit(at(from), span(from, to), {text}) + hit(at(to), "", {});
        }
        return plot("", "", hits, drawing, timeTicks(day_), "strip");
    }

    Html chart(const Metric& metric, const MetricSeries& series, const Window& window,
               std::string_view note, std::string_view explanation = {}) const {
        const MetricKind kind = metric.kind;
        const ChartFrame frame = frameOf(kind, series.buckets(), window);
        const auto stretches = MetricChart::stretches(series.buckets(), frame);
        std::string line, band, rules, hits;
        for (const ChartStretch& stretch : stretches) {
            std::string upper, lower;
            for (const ChartColumn& it : stretch) {
                const char* const pen = upper.empty() ? "M" : "L";
                line += pen + point(it.x, it.mean);
                upper += pen + point(it.x, it.high);
                lower.insert(0, "L" + point(it.x, it.low));
            }
            line += stretch.size() == 1 ? "m-2 0h4" : "";  // seen at all
            band += upper + lower + "Z";
        }
        std::optional<MetricBucket> before;
        for (int column = 0; column < window.columns; ++column) {
            const double left = double(column) / window.columns;
            const auto it = MetricChart::bucketAt(stretches, frame, left + 0.5 / window.columns);
            if (it && it != before) {
                hits += hit(left, span(it->first, it->last, window.clockLength),
                            {isState(kind) ? "" : figure(it->mean, kind), figure(it->minimum, kind),
                             figure(it->maximum, kind)});
            } else if (before && !it) {
                hits += hit(left, "", {});
            }
            before = it;
        }
        Html ticks = timeTicks(window);
        for (const auto& [at, label] : MetricChart::valueTicks(frame, 4)) {
            rules += "M0 " + place(1 - at) + "H1000";
            ticks.add("<span class=\"y\" style=\"bottom:", fixed(at * 100, 1), "%\">",
                      isState(kind) ? figure(std::stod(label), kind) : label, "</span>");
        }
        const auto lately = metric.history.minutes().buckets();
        return Html("<figure title=\"", explanation, "\"><figcaption><span class=\"name\">",
                    metric.label, "</span><small>", note, "</small><b>",
                    lately.empty() ? "—" : figure(lately.back().mean, kind) + unitOf(kind),
                    "</b></figcaption>",
                    plot("平均|最低|最高", unitOf(kind), hits,
                         Html("<path class=\"rule\" d=\"", rules, "\"/><path class=\"band\" d=\"",
                              band, "\"/><path class=\"line\" d=\"", line, "\"/>"),
                         ticks),
                    "</figure>");
    }

    const MonitorHistories& histories_;
    const PageMoment& moment_;
    const Date now_ = moment_.snapshot.date;
    const Window day_{now_ - MetricHistory::kHoursSpanSeconds, now_, 288, 9};
    const Window halfHour_{now_ - MetricHistory::kMinutesSpanSeconds, now_, 180, 4, 8};
    const Window card_{day_.from, day_.to, 96, 4};
};

}  // namespace

std::vector<CommonSensorReading> commonSensors(const Snapshot& snapshot) {
    std::vector<HardwareSensorReading> readings =
        snapshot.additionalSensors.value_or(std::vector<HardwareSensorReading>());
    for (const SensorReading& it : snapshot.sensors) {
        readings.push_back({it.key, it.label, HardwareSensorKind::temperature, it.celsius});
    }
    return SensorCatalog::common(readings, currentNamingPlatform());
}

std::string pageOf(const MonitorHistories& histories, const PageMoment& moment) {
    const Page page(histories, moment);
    Html html(
        "<!DOCTYPE html>\n<html lang=\"zh-Hans\"><head><meta charset=\"utf-8\"/>"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
        "'unsafe-inline'; base-uri 'none'; form-action 'none'; script-src '",
        kPageScriptHash,
        "'\"/><meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/><title>",
        textOf(moment.report.state), "</title><style>", kPageStyle, "</style></head><body><main>",
        page.head());
    const std::initializer_list<std::pair<std::string_view, Html>> sections{
        {"诊断", page.findings()},       {"风扇与传感器健康", page.health()},
        {"趋势", page.trends()},         {"处理器负载", page.load()},
        {"应用", page.applications()},   {"睿频", page.turbo()},
        {"优化评估", page.assessment()}, {"曲线试算", page.curves()},
        {"传感器", page.sensors()},      {"记录", page.events()}};
    for (const auto& [title, content] : sections) {
        html.add("<section><h2>", title, "</h2>", content, "</section>");
    }
    return html
        .add("</main><div id=\"tip\"></div><script>", kPageScript, "</script></body></html>\n")
        .text();
}
