#include "core/analysis/metric_chart.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <utility>

#include "core/analysis/observation_clock.h"

namespace ferovane::MetricChart {
namespace {

constexpr double kMiddle = 0.5;

constexpr std::array kValueSteps{1, 2, 5};           // times a power of ten
constexpr double kExactIntegers = 9007199254740992;  // a double tells all below apart
constexpr double kRoundingSlack = 1e-9;              // of a step

// Seconds.
constexpr int kMinute = 60, kQuarter = 15 * kMinute, kHour = 60 * kMinute, kDay = 24 * kHour;
constexpr std::array kTimeSteps{kMinute,   2 * kMinute,  5 * kMinute, 10 * kMinute,
                                kQuarter,  30 * kMinute, kHour,       2 * kHour,
                                3 * kHour, 6 * kHour,    12 * kHour,  kDay};

bool hasExtent(Date from, Date to) {
    return to > from && std::isfinite(to - from);
}

// A bucket that reaches over a side belongs to the frame: its peak may lie within.
bool reachesInto(const MetricBucket& bucket, Date from, Date to) {
    return bucket.last >= from && bucket.first <= to;
}

double xOf(Date date, Date from, Date to) {
    return std::clamp((date - from) / (to - from), 0.0, 1.0);
}

double yOf(double value, const ChartFrame& frame) {
    if (!(frame.high > frame.low) || !std::isfinite(frame.high / 2 - frame.low / 2)) {
        return kMiddle;
    }
    // Halved, since the distance of two finite values may not be finite.
    const double y = (value / 2 - frame.low / 2) / (frame.high / 2 - frame.low / 2);
    return std::clamp(y, 0.0, 1.0);
}

int columnOf(const MetricBucket& bucket, const ChartFrame& frame) {
    const double x = xOf(bucket.middle(), frame.from, frame.to);
    return std::min(static_cast<int>(x * frame.columns), frame.columns - 1);
}

// Seconds from a moment to the nearest one of a bucket; not above zero within.
double distance(Date date, const MetricBucket& bucket) {
    return std::max(bucket.first - date, date - bucket.last);
}

// An integer times a power of ten.
std::string decimalText(std::int64_t number, int exponent) {
    std::string digits = std::to_string(std::abs(number));
    const auto places = static_cast<std::size_t>(std::abs(exponent));
    if (exponent < 0) {
        digits.insert(0, places + 1 - std::min(digits.size(), places + 1), '0');
        digits.insert(digits.size() - places, ".");
    } else if (number != 0) {
        digits.append(places, '0');
    }
    return number < 0 ? "-" + digits : digits;
}

std::string clockText(double localSeconds) {
    const double ofDay = localSeconds - std::floor(localSeconds / kDay) * kDay;
    const int minutes = static_cast<int>(ofDay) / kMinute;
    const auto twoDigits = [](int number) {
        return std::string(number < 10 ? "0" : "") + std::to_string(number);
    };
    return twoDigits(minutes / 60) + ":" + twoDigits(minutes % 60);
}

// Absent when there are more.
std::optional<std::vector<ChartTick>> ticksEvery(int step, std::size_t most,
                                                 const ChartFrame& frame, const UtcOffset& offset) {
    std::vector<ChartTick> ticks;
    const int apart = std::gcd(step, kQuarter);  // of the moments that may be marked
    Date at{std::ceil(frame.from.secondsSinceReference / apart) * apart};
    for (; at <= frame.to; at = at + apart) {
        const double local = (at + offset(at)).secondsSinceReference;
        if (std::fmod(local, step) != 0) {
            continue;
        }
        if (ticks.size() == most) {
            return std::nullopt;
        }
        ticks.push_back({xOf(at, frame.from, frame.to), clockText(local)});
    }
    return ticks;
}

}  // namespace

std::vector<ChartStretch> stretches(std::span<const MetricBucket> buckets,
                                    const ChartFrame& frame) {
    std::vector<ChartStretch> stretches;
    if (!hasExtent(frame.from, frame.to) || frame.columns < 1) {
        return stretches;
    }
    int column = 0;      // of the last bucket that was drawn
    bool broken = true;  // since then
    for (const MetricBucket& bucket : buckets) {
        broken = broken || bucket.afterGap;
        if (!reachesInto(bucket, frame.from, frame.to)) {
            continue;
        }
        const int here = columnOf(bucket, frame);
        if (broken) {
            stretches.emplace_back();
        }
        if (broken || here != column) {
            stretches.back().push_back({bucket});
        } else {
            stretches.back().back().bucket.add(bucket);
        }
        column = here;
        broken = false;
    }
    for (ChartStretch& stretch : stretches) {
        for (auto& [bucket, x, low, mean, high] : stretch) {
            x = xOf(bucket.middle(), frame.from, frame.to);
            low = yOf(bucket.minimum, frame);
            mean = yOf(bucket.mean, frame);
            high = yOf(bucket.maximum, frame);
        }
    }
    return stretches;
}

std::optional<MetricBucket> bucketAt(std::span<const ChartStretch> stretches,
                                     const ChartFrame& frame, double x) {
    if (!(x >= 0 && x <= 1)) {
        return std::nullopt;
    }
    const Date date = frame.from + x * (frame.to - frame.from);
    double reach = (frame.to - frame.from) / frame.columns / 2;
    const MetricBucket* nearest = nullptr;
    for (const ChartStretch& stretch : stretches) {
        if (date >= stretch.front().bucket.first && date <= stretch.back().bucket.last) {
            reach = frame.to - frame.from;
        }
        for (const ChartColumn& column : stretch) {
            if (!nearest || distance(date, column.bucket) < distance(date, *nearest)) {
                nearest = &column.bucket;
            }
        }
    }
    return nearest && distance(date, *nearest) <= reach ? std::optional(*nearest) : std::nullopt;
}

std::optional<ChartRange> range(std::span<const MetricBucket> buckets, Date from, Date to) {
    std::optional<ChartRange> range;
    for (const MetricBucket& bucket : buckets) {
        if (reachesInto(bucket, from, to)) {
            range = range ? ChartRange{std::min(range->low, bucket.minimum),
                                       std::max(range->high, bucket.maximum)}
                          : ChartRange{bucket.minimum, bucket.maximum};
        }
    }
    return range;
}

std::vector<ChartBar> loadBars(const std::deque<CpuLoadStretch>& stretches, Date from, Date to) {
    std::vector<ChartBar> bars;
    if (!hasExtent(from, to)) {
        return bars;
    }
    for (const CpuLoadStretch& stretch : stretches) {
        ChartBar bar{xOf(stretch.from, from, to),
                     xOf(stretch.from + CpuLoadHistory::kStretchSeconds, from, to),
                     {}};
        double seconds = 0;
        for (std::size_t band = 0; band < kCpuLoadBands; ++band) {
            seconds += stretch.seconds[band];
            bar.tops[band] = std::min(seconds / CpuLoadHistory::kStretchSeconds, 1.0);
        }
        if (bar.left < bar.right) {
            bars.push_back(bar);
        }
    }
    return bars;
}

std::vector<ChartTick> valueTicks(const ChartFrame& frame, int most) {
    const double height = (frame.high - frame.low) / most;  // of one tick
    if (most < 1 || !(height > 0) || !std::isfinite(height)) {
        return {};
    }
    for (int exponent = static_cast<int>(std::floor(std::log10(height)));; ++exponent) {
        const double power = std::pow(10, std::abs(exponent));
        for (const int step : kValueSteps) {
            // Multiplied for steps below one, since a power of ten is exact and its inverse is not.
            const auto inSteps = [&](double value) {
                return (exponent < 0 ? value * power : value / power) / step;
            };
            const double first = std::ceil(inSteps(frame.low) - kRoundingSlack);
            const double last = std::floor(inSteps(frame.high) + kRoundingSlack);
            if (!(std::max(std::abs(first), std::abs(last)) * step < kExactIntegers)) {
                return {};  // so far from zero that the step is lost in rounding
            }
            if (last - first >= most) {
                continue;
            }
            std::vector<ChartTick> ticks;
            for (double count = first; count <= last; ++count) {
                const double number = count * step;
                const double value = exponent < 0 ? number / power : number * power;
                ticks.push_back(
                    {yOf(value, frame), decimalText(static_cast<std::int64_t>(number), exponent)});
            }
            return ticks;
        }
    }
}

std::vector<ChartTick> timeTicks(const ChartFrame& frame, int most, const UtcOffset& offset) {
    const double days = (frame.to - frame.from) / kDay;
    if (most < 1 || !isMoment(frame.from) || !(days > 0 && days <= most + 1.0)) {
        return {};
    }
    for (const int step : kTimeSteps) {
        if (auto ticks = ticksEvery(step, static_cast<std::size_t>(most), frame, offset)) {
            return std::move(*ticks);
        }
    }
    return {};
}

}  // namespace ferovane::MetricChart
