#include "simulator/machine/journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace simulator {
namespace {

constexpr off_t kTailBytes = 1024;  // more than the longest line

ssize_t writeUninterrupted(int descriptor, std::string_view text) {
    ssize_t written = 0;
    do {
        written = ::write(descriptor, text.data(), text.size());
    } while (written < 0 && errno == EINTR);
    return written;
}

off_t fileSize(int descriptor) {
    struct stat status = {};
    return ::fstat(descriptor, &status) == 0 ? status.st_size : 0;
}

void shorten(int descriptor, off_t size) {
    while (::ftruncate(descriptor, std::max<off_t>(size, 0)) != 0 && errno == EINTR) {
    }
}

}  // namespace

bool MemoryJournal::append(std::string_view line) {
    lines_.emplace_back(line);
    return true;
}

FileJournal::FileJournal(std::string path) : path_(std::move(path)) {
    descriptor_ = ::open(path_.c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
    if (descriptor_ < 0) {
        throw std::runtime_error("cannot open the journal " + path_ + ": " +
                                 std::generic_category().message(errno));
    }
}

FileJournal::~FileJournal() {
    ::close(descriptor_);
}

bool FileJournal::append(std::string_view line) {
    std::string text(line);
    text += '\n';
    const ssize_t written = writeUninterrupted(descriptor_, text);
    if (written == static_cast<ssize_t>(text.size())) {
        return true;
    }
    if (written > 0) {
        // The disk took a part of the line: a journal with half a line in it would lie.
        shorten(descriptor_, fileSize(descriptor_) - written);
    }
    return false;
}

std::vector<std::string> FileJournal::lines() {
    std::ifstream file(path_);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string FileJournal::tail() {
    const off_t size = fileSize(descriptor_);
    const off_t start = std::max<off_t>(size - kTailBytes, 0);
    std::string text(static_cast<std::size_t>(size - start), '\0');
    const ssize_t got = ::pread(descriptor_, text.data(), text.size(), start);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

std::string FileJournal::lastLine() {
    std::string text = tail();
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    const std::size_t feed = text.rfind('\n');
    return feed == std::string::npos ? text : text.substr(feed + 1);
}

void FileJournal::dropHalfLine() {
    const std::string text = tail();
    const std::size_t feed = text.rfind('\n');
    const std::size_t half = text.size() - (feed == std::string::npos ? 0 : feed + 1);
    if (half != 0) {
        shorten(descriptor_, fileSize(descriptor_) - static_cast<off_t>(half));
    }
}

void FileJournal::clear() {
    shorten(descriptor_, 0);
}

}  // namespace simulator
