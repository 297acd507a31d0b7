#include "core/analysis/saved_day.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <deque>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <string_view>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/model/json_codec.h"
#include "core/model/raw_enum.h"
#include "core/model/scope_error.h"

namespace ferovane::DayFile {
namespace {

constexpr std::string_view kForeign = "不是监测历史文件";
constexpr std::string_view kOtherVersion = "监测历史文件由另一个版本的程序保存";
constexpr std::string_view kDamaged = "监测历史文件已损坏";
constexpr std::string_view kUnreadable = "无法读取监测历史文件";
constexpr std::string_view kUnwritable = "无法保存监测历史文件（错误 ";
constexpr std::string_view kBusy = "另一个程序正在保存监测历史";
constexpr std::string_view kKept = "；没有覆盖";

void require(bool holds, std::string_view otherwise = kDamaged) {
    if (!holds) {
        throw ScopeError(std::string(otherwise));
    }
}

constexpr double kThousandths = 1e3, kMostThousandths = 9e15;
// As fine as a double since the year 2009, so that dates stay what they were to each other.
constexpr double kMoments = 1 << 24, kMostMoments = 9e17;
constexpr std::size_t kMostNumbers = 4'000'000;  // some ten times what a day has
constexpr int kVarintBits = 7, kMostVarintBits = 63;
constexpr std::uint64_t kVarintMore = 1 << kVarintBits;

template <class Value>
double numberOf(const Value& value) {
    if constexpr (std::is_same_v<Value, Date>) {
        return value.secondsSinceReference;
    } else if constexpr (std::is_same_v<Value, std::optional<double>>) {
        return value.value_or(std::numeric_limits<double>::quiet_NaN());
    } else {
        return static_cast<double>(value);
    }
}

template <class Value>
void take(double number, Value& value) {
    if constexpr (std::is_same_v<Value, std::optional<double>>) {
        value = std::isnan(number) ? std::nullopt : std::optional(number);
        return;
    }
    require(std::isfinite(number));
    if constexpr (std::is_same_v<Value, Date>) {
        value = Date{number};
    } else if constexpr (std::is_same_v<Value, double>) {
        value = number;
    } else {
        require(number >= 0 && number <= std::numeric_limits<std::uint32_t>::max());
        value = static_cast<Value>(static_cast<std::uint32_t>(number));
        require(numberOf(value) == number);
    }
}

// The numbers of a day, written or read in one walk: each column as the differences from number to
// number. One that is the same as the last in its slot takes a byte, since series tell of the same
// moments.
class Numbers {
public:
    Numbers() = default;
    explicit Numbers(std::string_view bytes) : rest_(bytes), reading_(true) {}

    // Each member of the records is a column.
    template <class Records>
    void list(Records& records, int slot) {
        using Record = typename Records::value_type;
        const auto member = [&](auto get) {
            using Value = std::remove_cvref_t<decltype(get(records.front()))>;
            std::vector<double> numbers;
            for (Record& record : records) {
                numbers.push_back(numberOf(get(record)));
            }
            column(numbers, std::is_same_v<Value, Date>, slot++);
            records.resize(reading_ && records.empty() ? numbers.size() : records.size());
            require(numbers.size() == records.size());
            for (std::size_t i = 0; reading_ && i < numbers.size(); ++i) {
                take(numbers[i], get(records[i]));
            }
        };
        const auto field = [&](const auto& named) {
            using Member = std::remove_cvref_t<decltype(records.front().*named.member)>;
            if constexpr (requires { std::tuple_size<Member>::value; }) {
                for (std::size_t i = 0; i < std::tuple_size_v<Member>; ++i) {
                    member([&](Record & record) -> auto& { return (record.*named.member)[i]; });
                }
            } else {
                member([&](Record & record) -> auto& { return record.*named.member; });
            }
        };
        std::apply([&](const auto&... named) { (field(named), ...); }, Record::jsonFields());
    }

    void table(FigureTable& table, int slot) {
        std::vector<double> numbers;
        for (const Date date : table.dates) {
            numbers.push_back(numberOf(date));
        }
        column(numbers, true, slot);
        table.dates.resize(numbers.size());
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            take(numbers[i], table.dates[i]);
        }
        for (auto& [id, held] : table.columns) {
            numbers.assign(held.values.begin(), held.values.end());
            column(numbers, false, slot + 1);
            held.values.assign(numbers.begin(), numbers.end());
        }
    }

    const std::string& written() const { return bytes_; }
    void requireEnd() const { require(rest_.empty()); }

private:
    void column(std::vector<double>& numbers, bool dates, int slot) {
        std::vector<double>& last = last_[slot];
        std::uint64_t code = numbers == last && !last.empty() ? 0 : numbers.size() + 1;
        pass(code);
        if (reading_) {
            const std::uint64_t count = code == 0 ? last.size() : code - 1;
            require(count <= left_ && (code == 0 || count <= rest_.size()));
            left_ -= count;
            numbers = last;
            numbers.resize(count);
        }
        std::int64_t expected = 0, before = 0;
        for (auto number = numbers.begin(); code != 0 && number != numbers.end(); ++number) {
            const std::int64_t now = dates
                                         ? step(*number, kMoments, kMostMoments, expected)
                                         : step(*number, kThousandths, kMostThousandths, expected);
            expected = dates ? 2 * now - before : now;  // dates come at an even pace
            before = now;
        }
        last = numbers;
    }

    // How far it lies from what is expected: small differences of either sign are small, 0 is no
    // number. Returns it as it will be read, and for no number what is expected.
    std::int64_t step(double& number, double scale, double most, std::int64_t expected) {
        std::uint64_t code = 0;
        std::int64_t change = 0;
        if (!reading_ && !std::isnan(number)) {
            change = std::llround(std::clamp(number * scale, -most, most)) - expected;
            code = 1 + (static_cast<std::uint64_t>(change) << 1 ^
                        static_cast<std::uint64_t>(change >> 63));
        }
        pass(code);
        if (reading_ && code == 0) {
            number = std::numeric_limits<double>::quiet_NaN();
        } else if (reading_) {
            const auto half = static_cast<std::int64_t>((code - 1) >> 1);
            change = (code - 1) % 2 == 0 ? half : -half - 1;
            number = static_cast<double>(expected + change) / scale;
            require(std::abs(number * scale) <= most);
        }
        return expected + change;
    }

    // Seven bits a byte.
    void pass(std::uint64_t& number) {
        if (!reading_) {
            for (; number >= kVarintMore; number >>= kVarintBits) {
                bytes_ += static_cast<char>(number | kVarintMore);
            }
            bytes_ += static_cast<char>(number);
            return;
        }
        number = 0;
        std::uint8_t byte = kVarintMore;
        for (int shift = 0; byte >= kVarintMore; shift += kVarintBits) {
            require(!rest_.empty() && shift < kMostVarintBits);
            byte = static_cast<std::uint8_t>(rest_.front());
            rest_.remove_prefix(1);
            number |= (byte & (kVarintMore - 1)) << shift;
        }
    }

    std::string bytes_;
    std::string_view rest_;
    bool reading_ = false;
    std::size_t left_ = kMostNumbers;
    std::map<int, std::vector<double>> last_;
};

// Everything of a day that its JSON leaves out.
void walk(SavedDay& day, Numbers& numbers) {
    constexpr int kSlots = 10;  // for one list at most
    for (auto& [id, metric] : day.metrics) {
        numbers.list(metric.minutes, 0);
        numbers.list(metric.hours, kSlots);
    }
    numbers.list(day.load.spans, 2 * kSlots);
    numbers.list(day.load.day, 3 * kSlots);
    std::deque<OptimizationSample> changed;
    if (day.assessment.changed) {
        changed.push_back({*day.assessment.changed, {}, {}, {}, {}});
    }
    numbers.list(changed, 8 * kSlots);
    if (!changed.empty()) {
        day.assessment.changed = changed.front().date;
    }
    numbers.list(day.assessment.before, 4 * kSlots);
    numbers.list(day.assessment.after, 5 * kSlots);
    numbers.table(day.recorder.figures, 6 * kSlots);
    numbers.table(day.recorder.heat, 7 * kSlots);
    numbers.requireEnd();
}

static_assert(std::endian::native == std::endian::little);  // as are all Macs of this century

constexpr std::string_view kMark = "FVDAY\r\n\x1A";

struct Header {
    std::array<char, kMark.size()> mark{};
    std::uint64_t version = kVersion;
    std::uint64_t jsonBytes = 0;  // behind the header; then come the numbers
    std::uint64_t checksum = 0;   // of all else
};
using HeaderBytes = std::array<char, sizeof(Header)>;

// FNV-1a, which tells any single byte that was damaged.
std::uint64_t checksumOf(Header header, std::string_view content) {
    header.checksum = 0;
    const auto front = std::bit_cast<HeaderBytes>(header);
    std::uint64_t hash = 0xCBF29CE484222325;
    for (const std::string_view part : {std::string_view(front.data(), front.size()), content}) {
        for (const char byte : part) {
            hash = (hash ^ static_cast<std::uint8_t>(byte)) * 0x100000001B3;
        }
    }
    return hash;
}

std::string encode(SavedDay day) {
    const std::string json = encodeJson(day);
    Numbers numbers;
    walk(day, numbers);
    const std::string content = json + numbers.written();
    Header header;
    std::ranges::copy(kMark, header.mark.begin());
    header.jsonBytes = json.size();
    header.checksum = checksumOf(header, content);
    const auto front = std::bit_cast<HeaderBytes>(header);
    return std::string(front.begin(), front.end()) + content;
}

struct Content {
    std::string_view json, numbers;
};

// As it was written, by this version.
Content contentOf(std::string_view bytes) {
    HeaderBytes front{};
    std::ranges::copy(bytes.substr(0, front.size()), front.begin());
    const auto header = std::bit_cast<Header>(front);
    require(kMark.starts_with(bytes.substr(0, kMark.size())), kForeign);
    require(bytes.size() >= front.size());
    require(header.version == kVersion, kOtherVersion);
    bytes.remove_prefix(front.size());
    require(header.checksum == checksumOf(header, bytes) && header.jsonBytes <= bytes.size());
    return {bytes.substr(0, header.jsonBytes), bytes.substr(header.jsonBytes)};
}

SavedDay decode(const Content& content) {
    SavedDay day;
    try {
        day = decodeJson<SavedDay>(content.json);
    } catch (const ScopeError&) {
        require(false);
    }
    Numbers numbers(content.numbers);
    walk(day, numbers);
    return day;
}

// Absent without a file. Looks at plain files only, so that it never waits.
std::optional<std::string> read(const std::string& file) {
    std::error_code unreadable;
    const auto status = std::filesystem::symlink_status(file, unreadable);
    if (status.type() == std::filesystem::file_type::not_found) {
        return std::nullopt;
    }
    require(status.type() != std::filesystem::file_type::none, kUnreadable);
    require(status.type() == std::filesystem::file_type::regular, kForeign);
    const auto size = std::filesystem::file_size(file, unreadable);
    require(!unreadable, kUnreadable);
    require(size <= kMostBytes, kForeign);
    std::string bytes(size, '\0');
    require(std::ifstream(file, std::ios::binary)
                .read(bytes.data(), static_cast<std::streamsize>(size))
                .good(),
            kUnreadable);
    return bytes;
}

// Closes itself.
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0) {
            ::close(number_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    operator int() const { return number_; }

private:
    int number_;
};

// What stands there was left by a program that was ended, or planted: it goes, and is not followed.
bool create(const std::string& file, std::string_view bytes) {
    ::unlink(file.c_str());
    const Descriptor out(::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                S_IRUSR | S_IWUSR));
    while (out >= 0 && !bytes.empty()) {
        const ssize_t count = ::write(out, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return out >= 0 && ::fsync(out) == 0;
}

}  // namespace

void save(const std::string& file, const MonitorHistories& histories, Unreadable unreadable) {
    // The lock ends with its holder, however that ends; a folder that knows none does without.
    const std::string folder = std::filesystem::path(file).parent_path().string();
    const Descriptor lock(
        ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    require(::flock(lock, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK, kBusy);
    try {
        MonitorHistories whole;
        if (unreadable == Unreadable::keep) {
            load(file, whole);
        }
    } catch (const ScopeError& error) {
        throw ScopeError(error.message() + std::string(kKept));
    }
    const std::string fresh = file + ".new";
    if (!create(fresh, encode(histories.state())) || ::rename(fresh.c_str(), file.c_str()) != 0) {
        const int cause = errno;
        ::unlink(fresh.c_str());
        throw ScopeError(std::string(kUnwritable) + std::to_string(cause) + "）");
    }
    ::fsync(lock);  // of the new name; where that is not possible, the old day may come back
}

bool load(const std::string& file, MonitorHistories& histories) {
    const auto bytes = read(file);
    require(!bytes || histories.restore(decode(contentOf(*bytes))));
    return bytes.has_value();
}

}  // namespace ferovane::DayFile
